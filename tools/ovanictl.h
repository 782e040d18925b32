// ovanictl's commands. Each function adds its command to the program; a command that fails says why on
// standard error and leaves with fail().
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

struct CtlOptions {
    std::string socket; // the bus's; empty for the usual place

    const char *socket_or_null() const { return socket.empty() ? nullptr : socket.c_str(); }
};

inline constexpr int NO_ANSWER = 3; // exit status

// Ends the command: "ovanictl: ..." on standard error, exit status 1.
[[noreturn]] void fail(const std::string &reason);

// A PathCompleter by the data model; instances are those that exist.
std::vector<std::string> complete_store_path(std::string_view typed);

void add_doctor_command(CLI::App &app, const CtlOptions &options);
void add_host_commands(CLI::App &app, const CtlOptions &options);
void add_hosts_command(CLI::App &app);
void add_top_command(CLI::App &app, const CtlOptions &options);
void add_store_commands(CLI::App &app, const CtlOptions &options);
void add_port_commands(CLI::App &app);
void add_history_commands(CLI::App &app);
void add_events_command(CLI::App &app, const CtlOptions &options);
void add_emit_command(CLI::App &app, const CtlOptions &options);
void add_metrics_command(CLI::App &app, const CtlOptions &options);
void add_report_command(CLI::App &app, const CtlOptions &options);
void add_probe_command(CLI::App &app);
void add_sysmgr_command(CLI::App &app, const CtlOptions &options);
void add_record_command(CLI::App &app, const CtlOptions &options);
void add_replay_command(CLI::App &app);
