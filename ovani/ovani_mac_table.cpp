#include "ovani/ovani_mac_table.h"

#include <cstring>
#include <new>

#include "ovani/ovani_log.h"
#include "ovani/ovani_memory.h"

mac_table g_mac_table;
const char *const g_ovani_interfaceType[2] = {"Ethernet", "802.11"};
char g_ovani_layer2_interface_str[128];

int ovani_mac_table_init()
{
    while (g_mac_table.top != nullptr) {
        ovani_mac_node_delete_top(&g_mac_table);
    }
    g_mac_table.release();
    return R_OK;
}

int ovani_mac_node_num_get()
{
    return g_mac_table.mac_node_num;
}

mac_node *ovani_mac_node_match(const mac_table *table, const unsigned char *mac)
{
    if (table == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_mac_node_match:table is NULL!\r\n");
        return nullptr;
    }
    if (mac == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_mac_node_match:mac is NULL!\r\n");
        return nullptr;
    }
    return table->find_mac(mac);
}

static mac_node *ovani_mac_node_create()
{
    ovani_log(VELM_LOG_DEBUG, "ovani_mac_node_create.\r\n");
    void *block = ovani_malloc(MTYPE_MAC_NODE, sizeof(mac_node));
    if (block == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_mac_node_create::mac node create err!!");
        return nullptr;
    }
    return new (block) mac_node{};
}

static int ovani_mac_node_add(mac_table *table, mac_node *node)
{
    if (table == nullptr || node == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_mac_node_add:the input parameters table or node is NULL!\r\n");
        return R_ERROR;
    }
    ovani_log(VELM_LOG_DEBUG, "ovani_mac_node_add!\r\n");
    table->append(node);
    ++table->mac_node_num;
    return R_OK;
}

mac_node *ovani_mac_node_get(mac_table *table, const unsigned char *mac)
{
    if (table == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_mac_node_get:table is NULL!\r\n");
        return nullptr;
    }
    if (mac == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_mac_node_get:mac is NULL!\r\n");
        return nullptr;
    }
    mac_node *node = table->find_mac(mac);
    if (node != nullptr) {
        return node;
    }
    node = ovani_mac_node_create();
    if (node != nullptr) {
        memcpy(node->mac, mac, OVANI_MAC_LEN);
    }
    return ovani_mac_node_add(table, node) == R_OK ? node : nullptr;
}

int ovani_mac_node_delete(mac_table *table, mac_node *node)
{
    // KEPT: these texts name no function of this table.
    if (table == nullptr || node == nullptr) {
        ovani_log(VELM_LOG_ERR, "hal_route_node_delete:the input parameters table or node is NULL!\r\n");
        return R_ERROR;
    }
    ovani_log(VELM_LOG_DEBUG, "hal_route_node_delete!\r\n");
    table->unlink(node);
    ovani_log(VELM_LOG_DEBUG, "ovani_mac_node_free.\r\n");
    ovani_free(MTYPE_MAC_NODE, node);
    --table->mac_node_num;
    return R_OK;
}

int ovani_mac_node_delete_top(mac_table *table)
{
    return ovani_mac_node_delete(table, table == nullptr ? nullptr : table->top);
}

static void ovani_mac_node_show(const mac_node &node)
{
    ovani_log(VELM_LOG_DEBUG, "---------------------------------------------\r\n");
    ovani_log(VELM_LOG_DEBUG, " mac\t\t\t= %s\r\n", mac_colon_text(node.mac).data());
    ovani_log(VELM_LOG_DEBUG, " LanPortType\t\t= %d\r\n", node.lanPortType);
    ovani_log(VELM_LOG_DEBUG, " LanPortNo\t\t= %d\r\n", node.lanPortNo);
    ovani_log(VELM_LOG_DEBUG, " onlineclock\t\t= %s\r\n", node.onlineclock);
    ovani_log(VELM_LOG_DEBUG, "---------------------------------------------\r\n");
}

void ovani_mac_table_show()
{
    if (access(OVANI_DEBUG_FILE, F_OK) != 0) {
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "MAC TALBE Total Num = %d\r\n", g_mac_table.mac_node_num);
    int number = 0;
    for (const mac_node *node = g_mac_table.top; node != nullptr; node = node->next) {
        ovani_log(VELM_LOG_DEBUG, "mac.%d:\r\n", ++number);
        ovani_mac_node_show(*node);
    }
}

char *ovani_layer2_interface_get_by_mac(const unsigned char *mac)
{
    ovani_log(VELM_LOG_DEBUG, "ovani_layer2_interface_get_by_mac::entry!!\n");
    const mac_node *node = ovani_mac_node_match(&g_mac_table, mac);
    if (node == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_layer2_interface_get_by_mac::can't get mac node!!\n");
        return nullptr;
    }
    const char *table = node->lanPortType != 0
                            ? "InternetGatewayDevice.LANDevice.1.WLANConfiguration."
                            : "InternetGatewayDevice.LANDevice.1.LANEthernetInterfaceConfig.";
    instance_path(g_ovani_layer2_interface_str, table, node->lanPortNo);
    return g_ovani_layer2_interface_str;
}

const char *ovani_port_type_get_by_mac(const unsigned char *mac)
{
    ovani_log(VELM_LOG_DEBUG, "ovani_port_type_get_by_mac::entry!!\n");
    const mac_node *node = ovani_mac_node_match(&g_mac_table, mac);
    if (node == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_port_type_get_by_mac::can't get mac node!!\n");
        return nullptr;
    }
    return g_ovani_interfaceType[node->lanPortType != 0 ? 1 : 0];
}
