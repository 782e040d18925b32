// The daemon over a platform in memory, and no shell: what it would run is looked at, and answered from
// memory.
#pragma once

#include <cstdint>
#include <string>

#include "tests/fake/fake_platform.h"

// The daemon as after a restart of the gateway: its tables and the platform's new, one WAN connection with
// VLAN 100, four ports, room for eight host objects. `profile` is an operator's code (or 3,
// that of none), plus 4 for a mesh with one repeater.
void start_daemon(uint8_t profile);

// Ends the process when the daemon's tables contradict themselves or hold a text without end.
void check_daemon();

// What every command prints from now on, and what stands in the files the daemon reads: the kernel's ARP
// cache, the list of limited devices.
void set_command_output(std::string text);
