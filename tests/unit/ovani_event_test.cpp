// Events through the handlers, down to the store and the bus.
#include "ovani/ovani_event.h"

#include <cstring>
#include <sstream>

#include "ovani/ovani_announce.h"
#include "ovani/ovani_event_arp.h"
#include "ovani/ovani_event_dhcp.h"
#include "ovani/ovani_event_discovery.h"
#include "ovani/ovani_event_mac.h"
#include "ovani/ovani_event_port.h"
#include "ovani/ovani_event_wifi.h"
#include "ovani/ovani_host_mgr.h"
#include "ovani/ovani_memory.h"
#include "ovani/ovani_operator.h"
#include "ovani/ovani_port_mgr.h"
#include "tests/unit/daemon_test.h"

using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

class EventTest : public DaemonTest {
protected:
    // An event in words; addresses are the last octet of 192.168.1.
    void happens(const std::string &event)
    {
        std::istringstream words(event);
        std::string kind;
        std::string first;
        std::string second;
        words >> kind >> first >> second;
        auto number = [](const std::string &text) { return static_cast<uint8_t>(atoi(text.c_str())); };
        if (kind == "learn") {
            learn(PC, first.c_str());
        } else if (kind == "forget") {
            forget(PC);
        } else if (kind == "arp") {
            arp(PC, (PC_IP & ~0xffU) + number(first));
        } else if (kind == "lease") {
            dhcp(lease(first, "192.168.1." + second));
        } else if (kind == "release") {
            dhcp(lease("", "192.168.1." + first, "DEL"));
        } else if (kind == "down") {
            link(number(first), 0);
        } else if (kind == "join" || kind == "leave") {
            wifi(PC, number(first), kind == "join" ? 1 : 0);
        } else if (kind == "vanish") { // deleted behind the daemon's back
            empty_the_store();
        } else {
            FAIL() << event;
        }
    }
    void empty_the_store()
    {
        platform.objects.clear();
        std::erase_if(platform.values,
                      [](const auto &value) { return value.first.starts_with(OVANI_HOST_NODE_PATH); });
    }
    std::string object() const
    {
        return platform.objects.empty()
                   ? "none"
                   : stored(1, "IPAddress AddressSource DeviceType HostName Port Active");
    }

    // What happens, what the object is then, and what the bus was told. Where an operator that keeps objects
    // differs, it has two more columns.
    struct Step {
        const char *event, *object, *told;
        const char *kept = object, *told_of_kept = told;
    };
    void walk(const std::vector<Step> &steps)
    {
        for (int carrier : {OPTYPE_CT, OPTYPE_CM}) {
            empty_the_store();
            restart(carrier);
            for (size_t i = 0; i < steps.size(); ++i) {
                happens(steps[i].event);
                bool kept = carrier == OPTYPE_CM;
                EXPECT_EQ(object(), kept ? steps[i].kept : steps[i].object) << i << " " << steps[i].event;
                EXPECT_EQ(told(), kept ? steps[i].told_of_kept : steps[i].told) << i << " " << steps[i].event;
            }
        }
    }
};

} // namespace

// --- Visits

TEST_F(EventTest, ACableVisitStepByStep)
{
    walk({
        {"lease my-pc 100", "none", ""}, // leases never create hosts
        {"release 100", "none", ""},
        {"learn eth1", "none", ""}, // no address, no object
        {"lease my-pc 100", "192.168.1.100 DHCP PC my-pc 2 1", "changed 1, Online 192.168.1.100 2"},
        {"arp 100", "192.168.1.100 DHCP  my-pc 2 1", "changed 1"}, // confirmed: still DHCP
        {"arp 101", "192.168.1.101 STATIC PC my-pc 2 1", "changed 1"},
        {"lease renamed 100", "192.168.1.100 DHCP PC renamed 2 1", "changed 1"},
        {"learn eth3", "192.168.1.100 DHCP PC renamed 2 1", ""}, // the object follows later
        {"arp 100", "192.168.1.100 DHCP  renamed 4 1", "changed 1"},
        {"down 3", "192.168.1.100 DHCP  renamed 4 1", ""},
        {"down 4", "none", "changed 1, Offline 192.168.1.100 4", "192.168.1.100 DHCP  renamed 4 0"},
        // Seen twice: nobody leaves twice, but an object that stays is written and announced again.
        {"forget", "none", "", "192.168.1.100 DHCP  renamed 4 0", "changed 1"},
        {"learn eth1", "192.168.1.100 DHCP  renamed 2 1", "changed 1, Online 192.168.1.100 2"},
        {"release 100", "none", "changed 1, Offline 192.168.1.100 2", "192.168.1.100 DHCP  renamed 2 0"},
        {"release 100", "none", "", "192.168.1.100 DHCP  renamed 2 0", "changed 1"},
        {"learn eth1", "none", "", "192.168.1.100 DHCP  renamed 2 0"}, // a release leaves it at its port
        {"arp 100", "192.168.1.100 DHCP  renamed 2 1", "changed 1, Online 192.168.1.100 2"},
        // An object that somebody else deleted: its host leaves, and comes, as any.
        {"vanish", "none", ""},
        {"forget", "none", "changed 1, Offline 192.168.1.100 2", "none", "Offline 192.168.1.100 2"},
        {"learn eth1", "192.168.1.100 DHCP  renamed 2 1", "changed 1, Online 192.168.1.100 2"},
    });
}

TEST_F(EventTest, AWifiVisitStepByStep)
{
    CommandPath path;
    path.answer("brctl", "echo '5\t00:11:22:aa:bb:cc\tno\t\t0.10\tra0'");
    walk({
        {"join 0", "none", ""},
        {"arp 100", "192.168.1.100 STATIC PC (none) 1 1", "changed 1, Online 192.168.1.100 0"},
        {"down 1", "192.168.1.100 STATIC PC (none) 1 1", ""}, // a wired port's number
        {"join 4", "192.168.1.100 STATIC PC (none) 5 1", "changed 1"},
        {"leave 0", "none", "changed 1, Offline 192.168.1.100 0", "192.168.1.100 STATIC PC (none) 5 0"},
        {"leave 0", "none", "", "192.168.1.100 STATIC PC (none) 5 0", "changed 1"},
        {"join 0", "192.168.1.100 STATIC PC (none) 1 1", "changed 1, Online 192.168.1.100 0"},
    });
    EXPECT_TRUE(fake::logged("ovani_wifi_user_event_del::can't get mac node!!", 3));
    // Behind anything but Wi-Fi it is not taken for a station.
    forget(PC);
    for (std::string interface : {"eth0", "ethra0"}) {
        path.answer("brctl", "echo '5\t00:11:22:aa:bb:cc\tno\t\t0.10\t" + interface + "'");
        wifi(PC, 0, 1);
    }
    EXPECT_TRUE(fake::logged("is not 1???\n"));
    EXPECT_EQ(ovani_mac_node_num_get(), 0);
}

TEST_F(EventTest, WhatTheStoreRefusesIsNoVisit)
{
    learn(PC);
    fail("process set");
    arp(PC, PC_IP);
    EXPECT_EQ(told(), "");
    platform.fail = nullptr;
    arp(PC, PC_IP);
    EXPECT_EQ(told(), "changed 2, Online 192.168.1.100 2");
    fail("obj_del");
    forget(PC); // the object is still there
    EXPECT_EQ(told(), "changed 2");
    EXPECT_EQ(host(PC)->Active, 1);
}

TEST_F(EventTest, AStormOfVisitsLeavesNothingBehind)
{
    constexpr int population = 100;
    std::string first_return; // the first round makes the hosts known
    std::vector<int32_t> blocks;
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < population; ++i) {
            learn(mac_number(i), "eth2");
            arp(mac_number(i), PC_IP + static_cast<uint32_t>(i));
            dhcp("#NB6ADD#LLA#fe80::1#" + std::string(mac_colon_text(mac_number(i).data()).data()));
            forget(mac_number(i));
        }
        std::string round_told = told();
        EXPECT_THAT(platform.objects, IsEmpty());
        if (round == 0) {
            blocks.assign(std::begin(MemAllocCount), std::end(MemAllocCount));
        } else if (round == 1) {
            first_return = round_told;
        } else {
            EXPECT_EQ(round_told, first_return) << round;
        }
        EXPECT_THAT(MemAllocCount, ElementsAreArray(blocks)) << round;
    }
}

TEST_F(EventTest, DeviceStatusRecordIsExact)
{
    host_node node{};
    node.lanPortType = 1;
    node.Active = 2; // anything but 1
    memcpy(node.mac, PC.data(), PC.size());
    memset(node.HostName, 'n', sizeof node.HostName - 1);
    ovani_device_status_event status{};
    EXPECT_EQ(ovani_get_lanhost_device_struct(&node, &status), R_OK);
    EXPECT_EQ(ovani_device_status_ubus_send(&status), R_OK);
    std::string bytes = platform.sent.back().attribute("lanhost_struct");
    ASSERT_EQ(bytes.size(), 488U);
    const std::pair<size_t, std::string> fields[] = {{0, "Offline"},
                                                     {80, "00:11:22:AA:BB:CC"},
                                                     {144, "0.0.0.0"},
                                                     {208, std::string(127, 'n')},
                                                     {336, "\1"}};
    for (const auto &[offset, text] : fields) {
        EXPECT_EQ(&bytes[offset], text);
    }
    EXPECT_EQ(bytes.substr(340, 148), std::string(148, '\0')); // brand, os, port
    fail("");
    EXPECT_EQ(ovani_host_status_ubus_send(7), R_OK);
}

// --- What is no event

TEST_F(EventTest, EventsThatAreNoneAreRefused)
{
    ovani_dhcpd_host_event no_mac{.IPv6Address = "2001:db8::1"};
    ovani_port_status_event unknown{.event_id = 0, .port = 1, .status = 2};
    const int results[] = {ovani_mac_event_process(nullptr),
                           ovani_mac_event_add(nullptr),
                           ovani_mac_event_del_static(nullptr),
                           ovani_mac_event_del(nullptr),
                           ovani_arp_event_process(nullptr),
                           ovani_arp_event_add(nullptr),
                           ovani_arp_event_del(nullptr),
                           ovani_udhcpd_event_add(nullptr),
                           ovani_udhcpd_event_del(nullptr),
                           ovani_dhcp6s_event_add6(nullptr),
                           ovani_dhcp6s_event_add6(&no_mac),
                           ovani_wifi_user_event_process(nullptr),
                           ovani_wifi_user_event_add(nullptr),
                           ovani_wifi_user_event_del(nullptr),
                           ovani_port_status_event_process(nullptr),
                           ovani_port_status_event_process(&unknown)};
    EXPECT_THAT(results, testing::Each(R_ERROR));
    wifi(PC, 0, 2);
    EXPECT_TRUE(fake::logged("ovani_wifi_user_event_process::unkown action error!!", 3));
    EXPECT_TRUE(fake::logged("ovani_port_status_event_process::unkown action error!!", 3));
}

TEST_F(EventTest, OddMacEventsChangeNothing)
{
    // Another bridge, no action, and the gateway's own interface: lo has the MAC of all zeros.
    for (ovani_mac_event event :
         {mac_event(PC, "eth1", 1, "br1"), mac_event(PC, "eth1", 2), mac_event({}, "lo", 1)}) {
        EXPECT_EQ(ovani_mac_event_process(&event), R_OK);
    }
    EXPECT_TRUE(fake::logged("ovani_mac_event_process::pMacEvent NULLP error!!", 3));
    EXPECT_TRUE(fake::logged("local interface eth_num lo return\n"));
    EXPECT_EQ(ovani_mac_node_num_get() + ovani_host_node_num_get(), 0);

    char json[OVANI_MAC_INFO_LEN];
    ovani_mac_event event = mac_event({}, "ra0", 1);
    EXPECT_EQ(ovani_get_mac_info(&event, json), R_OK);
    EXPECT_STREQ(json, "{\"Event\":\"WLAN_DEV_ONLINE\",\"MacAddr\":\"00:00:00:00:00:00\"}");
    EXPECT_EQ(ovani_get_mac_info(&event, nullptr), R_ERROR);
}

// --- "109"

TEST_F(EventTest, AFullMacTableMakesRoom)
{
    for (int i = 1; i <= 256; ++i) {
        learn(mac_number(i));
    }
    EXPECT_FALSE(fake::logged("table full"));
    learn(mac_number(257));
    EXPECT_TRUE(fake::logged("ovani_mac_event_add::table full!! 256", 3));
    EXPECT_EQ(ovani_mac_node_num_get(), 256);
    EXPECT_EQ(ovani_mac_node_match(&g_mac_table, mac_number(1).data()), nullptr);
    EXPECT_NE(ovani_mac_node_match(&g_mac_table, mac_number(257).data()), nullptr);
    EXPECT_NE(host(mac_number(1)), nullptr);
}

TEST_F(EventTest, AHostWhoseMacIsUnknownStillLeaves)
{
    for (auto *variant : {ovani_mac_event_del_static, ovani_mac_event_del}) {
        learn(PC);
        arp(PC, PC_IP);
        ovani_mac_node_delete_top(&g_mac_table);
        ovani_mac_event event = mac_event(PC, "eth1", 0, "BR0");
        EXPECT_EQ(variant(&event), R_OK);
        EXPECT_TRUE(fake::logged("ovani_mac_event_del::can't get mac node!!", 3));
        bool leaves = variant == ovani_mac_event_del_static;
        EXPECT_EQ(platform.objects.empty(), leaves);
        EXPECT_EQ(host(PC)->lanPortNo, leaves ? 127 : 2);
    }
    learn(PC);
    ovani_mac_event event = mac_event(PC, "eth1", 0);
    EXPECT_EQ(ovani_mac_event_del(&event),
              R_OK); // the variant nobody calls retires after purging the ARP cache
    EXPECT_EQ(ovani_mac_node_num_get(), 0);
    EXPECT_THAT(platform.objects, IsEmpty());
}

// --- "106"

TEST_F(EventTest, LinkStatesMoveWithNumbersOnly)
{
    learn(PC, "eth1");
    learn(mac_number(1), "nas0"); // no port of ours: 0
    for (const Mac &mac : {PC, mac_number(1)}) {
        arp(mac, PC_IP + mac[5]);
    }
    told();
    for (int port : {25, 127, 255}) { // 127 is what hosts attached to no port have
        link(port, 0);
    }
    EXPECT_EQ(told(), "");
    link(0, 0); // an ordinary number, as it were
    EXPECT_EQ(told(), "changed 2, Offline 192.168.1.101 0");
    for (int port : {0, 2, 24, 25, 255}) {
        ovani_port_up_down_set(static_cast<unsigned char>(port), 1);
    }
    EXPECT_EQ(g_port_link_status[0].link_up + g_port_link_status[2].link_up + g_port_link_status[24].link_up,
              3U);
    link(2, 0); // passes a character
    EXPECT_EQ(g_port_link_status[2].link_up, 1U);
    ovani_port_up_down_set(2, 0);
    EXPECT_EQ(g_port_link_status[2].link_up, 0U);
}

// --- "110"

TEST_F(EventTest, AnArpRemovalTouchesNothing)
{
    learn(PC);
    arp(PC, PC_IP);
    platform.calls.clear();
    ovani_arp_event event = arp_event(PC, PC_IP, 0);
    EXPECT_EQ(ovani_arp_event_process(&event), R_OK);
    EXPECT_THAT(platform.calls, IsEmpty());
    event.action = 2;
    EXPECT_EQ(ovani_arp_event_process(&event), R_ERROR);

    event.ipv4 = PC_IP + 1; // the function nobody calls wants both keys to match
    EXPECT_EQ(ovani_arp_event_del(&event), R_OK);
    EXPECT_NE(host(PC), nullptr);
    event.ipv4 = PC_IP;
    EXPECT_EQ(ovani_arp_event_del(&event), R_OK);
    EXPECT_EQ(host(PC), nullptr);
    EXPECT_THAT(platform.objects, IsEmpty());
}

TEST_F(EventTest, MeshSatellitesAreLeftToDhcp)
{
    for (const char *name : {"SlaveAP_1", "my-Gleifala_x"}) {
        learn(PC);
        copy_text(host(PC)->HostName, name);
        EXPECT_EQ(arp(PC, PC_IP), R_OK);
        EXPECT_EQ(host(PC)->ip, PC_IP);
        EXPECT_THAT(platform.objects, IsEmpty());
    }
    copy_text(host(PC)->HostName, "SlaveAP"); // not the prefix
    EXPECT_EQ(arp(PC, PC_IP), R_OK);
    EXPECT_EQ(platform.objects.size(), 1U);
}

TEST_F(EventTest, AnUnknownMacIsLookedUpInTheBridge)
{
    CommandPath path;
    path.answer("brctl", "true");
    EXPECT_EQ(arp(PC, PC_IP), R_OK);
    EXPECT_EQ(host(PC)->ip, PC_IP);
    EXPECT_THAT(platform.objects, IsEmpty());
    // Its own address, and ports that are none of the LAN's, are not learned.
    for (std::string row : {"yes 0.00 eth0", "no 0.00 nas0"}) {
        path.answer("brctl", "echo '1 00:11:22:aa:bb:cc " + row + "'");
        arp(PC, PC_IP);
    }
    EXPECT_THAT(platform.objects, IsEmpty());

    path.answer("brctl", "echo '2 00:11:22:aa:bb:cc no 0.00 eth1'");
    EXPECT_EQ(arp(PC, PC_IP), R_OK);
    EXPECT_EQ(stored(1, "Port DeviceType"), "2 PC");
    // The bridge's answer brings the object, the ARP event updates it: two changes.
    EXPECT_EQ(told(), "changed 1, Online 192.168.1.100 2, changed 1");
}

// --- "dhcp_user_event"

TEST_F(EventTest, HostNamesBecomeUtf8)
{
    std::string gbk;
    while (gbk.size() < 60) {
        gbk += "\xd6\xd0";
    }
    const std::pair<std::string, std::string> cases[] = {
        {"\xce\xd2\xb5\xc4\xb5\xe7\xc4\xd4", "我的电脑"},
        {"caf\xc3\xa9", "caf\xc3\xa9"},
        {"plain", "plain"},
        {"", ""},
        {std::string(70, 'a'), std::string(70, 'a')},
        {gbk, "\xd0" + gbk.substr(0, 59)}, // too long: swapped only
        {std::string(500, 'a'), std::string(127, 'a')}};
    learn(PC);
    for (const auto &[sent, kept] : cases) {
        dhcp(lease(sent));
        EXPECT_EQ(host(PC)->HostName, kept);
        EXPECT_EQ(stored(1, "HostName"), kept);
    }
}

TEST_F(EventTest, TheCallersRecordOutlivesTheHandler)
{
    learn(PC);
    char name[] = "my-pc";
    ovani_dhcpd_host_event record{.action = "ADD",
                                  .IPAddress = "192.168.1.100",
                                  .AddressSource = "DHCP",
                                  .AckTime = "now",
                                  .LeaseTimeRemaining = "60",
                                  .HostName = name,
                                  .AssociatedDeviceType = "PC",
                                  .MACAddress = PC_BARE};
    EXPECT_EQ(ovani_udhcpd_event_add(&record), R_OK);
    std::fill_n(static_cast<volatile char *>(alloca(4096)), 4096, 'x'); // over the handler's stack
    EXPECT_STREQ(record.HostName, "my-pc");
    EXPECT_STREQ(record.Active, "1");
    EXPECT_EQ(stored(1, "X_QV_DeviceType"), "0"); // no vendor class, which is asked nothing
    EXPECT_FALSE(fake::logged("opt60:"));
}

TEST_F(EventTest, OnlyTheActionChoosesTheFormat)
{
    learn(PC);
    for (const char *word : {"ADD6", "DEL6", "NB6ADD", "NB6DEL"}) {
        dhcp(lease(word, "192.168.1.100", "ADD", "00:11:22:aa:bb:cc", std::string("MSFT ") + word));
        EXPECT_EQ(stored(1, "HostName"), word);
        EXPECT_STREQ(host(PC)->option60, (std::string("MSFT ") + word).c_str());
    }
}

TEST_F(EventTest, DamagedTextsAreDropped)
{
    learn(PC);
    arp(PC, PC_IP);
    auto values = platform.values;
    const std::string texts[] = {"",
                                 "12345678901234567890",
                                 "123456789012345678901",
                                 "x#ADD#192.168.1.100#DHCP#t#1#n#Computer#MSFT", // eight separators
                                 "#ADD#192.168.1.100###60#n####001122aabbcc",    // ten
                                 lease("n", "192.168.1.100", "ADD", "zz:11:22:aa:bb:cc"),
                                 lease("n", "192.168.1.100", "ADD", "0011"),
                                 lease("n", "192.168.1.100", "ADD", "00-11-22-aa-bb-cc"),
                                 lease("n", "192.168.1.100", "ADD", "00:11:22:aa:bb:cc:dd"),
                                 lease("n", "192.168.1.100", "RENEW"),
                                 "x#NB6ADD#ULA#fd00::1#00:11:22:aa:bb:cc",
                                 "x#NB6ADD#GUA#2001:db8::1",
                                 "x#NB6ADD#GUA#2001:db8::1#0011",
                                 "x#ADD6#2001:db8::1#00:11:22:aa:bb:cc",
                                 "x#ADD6#2001:db8::4#bad#fe80::4;reboot",
                                 "x#DEL6#2001:db8::1#00:11:22:aa:bb:cc#fe80::1",
                                 "x#NB6DEL#GUA#2001:db8::1#00:11:22:aa:bb:cc",
                                 std::string(100000, '#'),
                                 std::string(100000, 'A')};
    for (const std::string &text : texts) {
        dhcp(text);
    }
    EXPECT_EQ(platform.values, values);
    EXPECT_EQ(ovani_host_node_num_get(), 1);
    ovani_dhcpd_user_event_process(nullptr);
    for (const char *complaint :
         {"::eventBuf NULLP error!!\n", " msg len = 20, too short error!r\n", "parse_udhcpd_info error\n",
          " receive udhcpd error\n", "Unknown IPv6 addr type\n",
          "ovani_dhcp6s_event_add6::event NULLP error!!\n"}) {
        EXPECT_TRUE(fake::logged(complaint, 3)) << complaint;
    }
}

TEST_F(EventTest, ShortFieldsDoNotRunIntoTheirNeighbours)
{
    learn(PC);
    dhcp("#ADD#192.168.1.100###60#n###00:11:22:aa:bb:cc");
    EXPECT_EQ(stored(1, "MACAddress DeviceType"), "00:11:22:aa:bb:cc OTHER"); // longer than what it replaces
    EXPECT_STREQ(host(PC)->option60, "");
}

TEST_F(EventTest, Ipv6AddressesReachTheObjectByTheMacsText)
{
    CommandPath path;
    path.answer("ip", "true");
    learn(PC);
    dhcp(lease());
    dhcp("#NB6ADD#GUA#2001:db8::1#00:11:22:aa:bb:cc");
    dhcp("#NB6ADD#LLA#fe80::1#00:11:22:aa:bb:cc");
    EXPECT_EQ(stored(1, "IPv6Address IPv6LLAddress"), "2001:db8::1 fe80::1");
    // The lookup takes the text's first six characters for a MAC and leaves a node behind, once.
    EXPECT_EQ(ovani_host_node_num_get(), 2);
    EXPECT_NE(host({'0', '0', '1', '1', '2', '2'}), nullptr);

    dhcp("x#ADD6#2001:db8::2#00:11:22:aa:bb:cc#fe80::2");
    EXPECT_EQ(stored(1, "IPv6Address"), "2001:db8::2");
    // Another host's lease whose link-local address is this one's: the neighbour table knows better.
    path.answer("ip", "echo 'fe80::3 dev br0 lladdr 00:11:22:aa:bb:cc REACHABLE'");
    dhcp("x#ADD6#2001:db8::3#bad#fe80::3");
    EXPECT_EQ(stored(1, "IPv6Address"), "2001:db8::3");
}

// --- Start-up discovery

TEST_F(EventTest, DiscoveryReadsTheBridge)
{
    const std::string one = "echo h; echo '1 02:00:00:00:00:01 no 1.0 eth0'; ";
    const std::string two = "echo '1 02:00:00:00:00:02 no 1.0 eth1'; ";
    struct Case {
        const char *what;
        std::string script;
        int found;
    } cases[] = {{"five columns", one + two, 2},
                 {"six columns", "echo h; echo 'br0 1 02:00:00:00:00:01 no 1.0 eth0'", 1},
                 {"four columns", "echo h; echo '1 02:00:00:00:00:01 no eth0'", 0},
                 {"local", "echo h; echo '1 02:00:00:00:00:01 yes 0 eth0'", 0},
                 {"Wi-Fi", "echo h; echo '5 02:00:00:00:00:02 no 0 ra0'", 0},
                 {"foreign", "echo h; echo '6 02:00:00:00:00:03 no 0 nas0'", 0},
                 {"damaged", one + "echo '1 zz:00:00:00:00:02 no 1.0 eth0'; echo x", 1},
                 {"long lines", one + "head -c 100000 /dev/zero | tr '\\0' x; echo; " + two, 2},
                 {"nothing", "true", 0},
                 {"three hundred",
                  "echo h; for i in $(seq 300); do printf '1 02:00:00:00:%02x:%02x no 1.0 eth0\\n' $((i / "
                  "256)) $((i % 256)); done",
                  254}};
    for (const Case &c : cases) {
        CommandPath path;
        path.answer("brctl", c.script);
        restart(OPTYPE_CT);
        ovani_lanhost_info_init();
        EXPECT_EQ(ovani_mac_node_num_get(), c.found) << c.what;
    }
}
