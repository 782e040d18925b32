// The host table and the MAC table, with the counted memory of their nodes.
#include <cstring>
#include <fstream>

#include "ovani/ovani_host_mgr.h"
#include "ovani/ovani_memory.h"
#include "platform/zk_log.h"
#include "tests/unit/daemon_test.h"

namespace {

// The list seen from both ends, and its count.
template <typename Table>
std::string keys(const Table &table, int count)
{
    std::string forward;
    std::string backward;
    int nodes = 0;
    auto *last = table.top;
    for (auto *node = table.top; node != nullptr; node = node->next) {
        forward += std::to_string(node->mac[5]);
        last = node;
        ++nodes;
    }
    for (; last != nullptr; last = last->prev) {
        backward.insert(0, std::to_string(last->mac[5]));
    }
    EXPECT_EQ(forward, backward);
    EXPECT_EQ(nodes, count);
    return forward;
}

} // namespace

using TablesTest = DaemonTest;

TEST_F(TablesTest, HostsKeepTheirOrderAndLinks)
{
    for (int i = 1; i <= 4; ++i) {
        ovani_host_node_get_by_mac(&g_host_table_ipv4, mac_number(i).data());
        ovani_mac_node_get(&g_mac_table, mac_number(i).data());
    }
    // Middle, head, tail, last.
    const int order[] = {2, 1, 4, 3};
    const char *left[] = {"134", "34", "3", ""};
    for (int i = 0; i < 4; ++i) {
        Mac mac = mac_number(order[i]);
        EXPECT_EQ(ovani_host_node_delete(&g_host_table_ipv4, host(mac)), R_OK);
        EXPECT_EQ(keys(g_host_table_ipv4, ovani_host_node_num_get()), left[i]);
        EXPECT_EQ(ovani_mac_node_delete(&g_mac_table, ovani_mac_node_match(&g_mac_table, mac.data())), R_OK);
        EXPECT_EQ(keys(g_mac_table, ovani_mac_node_num_get()), left[i]);
    }
    EXPECT_EQ(g_host_table_ipv4.top, nullptr);
    EXPECT_EQ(g_mac_table.top, nullptr);
    EXPECT_EQ(ovani_mac_node_delete_top(&g_mac_table), R_ERROR);
    EXPECT_TRUE(fake::logged("hal_route_node_delete:the input parameters table or node is NULL!\r\n", 3));
}

TEST_F(TablesTest, OfManyTheEldestOfAMacIsFound)
{
    std::vector<host_node *> nodes(1000);
    for (int i = 0; i < 1000; ++i) { // each MAC twice
        nodes[static_cast<size_t>(i)] =
            ovani_host_node_get_by_ip_and_mac(&g_host_table_ipv4, PC_IP + i, mac_number(i % 500).data());
    }
    for (int i = 0; i < 500; i += 3) {
        ovani_host_node_delete(&g_host_table_ipv4, nodes[i]);
    }
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(host(mac_number(i)), nodes[i % 3 == 0 ? i + 500 : i]) << i;
    }
    EXPECT_EQ(host(mac_number(500)), nullptr);
}

TEST_F(TablesTest, FindOrCreateFillsDefaultsOnce)
{
    host_node *node = ovani_host_node_get_by_mac(&g_host_table_ipv4, PC.data());
    const int64_t numbers[] = {node->ip, node->AddressSource, node->lanPortNo, node->lanPortType,
                               node->Active};
    EXPECT_THAT(numbers, testing::ElementsAre(0, HOST_TYPE_STATIC, 127, 0, 1));
    EXPECT_STREQ(node->HostName, "HostName_unknow");
    EXPECT_STREQ(node->DeviceType, "DeviceType_unknow");
    EXPECT_STREQ(node->InterfaceType, "IfType_Ethernet");
    EXPECT_EQ(ovani_host_node_get_by_mac(&g_host_table_ipv4, PC.data()), node);

    node->ip = PC_IP;
    EXPECT_EQ(ovani_host_node_get(&g_host_table_ipv4, PC_IP), node);
    EXPECT_EQ(ovani_host_node_get_by_ip_and_mac(&g_host_table_ipv4, PC_IP, PC.data()), node);
    EXPECT_EQ(ovani_host_node_num_get(), 1);
    // Another address of the same MAC is another node here; by MAC the older one is found.
    host_node *second = ovani_host_node_get_by_ip_and_mac(&g_host_table_ipv4, PC_IP + 1, PC.data());
    EXPECT_NE(second, node);
    EXPECT_EQ(host(PC), node);
    EXPECT_EQ(ovani_host_node_match_by_ip_and_mac(&g_host_table_ipv4, PC_IP + 1, PC.data()), second);
    EXPECT_EQ(ovani_host_node_match(&g_host_table_ipv4, PC_IP + 2), nullptr);
}

TEST_F(TablesTest, NullArgumentsAreRefused)
{
    host_table *no_hosts = nullptr;
    mac_table *no_macs = nullptr;
    const host_node *const hosts[] = {ovani_host_node_match(no_hosts, 1),
                                      ovani_host_node_get(no_hosts, 1),
                                      ovani_host_node_match_by_mac(no_hosts, PC.data()),
                                      ovani_host_node_get_by_mac(&g_host_table_ipv4, nullptr),
                                      ovani_host_node_match_by_ip_and_mac(&g_host_table_ipv4, 1, nullptr),
                                      ovani_host_node_get_by_ip_and_mac(no_hosts, 1, PC.data())};
    EXPECT_THAT(hosts, testing::Each(nullptr));
    EXPECT_EQ(ovani_mac_node_match(no_macs, PC.data()), nullptr);
    EXPECT_EQ(ovani_mac_node_get(&g_mac_table, nullptr), nullptr);
    const int results[] = {ovani_host_node_add(no_hosts, nullptr), ovani_host_node_free(nullptr),
                           ovani_mac_node_delete_top(no_macs)};
    EXPECT_THAT(results, testing::Each(R_ERROR));
    EXPECT_EQ(ovani_host_node_delete_by_port(no_hosts, 1) + ovani_host_info_delete_by_port(no_hosts, 1), 0);
    EXPECT_EQ(ovani_host_node_num_get() + ovani_mac_node_num_get(), 0);
}

TEST_F(TablesTest, OnlyWiredHostsGoWithTheirPort)
{
    for (int i = 1; i <= 3; ++i) {
        host_node *node = ovani_host_node_get_by_mac(&g_host_table_ipv4, mac_number(i).data());
        node->lanPortNo = i == 2 ? 2 : 3;
        node->lanPortType = i == 3 ? 1 : 0;
    }
    EXPECT_EQ(ovani_host_node_delete_by_port(&g_host_table_ipv4, 3), 0);
    EXPECT_EQ(keys(g_host_table_ipv4, ovani_host_node_num_get()), "23");
}

TEST_F(TablesTest, StationsTellTheirInterface)
{
    mac_node *station = ovani_mac_node_get(&g_mac_table, PC.data());
    EXPECT_EQ(ovani_mac_node_get(&g_mac_table, PC.data()), station);
    station->lanPortNo = 2;
    EXPECT_STREQ(ovani_layer2_interface_get_by_mac(PC.data()),
                 "InternetGatewayDevice.LANDevice.1.LANEthernetInterfaceConfig.2.");
    EXPECT_STREQ(ovani_port_type_get_by_mac(PC.data()), "Ethernet");
    station->lanPortType = 1;
    station->lanPortNo = 5;
    EXPECT_STREQ(ovani_layer2_interface_get_by_mac(PC.data()),
                 "InternetGatewayDevice.LANDevice.1.WLANConfiguration.5.");
    EXPECT_STREQ(ovani_port_type_get_by_mac(PC.data()), "802.11");
    station->lanPortType = 99; // never indexes past the names
    EXPECT_STREQ(ovani_port_type_get_by_mac(PC.data()), "802.11");
    EXPECT_EQ(ovani_layer2_interface_get_by_mac(mac_number(1).data()), nullptr);
    EXPECT_EQ(ovani_port_type_get_by_mac(mac_number(1).data()), nullptr);
}

TEST_F(TablesTest, AllocationIsCountedByType)
{
    EXPECT_EQ(ovani_malloc(MTYPE_MAX, 8), nullptr);
    EXPECT_EQ(ovani_malloc(static_cast<memory_type>(-1), 8), nullptr);
    ovani_free(MTYPE_TMP, nullptr);
    void *block = ovani_malloc(MTYPE_TMP, 8);
    EXPECT_EQ(MemAllocCount[MTYPE_TMP], 1);
    ovani_show_memory_allocated();
    EXPECT_EQ(platform.log.size(), 5U);
    EXPECT_TRUE(fake::logged("[unkown] : = 1\r\n", 7));
    ovani_free(MTYPE_TMP, block);
    EXPECT_EQ(MemAllocCount[MTYPE_TMP], 0);
}

TEST_F(TablesTest, ListingsGoToTheLogOnlyWhileTheDebugFileExists)
{
    auto list_both = [&] {
        platform.log.clear();
        ovani_host_table_show();
        ovani_mac_table_show();
        std::string text;
        for (const fake::LogLine &line : platform.log) {
            EXPECT_EQ(line.level, VELM_LOG_DEBUG);
            std::string function = line.text.substr(1, line.text.find("][") - 1);
            text += function + line.text.substr(line.text.find(']', function.size() + 2));
        }
        return text;
    };
    in_a_private_root([&] {
        learn(PC);
        arp(PC, PC_IP);
        EXPECT_EQ(list_both(), "");
        std::ofstream(OVANI_DEBUG_FILE).put('\n');
        std::string listing = list_both();
        const std::string expected[] = {
            "ovani_host_table_show] HOST TABLE Total Num = 1\r\novani_host_table_show]Host.1:\r\n"
            "ovani_host_node_show]---------------------------------------------\r\n"
            "ovani_host_node_show] ip                = 192.168.1.100\r\n"
            "ovani_host_node_show] mac             = 00:11:22:AA:BB:CC\r\n"
            "ovani_host_node_show] addr Source   =1: Static\r\n",
            "ovani_mac_table_show]MAC TALBE Total Num = 1\r\novani_mac_table_show]mac.1:\r\n"
            "ovani_mac_node_show]---------------------------------------------\r\n"
            "ovani_mac_node_show] mac\t\t\t= 00:11:22:AA:BB:CC\r\n"
            "ovani_mac_node_show] LanPortType\t\t= 0\r\n"
            "ovani_mac_node_show] LanPortNo\t\t= 2\r\n",
        };
        for (const std::string &text : expected) {
            EXPECT_THAT(listing, testing::HasSubstr(text));
        }
    });
}
