// What the benchmarks share: the hosts they are about, and a place for their files.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "ovani/ovani_event.h"

// A directory that ends with this object, in TMPDIR or /var/tmp: on a disk, where a store belongs.
class TempDir {
public:
    TempDir()
    {
        const char *parent = getenv("TMPDIR");
        std::string name = std::string(parent != nullptr ? parent : "/var/tmp") + "/bench.XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            perror(name.c_str());
            exit(1);
        }
        path_ = name;
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string file(const std::string &name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

inline constexpr unsigned MAX_HOSTS = 254;

// Hosts count from 0. What is said of one comes in two variants, 0 and 1, of its address and of its lease
// time: who alternates between them changes something every time.
struct BenchHost {
    unsigned number;
    unsigned variant;
};

inline void set_mac(uint8_t (&mac)[6], BenchHost host)
{
    mac[0] = 0x02;
    mac[3] = 0xbe;
    mac[4] = static_cast<uint8_t>(host.number >> 8);
    mac[5] = static_cast<uint8_t>(host.number);
}

inline ovani_mac_event learned_event(BenchHost host)
{
    ovani_mac_event event{.event_id = 1, .action = 1};
    snprintf(event.eth_num, sizeof event.eth_num, "eth%u", host.number % 4);
    copy_text(event.brname, OVANI_BR_NAME);
    set_mac(event.mac, host);
    return event;
}

// In host byte order, as the handlers want it.
inline ovani_arp_event neighbour_event(BenchHost host)
{
    uint32_t network = host.variant == 0 ? 0xc0a80000 : 0x0a000000; // 192.168.0.0, 10.0.0.0
    ovani_arp_event event{.event_id = 1, .action = 1, .ipv4 = network + host.number + 1};
    copy_text(event.brname, OVANI_BR_NAME);
    set_mac(event.mac, host);
    return event;
}

inline unsigned lease_seconds(unsigned variant)
{
    return 86400 - variant;
}

inline std::string lease_event(BenchHost host)
{
    char text[256];
    snprintf(text, sizeof text,
             "lan#ADD#192.168.0.%u#DHCP#2024-01-01 00:00:00#%u#DESKTOP-%03u#Computer#MSFT 5.0#020000BE%04X",
             host.number + 1, lease_seconds(host.variant), host.number, host.number);
    return text;
}

// --- Reactions

// What the daemon does about an event or a call, for those who are to do the same: a letter a step. The event
// names events and methods, and gives each its steps.
inline constexpr char BENCH_REACTIONS_EVENT[] = "bench_reactions";
inline constexpr char REACTION_CHANGE = 'c';  // sends "lanhost_param_change"
inline constexpr char REACTION_VISIT = 'v';   // sends "lanhost_event"
inline constexpr char REACTION_COMMAND = 'x'; // asks the bridge by a command
// 'u', 'i', 'd': updates, inserts, deletes a row

inline constexpr const char *BENCH_METHODS[] = {"set_lanhost_config", "ovani_devfuc_port_cfg"};
