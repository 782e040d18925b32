#include "ovani/ovani_wan_config.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include <strings.h>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_config.h"
#include "ovani/ovani_log.h"
#include "platform/zkcfgif.h"

qv_wan_param s_vlanbind_wan_param[OVANI_MAX_WAN_NUM + 1];
READ_WANCON_CFG_BY_INDEX g_read_wan_conn_cfg_by_index;

// --- Service lists

namespace {

struct ServiceRule {
    const char *words[2];
    qv_wan_mode mode;
    bool voice; // and "VOIP" or "VOICE"
};

// The first that holds wins: OTHER before IPTV.
constexpr ServiceRule SERVICE_RULES[] = {
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

bool holds(const ServiceRule &rule, const char *services)
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
    for (const ServiceRule &rule : SERVICE_RULES) {
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
constexpr int IP_CONNECTION = 1;
constexpr int PPP_CONNECTION = 2;

void connection_url(char (&url)[OVANI_URL_LEN], int wanIndex, int conIndex, int IPorPPP)
{
    snprintf(url, sizeof url, "%s.%d.%s.%d.", OVANI_WAN_CONN_DEVICE, wanIndex,
             IPorPPP == IP_CONNECTION ? "WANIPConnection" : "WANPPPConnection", conIndex);
}

// Values of one connection as the store gives them.
struct WanValues {
    char ip_mode[OVANI_VALUE_LEN];
    char service_list[OVANI_VALUE_LEN];
    char lan_dhcp[OVANI_VALUE_LEN];
    char connection_type[OVANI_VALUE_LEN];
    char vlan_enabled[OVANI_VALUE_LEN];
    char vlan[OVANI_VALUE_LEN];
    char priority[OVANI_VALUE_LEN];
};

// A table of parameters to read, of those that the operator has.
struct WanRows {
    tConfigMap rows[8];
    size_t count;

    void add(const char *name, char *value)
    {
        if (name != nullptr) {
            rows[count++] = {name, value};
        }
    }
};

void add_vlan_rows(WanRows &table, const WanProfile &profile, WanValues &values)
{
    table.add(profile.vlan_enabled, values.vlan_enabled);
    table.add(profile.vlan, values.vlan);
    table.add(profile.priority, values.priority);
}

int read_wan_vlan_cfg_by_index_cu(const WanProfile &profile, int wanIndex, WanValues &values,
                                  const char *function)
{
    ovani_log(VELM_LOG_DEBUG, "wanIndex(%d)!\n", wanIndex);
    char url[OVANI_URL_LEN];
    snprintf(url, sizeof url, "InternetGatewayDevice.WANDevice.%d.WANConnectionDevice.%d.", 1, wanIndex);
    WanRows table{};
    add_vlan_rows(table, profile, values);
    int ret = load_multi_config_from_xml(table.rows, url);
    if (ret != 0) {
        ovani_log(VELM_LOG_ERR, "Load %s fail! ret=%d\n", url, ret);
        ovani_log_as(function, VELM_LOG_ERR, "Get WAN VLAN And 802-1pMark fail! ret=%d\n", ret);
    }
    return ret;
}

int load_connection(const WanProfile &profile, const char *url, WanValues &values, const char *function)
{
    WanRows table{};
    table.add(profile.ip_mode, values.ip_mode);
    table.add(profile.service_list, values.service_list);
    table.add(profile.lan_dhcp, values.lan_dhcp);
    table.add("ConnectionType", values.connection_type);
    if (!profile.vlan_of_device) {
        add_vlan_rows(table, profile, values);
    }
    int ret = load_multi_config_from_xml(table.rows, url);
    if (ret != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "Get WAN param fail! ret=%d\n", ret);
    }
    return ret;
}

// Numbers wrap in the field's type, as unsigned arithmetic does.
uint16_t vlan_id(const WanProfile &profile, const WanValues &values)
{
    bool enabled = profile.vlan_enabled == nullptr || decimal_value(values.vlan_enabled) != 0;
    auto id = static_cast<uint16_t>(enabled ? decimal_value(values.vlan) : 0);
    return id == 0 && profile.vlan_0_is_none ? NO_VLAN : id;
}

uint8_t small_number(const char *text)
{
    return static_cast<uint8_t>(decimal_value(text));
}

} // namespace

int read_wan_connection(const WanProfile &profile, qv_wan_param *wan_param, int wanIndex, int conIndex,
                        int IPorPPP, const char *function)
{
    if (wanIndex < 0 || wanIndex > profile.last_device) {
        ovani_log_as(function, VELM_LOG_ERR, "wanIndex(%d) exeed!\n", wanIndex);
        return -1;
    }
    if (conIndex < 0 || conIndex > profile.last_connection) {
        ovani_log_as(function, VELM_LOG_ERR, "conIndex(%d) exeed!\n", conIndex);
        return -1;
    }
    char url[OVANI_URL_LEN];
    if (IPorPPP == IP_CONNECTION || IPorPPP == PPP_CONNECTION) {
        connection_url(url, wanIndex, conIndex, IPorPPP);
    } else {
        ovani_log_as(function, VELM_LOG_ERR, "IPorPPP=%d exceed!\n", IPorPPP);
        return -1;
    }
    WanValues values{};
    int ret = profile.vlan_of_device ? read_wan_vlan_cfg_by_index_cu(profile, wanIndex, values, function) : 0;
    if (ret == 0) {
        ret = load_connection(profile, url, values, function);
    }
    if (ret != 0) {
        return ret;
    }
    wan_param->iptype = small_number(values.ip_mode);
    wan_param->landhcp = small_number(values.lan_dhcp);
    // KEPT: no other bridged type counts.
    wan_param->brflag = strcasecmp(values.connection_type, "PPPoE_Bridged") == 0 ? BRIDGE : ROUTE;
    wan_param->vid = vlan_id(profile, values);
    wan_param->pbit = small_number(values.priority);
    return parse_servicelist_to_wan_mode(&wan_param->wanmode, values.service_list);
}

// --- The table

void clear_wan_table()
{
    std::ranges::fill(s_vlanbind_wan_param, qv_wan_param{});
}

namespace {

bool connection_device_exists(int wanIndex)
{
    char url[OVANI_URL_LEN];
    snprintf(url, sizeof url, "%s.%d.", OVANI_WAN_CONN_DEVICE, wanIndex);
    return zkapi_obj_checkexist(url, OVANI_STORE_WAIT_MS) == 1;
}

bool connection_is_enabled(int wanIndex, int conIndex, int IPorPPP)
{
    char url[OVANI_URL_LEN];
    connection_url(url, wanIndex, conIndex, IPorPPP);
    if (zkapi_obj_checkexist(url, OVANI_STORE_WAIT_MS) != 1) {
        return false;
    }
    char path[OVANI_URL_LEN + 8];
    snprintf(path, sizeof path, "%sEnable", url);
    char enable[OVANI_VALUE_LEN] = {};
    return zkapi_singlevalue_get(path, enable, DEVFUNC_NOCALL_NOFLASH, OVANI_STORE_WAIT_MS) == 0 &&
           decimal_value(enable) == 1;
}

// Reads the first enabled connection of a device into the device's slot.
void read_first_enabled(int wanIndex, const char *function = __builtin_FUNCTION())
{
    for (int conIndex = 1; conIndex <= MAX_CONNS_IN_WAN; ++conIndex) {
        for (int kind : {IP_CONNECTION, PPP_CONNECTION}) {
            if (connection_is_enabled(wanIndex, conIndex, kind)) {
                ovani_log_as(function, VELM_LOG_DEBUG, "read one!\n");
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
        for (const auto &[kind, name] : {std::pair{IP_CONNECTION, "ip"}, {PPP_CONNECTION, "ppp"}}) {
            if (connection_is_enabled(device, conIndex, kind)) {
                ovani_log(VELM_LOG_DEBUG, "read one index=%d, %s conindex=%d !\n", slot, name, conIndex);
                g_read_wan_conn_cfg_by_index(&s_vlanbind_wan_param[slot++], device, conIndex, kind);
            }
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
