#include "ovani/ovani_event_mac.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include <sys/socket.h>
#include <unistd.h>

#include "ovani/ovani_event_host.h"
#include "ovani/ovani_fd.h"
#include "ovani/ovani_host_mgr.h"
#include "ovani/ovani_interface.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_shell.h"

namespace {

// Whether the event is about the gateway's own interface. Every learned MAC asks this: the socket stays open.
bool is_own_interface(const ovani_mac_event &event)
{
    static UniqueFd asking;
    if (!asking) {
        asking = UniqueFd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    }
    unsigned char own[OVANI_MAC_LEN] = {};
    return ovani_get_mac_by_ifname(asking.get(), event.eth_num, own) == 0 &&
           memcmp(own, event.mac, OVANI_MAC_LEN) == 0;
}

} // namespace

int ovani_mac_event_process(const ovani_mac_event *event)
{
    if (event == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_mac_event_process::pMacEvent NULLP error!!");
        return R_ERROR;
    }
    if (!is_lan_bridge(event->brname)) {
        ovani_log(VELM_LOG_DEBUG, "ovani_mac_event_process::%s is not br0 , return!!\n", event->brname);
        return R_OK;
    }
    if (is_own_interface(*event)) {
        ovani_log(VELM_LOG_DEBUG, "ovani_mac_event_process::local interface eth_num %s return\n",
                  event->eth_num);
        return R_OK;
    }
    switch (event->action) {
    case 0:
        ovani_mac_event_del_static(event);
        break;
    case 1:
        ovani_mac_event_add(event);
        break;
    default:
        // KEPT: the text is that of a missing event.
        ovani_log(VELM_LOG_ERR, "ovani_mac_event_process::pMacEvent NULLP error!!");
        break;
    }
    list_tables();
    return R_OK;
}

void list_tables()
{
    if (access(OVANI_DEBUG_FILE, F_OK) == 0) {
        ovani_host_table_show();
        ovani_mac_table_show();
    }
}

namespace {

// Makes room in a full MAC table; the MAC learned longest ago goes, even when the one to come is known.
void evict_eldest_when_full(const char *function = __builtin_FUNCTION())
{
    if (ovani_mac_node_num_get() >= OVANI_MAC_MAX_NUM) {
        ovani_log_as(function, VELM_LOG_ERR, "ovani_mac_event_add::table full!! %d",
                     ovani_mac_node_num_get());
        ovani_mac_node_delete_top(&g_mac_table);
    }
}

// Writes the object of a host that is attached to no port: a new one, or one that had left. R_ERROR when the
// MAC table has lost the host's node.
int bring_back_host(host_node &host, const mac_node &station, const char *function = __builtin_FUNCTION())
{
    ovani_log_as(function, VELM_LOG_DEBUG, "goto add host info\n");
    HostDescription description;
    describe_host(host, description);
    if (host.ip != 0) {
        describe_address(host, description);
        if (host.AddressSource != HOST_TYPE_DHCP) {
            copy_text(host.DeviceType, "PC");
        }
        ovani_log_as(function, VELM_LOG_DEBUG, "ovani_mac_event_add hostinfo.AddressSource = %s",
                     description.record.AddressSource);
        description.record.AssociatedDeviceType = host.DeviceType;
    } else {
        clear_default_host_name(host);
    }
    if (!place_host(host, description.record)) {
        ovani_log_as(function, VELM_LOG_ERR,
                     "ERRER : ovani_mc_event_add:: host = %s  mac = %s  cant find in ovani mactable\r\n",
                     host.HostName, description.mac.data());
        return R_ERROR;
    }
    refresh_port(host, station); // the announcement tells it
    add_and_announce(host, description.record);
    return R_OK;
}

} // namespace

int ovani_mac_event_add(const ovani_mac_event *event)
{
    if (event == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_mac_event_add::event NULLP error!!\n");
        return R_ERROR;
    }
    ovani_log(VELM_LOG_DEBUG,
              "++++++[ovani_mac_event_add]::entry  mac = %s ,eth_num = %s, brname = %s!+++++++\n",
              mac_bare_text(event->mac).data(), event->eth_num, event->brname);
    if (!is_lan_bridge(event->brname)) {
        ovani_log(VELM_LOG_DEBUG, "ovani_mac_event_add::is not br0 , return!!\n");
        return R_OK;
    }
    evict_eldest_when_full();
    mac_node *station = ovani_mac_node_get(&g_mac_table, event->mac);
    if (station == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_mac_event_add::can't get mac node!!");
        return R_ERROR;
    }
    stamp_online_clock(station->onlineclock);
    eth_num2lanport_no_type(event->eth_num, &station->lanPortNo, &station->lanPortType);

    host_node *host = ovani_host_node_get_by_mac(&g_host_table_ipv4, event->mac);
    if (host == nullptr) {
        ovani_log(VELM_LOG_DEBUG, "mac cant find node_host ,no update!!!\n ");
        return R_OK;
    }
    if (host->lanPortNo == OVANI_INVALID_VALUE && bring_back_host(*host, *station) != R_OK) {
        return R_ERROR;
    }
    ovani_log(VELM_LOG_DEBUG, "mac update  node_host !!!\n");
    refresh_port(*host, *station);
    return R_OK;
}

namespace {

void retire_host_of(const unsigned char *mac, const char *function = __builtin_FUNCTION())
{
    host_node *host = ovani_host_node_match_by_mac(&g_host_table_ipv4, mac);
    if (host == nullptr) {
        ovani_log_as(function, VELM_LOG_DEBUG, "delete node_host fail !!!\n ");
        return;
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "ovani_mac_event_del start ovani_del_host_info_by_node\n");
    ovani_del_host_info_by_node(host);
    host->lanPortNo = OVANI_INVALID_VALUE;
}

// What both variants of the removal begin with. True when there is something to remove.
bool begin_removal(const ovani_mac_event *event, int &result, const char *function = __builtin_FUNCTION())
{
    if (event == nullptr) {
        ovani_log_as(function, VELM_LOG_ERR, "ovani_mac_event_del::event NULLP error!!");
        result = R_ERROR;
        return false;
    }
    result = R_OK;
    if (!is_lan_bridge(event->brname)) {
        ovani_log_as(function, VELM_LOG_DEBUG, "ovani_mac_event_del::is not br0 , return!!\n");
        return false;
    }
    ovani_log_as(function, VELM_LOG_DEBUG,
                 "------[ovani_mac_event_del]::entry  mac = %s ,eth_num=%s, brname = %s!---------\n",
                 mac_colon_text(event->mac).data(), event->eth_num, event->brname);
    return true;
}

} // namespace

int ovani_mac_event_del_static(const ovani_mac_event *event)
{
    int result = R_OK;
    if (!begin_removal(event, result)) {
        return result;
    }
    mac_node *station = ovani_mac_node_match(&g_mac_table, event->mac);
    if (station == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_mac_event_del::can't get mac node!!");
    } else {
        result = ovani_mac_node_delete(&g_mac_table, station);
    }
    retire_host_of(event->mac);
    return result;
}

int ovani_mac_event_del(const ovani_mac_event *event)
{
    int result = R_OK;
    if (!begin_removal(event, result)) {
        return result;
    }
    del_item_from_arp(mac_colon_text(event->mac).data());
    mac_node *station = ovani_mac_node_match(&g_mac_table, event->mac);
    if (station == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_mac_event_del::can't get mac node!!");
        return R_OK;
    }
    retire_host_of(event->mac);
    return ovani_mac_node_delete(&g_mac_table, station);
}

namespace {

// The learned event that the bridge would have sent for a MAC behind one of its ports.
void replay_learned_event(const char *mac_str, const char *interface)
{
    ovani_mac_event event{};
    event.event_id = 1;
    event.action = 1;
    copy_text(event.brname, OVANI_BR_NAME);
    copy_text(event.eth_num, interface);
    ovani_str2mac(mac_str, reinterpret_cast<char *>(event.mac));
    ovani_mac_event_add(&event);
}

// Learns a MAC from the bridge's table when it sits behind a port with one of these words in its name.
void learn_behind(std::initializer_list<const char *> words, bool wifi_only, const unsigned char *mac_str,
                  const char *function = __builtin_FUNCTION())
{
    const char *mac = reinterpret_cast<const char *>(mac_str);
    BRCTL_MACS_INFO info{};
    if (get_brctl_info_from_mac(mac, &info) != 1) {
        ovani_log_as(function, VELM_LOG_ERR, "[%s] popen brctl showmacs br0 failed \n", function);
        return;
    }
    if (strcmp(info.islocal, "no") != 0 ||
        std::ranges::none_of(words, [&](const char *word) { return strstr(info.intf, word) != nullptr; })) {
        return;
    }
    char port_number = 0;
    char port_type = static_cast<char>(255);
    if (wifi_only) {
        eth_num2lanport_no_type(info.intf, &port_number, &port_type);
    }
    if (wifi_only && port_type != 1) {
        ovani_log_as(function, VELM_LOG_DEBUG, "[%s]  the lanport_type of mac (%s) is not 1???\n", function,
                     mac);
        return;
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "[%s]-- DEALING  mac starts. ", function);
    replay_learned_event(mac, info.intf);
    ovani_log_as(function, VELM_LOG_DEBUG, "[%s]-- DEALING  mac ends. ", function);
}

} // namespace

void ovani_lanhost_wifi_add_mac(const unsigned char *mac_str)
{
    learn_behind({"ra"}, true, mac_str);
}

void ovani_lanhost_resolve_mac(const unsigned char *mac_str)
{
    learn_behind({"eth", "ra", "wds"}, false, mac_str);
}

mac_node *learn_from_bridge(const unsigned char *mac)
{
    mac_text text = mac_colon_text(mac);
    ovani_lanhost_resolve_mac(reinterpret_cast<const unsigned char *>(text.data()));
    return ovani_mac_node_match(&g_mac_table, mac);
}

int ovani_get_mac_info(const ovani_mac_event *event, char *povani_mac_info)
{
    if (event == nullptr || povani_mac_info == nullptr) {
        ovani_log(VELM_LOG_ERR, "******ovani_get_mac_info:povani_mac_info null******");
        return R_ERROR;
    }
    char port_number = 0;
    char port_type = 0;
    eth_num2lanport_no_type(event->eth_num, &port_number, &port_type);
    const char *network = port_type != 0 ? "WLAN" : "LAN";
    const char *state = event->action != 0 ? "ONLINE" : "OFFLINE";
    snprintf(povani_mac_info, OVANI_MAC_INFO_LEN, "{\"Event\":\"%s_DEV_%s\",\"MacAddr\":\"%s\"}", network,
             state, mac_colon_text(event->mac).data());
    return R_OK;
}
