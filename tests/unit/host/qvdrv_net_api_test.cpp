#include "platform/qvdrv_net_api.h"
#include "platform/qvdrv_pon_api.h"

#include <gtest/gtest.h>

#include "tests/unit/host/temporary_store.h"

namespace {

class Driver : public TemporaryStore {};

TEST(NetworkDriver, NumbersPortsByInterface)
{
    const struct {
        const char *name;
        int port; // 0: refused
    } cases[] = {
        {"eth0", 1},  {"eth3", 4},          {"eth0.100", 1}, {"eth12", 13}, {"eth125", 126}, {"eth", 0},
        {"ethx", 0},  {"veth0", 0},         {"eth-1", 0},    {"eth126", 0}, {"", 0},         {"ra0", 0},
        {"eth 1", 0}, {"eth4294967296", 0}, {"eth0x", 0},    {nullptr, 0},
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
    const qv_wan_param internet{.vid = 41, .lanBindPort = UINT64_MAX};
    const qv_wan_param television{.brflag = BRIDGE, .vid = 48, .wanmode = SPECIAL_SERVICE_4, .pbit = 5};
    EXPECT_NE(qvdrv_net_del_vlan_bind(4, 10, &internet), 0);
    EXPECT_EQ(qvdrv_net_set_vlan_bind(4, 10, &internet), 0);
    check("get .X_QV_Driver.LANPort.4.VLANBinding.10.LANPorts = ffffffffffffffff");
    EXPECT_EQ(qvdrv_net_set_vlan_bind(4, 10, &television), 0);
    check("get .X_QV_Driver.LANPort.4.VLANBinding.10.VLAN = 48 |"
          "get .X_QV_Driver.LANPort.4.VLANBinding.10.Service = SPECIAL_SERVICE_4 |"
          "get .X_QV_Driver.LANPort.4.VLANBinding.10.Type = BRIDGE |"
          "get .X_QV_Driver.LANPort.4.VLANBinding.10.LANPorts = 0");
    EXPECT_NE(qvdrv_net_del_vlan_bind(4, 10, &internet), 0) << "it goes to another connection by now";
    EXPECT_EQ(qvdrv_net_set_vlan_bind(126, 4094, &internet), 0);
    EXPECT_EQ(qvdrv_net_del_vlan_bind(4, 10, &television), 0);
    check("get .X_QV_Driver.LANPort.4.VLANBinding.10.VLAN = no such object |"
          "get .X_QV_Driver.LANPort.126.VLANBinding.4094.VLAN = 41");
}

TEST_F(Driver, RefusesWhatIsNoPort)
{
    const qv_wan_param wan{.vid = 41};
    for (unsigned int port : {0U, 126U, 127U, UINT32_MAX}) { // 126 could be one, but has no interface
        const PON_ETH_PORT_STATE_T state{.port_index = port, .enable = 1};
        const PON_ETH_PORT_WORK_MODE_T mode{.port_index = port, .auto_neg_enable = 1};
        PON_ETH_PORT_LINK_STATUS_T status{.port_index = port, .link_up = 1};
        EXPECT_NE(qvdrv_pon_set_eth_port_state(&state), 0);
        EXPECT_NE(qvdrv_pon_set_eth_port_work_mode(&mode), 0);
        EXPECT_NE(qvdrv_pon_get_eth_port_link_status(&status), 0);
        EXPECT_EQ(status.link_up, 0U);
        EXPECT_EQ(port != 126 && qvdrv_net_set_vlan_bind(port, 10, &wan) == 0, false);
        EXPECT_EQ(port != 126 && qvdrv_net_set_port_mac_limit(port, 8) == 0, false);
    }
    for (unsigned short vlan : std::initializer_list<unsigned short>{0, 4095, 65535}) {
        EXPECT_NE(qvdrv_net_set_vlan_bind(1, vlan, &wan), 0);
    }
    EXPECT_NE(qvdrv_net_set_vlan_bind(1, 10, nullptr), 0);
    StoreListing listing;
    store_list("InternetGatewayDevice.X_QV_Driver.", listing, 0);
    EXPECT_TRUE(listing.empty()) << listing[0].first;
    EXPECT_EQ(qvdrv_net_set_port_mac_limit(1, UINT32_MAX), 0);
    check("get .X_QV_Driver.LANPort.1.MACLimit = 4294967295 | get .X_QV_Driver.LANPort.1.Enable =");
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
    EXPECT_EQ(std::pair(up, down), std::pair(UINT32_MAX, 0U));
    check("del .X_QV_Driver.Device. 1 = ok");
    EXPECT_EQ(qvdrv_net_set_dev_maxbandwidth("02:00:00:00:00:0b", 5, 6), 0);
    EXPECT_EQ(qvdrv_net_set_dev_maxbandwidth("02:00:00:00:00:0c", 7, 8), 0);
    check("get .X_QV_Driver.Device.2.MaxUpstream = 5 | get .X_QV_Driver.Device.1.MACAddress = "
          "02:00:00:00:00:0c");
    for (const char *mac :
         {"", "02:00:00:00:00:0", "02-00-00-00-00-0a", "02:00:00:00:00:0g", "020000000000"}) {
        EXPECT_NE(qvdrv_net_set_dev_maxbandwidth(mac, 1, 1), 0) << mac;
        EXPECT_NE(qvdrv_net_get_dev_maxbandwidth(mac, &up, &down), 0) << mac;
    }
}

} // namespace
