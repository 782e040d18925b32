#include "ovani/ovani_host_table.h"

#include <cstring>
#include <new>

#include "ovani/ovani_log.h"
#include "ovani/ovani_memory.h"

host_table g_host_table_ipv4;

int ovani_host_table_init()
{
    while (g_host_table_ipv4.top != nullptr) {
        ovani_host_node_delete(&g_host_table_ipv4, g_host_table_ipv4.top);
    }
    g_host_table_ipv4.release();
    return R_OK;
}

int ovani_host_node_num_get()
{
    return g_host_table_ipv4.host_node_num;
}

host_node *ovani_host_node_create()
{
    ovani_log(VELM_LOG_DEBUG, "ovani_host_node_create.\r\n");
    void *block = ovani_malloc(MTYPE_HOST_NODE, sizeof(host_node));
    if (block == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_node_create::route node create err!!");
        return nullptr;
    }
    auto *node = new (block) host_node{};
    node->AddressSource = OVANI_ADDR_TYPE_STATIC;
    return node;
}

int ovani_host_node_free(host_node *node)
{
    if (node == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_node_free:node is NULL.\r\n");
        return R_ERROR;
    }
    ovani_free(MTYPE_HOST_NODE, node);
    return R_OK;
}

int ovani_host_node_add(host_table *table, host_node *node)
{
    if (table == nullptr || node == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_node_add:the input parameters table or node is NULL!\r\n");
        return R_ERROR;
    }
    table->append(node);
    ++table->host_node_num;
    return R_OK;
}

int ovani_host_node_delete(host_table *table, host_node *node)
{
    if (table == nullptr || node == nullptr) {
        // KEPT: the text names no function of this table.
        ovani_log(VELM_LOG_ERR, "hal_route_node_delete:the input parameters table or node is NULL!\r\n");
        return R_ERROR;
    }
    table->unlink(node);
    ovani_host_node_free(node);
    --table->host_node_num;
    return R_OK;
}

namespace {

// A node as the find-or-create operations make it, appended to the table; `mac` may be null.
host_node *append_new_host(host_table *table, unsigned long ipv4, const unsigned char *mac)
{
    host_node *node = ovani_host_node_create();
    if (node == nullptr) {
        return nullptr;
    }
    node->ip = static_cast<uint32_t>(ipv4);
    if (mac != nullptr) {
        memcpy(node->mac, mac, OVANI_MAC_LEN);
    }
    copy_text(node->InterfaceType, OVANI_DEFAULT_IFTYPE);
    copy_text(node->DeviceType, OVANI_DEFAULT_DEVICETYPE);
    copy_text(node->HostName, OVANI_DEFAULT_HOSTNAME);
    node->lanPortNo = OVANI_INVALID_VALUE;
    node->Active = OVANI_HOST_ONLINE;
    ovani_host_node_add(table, node);
    return node;
}

} // namespace

host_node *ovani_host_node_match(const host_table *table, unsigned long ipv4)
{
    if (table == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_node_match:table is NULL!\r\n");
        return nullptr;
    }
    return table->find([=](const host_node &node) { return node.ip == ipv4; });
}

host_node *ovani_host_node_match_by_mac(const host_table *table, const unsigned char *mac)
{
    if (table == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_node_match:table is NULL!\r\n");
        return nullptr;
    }
    if (mac == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_node_match_by_mac:mac is NULL!\r\n");
        return nullptr;
    }
    return table->find_mac(mac);
}

host_node *ovani_host_node_match_by_ip_and_mac(const host_table *table, unsigned long ipv4,
                                               const unsigned char *mac)
{
    if (table == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_node_match_by_ip_and_mac:table is NULL!\r\n");
        return nullptr;
    }
    if (mac == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_node_match_by_ip_and_mac:mac is NULL!\r\n");
        return nullptr;
    }
    return table->find(
        [=](const host_node &node) { return node.ip == ipv4 && memcmp(node.mac, mac, OVANI_MAC_LEN) == 0; });
}

host_node *ovani_host_node_get(host_table *table, unsigned long ipv4)
{
    if (table == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_node_get:table is NULL!\r\n");
        return nullptr;
    }
    host_node *node = ovani_host_node_match(table, ipv4);
    return node != nullptr ? node : append_new_host(table, ipv4, nullptr);
}

host_node *ovani_host_node_get_by_mac(host_table *table, const unsigned char *mac)
{
    if (table == nullptr || mac == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_node_get_by_mac:table or mac is NULL!\r\n");
        return nullptr;
    }
    host_node *node = ovani_host_node_match_by_mac(table, mac);
    return node != nullptr ? node : append_new_host(table, 0, mac);
}

host_node *ovani_host_node_get_by_ip_and_mac(host_table *table, unsigned long ipv4, const unsigned char *mac)
{
    if (table == nullptr || mac == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_node_get_by_ip_and_mac:table or mac is NULL!\r\n");
        return nullptr;
    }
    host_node *node = ovani_host_node_match_by_ip_and_mac(table, ipv4, mac);
    return node != nullptr ? node : append_new_host(table, ipv4, mac);
}

int ovani_host_node_delete_by_port(host_table *table, int port)
{
    if (table == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_node_delete_by_port:table is NULL!\r\n");
        return 0;
    }
    host_node *next = nullptr;
    for (host_node *node = table->top; node != nullptr; node = next) {
        next = node->next;
        if (is_wired_to(*node, port)) {
            ovani_host_node_delete(table, node);
        }
    }
    return 0;
}

static void ovani_host_node_show(const host_node &node)
{
    bool fixed = node.AddressSource != OVANI_ADDR_TYPE_DHCP;
    ovani_log(VELM_LOG_DEBUG, "---------------------------------------------\r\n");
    ovani_log(VELM_LOG_DEBUG, " ip                = %s\r\n", ovani_ipv4_ltostr(node.ip));
    ovani_log(VELM_LOG_DEBUG, " mac             = %s\r\n", mac_colon_text(node.mac).data());
    ovani_log(VELM_LOG_DEBUG, " addr Source   =%d: %s\r\n", static_cast<int>(node.AddressSource),
              fixed ? "Static" : "DHCP");
    ovani_log(VELM_LOG_DEBUG, " LanPortType  =%d\r\n", node.lanPortType);
    ovani_log(VELM_LOG_DEBUG, " LanPortNo     =%d\r\n", node.lanPortNo);
    ovani_log(VELM_LOG_DEBUG, " LeaseTimeRemaining = %d\r\n", static_cast<int>(node.LeaseTimeRemaining));
    ovani_log(VELM_LOG_DEBUG, " VendorClassID  =%s\r\n", node.VendorClassID);
    ovani_log(VELM_LOG_DEBUG, " ClientID          =%s\r\n", node.ClientID);
    ovani_log(VELM_LOG_DEBUG, " UserClassID     = %s\r\n", node.UserClassID);
    ovani_log(VELM_LOG_DEBUG, " HostName       =%s\r\n", node.HostName);
    ovani_log(VELM_LOG_DEBUG, " DeviceType     =%s\r\n", node.DeviceType);
    ovani_log(VELM_LOG_DEBUG, " InterfaceType = %s\r\n", node.InterfaceType);
    ovani_log(VELM_LOG_DEBUG, " onlineclock     =%s\r\n", node.onlineclock);
    ovani_log(VELM_LOG_DEBUG, " path              =%s\r\n", node.path);
    ovani_log(VELM_LOG_DEBUG, " Active            =%d\r\n", node.Active);
    ovani_log(VELM_LOG_DEBUG, "---------------------------------------------\r\n");
}

void ovani_host_table_show()
{
    if (access(OVANI_DEBUG_FILE, F_OK) != 0) {
        return;
    }
    ovani_log(VELM_LOG_DEBUG, " HOST TABLE Total Num = %d\r\n", g_host_table_ipv4.host_node_num);
    int number = 0;
    for (const host_node *node = g_host_table_ipv4.top; node != nullptr; node = node->next) {
        ovani_log(VELM_LOG_DEBUG, "Host.%d:\r\n", ++number);
        ovani_host_node_show(*node);
    }
}
