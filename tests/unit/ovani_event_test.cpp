// Events through the handlers, down to the store and the bus.
#include "ovani/ovani_event.h"

#include <cstring>

#include "ovani/ovani_br_mgr.h"
#include "tests/unit/daemon_test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using EventTest = DaemonTest;

std::string lease(const std::string &name = "my-pc", const std::string &ip = "192.168.1.100",
                  const std::string &action = "ADD", const std::string &mac = "00:11:22:aa:bb:cc",
                  const std::string &option60 = "MSFT 5.0", const std::string &type = "Computer")
{
    return "x#" + action + "#" + ip + "#DHCP#2026-01-02 03:04:05#3600#" + name + "#" + type + "#" + option60 +
           "#" + mac;
}

} // namespace

// --- The road of one device

TEST_F(EventTest, ADeviceComesFollowsItsLeaseAndLeaves)
{
    const std::string lease_and_type = "AddressSource LeaseTimeRemaining DeviceType";
    learn(pc, "eth1");
    EXPECT_THAT(platform.objects, IsEmpty()); // no address yet
    EXPECT_EQ(host(pc)->lanPortNo, 2);

    dhcp(lease());
    EXPECT_EQ(stored(1, "IPAddress HostName X_QV_DeviceType Port Active"), "192.168.1.100 my-pc 5 2 1");
    EXPECT_EQ(stored(1, lease_and_type), "DHCP 3600 PC");
    EXPECT_THAT(fake::announced_instances(), ElementsAre(1));

    arp(pc, pc_ip); // ARP confirms the lease: still DHCP, the device type word is gone
    EXPECT_EQ(stored(1, lease_and_type), "DHCP 3600 ");
    EXPECT_EQ(stored(1, "X_QV_DeviceType"), "5");

    arp(pc, pc_ip + 1); // another address: the user set it by hand
    EXPECT_EQ(stored(1, lease_and_type), "STATIC 0 PC");

    dhcp(lease("renamed"));
    EXPECT_EQ(stored(1, "HostName AddressSource"), "renamed DHCP");

    forget(pc);
    EXPECT_THAT(platform.objects, IsEmpty());
    EXPECT_EQ(host(pc)->lanPortNo, 127);
    EXPECT_THAT(fake::announced_instances(), ElementsAre(1, 1, 1, 1, 1));

    learn(pc, "eth2"); // back, elsewhere, with what was known of it
    EXPECT_EQ(stored(1, "HostName IPAddress Port"), "renamed 192.168.1.100 3");
    EXPECT_EQ(host(pc)->lanPortNo, 3);
}

TEST_F(EventTest, EventsThatAreNoneAreRefused)
{
    const int results[] = {ovani_mac_event_process(nullptr),        ovani_mac_event_add(nullptr),
                           ovani_mac_event_del_static(nullptr),     ovani_mac_event_del(nullptr),
                           ovani_arp_event_process(nullptr),        ovani_arp_event_add(nullptr),
                           ovani_udhcpd_event_add(nullptr),         ovani_udhcpd_event_del(nullptr),
                           ovani_dhcp6s_event_add6(nullptr),        ovani_wifi_user_event_process(nullptr),
                           ovani_wifi_user_event_add(nullptr),      ovani_wifi_user_event_del(nullptr),
                           ovani_port_status_event_process(nullptr)};
    EXPECT_THAT(results, testing::Each(R_ERROR));
}

// --- "109"

TEST_F(EventTest, LearningAgainRefreshesTheStation)
{
    learn(pc, "eth1");
    learn(pc, "eth3");
    EXPECT_EQ(ovani_mac_node_num_get(), 1);
    EXPECT_EQ(g_mac_table.top->lanPortNo, 4);
    EXPECT_NE(g_mac_table.top->onlineclock[0], '\0');
    EXPECT_EQ(host(pc)->lanPortNo, 4);
    learn(pc, "rai1");
    EXPECT_EQ(host(pc)->lanPortType, 1);
    EXPECT_EQ(host(pc)->lanPortNo, 6);
}

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
    learn(pc);
    arp(pc, pc_ip);
    ovani_mac_node_delete_top(&g_mac_table);
    ovani_mac_event event = mac_event(pc, "eth1", 0, "BR0");
    EXPECT_EQ(ovani_mac_event_del_static(&event), R_OK);
    EXPECT_TRUE(fake::logged("ovani_mac_event_del::can't get mac node!!", 3));
    EXPECT_THAT(platform.objects, IsEmpty());
    EXPECT_EQ(host(pc)->lanPortNo, 127);
}

TEST_F(EventTest, OddMacEventsChangeNothing)
{
    // Another bridge, no action, and the gateway's own interface: lo has the MAC of all zeros.
    for (ovani_mac_event event :
         {mac_event(pc, "eth1", 1, "br1"), mac_event(pc, "eth1", 2), mac_event({}, "lo", 1)}) {
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

// --- "110"

TEST_F(EventTest, AnArpRemovalTouchesNothing)
{
    learn(pc);
    arp(pc, pc_ip);
    platform.calls.clear();
    ovani_arp_event event = arp_event(pc, pc_ip, 0);
    EXPECT_EQ(ovani_arp_event_process(&event), R_OK);
    EXPECT_THAT(platform.calls, IsEmpty());
    event.action = 2;
    EXPECT_EQ(ovani_arp_event_process(&event), R_ERROR);

    event.ipv4 = pc_ip + 1; // the function nobody calls wants both keys to match
    EXPECT_EQ(ovani_arp_event_del(&event), R_OK);
    EXPECT_NE(host(pc), nullptr);
    event.ipv4 = pc_ip;
    EXPECT_EQ(ovani_arp_event_del(&event), R_OK);
    EXPECT_EQ(host(pc), nullptr);
    EXPECT_THAT(platform.objects, IsEmpty());
}

TEST_F(EventTest, MeshSatellitesAreLeftToDhcp)
{
    for (const char *name : {"SlaveAP_1", "my-Gleifala_x"}) {
        learn(pc);
        copy_text(host(pc)->HostName, name);
        EXPECT_EQ(arp(pc, pc_ip), R_OK);
        EXPECT_EQ(host(pc)->ip, pc_ip);
        EXPECT_THAT(platform.objects, IsEmpty());
    }
    copy_text(host(pc)->HostName, "SlaveAP"); // not the prefix
    EXPECT_EQ(arp(pc, pc_ip), R_OK);
    EXPECT_EQ(platform.objects.size(), 1U);
}

TEST_F(EventTest, AnUnknownMacIsLookedUpInTheBridge)
{
    CommandPath path;
    path.answer("brctl", "true");
    EXPECT_EQ(arp(pc, pc_ip), R_OK);
    EXPECT_TRUE(fake::logged("add but not in mac table!,HOST INFO will add in mac event\r\n"));
    EXPECT_EQ(host(pc)->ip, pc_ip);
    EXPECT_THAT(platform.objects, IsEmpty());
    // Its own address, and ports that are none of the LAN's, are not learned.
    for (std::string row : {"yes 0.00 eth0", "no 0.00 nas0"}) {
        path.answer("brctl", "echo '1 00:11:22:aa:bb:cc " + row + "'");
        arp(pc, pc_ip);
    }
    EXPECT_THAT(platform.objects, IsEmpty());

    path.answer("brctl", "echo '2 00:11:22:aa:bb:cc no 0.00 eth1'");
    EXPECT_EQ(arp(pc, pc_ip), R_OK);
    EXPECT_EQ(stored(1, "Port DeviceType"), "2 PC");
    // The bridge's answer brings the object, the ARP event updates it: two changes.
    EXPECT_THAT(fake::announced_instances(), ElementsAre(1, 1));
}

TEST_F(EventTest, ActiveTimeNeedsAnObject)
{
    EXPECT_EQ(ovani_update_active_time(pc_bare), R_OK);
    EXPECT_TRUE(fake::logged("index not exist!! mac=001122AABBCC\r\n"));
    EXPECT_EQ(ovani_update_active_time(nullptr), R_OK);
    learn(pc);
    arp(pc, pc_ip);
    platform.values[host_path(1) + "LatestActiveTime"] = "17";
    EXPECT_EQ(ovani_update_active_time(pc_bare), R_OK);
    EXPECT_NE(stored(1, "LatestActiveTime"), "17");
}

// --- "dhcp_user_event"

TEST_F(EventTest, LeasesNeverCreateHosts)
{
    dhcp(lease());
    EXPECT_EQ(host(pc), nullptr);
    EXPECT_TRUE(fake::logged("ovani_udhcpd_event_add::ovani_host_node_get_by_ip_and_mac R_ERROR\n"));
    dhcp(lease("my-pc", "192.168.1.100", "DEL"));
    EXPECT_TRUE(fake::logged("ovani_udhcpd_event_del:: host not find!!", 3));
    EXPECT_EQ(ovani_host_node_num_get(), 0);
}

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
    learn(pc);
    for (const auto &[sent, kept] : cases) {
        dhcp(lease(sent));
        EXPECT_EQ(host(pc)->HostName, kept);
        EXPECT_EQ(stored(1, "HostName"), kept);
    }
}

TEST_F(EventTest, OnlyTheActionChoosesTheFormat)
{
    learn(pc);
    for (const char *word : {"ADD6", "DEL6", "NB6ADD", "NB6DEL"}) {
        dhcp(lease(word, "192.168.1.100", "ADD", "00:11:22:aa:bb:cc", std::string("MSFT ") + word));
        EXPECT_EQ(stored(1, "HostName"), word);
        EXPECT_STREQ(host(pc)->option60, (std::string("MSFT ") + word).c_str());
    }
}

TEST_F(EventTest, DamagedTextsAreDropped)
{
    learn(pc);
    arp(pc, pc_ip);
    auto values = platform.values;
    const std::string texts[] = {"",
                                 "12345678901234567890",
                                 "123456789012345678901",
                                 "x#ADD#192.168.1.100#DHCP#t#1#n#Computer#MSFT", // eight separators
                                 lease("n", "192.168.1.100", "ADD", "zz:11:22:aa:bb:cc"),
                                 lease("n", "192.168.1.100", "ADD", "0011"),
                                 lease("n", "192.168.1.100", "ADD", "00-11-22-aa-bb-cc"),
                                 lease("n", "192.168.1.100", "ADD", "00:11:22:aa:bb:cc:dd"),
                                 lease("n", "192.168.1.100", "RENEW"),
                                 "x#NB6ADD#ULA#fd00::1#00:11:22:aa:bb:cc",
                                 "x#NB6ADD#GUA#2001:db8::1",
                                 "x#ADD6#2001:db8::1#00:11:22:aa:bb:cc",
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
          " receive udhcpd error\n", "Unknown IPv6 addr type\n"}) {
        EXPECT_TRUE(fake::logged(complaint)) << complaint;
    }
}

TEST_F(EventTest, ShortFieldsDoNotRunIntoTheirNeighbours)
{
    learn(pc);
    dhcp("#ADD#192.168.1.100###60#n####001122aabbcc"); // option 60 is "", one separator too many for the MAC
    EXPECT_THAT(platform.objects, IsEmpty());
    dhcp("#ADD#192.168.1.100###60#n###00:11:22:aa:bb:cc");
    EXPECT_EQ(stored(1, "MACAddress DeviceType"), "00:11:22:aa:bb:cc OTHER"); // longer than what it replaces
    EXPECT_STREQ(host(pc)->option60, "");
}

TEST_F(EventTest, AReleasedHostComesBackWithItsNextLearnedEvent)
{
    for (int carrier : {OPTYPE_CT, OPTYPE_CM}) {
        restart(carrier);
        learn(pc);
        dhcp(lease());
        int index = ovani_get_host_associatedev_info(pc_bare);
        platform.sent.clear();
        dhcp(lease("my-pc", "192.168.1.100", "DEL"));
        EXPECT_THAT(fake::announced_instances(), ElementsAre(index));
        EXPECT_NE(stored(index, "Active"), "1");
        EXPECT_EQ(host(pc)->lanPortNo, 127);
        learn(pc);
        EXPECT_EQ(stored(index, "Active HostName"), "1 my-pc");
    }
}

TEST_F(EventTest, Ipv6AddressesReachTheObjectByTheMacsText)
{
    CommandPath path;
    path.answer("ip", "true");
    learn(pc);
    dhcp(lease());
    dhcp("#NB6ADD#GUA#2001:db8::1#00:11:22:aa:bb:cc");
    dhcp("#NB6ADD#LLA#fe80::1#00:11:22:aa:bb:cc");
    EXPECT_EQ(stored(1, "IPv6Address IPv6LLAddress"), "2001:db8::1 fe80::1");
    // The lookup takes the text's first six characters for a MAC and leaves a node behind, once.
    EXPECT_EQ(ovani_host_node_num_get(), 2);
    Mac text_as_mac{'0', '0', '1', '1', '2', '2'};
    EXPECT_NE(host(text_as_mac), nullptr);

    dhcp("x#ADD6#2001:db8::2#00:11:22:aa:bb:cc#fe80::2");
    EXPECT_EQ(stored(1, "IPv6Address"), "2001:db8::2");
    // Another host's lease whose link-local address is this one's: the neighbour table knows better.
    path.answer("ip", "echo 'fe80::3 dev br0 lladdr 00:11:22:aa:bb:cc REACHABLE'");
    dhcp("x#ADD6#2001:db8::3#02:00:00:00:00:09#fe80::3");
    EXPECT_EQ(stored(1, "IPv6Address"), "2001:db8::3");

    dhcp("x#ADD6#2001:db8::4#bad#fe80::4;reboot"); // no MAC: no object
    EXPECT_EQ(stored(1, "IPv6Address"), "2001:db8::3");
}

// --- Announcements

TEST_F(EventTest, DeviceStatusRecordIsExact)
{
    auto said = [](const ovani_device_status_event &event) {
        return std::to_string(event.attachedtype) + " " + std::to_string(event.port) + " " + event.status;
    };
    host_node node{};
    node.Active = 1;
    node.ip = pc_ip;
    node.lanPortNo = 3;
    memcpy(node.mac, pc.data(), pc.size());
    memset(node.HostName, 'n', sizeof node.HostName - 1);
    memset(node.DeviceType, 'd', sizeof node.DeviceType - 1);
    ovani_device_status_event status{};
    EXPECT_EQ(ovani_get_lanhost_device_struct(&node, &status), R_OK);
    EXPECT_EQ(said(status), "0 3 Online");
    EXPECT_EQ(ovani_device_status_ubus_send(&status), R_OK);
    std::string bytes = platform.sent.back().attribute("lanhost_struct");
    ASSERT_EQ(bytes.size(), 488U);
    EXPECT_STREQ(&bytes[80], "00:11:22:AA:BB:CC");
    EXPECT_STREQ(&bytes[144], "192.168.1.100");
    EXPECT_EQ(&bytes[208], std::string(127, 'n'));
    EXPECT_EQ(bytes.substr(340, 144), std::string(144, '\0')); // brand and os

    node.lanPortType = 1;
    node.Active = 2; // anything but 1
    ovani_get_lanhost_device_struct(&node, &status);
    EXPECT_EQ(said(status), "1 0 Offline");

    fail("");
    EXPECT_EQ(ovani_host_status_ubus_send(7), R_OK);
    platform.fail = nullptr;
    EXPECT_EQ(ovani_host_status_ubus_send(7), R_OK);
    EXPECT_EQ(platform.sent.back().attribute("objnum"), std::string("\0\0\0\7", 4));
}
