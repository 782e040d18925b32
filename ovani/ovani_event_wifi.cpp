#include "ovani/ovani_event_wifi.h"

#include "ovani/ovani_event_mac.h"
#include "ovani/ovani_host_mgr.h"
#include "ovani/ovani_log.h"

int ovani_wifi_user_event_process(const ovani_wifi_event *event)
{
    if (event == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_wifi_user_event_process::pArpEvent NULLP error!!");
        return R_ERROR;
    }
    switch (event->action) {
    case 0:
        ovani_wifi_user_event_del(event);
        break;
    case 1:
        ovani_wifi_user_event_add(event);
        break;
    default:
        ovani_log(VELM_LOG_ERR, "ovani_wifi_user_event_process::unkown action error!!");
        return R_ERROR;
    }
    list_tables();
    return R_OK;
}

namespace {

// A station that roamed or associated again: its object moves to the SSID and is active now.
void move_to_ssid(const char *colon_mac, int port, const char *function = __builtin_FUNCTION())
{
    char mac[OVANI_MAC_STR_LEN] = {};
    mac_form_translate(colon_mac, MAC_FORM_BARE_UPPER, mac);
    ovani_dhcpd_host_event record{.MACAddress = mac};
    ovani_log_as(function, VELM_LOG_DEBUG, "device:%s change port id to new value:%d", mac, port);
    ovani_update_host_lanport(&record, port);
    ovani_update_active_time(mac);
}

} // namespace

int ovani_wifi_user_event_add(const ovani_wifi_event *event)
{
    if (event == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_wifi_user_event_add::event NULLP error!!");
        return R_ERROR;
    }
    mac_text mac = mac_colon_text(event->mac);
    ovani_log(VELM_LOG_DEBUG, "+++++[ovani_wifi_user_event_add]::entry  mac = %s !!++++++\n", mac.data());
    if (ovani_mac_node_num_get() >= OVANI_MAC_MAX_NUM) {
        // KEPT: the text names the other handler that makes room.
        ovani_log(VELM_LOG_ERR, "ovani_mac_event_add::table full!!");
        ovani_mac_node_delete_top(&g_mac_table);
    }
    if (ovani_mac_node_match(&g_mac_table, event->mac) != nullptr) {
        move_to_ssid(mac.data(), event->ssidno + 1);
    } else {
        ovani_log(VELM_LOG_DEBUG, "ovani_wifi_user_event_add_mac!!");
        ovani_lanhost_wifi_add_mac(reinterpret_cast<const unsigned char *>(mac.data()));
    }
    return R_OK;
}

int ovani_wifi_user_event_del(const ovani_wifi_event *event)
{
    if (event == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_wifi_user_event_del::event NULLP error!!");
        return R_ERROR;
    }
    ovani_log(VELM_LOG_DEBUG, "-----[ovani_wifi_user_event_del]::entry  mac = %s !!-------\n",
              mac_colon_text(event->mac).data());
    host_node *host = ovani_host_node_match_by_mac(&g_host_table_ipv4, event->mac);
    if (host != nullptr) {
        ovani_log(VELM_LOG_DEBUG, "delete node_host  host_info!!!\n");
        ovani_del_host_info_by_node(host);
        host->lanPortNo = OVANI_INVALID_VALUE;
        ovani_log(VELM_LOG_DEBUG, "finish delete host node!!!\n");
    } else {
        ovani_log(VELM_LOG_DEBUG, "delete node_host fail !!!\n ");
    }
    mac_node *station = ovani_mac_node_match(&g_mac_table, event->mac);
    if (station == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_wifi_user_event_del::can't get mac node!!");
        return R_OK;
    }
    return ovani_mac_node_delete(&g_mac_table, station);
}
