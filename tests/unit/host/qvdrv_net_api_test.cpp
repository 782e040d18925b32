#include "platform/qvdrv_net_api.h"
#include "platform/qvdrv_pon_api.h"

#include <array>

#include <gtest/gtest.h>

#include "platform/host/driver.h"
#include "tests/unit/host/temporary_store.h"

namespace {

class Driver : public TemporaryStore {};

std::string kept(unsigned int port, const char *parameter)
{
    return driver_kept(driver_port_path(port), parameter);
}

std::string bound(unsigned int port, unsigned int lan_vlan, const char *parameter)
{
    return driver_kept(driver_binding_path(port, lan_vlan), parameter);
}

TEST(NetworkDriver, NumbersPortsByInterface)
{
    const struct {
        const char *name;
        int port; // 0: refused
    } cases[] = {
        {"eth0", 1}, {"eth3", 4}, {"eth0.100", 1}, {"eth12", 13},        {"eth125", 126},
        {"eth", 0},  {"ethx", 0}, {"veth0", 0},    {"eth-1", 0},         {"eth126", 0},
        {"", 0},     {"ra0", 0},  {"eth 1", 0},    {"eth4294967296", 0}, {nullptr, 0},
    };
    for (const auto &c : cases) {
        unsigned short port = 999;
        int result = qvdrv_eth_get_port_id(c.name, &port);
        EXPECT_EQ(result == 0, c.port != 0) << (c.name == nullptr ? "null" : c.name);
        EXPECT_EQ(port, c.port == 0 ? 999 : c.port);
    }
}

TEST_F(Driver, BindsReplacesAndRemoves)
{
    qv_wan_param internet{.vid = 41, .lanBindPort = UINT64_MAX};
    qv_wan_param television{.brflag = BRIDGE, .vid = 48, .wanmode = SPECIAL_SERVICE_4, .pbit = 5};
    EXPECT_NE(qvdrv_net_del_vlan_bind(4, 10, &internet), 0);
    EXPECT_EQ(qvdrv_net_set_vlan_bind(4, 10, &internet), 0);
    EXPECT_EQ(bound(4, 10, "LANPorts"), "ffffffffffffffff");
    EXPECT_EQ(qvdrv_net_set_vlan_bind(4, 10, &television), 0);
    EXPECT_EQ(bound(4, 10, "VLAN") + bound(4, 10, "Service"), "48SPECIAL_SERVICE_4");
    EXPECT_EQ(bound(4, 10, "Type") + bound(4, 10, "LANPorts"), "BRIDGE0");

    EXPECT_NE(qvdrv_net_del_vlan_bind(4, 10, &internet), 0) << "it goes to another connection by now";
    EXPECT_EQ(bound(4, 10, "VLAN"), "48");
    EXPECT_EQ(qvdrv_net_set_vlan_bind(126, 4094, &internet), 0);
    EXPECT_EQ(qvdrv_net_del_vlan_bind(4, 10, &television), 0);
    EXPECT_EQ(bound(4, 10, "VLAN") + bound(126, 4094, "VLAN"), "41");
}

TEST_F(Driver, RefusesWhatIsNoPort)
{
    qv_wan_param wan{.vid = 41};
    for (unsigned int port : {0U, 127U, UINT32_MAX}) {
        EXPECT_NE(qvdrv_net_set_vlan_bind(port, 10, &wan), 0);
        EXPECT_NE(qvdrv_net_set_port_mac_limit(port, 8), 0);
    }
    for (unsigned int port : {0U, 126U, UINT32_MAX}) { // 126 could be one, but has no interface
        PON_ETH_PORT_STATE_T state{.port_index = port, .enable = 1};
        PON_ETH_PORT_WORK_MODE_T mode{.port_index = port, .auto_neg_enable = 1};
        PON_ETH_PORT_LINK_STATUS_T status{.port_index = port, .link_up = 1};
        EXPECT_NE(qvdrv_pon_set_eth_port_state(&state), 0);
        EXPECT_NE(qvdrv_pon_set_eth_port_work_mode(&mode), 0);
        EXPECT_NE(qvdrv_pon_get_eth_port_link_status(&status), 0);
        EXPECT_EQ(status.link_up, 0U);
    }
    for (uint16_t vlan : std::to_array<uint16_t>({0, 4095, 65535})) {
        EXPECT_NE(qvdrv_net_set_vlan_bind(1, vlan, &wan), 0);
    }
    EXPECT_NE(qvdrv_net_set_vlan_bind(1, 10, nullptr), 0);
    StoreListing listing;
    store_list("InternetGatewayDevice.X_QV_Driver.", listing, 0);
    EXPECT_TRUE(listing.empty()) << listing[0].first;

    EXPECT_EQ(qvdrv_net_set_port_mac_limit(1, UINT32_MAX), 0);
    EXPECT_EQ(kept(1, "MACLimit") + kept(1, "Enable") + kept(1, "Rate"), "4294967295");
}

TEST_F(Driver, KeepsADevicesCeilings)
{
    unsigned int up = 7;
    unsigned int down = 7;
    EXPECT_EQ(qvdrv_net_set_dev_total_bandwidth("02:00:00:00:00:0a", 1, 2), 0);
    EXPECT_EQ(qvdrv_net_set_dev_maxbandwidth("02:00:00:00:00:0b", 3, 4), 0);
    EXPECT_NE(qvdrv_net_get_dev_maxbandwidth("02:00:00:00:00:0a", &up, &down), 0) << "it has totals only";
    EXPECT_EQ(up + down, 14U);
    EXPECT_EQ(qvdrv_net_set_dev_maxbandwidth("02:00:00:00:00:0A", UINT32_MAX, 0), 0);
    EXPECT_EQ(qvdrv_net_get_dev_maxbandwidth("02:00:00:00:00:0A", &up, &down), 0);
    EXPECT_EQ(up, UINT32_MAX);
    EXPECT_EQ(down, 0U);

    // The lowest free number, and no device twice.
    const std::string devices(DRIVER_DEVICES);
    zkapi_obj_del(devices.c_str(), 1, DEVFUNC_NOCALL, 0);
    EXPECT_EQ(qvdrv_net_set_dev_maxbandwidth("02:00:00:00:00:0b", 5, 6), 0);
    EXPECT_EQ(qvdrv_net_set_dev_maxbandwidth("02:00:00:00:00:0c", 7, 8), 0);
    EXPECT_EQ(get(devices + "2.MaxUpstream") + get(devices + "1.MACAddress"), "502:00:00:00:00:0c");
    for (const char *mac :
         {"", "02:00:00:00:00:0", "02-00-00-00-00-0a", "02:00:00:00:00:0g", "020000000000"}) {
        EXPECT_NE(qvdrv_net_set_dev_maxbandwidth(mac, 1, 1), 0) << mac;
        EXPECT_NE(qvdrv_net_get_dev_maxbandwidth(mac, &up, &down), 0) << mac;
    }
}

} // namespace
