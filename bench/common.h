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

inline ovani_mac_event learned_event(BenchHost host)
{
    ovani_mac_event event{.event_id = 1, .action = 1};
    snprintf(event.eth_num, sizeof event.eth_num, "eth%u", host.number % 4);
    copy_text(event.brname, OVANI_BR_NAME);
    event.mac[0] = 0x02;
    event.mac[5] = static_cast<uint8_t>(host.number);
    return event;
}

// In host byte order, as the handlers want it.
inline ovani_arp_event neighbour_event(BenchHost host)
{
    ovani_arp_event event{.event_id = 1, .action = 1, .ipv4 = 0xc0a80101 + (host.variant << 8) + host.number};
    copy_text(event.brname, OVANI_BR_NAME);
    event.mac[0] = 0x02;
    event.mac[5] = static_cast<uint8_t>(host.number);
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
             "lan#ADD#192.168.1.%u#DHCP#2024-01-01 00:00:00#%u#DESKTOP-%03u#Computer#MSFT 5.0#0200000000%02X",
             host.number + 1, lease_seconds(host.variant), host.number, host.number);
    return text;
}
