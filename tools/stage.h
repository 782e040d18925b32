// A gateway of nothing but a broker, a store and the daemon, where a recording is played again.
//
// It lies in network and mount namespaces of this process's own, with a root that shows the workstation's but
// for what a gateway's programs write at fixed places; all of it goes with the process and those it started.
// What the daemon asks the kernel and command-line tools is answered from a recording's "surroundings".
// Everything here throws std::runtime_error when it cannot be done.
#pragma once

#include <map>
#include <string>

#include <sys/types.h>

#include "tools/recording.h"

class Stage {
public:
    // Takes this process there, for good. What broker and daemon say on standard error goes to `log`; below
    // 0: nowhere.
    explicit Stage(int log);
    ~Stage();
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;

    // Those that are not named stay as they are.
    void set_surroundings(const Parsed &surroundings);

    void import_store(const StoreText &store) const;
    StoreText export_store() const;

    void start_broker();
    void start_daemon();
    bool daemon_runs();
    // By SIGTERM; its exit status, or 128 and the number of the signal that ended it.
    int stop_daemon();

private:
    void set_links(const Parsed &links);
    pid_t start(const char *program) const;

    int log_;
    pid_t broker_ = 0;
    pid_t daemon_ = 0;
    int daemon_status_ = 0;
    std::map<std::string, std::string> peers_; // by interface, the far end of its cable
};
