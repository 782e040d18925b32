#include "ovani/ovani_event_arp.h"

#include <string_view>

#include "ovani/ovani_event_host.h"
#include "ovani/ovani_event_mac.h"
#include "ovani/ovani_host_mgr.h"
#include "ovani/ovani_log.h"

int ovani_arp_event_process(const ovani_arp_event *event)
{
    if (event == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_arp_event_process::pArpEvent NULLP error!!");
        return R_ERROR;
    }
    if (!is_lan_bridge(event->brname)) {
        ovani_log(VELM_LOG_DEBUG, "ovani_arp_event_process::%s is not br0 , return!!\n", event->brname);
        return R_OK;
    }
    switch (event->action) {
    case 0:
        break; // hosts leave when their MAC ages or their lease ends
    case 1:
        ovani_arp_event_add(event);
        break;
    default:
        ovani_log(VELM_LOG_ERR, "ovani_arp_event::unkown action error!!");
        return R_ERROR;
    }
    ovani_host_table_show();
    return R_OK;
}

namespace {

// A host keeps its DHCP source only while ARP confirms the leased address.
void update_address_source(host_node &host, uint32_t ip, const char *ip_text,
                           const char *function = __builtin_FUNCTION())
{
    if (host.AddressSource == HOST_TYPE_DHCP && host.ip == ip) {
        ovani_log_as(
            function, VELM_LOG_DEBUG,
            " host table=%s (with DHCP type )already in host table,do not overwrite AddressSource!\r\n",
            ip_text);
        return;
    }
    host.LeaseTimeRemaining = 0;
    host.AddressSource = HOST_TYPE_STATIC;
}

bool is_mesh_satellite(const host_node &host)
{
    std::string_view name{host.HostName};
    return name.starts_with("SlaveAP_") || name.find("Gleifala_") != std::string_view::npos;
}

} // namespace

int ovani_arp_event_add(const ovani_arp_event *event)
{
    if (event == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_arp_event_add pArpEvent NULLP error!!");
        return R_ERROR;
    }
    char ip_text[32];
    copy_text(ip_text, ovani_ipv4_ltostr(event->ipv4));
    mac_text mac = mac_bare_text(event->mac);
    ovani_log(VELM_LOG_DEBUG, "++++++[ovani_arp_event_add]::entry  mac = %s , ip = %s ,brname = %s!+++++++\n",
              mac.data(), ip_text, event->brname);
    if (!is_lan_bridge(event->brname)) {
        ovani_log(VELM_LOG_DEBUG, "ovani_arp_event_add::is not br0 , return!!\n");
        return R_OK;
    }
    host_node *host = ovani_host_node_get_by_mac(&g_host_table_ipv4, event->mac);
    if (host == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_arp_event_add::ovani_host_node_get_by_mac R_ERROR\n");
        return R_ERROR;
    }
    ovani_log(VELM_LOG_DEBUG, "ovani_arp_event_add::ovani_host_node_get_by_mac OK\n");
    update_address_source(*host, event->ipv4, ip_text);
    host->ip = event->ipv4;
    host->Active = OVANI_HOST_ONLINE;
    ovani_log(VELM_LOG_DEBUG, "ovani_arp_event_add pnode->HostName %s\r\n", host->HostName);
    clear_default_host_name(*host);
    if (is_mesh_satellite(*host)) {
        ovani_log(VELM_LOG_DEBUG,
                  "addition or updation of sub router hosts info is trigger by dhcp event not arp event\n");
        return R_OK;
    }
    copy_text(host->DeviceType, "");
    stamp_online_clock(host->onlineclock);

    mac_node *station = ovani_mac_node_match(&g_mac_table, event->mac);
    if (station == nullptr) {
        ovani_log(VELM_LOG_DEBUG,
                  " host table=%s add but not in mac table!,try to add it in mac table now\r\n", ip_text);
        station = learn_from_bridge(event->mac);
    }
    if (station == nullptr) {
        ovani_log(VELM_LOG_DEBUG,
                  " host table=%s add but not in mac table!,HOST INFO will add in mac event\r\n", ip_text);
        return R_OK;
    }
    refresh_port(*host, *station);
    ovani_log(VELM_LOG_DEBUG, "ovani_arp_event_add::pnode->LeaseTimeRemaining = 0 \n");

    HostDescription description;
    describe_host(*host, description);
    describe_address(*host, description);
    description.record.AssociatedDeviceType = host->AddressSource == HOST_TYPE_DHCP ? "" : "PC";
    if (!place_host(*host, description.record)) {
        ovani_log(VELM_LOG_ERR,
                  "ERRER : ovani_arp_event_add:: host = %s  mac = %s  cant find in ovani mactable\r\n",
                  ip_text, mac.data());
        return R_ERROR;
    }
    int index = add_and_announce(*host, description.record);
    ovani_log(VELM_LOG_DEBUG, "ovani_arp_event_add:add host obj %s,index=%d!\n",
              index < 1 ? "error" : "success", index);
    return index == -1 ? R_ERROR : R_OK;
}

int ovani_arp_event_del(const ovani_arp_event *event)
{
    if (event == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_arp_event_add::pArpEvent NULLP error!!");
        return R_ERROR;
    }
    char ip_text[32];
    copy_text(ip_text, ovani_ipv4_ltostr(event->ipv4));
    ovani_log(VELM_LOG_DEBUG, "------[ovani_arp_event_del]::entry  mac = %s , ip = %s ,brname = %s!-------\n",
              mac_colon_text(event->mac).data(), ip_text, event->brname);
    if (!is_lan_bridge(event->brname)) {
        ovani_log(VELM_LOG_DEBUG, "ovani_arp_event_del::is not br0 , return!!\n");
        return R_OK;
    }
    host_node *host = ovani_host_node_match_by_ip_and_mac(&g_host_table_ipv4, event->ipv4, event->mac);
    if (host == nullptr) {
        ovani_log(VELM_LOG_DEBUG, "ovani_arp_event_del::ip=%s not found in host table!!", ip_text);
        return R_OK;
    }
    ovani_log(VELM_LOG_DEBUG, "ovani_arp_event_del::ip=%s is exsited in host table, del it!!", ip_text);
    ovani_del_host_info_by_node(host);
    ovani_host_node_delete(&g_host_table_ipv4, host);
    return R_OK;
}
