// The platform contract fulfilled in memory, for unit tests: what the daemon did can be looked at, and any
// call can be made to fail.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/lib_zk_ubus.h"

namespace fake {

struct LogLine {
    std::string module;
    int level;
    std::string text;
};

// A message the daemon sent: an event (its name) or a method call ("object.method"), with the message's
// bytes.
struct Sent {
    std::string name;
    std::vector<char> message;

    // The data of one attribute, empty when it is not there.
    std::string attribute(const char *attribute_name) const;
};

struct Platform {
    // Configuration store: instances by path ("...Host.1."), values by full path.
    std::set<std::string> objects;
    std::unordered_map<std::string, std::string> values;
    int next_instance = 0; // given to the next added object; 0 for the lowest free

    // System manager.
    int carrier = 1;
    std::string areacode = "Beijing";
    std::string brmac = "02:00:00:00:00:01";
    unsigned port_num = 4;

    // Drivers: bandwidth ceilings by MAC, up and down, and the ports with a link.
    std::map<std::string, std::pair<unsigned, unsigned>> ceilings;
    std::set<int> links_up;

    // The bus object the daemon published.
    ubus_object *object = nullptr;

    // What happened.
    std::vector<LogLine> log;
    std::vector<Sent> sent;
    // Every contract call that does something, in order, with all its arguments: "obj_add <path> <mode>
    // <wait>" ...
    std::vector<std::string> calls;
    std::vector<std::string> written; // names of the parameters of the last batch written, in order
    std::vector<std::string> trace;   // log lines, calls and messages in one order; only while it is kept
    bool keep_trace = false;
    // For who wants speed: log lines above this level are not even formatted, and calls are not noted.
    int log_level = 7;
    bool keep_calls = true;

    // Called with each entry of `calls`; a non-zero result is what the call then fails with.
    std::function<int(const std::string &call)> fail;
    unsigned fail_every = 0; // or: every so many calls fail
    unsigned calls_made = 0; // since then
};

// The one platform; `reset` makes it new.
Platform &platform();
void reset();

bool logged(std::string_view text, int level = -1);
int count_calls(std::string_view beginning);
std::string joined(const std::vector<std::string> &texts, const char *between = " ");

} // namespace fake
