// What the fuzz targets share. Each is one source with LLVMFuzzerTestOneInput, and leaves nothing behind that
// would make the next input fare differently.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

// What the code under test promises; the fuzzer keeps the input that breaks it.
#define PROMISE(condition) ((condition) ? static_cast<void>(0) : broken_promise(#condition))

[[noreturn]] inline void broken_promise(const char *condition)
{
    fprintf(stderr, "not so: %s\n", condition);
    abort();
}

using Bytes = std::span<const uint8_t>;

// Takes an input apart from the front. What is not there reads as 0, or as fewer bytes.
struct Input {
    Bytes rest;

    Bytes take(size_t size)
    {
        Bytes taken = rest.first(std::min(size, rest.size()));
        rest = rest.subspan(taken.size());
        return taken;
    }
    uint8_t byte() { return rest.empty() ? 0 : take(1)[0]; }
    Bytes block() { return take(byte()); } // behind a byte that tells its length
};

// Copies in memory of exactly their size: the address sanitizer sees the first byte read beyond it.
inline std::vector<char> copy_of(Bytes bytes)
{
    return {bytes.begin(), bytes.end()};
}

inline std::vector<char> text_of(Bytes bytes)
{
    std::vector<char> text(bytes.size() + 1);
    std::ranges::copy(bytes, text.begin());
    return text;
}

// --- The daemon in memory, for the targets that link it (daemon.cpp). It starts no command: what it would
// run must be one that it has, with nothing put in but an address.

// The daemon as after a restart, over a new platform with one WAN connection of VLAN 100, four ports and room
// for eight host objects. `profile` is an operator's code (or 3, that of none), plus 4 for a mesh with one
// repeater.
void start_daemon(uint8_t profile);

// What every command prints from now on, and what stands in the files the daemon reads: the kernel's ARP
// cache, the list of limited devices.
void set_command_output(Bytes output);

// Ends the process when the daemon's tables contradict themselves.
void check_daemon();
