// Whether the gateway is sound: bus, daemon, those who tell it of devices, store, and what these should agree
// on. Looks only, and changes nothing.
#pragma once

#include <string>
#include <vector>

enum class Severity { SOUND, WARNING, FAULT };

struct Finding {
    Severity severity = Severity::SOUND;
    const char *subject; // "bus", "daemon", "object", "watcher", "leases", "store", "hosts", "bindings"
    std::string text;
};

// Whether a daemon runs in this network namespace, on the bus or not.
bool daemon_runs();

// Whether the bus is there, and on it the daemon (its process, its object) and the watcher. Whoever does not
// answer costs a second. `socket` is the bus's, null for the usual place.
std::vector<Finding> examine_daemon(const char *socket);

// That, and everything else. What is just changing may look wrong: what is not sound is looked at again a
// second later.
std::vector<Finding> examine(const char *socket);

Severity worst_of(const std::vector<Finding> &findings);
const char *severity_word(Severity severity); // "sound", "warning", "fault"
