#include "ovani/ovani_shell.h"

#include <cstring>

#include "ovani/ovani_command.h"
#include "ovani/ovani_commdef.h"
#include "tests/unit/daemon_test.h"

namespace {

constexpr char MAC[] = "00:11:22:AA:BB:CC";
constexpr char LISTING[] = "echo 'port no\tmac addr\t\tis local?\tageing timer\tinterface'\n"
                           "echo '  2\t00:11:22:aa:bb:cc\tno\t\t   3.14\teth1'\n"
                           "echo '  1\t02:00:00:00:00:01\tyes\t\t   0.00\teth0'";

} // namespace

TEST(Shell, FirstWordIsCutAtTheBuffer)
{
    char word[8] = "before";
    get_cmd_res("true", word, sizeof word);
    EXPECT_STREQ(word, "before"); // no word, no change
    get_cmd_res("printf '  \\n\\t one two'", word, sizeof word);
    EXPECT_STREQ(word, "one");
    get_cmd_res("head -c 100000 /dev/zero | tr '\\0' x", word, sizeof word);
    EXPECT_STREQ(word, "xxxxxxx");
    get_cmd_res("no-such-command-here 2>/dev/null", word, sizeof word);
    EXPECT_STREQ(word, "xxxxxxx");
    get_cmd_res("echo discarded", nullptr);
}

TEST(Shell, WhatDoesNotEndIsEnded)
{
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
    GTEST_SKIP() << "the thread sanitizer holds signals back while a command's output is waited for";
#endif
#endif
    auto ask_in_vain = [] {
        bound_commands();
        char word[8] = "before";
        get_cmd_res("while :; do sleep 1000; done; echo late", word, sizeof word);
        run_command("yes | cat >/dev/null");
        _exit(strcmp(word, "before") == 0 && fake::logged("a command took longer than 3 s", 3) ? 0 : 1);
    };
    EXPECT_EXIT(ask_in_vain(), testing::ExitedWithCode(0), "");
}

TEST(Shell, BridgeRowOfAMac)
{
    CommandPath path;
    path.answer("brctl", LISTING);
    BRCTL_MACS_INFO info{};
    EXPECT_EQ(get_brctl_info_from_mac(MAC, &info), 1); // in any case
    EXPECT_STREQ(info.islocal, "no");
    EXPECT_STREQ(info.agetime, "3.14");
    EXPECT_STREQ(info.intf, "eth1");

    info = {};
    EXPECT_EQ(get_brctl_info_from_mac("00:11:22:AA:BB:CD", &info), -1);
    {
        BridgeListing once;
        path.answer("brctl", "echo '  2\t00:11:22:aa:bb:cd\tno\t\t   3.14\teth2'");
        EXPECT_EQ(get_brctl_info_from_mac("00:11:22:AA:BB:CD", &info), -1);
        EXPECT_EQ(get_brctl_info_from_mac(MAC, &info), 1);
        EXPECT_STREQ(info.intf, "eth1");
    }
    info = {};
    path.answer("brctl", "head -c 100000 /dev/zero | tr '\\0' x; echo ' 00:11:22:AA:BB:CC b c'");
    EXPECT_EQ(get_brctl_info_from_mac(MAC, &info), 1); // garbage, but bounded
    EXPECT_EQ(strnlen(info.islocal, sizeof info.islocal), sizeof info.islocal - 1);
}

TEST(Shell, OnlyAddressesReachAShell)
{
    CommandPath path;
    std::string mark = "echo ran >>" + path.trace_file();
    for (const char *command : {"brctl", "ip"}) {
        path.answer(command, mark);
    }
    std::string hostile[] = {"",     "$(touch x)",  "00:11;reboot",      "a b",
                             "`id`", "fe80::1%br0", std::string(46, 'a')};
    for (const std::string &text : hostile) {
        BRCTL_MACS_INFO info{};
        char answer[32] = {};
        EXPECT_EQ(get_brctl_info_from_mac(text.c_str(), &info), -1);
        EXPECT_EQ(ovani_get_mac_by_ipv6(text.c_str(), answer), -1);
        EXPECT_EQ(del_item_from_arp(text.c_str()), R_ERROR);
        EXPECT_EQ(ovani_meshhost_connect_type_get(text.c_str(), answer, 0), 0);
        EXPECT_STREQ(answer, "wired"); // not found behind a Wi-Fi interface
    }
    EXPECT_EQ(path.trace(), "");
}

TEST(Shell, Ipv6NeighbourOfTheLanBridgeOnly)
{
    CommandPath path;
    char answer[18] = {};
    for (std::string other : {"eth5 lladdr 00:11:22:aa:bb:cc REACHABLE", "br0 FAILED"}) {
        path.answer("ip", "echo 'fe80::1 dev " + other + "'");
        EXPECT_EQ(ovani_get_mac_by_ipv6("fe80::1", answer, sizeof answer), -1);
    }
    path.answer("ip", "echo 'fe80::1 dev br0 lladdr 00:11:22:aa:bb:cc router STALE'");
    EXPECT_EQ(ovani_get_mac_by_ipv6("fe80::1", answer, sizeof answer), 0);
    EXPECT_STREQ(answer, "00:11:22:aa:bb:cc");
}

TEST(Shell, ConnectionTypeOfMeshHosts)
{
    fake::reset();
    CommandPath path;
    path.answer("brctl", "echo '  1\t00:11:22:aa:bb:cc\tno\t\t   3.14\trai0'");
    path.answer("meshinfo", "echo $* >>" + path.trace_file());
    char type[16] = {};
    EXPECT_EQ(ovani_meshhost_connect_type_get(MAC, type, 0), 0);
    EXPECT_STREQ(type, "wireless");
    EXPECT_EQ(ovani_meshhost_connect_type_get("00:11:22:AA:BB:DD", type, 0), 0);
    EXPECT_STREQ(type, "wired");

    std::string repeater = "InternetGatewayDevice.LANDevice.1.WLANMeshConfiguration.Controller.Repeater.3.";
    EXPECT_EQ(ovani_meshhost_connect_type_get(MAC, type, 1), -1);
    EXPECT_EQ(path.trace(), "");
    fake::platform().values[repeater + "mac_br0"] = "00:11:22:aa:bb:cc";
    fake::platform().values[repeater + "connect_type"] = "a connection type longer than its buffer";
    EXPECT_EQ(ovani_meshhost_connect_type_get(MAC, type, 1), 0);
    EXPECT_STREQ(type, "a connection ty");
    EXPECT_EQ(path.trace(), "repeater_update\n");
    EXPECT_EQ(ovani_meshhost_connect_type_get(nullptr, type, 1), -1);
}
