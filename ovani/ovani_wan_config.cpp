#include "ovani/ovani_wan_config.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <strings.h>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_config.h"
#include "ovani/ovani_log.h"
#include "platform/zkcfgif.h"

qv_wan_param s_vlanbind_wan_param[OVANI_MAX_WAN_NUM + 1];
READ_ALL_WAN_CFG g_read_wan_param_cfg = read_wan_param_cfg;
READ_WANCON_CFG_BY_INDEX g_read_wan_conn_cfg_by_index = read_wan_conn_cfg_by_index_ct;

// --- Service lists

namespace {

struct service_rule {
    const char *words[2];
    qv_wan_mode mode;
    bool voice; // and "VOIP" or "VOICE"
};

// The first that holds wins: OTHER before IPTV.
constexpr service_rule service_rules[] = {
    {{"TR069", "INTERNET"}, INTERNET_TR069_VOIP, true},
    {{"ALL", ""}, INTERNET_TR069_VOIP, false},
    {{"TR069", ""}, TR069_VOIP, true},
    {{"INTERNET", ""}, INTERNET_VOIP, true},
    {{"TR069", "INTERNET"}, INTERNET_TR069, false},
    {{"", ""}, VOIP, true},
    {{"TR069", ""}, TR069, false},
    {{"INTERNET", ""}, INTERNET, false},
    {{"OTHER", ""}, OTHER, false},
    {{"SPECIAL_SERVICE_1", ""}, SPECIAL_SERVICE_1, false},
    {{"SPECIAL_SERVICE_2", ""}, SPECIAL_SERVICE_2, false},
    {{"SPECIAL_SERVICE_3", ""}, SPECIAL_SERVICE_3, false},
    {{"SPECIAL_SERVICE_4", ""}, SPECIAL_SERVICE_4, false},
    {{"IPTV", ""}, IPTV, false},
};

bool holds(const service_rule &rule, const char *services)
{
    bool voice = strstr(services, "VOIP") != nullptr || strstr(services, "VOICE") != nullptr;
    return (!rule.voice || voice) && std::ranges::all_of(rule.words, [=](const char *word) {
               return strstr(services, word) != nullptr;
           });
}

} // namespace

int parse_servicelist_to_wan_mode(qv_wan_mode *wanmode, const char *sList)
{
    if (wanmode == nullptr || sList == nullptr) {
        ovani_log(VELM_LOG_ERR, "Param is NULL !\n");
        return -1;
    }
    char services[256];
    copy_text(services, sList);
    ovani_strToUpper(services);
    for (const service_rule &rule : service_rules) {
        if (holds(rule, services)) {
            *wanmode = rule.mode;
            return 0;
        }
    }
    ovani_log(VELM_LOG_ERR, "Invalid ServiceLsit:%s !\n", sList);
    return -1;
}

// --- One connection

namespace {

constexpr char OVANI_WAN_CONN_DEVICE[] = "InternetGatewayDevice.WANDevice.1.WANConnectionDevice";

// What an operator calls a connection's parameters, and what it allows. A null name is a parameter it has
// not.
struct wan_profile {
    const char *function; // what its log lines name
    int first_device, last_device;
    int first_connection, last_connection;
    const char *ip_mode;
    const char *service_list;
    const char *lan_dhcp;
    const char *vlan_enabled; // the VLAN counts only where this is not 0
    const char *vlan;
    const char *priority;
    bool vlan_of_device; // the VLAN's parameters are the connection device's
    bool vlan_0_is_none; // VLAN 0 reads as NO_VLAN
};

constexpr wan_profile profile_cm{
    .function = "read_wan_conn_cfg_by_index_cm",
    .first_device = 0,
    .last_device = 1,
    .first_connection = 0,
    .last_connection = 8,
    .ip_mode = "X_CMCC_IPMode",
    .service_list = "X_CMCC_ServiceList",
    .lan_dhcp = "X_CMCC_LanInterface-DHCPEnable",
    .vlan_enabled = "X_CMCC_VLANMode",
    .vlan = "X_CMCC_VLANIDMark",
    .priority = "X_CMCC_802-1pMark",
    .vlan_of_device = false,
    .vlan_0_is_none = true,
};

// China Telecom's WAN side goes by True's names, its LAN side by its own.
constexpr wan_profile profile_ct{
    .function = "read_wan_conn_cfg_by_index_ct",
    .first_device = 0,
    .last_device = 16,
    .first_connection = 0,
    .last_connection = 2,
    .ip_mode = "X_TRUE_IPMode",
    .service_list = "X_TRUE_ServiceList",
    .lan_dhcp = "DHCPEnable",
    .vlan_enabled = nullptr,
    .vlan = "X_TRUE_VlanID",
    .priority = "X_TRUE_VlanPriority",
    .vlan_of_device = false,
    .vlan_0_is_none = false,
};

constexpr wan_profile profile_cu{
    .function = "read_wan_conn_cfg_by_index_cu",
    .first_device = 0,
    .last_device = 16,
    .first_connection = 0,
    .last_connection = 2,
    .ip_mode = "X_CU_IPMode",
    .service_list = "X_CU_ServiceList",
    .lan_dhcp = nullptr,
    .vlan_enabled = "X_CU_VLANEnabled",
    .vlan = "X_CU_VLAN",
    .priority = "X_CU_802_1p",
    .vlan_of_device = true,
    .vlan_0_is_none = true,
};

// Values of one connection as the store gives them.
struct wan_values {
    char ip_mode[OVANI_VALUE_LEN];
    char service_list[OVANI_VALUE_LEN];
    char lan_dhcp[OVANI_VALUE_LEN];
    char connection_type[OVANI_VALUE_LEN];
    char vlan_enabled[OVANI_VALUE_LEN];
    char vlan[OVANI_VALUE_LEN];
    char priority[OVANI_VALUE_LEN];
};

// A table of parameters to read, of those that the operator has.
struct wan_rows {
    tConfigMap rows[8];
    size_t count;

    void add(const char *name, char *value)
    {
        if (name != nullptr) {
            rows[count++] = {name, value};
        }
    }
};

void add_vlan_rows(wan_rows &table, const wan_profile &profile, wan_values &values)
{
    table.add(profile.vlan_enabled, values.vlan_enabled);
    table.add(profile.vlan, values.vlan);
    table.add(profile.priority, values.priority);
}

int load_device_vlan(const wan_profile &profile, int wanIndex, wan_values &values)
{
    constexpr char function[] = "read_wan_vlan_cfg_by_index_cu";
    ovani_log_as(function, VELM_LOG_DEBUG, "wanIndex(%d)!\n", wanIndex);
    char url[OVANI_URL_LEN];
    snprintf(url, sizeof url, "InternetGatewayDevice.WANDevice.%d.WANConnectionDevice.%d.", 1, wanIndex);
    wan_rows table{};
    add_vlan_rows(table, profile, values);
    int ret = load_multi_config_from_xml(table.rows, url);
    if (ret != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "Load %s fail! ret=%d\n", url, ret);
        ovani_log_as(profile.function, VELM_LOG_ERR, "Get WAN VLAN And 802-1pMark fail! ret=%d\n", ret);
    }
    return ret;
}

int load_connection(const wan_profile &profile, const char *url, wan_values &values)
{
    wan_rows table{};
    table.add(profile.ip_mode, values.ip_mode);
    table.add(profile.service_list, values.service_list);
    table.add(profile.lan_dhcp, values.lan_dhcp);
    table.add("ConnectionType", values.connection_type);
    if (!profile.vlan_of_device) {
        add_vlan_rows(table, profile, values);
    }
    int ret = load_multi_config_from_xml(table.rows, url);
    if (ret != 0) {
        ovani_log_as(profile.function, VELM_LOG_ERR, "Get WAN param fail! ret=%d\n", ret);
    }
    return ret;
}

uint16_t vlan_id(const wan_profile &profile, const wan_values &values)
{
    bool enabled = profile.vlan_enabled == nullptr || decimal_value(values.vlan_enabled) != 0;
    int id = enabled ? std::clamp(decimal_value(values.vlan), 0, UINT16_MAX) : 0;
    return static_cast<uint16_t>(id == 0 && profile.vlan_0_is_none ? NO_VLAN : id);
}

uint8_t small_number(const char *text)
{
    return static_cast<uint8_t>(std::clamp(decimal_value(text), 0, UINT8_MAX));
}

int read_connection(const wan_profile &profile, qv_wan_param *wan_param, int wanIndex, int conIndex,
                    int IPorPPP)
{
    if (wanIndex < profile.first_device || wanIndex > profile.last_device) {
        ovani_log_as(profile.function, VELM_LOG_ERR, "wanIndex(%d) exeed!\n", wanIndex);
        return -1;
    }
    if (conIndex < profile.first_connection || conIndex > profile.last_connection) {
        ovani_log_as(profile.function, VELM_LOG_ERR, "conIndex(%d) exeed!\n", conIndex);
        return -1;
    }
    char url[OVANI_URL_LEN];
    if (IPorPPP == 1) {
        snprintf(url, sizeof url, "%s.%d.WANIPConnection.%d.", OVANI_WAN_CONN_DEVICE, wanIndex, conIndex);
    } else if (IPorPPP == 2) {
        snprintf(url, sizeof url, "%s.%d.WANPPPConnection.%d.", OVANI_WAN_CONN_DEVICE, wanIndex, conIndex);
    } else {
        ovani_log_as(profile.function, VELM_LOG_ERR, "IPorPPP=%d exceed!\n", IPorPPP);
        return -1;
    }
    wan_values values{};
    int ret = profile.vlan_of_device ? load_device_vlan(profile, wanIndex, values) : 0;
    if (ret == 0) {
        ret = load_connection(profile, url, values);
    }
    if (ret != 0) {
        return ret;
    }
    wan_param->iptype = small_number(values.ip_mode);
    wan_param->landhcp = small_number(values.lan_dhcp);
    // No other bridged type counts.
    wan_param->brflag = strcasecmp(values.connection_type, "PPPoE_Bridged") == 0 ? BRIDGE : ROUTE;
    wan_param->vid = vlan_id(profile, values);
    wan_param->pbit = small_number(values.priority);
    return parse_servicelist_to_wan_mode(&wan_param->wanmode, values.service_list);
}

} // namespace

int read_wan_conn_cfg_by_index_cm(qv_wan_param *wan_param, int wanIndex, int conIndex, int IPorPPP)
{
    return read_connection(profile_cm, wan_param, wanIndex, conIndex, IPorPPP);
}

int read_wan_conn_cfg_by_index_ct(qv_wan_param *wan_param, int wanIndex, int conIndex, int IPorPPP)
{
    return read_connection(profile_ct, wan_param, wanIndex, conIndex, IPorPPP);
}

int read_wan_conn_cfg_by_index_cu(qv_wan_param *wan_param, int wanIndex, int conIndex, int IPorPPP)
{
    return read_connection(profile_cu, wan_param, wanIndex, conIndex, IPorPPP);
}

// --- The table

namespace {

constexpr int ip_connection = 1;
constexpr int ppp_connection = 2;

void clear_wan_table()
{
    for (qv_wan_param &slot : s_vlanbind_wan_param) {
        slot = {};
    }
}

bool connection_device_exists(int wanIndex)
{
    char url[OVANI_URL_LEN];
    snprintf(url, sizeof url, "%s.%d.", OVANI_WAN_CONN_DEVICE, wanIndex);
    return zkapi_obj_checkexist(url, OVANI_STORE_WAIT_MS) == 1;
}

bool connection_is_enabled(int wanIndex, int conIndex, int IPorPPP)
{
    const char *kind = IPorPPP == ip_connection ? "WANIPConnection" : "WANPPPConnection";
    char url[OVANI_URL_LEN];
    snprintf(url, sizeof url, "%s.%d.%s.%d.", OVANI_WAN_CONN_DEVICE, wanIndex, kind, conIndex);
    if (zkapi_obj_checkexist(url, OVANI_STORE_WAIT_MS) != 1) {
        return false;
    }
    char path[OVANI_URL_LEN];
    snprintf(path, sizeof path, "%s.%d.%s.%d.Enable", OVANI_WAN_CONN_DEVICE, wanIndex, kind, conIndex);
    char enable[OVANI_VALUE_LEN] = {};
    return zkapi_singlevalue_get(path, enable, DEVFUNC_NOCALL_NOFLASH, OVANI_STORE_WAIT_MS) == 0 &&
           decimal_value(enable) == 1;
}

// Reads the first enabled connection of a device into the device's slot.
void read_first_enabled(int wanIndex)
{
    for (int conIndex = 1; conIndex <= MAX_CONNS_IN_WAN; ++conIndex) {
        for (int kind : {ip_connection, ppp_connection}) {
            if (connection_is_enabled(wanIndex, conIndex, kind)) {
                ovani_log_as("read_wan_param_cfg", VELM_LOG_DEBUG, "read one!\n");
                g_read_wan_conn_cfg_by_index(&s_vlanbind_wan_param[wanIndex], wanIndex, conIndex, kind);
                return;
            }
        }
    }
}

} // namespace

int read_wan_param_cfg()
{
    ovani_log(VELM_LOG_DEBUG, "enter!\n");
    clear_wan_table();
    for (int wanIndex = 1; wanIndex <= OVANI_MAX_WAN_NUM; ++wanIndex) {
        if (connection_device_exists(wanIndex)) {
            read_first_enabled(wanIndex);
        }
    }
    return 0;
}

int read_wan_param_cfg_cm()
{
    ovani_log(VELM_LOG_DEBUG, "enter!\n");
    clear_wan_table();
    constexpr int device = 1;
    if (!connection_device_exists(device)) {
        return 0;
    }
    int slot = 1;
    for (int conIndex = 1; conIndex <= MAX_WAN_LINK_NUM_CFG; ++conIndex) {
        if (connection_is_enabled(device, conIndex, ip_connection)) {
            ovani_log(VELM_LOG_DEBUG, "read one index=%d, ip conindex=%d !\n", slot, conIndex);
            g_read_wan_conn_cfg_by_index(&s_vlanbind_wan_param[slot++], device, conIndex, ip_connection);
        }
        if (connection_is_enabled(device, conIndex, ppp_connection)) {
            ovani_log(VELM_LOG_DEBUG, "read one index=%d, ppp conindex=%d !\n", slot, conIndex);
            g_read_wan_conn_cfg_by_index(&s_vlanbind_wan_param[slot++], device, conIndex, ppp_connection);
        }
    }
    static_assert(2 * MAX_WAN_LINK_NUM_CFG <= OVANI_MAX_WAN_NUM);
    return 0;
}

void ovani_wan_param_print(const qv_wan_param *wp)
{
    ovani_log(VELM_LOG_DEBUG, "---------ovani_wan_param_print---------");
    ovani_log(VELM_LOG_DEBUG, "brflag=%d\n", wp->brflag);
    ovani_log(VELM_LOG_DEBUG, "vid=%d\n", wp->vid);
    ovani_log(VELM_LOG_DEBUG, "wanmode=%d\n", wp->wanmode);
    ovani_log(VELM_LOG_DEBUG, "pbit=%d\n", wp->pbit);
    ovani_log(VELM_LOG_DEBUG, "lanBindPort=%x\n", static_cast<unsigned>(wp->lanBindPort));
    ovani_log(VELM_LOG_DEBUG, "landhcp=%d\n", wp->landhcp);
    ovani_log(VELM_LOG_DEBUG, "iptype=%d\n", wp->iptype);
    ovani_log(VELM_LOG_DEBUG, "------------------------------------");
}
