#include "ovani/ovani_host_mgr.h"

#include <strings.h>
#include <unistd.h>

#include "ovani/ovani_announce.h"
#include "ovani/ovani_config.h"
#include "ovani/ovani_host_config.h"
#include "ovani/ovani_host_object.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_mac_table.h"
#include "ovani/ovani_operator.h"
#include "platform/zkcfgif.h"

// --- Adding

namespace {

bool is_no_address(const char *ip)
{
    return ip == nullptr || *ip == '\0' || strcasecmp(ip, "NULL") == 0;
}

// Whether a cached instance still has its object in the store.
bool object_exists(int index, const char *function = __builtin_FUNCTION())
{
    if (index < 1) {
        return false;
    }
    int exists = zkapi_obj_checkexist(url_of_instance(index).text, OVANI_STORE_WAIT_MS);
    ovani_log_as(function, VELM_LOG_DEBUG, "ret1=%d\n", exists);
    return exists != 0;
}

// Creates an object for a host; `index` is its stale cached instance, or 0. Returns the new instance, or -1.
int create_host_object(const ovani_dhcpd_host_event &hostinfo, int index,
                       const char *function = __builtin_FUNCTION())
{
    if (s_hostnumberofentries >= s_hostmaxnumber) {
        // KEPT: the first text announces an eviction; there is none.
        ovani_log_as(function, VELM_LOG_ERR, "ovani_add_host_info ovani_del_inactive_host");
        ovani_log_as(function, VELM_LOG_ERR, "Error: hostNumberOfEntries %d, hostMaxNumber %d\n",
                     static_cast<int>(s_hostnumberofentries), static_cast<int>(s_hostmaxnumber));
        return -1;
    }
    if (is_no_address(hostinfo.IPAddress)) {
        ovani_log_as(function, VELM_LOG_DEBUG, "Error: Do not add No IP host mac = %s\n",
                     text_or_empty(hostinfo.MACAddress));
        return -1;
    }
    if (HostToIndexMap *row = row_of_instance(index)) {
        forget_row(*row);
    }
    int ret = zkapi_obj_add(OVANI_HOST_NODE_PATH, &index, DEVFUNC_NOCALL_NOINFORM, ALL_BLOCK_LOCK);
    if (ret != 0 || index < 1) {
        ovani_log_as(function, VELM_LOG_ERR, "Create Host Node Error: %s,%d\n", OVANI_HOST_NODE_PATH, ret);
        return -1;
    }
    ++s_hostnumberofentries;
    ovani_log_as(function, VELM_LOG_DEBUG,
                 "Create Host Node Success: s_hostnumberofentries =%d,url=%s,index=%d\n",
                 static_cast<int>(s_hostnumberofentries), OVANI_HOST_NODE_PATH, index);
    return index;
}

constexpr NameLines ADD_NAME_LINES{
    .is_utf8 = "***is_utf8 != 0\t is  utf8*****\r\n",
    .is_not_utf8 = nullptr, // a lease has swapped it already
    .converted = "***ret_convert = 0 \tconvert succ*****",
    .failed = "***ret_convert != 0\t convert fail*****",
};

} // namespace

int ovani_add_host_info(ovani_dhcpd_host_event *hostinfo)
{
    ovani_log(VELM_LOG_DEBUG, "ovani_add_host_info::entry!!! \n");
    if (hostinfo == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_add_host_info::hostinfo nullp err!!\r\n");
        return 0;
    }
    HostTexts texts{};
    copy_text(texts.InterfaceType, hostinfo->InterfaceType);
    convert_host_name(hostinfo->HostName, texts.HostName, ADD_NAME_LINES);
    if (mac_form_translate(hostinfo->MACAddress, MAC_FORM_COLON_LOWER, texts.MACAddress) == -1) {
        ovani_log(VELM_LOG_ERR, "ovani_del_host_info mac_form_translate error");
        return -1;
    }
    if (access(SPEEDLIMIT_MACLIST_FILE, F_OK) == 0) {
        handler_speedlimit_config(texts.MACAddress);
    }
    apply_mac_filter(*hostinfo);

    int index = ovani_del_host_associatedev_info(hostinfo->MACAddress);
    ovani_log(VELM_LOG_DEBUG, "temp_url=%s index=%d\n", url_of_instance(index).text, index);
    if (!object_exists(index)) {
        index = create_host_object(*hostinfo, index);
        if (index == -1) {
            return -1;
        }
    }
    HostUrl url = url_of_instance(index);
    int ret = write_host_object(*hostinfo, texts, url);
    if (ret != 0) {
        ovani_log(VELM_LOG_ERR, "Error:write_multi_config_to_xml:Set HostInfo url=%s,ret=%d\n", url.text,
                  ret);
        return -1;
    }
    HostToIndexMap *row = row_of_instance(index);
    if (row == nullptr) {
        ovani_log(VELM_LOG_ERR, "More Than Max Host Entries Error: index is %d,max entries is %d\n", index,
                  OVANI_MAX_HOST_ENTRIES);
        return index;
    }
    copy_text(row->hostHash, hostinfo->MACAddress);
    ovani_log(VELM_LOG_DEBUG, "before add_associateddevice_info: index is %d,Temp Info is %s\n", index,
              row->hostHash);
    return index;
}

int add_and_announce(host_node &host, ovani_dhcpd_host_event &record)
{
    int index = ovani_add_host_info(&record);
    if (index > 0) {
        ovani_host_status_ubus_send(index);
        ovani_presence_online(host);
    }
    return index;
}

// --- Updating

namespace {

// The store's answer whether the object of a cached host is there to be changed, 0 when not.
int known_object(const char *mac, int index, const HostUrl &url, const char *function = __builtin_FUNCTION())
{
    ovani_log_as(function, VELM_LOG_DEBUG, "temp_url=%s index=%d\n", url.text, index);
    int ret = 0;
    if (index >= 1) {
        ret = zkapi_obj_checkexist(url.text, OVANI_STORE_WAIT_MS);
        ovani_log_as(function, VELM_LOG_DEBUG, "ret=%d\n", ret);
    }
    if (ret == 0) {
        ovani_log_as(function, VELM_LOG_ERR, "index not exist!! mac=%s\r\n", text_or_empty(mac));
    }
    return ret;
}

// Announces a changed object, or logs that the store refused.
int announce_change(const HostUrl &url, int index, int ret, const char *function = __builtin_FUNCTION())
{
    if (ret != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "Error:write_multi_config_to_xml:Set HostInfo url=%s,ret=%d\n",
                     url.text, ret);
        return -1;
    }
    ovani_host_status_ubus_send(index);
    ovani_log_as(function, VELM_LOG_DEBUG, "ovani_host_status_ubus_send param change  index is %d\n", index);
    return index;
}

} // namespace

int ovani_add_host_ipv6_info(const ovani_dhcpd_host_event *hostinfo)
{
    ovani_log(VELM_LOG_DEBUG, "ovani_add_host_info::entry!!! \n");
    if (hostinfo == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_add_host_info::hostinfo nullp err!!\r\n");
        return 0;
    }
    int index = ovani_del_host_associatedev_info(hostinfo->MACAddress);
    HostUrl url = url_of_instance(index);
    // KEPT: with neither address this stays the result, and reads as a failure.
    int ret = known_object(hostinfo->MACAddress, index, url);
    if (ret == 0) {
        return 0;
    }
    if (hostinfo->IPv6Address != nullptr) {
        ret = zkcfg_setsingleparamval(url.text, "IPv6Address", hostinfo->IPv6Address, OVANI_STORE_WAIT_MS);
    }
    if (hostinfo->IPv6LLAddress != nullptr) {
        ret =
            zkcfg_setsingleparamval(url.text, "IPv6LLAddress", hostinfo->IPv6LLAddress, OVANI_STORE_WAIT_MS);
    }
    return announce_change(url, index, ret);
}

int ovani_update_host_lanport(const ovani_dhcpd_host_event *hostinfo, int portno)
{
    ovani_log(VELM_LOG_DEBUG, "ovani_add_host_info::entry!!! \n");
    if (hostinfo == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_add_host_info::hostinfo nullp err!!\r\n");
        return 0;
    }
    int index = ovani_get_host_associatedev_info(hostinfo->MACAddress);
    HostUrl url = url_of_instance(index);
    if (known_object(hostinfo->MACAddress, index, url) == 0) {
        return 0;
    }
    int ret = zkcfg_setsingleparamval(url.text, "Port", decimal_text(portno).data(), OVANI_STORE_WAIT_MS);
    return announce_change(url, index, ret);
}

int ovani_update_active_time(const char *macaddr)
{
    int uptime = static_cast<int>(ovani_get_system_uptime());
    int index = ovani_get_host_associatedev_info(macaddr);
    HostUrl url = url_of_instance(index);
    int ret = index > 0 ? zkapi_obj_checkexist(url.text, OVANI_STORE_WAIT_MS) : 0;
    ovani_log(VELM_LOG_DEBUG, "url=%s index=%d ret=%d uptime=%d\n", url.text, index, ret, uptime);
    if (ret == 0) {
        ovani_log(VELM_LOG_DEBUG, "index not exist!! mac=%s\r\n", text_or_empty(macaddr));
        return R_OK;
    }
    return zkcfg_setsingleparamval(url.text, "LatestActiveTime", decimal_text(uptime).data(),
                                   OVANI_STORE_WAIT_MS) == 0
               ? R_OK
               : R_ERROR;
}

// --- Removing

namespace {

bool leaving_deletes()
{
    const OperatorProfile *profile = ovani_operator_profile();
    return profile != nullptr && profile->deletes_who_leaves;
}

void delete_host_object(int index, const char *function = __builtin_FUNCTION())
{
    if (zkapi_obj_del(OVANI_HOST_NODE_PATH, index, DEVFUNC_NOCALL_NOFLASH, ALL_BLOCK_LOCK) != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "ZKAPI_Obj_Del fail!\n");
        return;
    }
    forget_row(*row_of_instance(index));
    if (s_hostnumberofentries > 0) {
        --s_hostnumberofentries;
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "ZKAPI_Obj_Del succeed! s_hostnumberofentries is %d\n",
                 static_cast<int>(s_hostnumberofentries));
}

int mark_host_object_inactive(int index, const char *function = __builtin_FUNCTION())
{
    number_text uptime = decimal_text(ovani_get_system_uptime());
    char zero[] = "0";
    tConfigMap map[] = {
        {"LatestInactiveTime", uptime.data()},
        {"Active", zero},
        {"LeaseTimeRemaining", zero},
        {},
    };
    HostUrl url = url_of_instance(index);
    int ret = write_multi_config_to_xml(map, url.text);
    if (ret != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "Set Del Host Node Info Error: %s,%d\n", url.text, ret);
    } else {
        ovani_log_as(function, VELM_LOG_DEBUG, "set success,url=%s,index=%d\n", url.text, index);
    }
    return ret;
}

} // namespace

int ovani_del_host_info(const ovani_dhcpd_host_event *hostinfo)
{
    if (hostinfo == nullptr) {
        return 0;
    }
    int index = instance_of_mac(hostinfo->MACAddress);
    if (index == 0) {
        char mac[OVANI_MAC_STR_LEN] = {};
        if (mac_form_translate(hostinfo->MACAddress, MAC_FORM_COLON_UPPER, mac) == -1) {
            ovani_log(VELM_LOG_ERR, "ovani_del_host_info mac_form_translate error");
        } else if (mac[0] == '\0') {
            ovani_log(VELM_LOG_ERR, "ovani_del_host_info tmp_macStr is null");
        } else {
            ovani_log(VELM_LOG_DEBUG, "delObject not found,mac=%s\n", hostinfo->MACAddress);
        }
        return 0;
    }
    ovani_del_associateddevice_info(index);
    if (leaving_deletes()) {
        delete_host_object(index);
    } else if (mark_host_object_inactive(index) != 0) {
        return -1;
    }
    ovani_log(VELM_LOG_DEBUG, "hostNumberOfEntries is %d\n", static_cast<int>(s_hostnumberofentries));
    return index;
}

namespace {

// Whether a host's object is still there, and active, because the store refused to delete or to mark it. One
// that was deleted behind the daemon's back is not.
bool has_stayed(const ovani_dhcpd_host_event &record, int result)
{
    int index = instance_of_mac(record.MACAddress);
    bool refused = result == -1 || (index > 0 && leaving_deletes());
    return refused && zkapi_obj_checkexist(url_of_instance(index).text, OVANI_STORE_WAIT_MS) != 0;
}

} // namespace

int retire_and_announce(host_node *host, const ovani_dhcpd_host_event &record)
{
    int index = ovani_del_host_info(&record);
    if (index > 0) {
        ovani_host_status_ubus_send(index);
    }
    if (host != nullptr && !has_stayed(record, index)) {
        ovani_presence_offline(*host);
    }
    return index;
}

int ovani_del_host_info_by_node(host_node *pNodeInfo)
{
    if (pNodeInfo == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_del_host_info_by_node::pNodeInfo NULLP error!!");
        return R_ERROR;
    }
    char ip[32];
    char empty[] = "";
    char inactive[] = "0";
    mac_text mac = mac_bare_text(pNodeInfo->mac);
    copy_text(ip, ovani_ipv4_ltostr(pNodeInfo->ip));
    retire_and_announce(pNodeInfo, {
                                       .action = "DEL",
                                       .IPAddress = ip,
                                       .AddressSource = address_source_text(*pNodeInfo),
                                       .AckTime = empty,
                                       .LeaseTimeRemaining = empty,
                                       .HostName = empty,
                                       .AssociatedDeviceType = empty,
                                       .MACAddress = mac.data(),
                                       .Layer2Interface = ovani_layer2_interface_get_by_mac(pNodeInfo->mac),
                                       .InterfaceType = ovani_port_type_get_by_mac(pNodeInfo->mac),
                                       .Active = inactive,
                                   });
    return R_OK;
}

int ovani_host_info_delete_by_port(host_table *table, int port)
{
    if (table == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_host_info_delete_by_port:table is NULL!\r\n");
        return 0;
    }
    for (host_node *node = table->top; node != nullptr; node = node->next) {
        if (is_wired_to(*node, port)) {
            ovani_log(VELM_LOG_DEBUG, "goto ovani_del_host_info_by_node!!!\n");
            ovani_del_host_info_by_node(node);
            node->lanPortNo = OVANI_INVALID_VALUE;
        }
    }
    ovani_log(VELM_LOG_DEBUG, "host_table  find finish ,no leaved matched port !!!\n");
    return R_OK;
}
