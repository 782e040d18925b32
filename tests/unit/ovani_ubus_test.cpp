#include "ovani/ovani_ubus.h"

#include <cstring>

#include "tests/unit/daemon_test.h"

using testing::ElementsAre;

namespace {

class UbusTest : public DaemonTest {
protected:
    ~UbusTest() override { blob_buf_free(&message_); }

    // An event with one raw attribute.
    void receive(const char *event, const char *attribute, const void *data, size_t length)
    {
        blob_buf_init(&message_, 0);
        blobmsg_add_field(&message_, BLOBMSG_TYPE_UNSPEC, attribute, data, static_cast<unsigned>(length));
        ubus_handle_event_msg(nullptr, nullptr, event, message_.head);
    }

    blob_buf message_{};
};

} // namespace

TEST_F(UbusTest, StartsInOrderAndReportsReady)
{
    EXPECT_EQ(ovani_ubus_init(), 0);
    EXPECT_THAT(platform.calls,
                ElementsAre("bus_init", "add_object ovani", "register 110", "register 109", "register 106",
                            "register 111", "register dhcp_user_event", "register wan_vlan_info",
                            "call sysmgr.process_ready", "run 1", "exit"));
    EXPECT_EQ(platform.sent.back().attribute("name"), std::string("ovani\0", 6));
}

TEST_F(UbusTest, FailuresAreSurvived)
{
    fail("add_object");
    ovani_ubus_init();
    EXPECT_EQ(fake::count_calls("register"), 0);
    EXPECT_TRUE(fake::logged("Failed to add object: ", 3));

    platform.calls.clear();
    fail("");
    EXPECT_EQ(ovani_ubus_init(), 0);
    EXPECT_EQ(fake::count_calls("run"), 1);

    // One handler serves all names: dropping it for one drops those before it too, and not every name drops
    // it.
    for (const char *name : {"110", "109", "106", "111", "dhcp_user_event", "wan_vlan_info"}) {
        platform.calls.clear();
        fail(std::string("register ") + name);
        ovani_eventmgr_eventway_main(nullptr);
        bool drops = strcmp(name, "110") != 0 && strcmp(name, "106") != 0;
        EXPECT_EQ(fake::count_calls("unregister"), drops ? 1 : 0) << name;
        EXPECT_EQ(fake::count_calls("register"), 6);
    }
}

TEST_F(UbusTest, RecordsAreDecodedInPlaceOfTheirBytes)
{
    // The wire bytes of a "109" and a "110", without the padding behind their last field.
    unsigned char mac_record[59] = {1, 0, 0, 0, 'e', 't', 'h', '2'};
    memcpy(mac_record + 36, "br0", 3);
    memcpy(mac_record + 52, PC.data(), 6);
    mac_record[58] = 1;
    receive("109", "mac_struct", mac_record, sizeof mac_record);
    EXPECT_EQ(host(PC)->lanPortNo, 3);

    unsigned char arp_record[82] = {0, 0, 0, 0, 1, 0, 0, 0, 192, 168, 1, 100};
    memcpy(arp_record + 12, PC.data(), 6);
    memcpy(arp_record + 18, "br0", 3);
    receive("110", "arp_struct", arp_record, sizeof arp_record);
    EXPECT_EQ(host(PC)->ip, PC_IP);
    EXPECT_EQ(stored(1, "IPAddress"), "192.168.1.100");

    blob_buf_init(&message_, 0);
    blobmsg_add_string(&message_, "dhcp_user_string",
                       "x#ADD#192.168.1.100#DHCP#t#60#named#Computer#MSFT#00:11:22:aa:bb:cc");
    ubus_handle_event_msg(nullptr, nullptr, "dhcp_user_event", message_.head);
    EXPECT_EQ(stored(1, "HostName"), "named");
}

TEST_F(UbusTest, EventsOfOtherBridgesArePassedOver)
{
    for (const char *bridge : {"br1", "br00", "BR0", "", "br0br0br0br0br0b"}) { // the last one unterminated
        unsigned char record[59] = {0, 0, 0, 0, 'e', 't', 'h', '2'};
        memcpy(record + 36, bridge, strlen(bridge));
        record[58] = 1;
        receive("109", "mac_struct", record, sizeof record);
    }
    EXPECT_EQ(ovani_mac_node_num_get(), 0);
}

TEST_F(UbusTest, BadMessagesAreLoggedAndDropped)
{
    struct Case {
        const char *event, *attribute;
        size_t wire_length;
        const char *function, *name; // as the complaint has it
    } cases[] = {{"110", "arp_struct", 82, "ovani_arp_ubus", "ovani_arp_ubus"},
                 {"109", "mac_struct", 59, "ovani_mac_ubus", "ovani_mac_ubus"},
                 {"106", "port_status_struct", 6, "ovani_port_status_ubus", "ovani_port_ubus"},
                 {"111", "wifi_user_struct", 12, "ovani_wifi_user_ubus", "ovani_wifi_ubus"}};
    const std::string bytes(200, '\xff');
    for (const Case &c : cases) {
        platform.log.clear();
        receive(c.event, "something_else", bytes.data(), bytes.size());
        EXPECT_TRUE(fake::logged(std::string("[") + c.function + "_handle_event][", 3));
        EXPECT_TRUE(fake::logged(std::string(c.name) + "_handle_event,data=0 error.\n", 3));
        EXPECT_FALSE(fake::logged("bd is NULL"));
        for (size_t length : {size_t{0}, size_t{1}, c.wire_length - 1}) {
            platform.log.clear();
            receive(c.event, c.attribute, bytes.data(), length);
            EXPECT_TRUE(fake::logged("bd is NULL\n", 7)) << c.event << " " << length;
        }
        platform.log.clear();
        receive(c.event, c.attribute, bytes.data(), c.wire_length);
        EXPECT_FALSE(fake::logged("bd is NULL"));
        ubus_handle_event_msg(nullptr, nullptr, c.event, nullptr);
    }
    receive("dhcp_user_event", "dhcp_user_string", "x#ADD#not terminated and long enough",
            36); // no string type
    EXPECT_TRUE(fake::logged("ovani_dhcpd_user_ubus_handle_event,data=0 error.\n", 3));

    platform.log.clear();
    receive("112", "mac_struct", bytes.data(), bytes.size());
    EXPECT_EQ(platform.log.size(), 1U);
    EXPECT_TRUE(fake::logged("[ubus_handle_event_msg]["));
    EXPECT_TRUE(fake::logged("]Receive event.\n", 7));
    EXPECT_EQ(ovani_host_node_num_get() + ovani_mac_node_num_get(), 0);
}
