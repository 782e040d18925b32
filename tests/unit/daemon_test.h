// What the daemon's unit tests share: a fresh daemon over a fresh platform, and builders of events.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ovani/ovani_event.h"
#include "ovani/ovani_host_index.h"
#include "ovani/ovani_host_table.h"
#include "ovani/ovani_mac_table.h"
#include "tests/fake/fake_platform.h"

using Mac = std::array<uint8_t, 6>;

inline constexpr Mac PC{0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
inline constexpr char PC_BARE[] = "001122AABBCC";
inline constexpr uint32_t PC_IP = 0xc0a80164; // 192.168.1.100

// One of many.
inline Mac mac_number(int i)
{
    return {0x02, 0, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
}

ovani_mac_event mac_event(const Mac &mac, const char *interface, uint8_t action, const char *bridge = "br0");
ovani_arp_event arp_event(const Mac &mac, uint32_t ip, uint8_t action);

inline std::string host_path(int instance)
{
    return OVANI_HOST_NODE_PATH + std::to_string(instance) + ".";
}

// Starts the daemon, but for its threads and the bus, over a platform whose ceiling is 254 hosts.
class DaemonTest : public testing::Test {
protected:
    DaemonTest();
    ~DaemonTest() override;

    // The daemon again: its memory gone, the store as it was. The second also forgets what the platform saw
    // of that.
    void start(int carrier);
    void restart(int carrier);

    fake::Platform &platform = fake::platform();

    // The store's and the drivers' calls that begin so fail from now on.
    void fail(const std::string &beginning, int code = 1);
    // The values of parameters of a host, blanks between them as between their names.
    std::string stored(int instance, const std::string &parameters) const;
    // What the bus was told since the last look: "changed <instance>", "<status> <address> <port>" of a
    // visit.
    std::string told();

    void learn(const Mac &mac, const char *interface = "eth1");
    void forget(const Mac &mac);
    int arp(const Mac &mac, uint32_t ip);
    void dhcp(std::string text);
    void wifi(const Mac &mac, uint8_t ssidno, uint8_t action);
    void link(int port, uint8_t status);
    host_node *host(const Mac &mac) { return ovani_host_node_match_by_mac(&g_host_table_ipv4, mac.data()); }
};

// The text of a lease of PC.
std::string lease(const std::string &name = "my-pc", const std::string &ip = "192.168.1.100",
                  const std::string &action = "ADD", const std::string &mac = "00:11:22:aa:bb:cc",
                  const std::string &option60 = "MSFT 5.0", const std::string &type = "Computer");

using Pairs = std::vector<std::pair<std::string, std::string>>;
Pairs pairs(const std::string &text); // "Name=value Other=value"

// Calls a method of the daemon's bus object with a path and pairs; what it returns.
int call_method(const char *method, const char *url, const Pairs &pairs);
int call_method(const char *method, blob_attr *message);

// Runs a test's body in a process whose root directory is its own: what a shell needs, and nothing in /var
// and /qvconf. Only root may.
void in_a_private_root(const std::function<void()> &body);

// A directory at the front of PATH, for commands that the test answers.
class CommandPath {
public:
    CommandPath();
    ~CommandPath();
    CommandPath(const CommandPath &) = delete;
    CommandPath &operator=(const CommandPath &) = delete;

    // `script` is the body of a shell script.
    void answer(const std::string &command, const std::string &script);
    // A file the scripts may leave traces in.
    std::string trace_file() const { return directory_ + "/trace"; }
    std::string trace() const;

private:
    std::string directory_;
    std::string old_path_;
};
