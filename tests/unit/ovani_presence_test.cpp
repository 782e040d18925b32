// Who is told to be on line, and when: over the events that make it so.
#include <cstring>

#include "ovani/ovani_br_mgr.h"
#include "ovani/ovani_memory.h"
#include "ovani/ovani_port_mgr.h"
#include "tests/unit/daemon_test.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

class PresenceTest : public DaemonTest {
protected:
    // What "lanhost_event" has said since the last call: status, address and port of each.
    std::vector<std::string> told()
    {
        std::vector<std::string> records;
        for (const fake::Sent &sent : platform.sent) {
            if (sent.name == "lanhost_event") {
                std::string bytes = sent.attribute("lanhost_struct");
                EXPECT_EQ(bytes.size(), 488U);
                ovani_device_status_event status{};
                memcpy(&status, bytes.data(), sizeof status);
                records.push_back(std::string(status.status) + " " + status.deviceIP + " " +
                                  std::to_string(status.port));
            }
        }
        platform.sent.clear();
        return records;
    }
    void wifi(const Mac &mac, uint8_t ssidno, uint8_t action)
    {
        ovani_wifi_event event{.event_id = 0, .mac = {}, .ssidno = ssidno, .action = action};
        memcpy(event.mac, mac.data(), mac.size());
        ovani_wifi_user_event_process(&event);
    }
    void link(uint8_t port, uint8_t status)
    {
        ovani_port_status_event event{.event_id = 0, .port = port, .status = status};
        ovani_port_status_event_process(&event);
    }
};

constexpr Mac phone{0x02, 0, 0, 0, 0, 0x77};

} // namespace

TEST_F(PresenceTest, OneOnlineAndOneOfflineAVisit)
{
    const std::string lease = "#192.168.1.100#DHCP#t#60#named#Computer#MSFT#00:11:22:aa:bb:cc";
    restart(OPTYPE_CM);
    learn(pc, "eth1");
    EXPECT_THAT(told(), IsEmpty()); // no object yet
    arp(pc, pc_ip);
    ASSERT_EQ(platform.sent.size(), 2U);
    EXPECT_EQ(platform.sent[0].name, "lanhost_param_change"); // first the change, then who came
    EXPECT_THAT(told(), ElementsAre("Online 192.168.1.100 2"));

    // Refreshes, moves and renames are no visits.
    arp(pc, pc_ip);
    arp(pc, pc_ip + 1);
    learn(pc, "eth3");
    dhcp("x#ADD" + lease);
    EXPECT_THAT(told(), IsEmpty());

    link(4, 0);
    EXPECT_EQ(host(pc)->Active, 0);
    EXPECT_THAT(told(), ElementsAre("Offline 192.168.1.100 4"));
    EXPECT_EQ(stored(1, "Active"), "0");
    forget(pc); // seen twice: written and announced again, but nobody leaves twice
    EXPECT_THAT(fake::announced_instances(), ElementsAre(1));
    EXPECT_THAT(told(), IsEmpty());

    learn(pc, "eth1");
    EXPECT_EQ(host(pc)->Active, 1);
    EXPECT_THAT(told(), ElementsAre("Online 192.168.1.100 2"));
    dhcp("x#DEL" + lease);
    EXPECT_THAT(told(), ElementsAre("Offline 192.168.1.100 2"));
    dhcp("x#DEL" + lease);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(PresenceTest, FailedChangesAreNoChanges)
{
    learn(pc, "eth1");
    fail("process set");
    arp(pc, pc_ip);
    EXPECT_THAT(told(), IsEmpty());
    platform.fail = nullptr;
    arp(pc, pc_ip);
    EXPECT_THAT(told(), testing::SizeIs(1));
    fail("obj_del");
    forget(pc); // the object is still there
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_EQ(host(pc)->Active, 1);
}

TEST_F(PresenceTest, LinkDownTakesThePortsWiredHostsOnly)
{
    learn(pc, "eth1");
    arp(pc, pc_ip);
    learn(phone, "ra1"); // Wi-Fi 2
    arp(phone, pc_ip + 1);
    told();
    for (int port : {0, 25, 127, 255}) { // 127 is what hosts attached to no port have
        link(static_cast<uint8_t>(port), 0);
    }
    link(2, 2);
    EXPECT_TRUE(fake::logged("ovani_port_status_event_process::unkown action error!!", 3));
    EXPECT_THAT(platform.sent, IsEmpty());
    link(2, 0);
    EXPECT_TRUE(fake::logged("g_port_link_status port Status change\n"));
    EXPECT_THAT(told(), ElementsAre("Offline 192.168.1.100 2"));
    EXPECT_EQ(host(pc)->lanPortNo, 127);
    EXPECT_EQ(host(phone)->lanPortNo, 2);

    // The events pass characters; the table moves with the numbers, within its bounds.
    EXPECT_EQ(g_port_link_status[2].link_up, 0U);
    for (int port : {0, 2, 24, 25, 255}) {
        ovani_port_up_down_set(static_cast<unsigned char>(port), 1);
    }
    EXPECT_EQ(g_port_link_status[2].link_up + g_port_link_status[24].link_up, 2U);
    ovani_port_up_down_set(2, 0);
    EXPECT_EQ(g_port_link_status[2].link_up, 0U);
}

TEST_F(PresenceTest, StationsJoinRoamAndLeave)
{
    CommandPath path;
    path.answer("brctl", "echo '5\t02:00:00:00:00:77\tno\t\t0.10\tra0'");
    wifi(phone, 0, 1);
    EXPECT_EQ(host(phone)->lanPortType, 1);
    arp(phone, pc_ip);
    EXPECT_EQ(stored(1, "Port InterfaceType"), "1 802.11");
    EXPECT_THAT(told(), ElementsAre("Online 192.168.1.100 0"));

    wifi(phone, 4, 1); // known: it roamed
    EXPECT_TRUE(fake::logged("device:020000000077 change port id to new value:5"));
    EXPECT_EQ(stored(1, "Port"), "5");
    EXPECT_THAT(fake::announced_instances(), ElementsAre(1));
    EXPECT_THAT(told(), IsEmpty());

    wifi(phone, 4, 0);
    EXPECT_THAT(told(), ElementsAre("Offline 192.168.1.100 0"));
    EXPECT_EQ(ovani_mac_node_num_get(), 0);
    ovani_wifi_event event{};
    EXPECT_EQ(ovani_wifi_user_event_del(&event), R_OK);
    EXPECT_TRUE(fake::logged("ovani_wifi_user_event_del::can't get mac node!!", 3));

    // Behind anything but Wi-Fi it is not taken for a station.
    for (std::string interface : {"eth0", "ethra0"}) {
        path.answer("brctl", "echo '5\t02:00:00:00:00:77\tno\t\t0.10\t" + interface + "'");
        wifi(phone, 0, 1);
    }
    EXPECT_TRUE(fake::logged("is not 1???\n"));
    EXPECT_EQ(ovani_mac_node_num_get(), 0);
    wifi(phone, 0, 2);
    EXPECT_TRUE(fake::logged("ovani_wifi_user_event_process::unkown action error!!", 3));
}

TEST_F(PresenceTest, DiscoveryReadsTheBridge)
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

TEST_F(PresenceTest, AStormOfVisitsLeavesNothingBehind)
{
    constexpr int population = 100;
    constexpr int visits = 5;
    std::vector<std::string> first_round;
    std::vector<int32_t> blocks;
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < population * visits; ++i) {
            const Mac mac = mac_number(i % population);
            learn(mac, "eth2");
            arp(mac, pc_ip + static_cast<uint32_t>(i % population));
            dhcp("#NB6ADD#LLA#fe80::" + std::to_string(1 + i % population) + "#02:00:00:00:00:01");
            forget(mac);
        }
        std::vector<std::string> records = told();
        EXPECT_EQ(records.size(), 2U * population * visits);
        EXPECT_THAT(platform.objects, IsEmpty());
        if (round == 0) {
            first_round = records;
            blocks.assign(std::begin(MemAllocCount), std::end(MemAllocCount));
        }
        EXPECT_EQ(records, first_round) << round;
        EXPECT_THAT(MemAllocCount, ElementsAreArray(blocks)) << round;
    }
}
