// Start-up leaves nothing of what was before, and its threads meet the loop.
#include "ovani/ovani_start.h"

#include <cstring>
#include <semaphore>
#include <thread>

#include "ovani/ovani_host_object.h"
#include "ovani/ovani_lan_port_config.h"
#include "ovani/ovani_operator.h"
#include "ovani/ovani_port_mgr.h"
#include "tests/unit/daemon_test.h"

using StartTest = DaemonTest;

TEST_F(StartTest, EveryModuleIsBackAtItsBeginning)
{
    learn(PC);
    arp(PC, PC_IP);
    g_slaveapnum = 3;
    g_filtermode = 2;
    g_lan_inf_num = 9;
    copy_text(g_LanWorkMode[1].MaxBitRate, "100");
    copy_text(s_lan_vlan_bind[1].Mode, "1");
    s_vlan_bind_control[0][0].lan_vlan = 7;
    ovani_port_up_down_set(3, 1);
    platform.objects.clear();
    restart(OPTYPE_CT);
    EXPECT_EQ(ovani_host_node_num_get() + ovani_mac_node_num_get(), 0);
    EXPECT_EQ(ovani_get_host_associatedev_info(PC_BARE), 0);
    EXPECT_EQ(s_hostnumberofentries + s_hostmaxnumber, 254U);
    EXPECT_EQ(g_slaveapnum + g_filtermode + static_cast<int>(g_port_link_status[3].link_up), 0);
    EXPECT_EQ(g_lan_inf_num, 4U);
    EXPECT_STREQ(g_LanWorkMode[1].MaxBitRate, "");
    EXPECT_STREQ(s_lan_vlan_bind[1].Mode, "");
    EXPECT_EQ(s_vlan_bind_control[0][0].lan_vlan, 0);
    learn(PC);
    arp(PC, PC_IP);
    EXPECT_EQ(told(), "changed 1, Online 192.168.1.100 2");
}

// The daemon has no lock: in these a binder and a method call may meet. What else does is a fault.
extern "C" const char *__tsan_default_suppressions()
{
    return "race:s_lan_vlan_bind\nrace:s_vlan_bind_control\nrace:s_vlanbind_wan_param\n"
           "race:g_read_laneth_vlan_bind_cfg\nrace:g_read_wan_param_cfg\nrace:g_read_wan_conn_cfg_by_index\n";
}

// The binder wakes while the loop is busy with methods. Nothing holds the two off each other: a binding may
// be lost or set twice, the memory stays sound, and a call after it is obeyed.
TEST_F(StartTest, TheWifiBinderMeetsMethodCalls)
{
    static std::binary_semaphore wakes{0};
    static std::atomic<bool> bound;
    static unsigned waited;
    bound = false;
    g_wait_for_wifi = [](unsigned seconds) {
        waited = seconds;
        wakes.acquire();
        return 0U;
    };
    restart(OPTYPE_CM);
    ovani_start(0, nullptr, [](void *(*body)(void *)) {
        if (body == vlan_bind_init_wifi) {
            std::thread([=] {
                body(nullptr);
                bound = true;
            }).detach();
        }
        return 0;
    });
    const std::string port = "InternetGatewayDevice.LANDevice.1.LANEthernetInterfaceConfig.2.";
    auto configure = [&](const std::string &vlan) {
        call_method("ovani_devfuc_port_cfg", port.c_str(), pairs("X_CMCC_Mode=1 X_CMCC_VLAN=" + vlan));
    };
    configure("1/100");
    wakes.release();
    for (int i = 0; !bound; ++i) {
        configure(std::string(255, static_cast<char>('1' + i % 9)));
    }
    EXPECT_EQ(waited, 90U);
    configure("10/100");
    EXPECT_STREQ(s_lan_vlan_bind[2].VLAN, "10/100");
    g_wait_for_wifi = sleep;
}
