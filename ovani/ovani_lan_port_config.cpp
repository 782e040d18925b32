#include "ovani/ovani_lan_port_config.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>
#include <strings.h>

#include <unistd.h>

#include "ovani/ovani_br_mgr.h"
#include "ovani/ovani_commdef.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_port_mgr.h"
#include "platform/zkcfgif.h"

LanEthIntfVlanBind s_lan_vlan_bind[MAX_LAN_BIND_PORT + 1];
LanVlanBindControl s_vlan_bind_control[MAX_LAN_PORT_NUMBER][MAX_VLAN_PAIRS];
READ_LANETH_VLANBIND_CFG g_read_laneth_vlan_bind_cfg = read_laneth_vlan_bind_cfg_ct;

// --- Parameters by the operator's names

namespace {

struct lan_param_name {
    const char *key;
    char (LanEthInterfaceParam::*field)[LAN_PARAM_LEN];
};

// China Mobile's "MACAddress" has always landed in Status.
constexpr lan_param_name lan_params_cm[] = {
    {"MaxBitRate", &LanEthInterfaceParam::MaxBitRate},
    {"DuplexMode", &LanEthInterfaceParam::DuplexMode},
    {"X_CMCC_Mode", &LanEthInterfaceParam::Mode},
    {"X_CMCC_VLAN", &LanEthInterfaceParam::VLAN},
    {"X_CMCC_MACAddressNum", &LanEthInterfaceParam::MacAddrNum},
    {"Enable", &LanEthInterfaceParam::Enable},
    {"Status", &LanEthInterfaceParam::Status},
    {"MACAddress", &LanEthInterfaceParam::Status},
};

constexpr lan_param_name lan_params_ct[] = {
    {"MaxBitRate", &LanEthInterfaceParam::MaxBitRate},
    {"DuplexMode", &LanEthInterfaceParam::DuplexMode},
    {"X_CT-COM_Mode", &LanEthInterfaceParam::Mode},
    {"X_CT-COM_VLAN", &LanEthInterfaceParam::VLAN},
};

constexpr lan_param_name lan_params_cu[] = {
    {"MaxBitRate", &LanEthInterfaceParam::MaxBitRate},
    {"DuplexMode", &LanEthInterfaceParam::DuplexMode},
    {"X_CU_Mode", &LanEthInterfaceParam::Mode},
    {"X_CU_VLAN", &LanEthInterfaceParam::VLAN},
};

bool parse_lan_param(std::span<const lan_param_name> names, const char *key, const char *value, void *param)
{
    for (const lan_param_name &name : names) {
        if (key != nullptr && param != nullptr && strcmp(key, name.key) == 0) {
            copy_text(static_cast<LanEthInterfaceParam *>(param)->*name.field, value);
        }
    }
    return true;
}

} // namespace

bool system_parse_ovani_config_cm(const char *key, const char *value, void *param)
{
    return parse_lan_param(lan_params_cm, key, value, param);
}

bool system_parse_ovani_config_ct(const char *key, const char *value, void *param)
{
    ovani_log(VELM_LOG_DEBUG, "system_parse_ovani_config_ct keystr:%s value:%s\n", text_or_empty(key),
              text_or_empty(value));
    return parse_lan_param(lan_params_ct, key, value, param);
}

bool system_parse_ovani_config_cu(const char *key, const char *value, void *param)
{
    return parse_lan_param(lan_params_cu, key, value, param);
}

bool take_lan_param(char (&stored)[LAN_PARAM_LEN], const char *value)
{
    if (value[0] == '\0' || strcmp(stored, value) == 0) {
        return false;
    }
    copy_text(stored, value);
    return true;
}

// --- Binding configuration from the store

namespace {

constexpr char LAN_INTERFACES_ETHERNET[] = "InternetGatewayDevice.LANInterfaces.LANEthernetInterfaceConfig.";
constexpr char LAN_INTERFACES_WLAN[] = "InternetGatewayDevice.LANInterfaces.WLANConfiguration.";

// Where an operator keeps a port's binding, and how it logs the reading.
struct bind_profile {
    const char *function;
    const char *ethernet;
    const char *wlan; // null: SSIDs are read like Ethernet ports
    const char *vlan;
    const char *mode;
    const char *mac_limit; // null: there is none
    int failure_level;
    bool log_urls;
};

constexpr bind_profile bind_cm{
    .function = "read_laneth_vlan_bind_cfg_cm",
    .ethernet = LAN_INTERFACES_ETHERNET,
    .wlan = LAN_INTERFACES_WLAN,
    .vlan = "X_CMCC_VLAN",
    .mode = "X_CMCC_Mode",
    .mac_limit = "X_CMCC_MACAddressNum",
    .failure_level = VELM_LOG_ERR,
    .log_urls = false,
};

constexpr bind_profile bind_ct{
    .function = "read_laneth_vlan_bind_cfg_ct",
    .ethernet = OVANI_LAN_ETHERNET_PATH,
    .wlan = OVANI_WLAN_PATH,
    .vlan = "X_CT-COM_VLAN",
    .mode = "X_CT-COM_Mode",
    .mac_limit = nullptr,
    .failure_level = VELM_LOG_DEBUG,
    .log_urls = true,
};

constexpr bind_profile bind_cu{
    .function = "read_laneth_vlan_bind_cfg_cu",
    .ethernet = OVANI_LAN_ETHERNET_PATH,
    .wlan = nullptr,
    .vlan = "X_CU_VLAN",
    .mode = "X_CU_Mode",
    .mac_limit = nullptr,
    .failure_level = VELM_LOG_ERR,
    .log_urls = false,
};

void read_bind_param(const bind_profile &profile, const char *object, const char *name, int lan_eth_id,
                     char (&field)[LAN_PARAM_LEN])
{
    char path[OVANI_URL_LEN];
    snprintf(path, sizeof path, "%s%s", object, name);
    if (profile.log_urls) {
        ovani_log_as(profile.function, VELM_LOG_DEBUG, "url:%s!\n", path);
    }
    char value[OVANI_VALUE_LEN] = {};
    if (zkapi_singlevalue_get(path, value, DEVFUNC_NOCALL_NOFLASH, OVANI_STORE_WAIT_MS) != 0) {
        ovani_log_as(profile.function, profile.failure_level, "get Lan%d %s fail!\n", lan_eth_id, name);
        return;
    }
    copy_text(field, value);
    ovani_log_as(profile.function, VELM_LOG_DEBUG, "get Lan%d %s=%s!\n", lan_eth_id, name, field);
}

int read_bind_config(const bind_profile &profile, int lan_eth_id, LanEthIntfVlanBind *lanvlanbind)
{
    if (lanvlanbind == nullptr) {
        ovani_log_as(profile.function, VELM_LOG_ERR, "Param is NULL!\n");
        return 0;
    }
    bool wireless = profile.wlan != nullptr && lan_eth_id > ovani_lan_port_count();
    int instance = wireless ? lan_eth_id - ovani_lan_port_count() : lan_eth_id;
    char object[OVANI_URL_LEN];
    snprintf(object, sizeof object, "%s%d.", wireless ? profile.wlan : profile.ethernet, instance);
    read_bind_param(profile, object, profile.vlan, lan_eth_id, lanvlanbind->VLAN);
    read_bind_param(profile, object, profile.mode, lan_eth_id, lanvlanbind->Mode);
    if (profile.mac_limit != nullptr && !wireless) {
        read_bind_param(profile, object, profile.mac_limit, lan_eth_id, lanvlanbind->MacAddrNum);
    }
    return 0;
}

} // namespace

int read_laneth_vlan_bind_cfg_cm(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind)
{
    return read_bind_config(bind_cm, lan_eth_id, lanvlanbind);
}

int read_laneth_vlan_bind_cfg_ct(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind)
{
    return read_bind_config(bind_ct, lan_eth_id, lanvlanbind);
}

int read_laneth_vlan_bind_cfg_cu(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind)
{
    return read_bind_config(bind_cu, lan_eth_id, lanvlanbind);
}

// --- Binding a port

int parse_lan_vlan_str(const char *text, int (&lan_vlans)[MAX_VLAN_PAIRS], int (&wan_vlans)[MAX_VLAN_PAIRS])
{
    ovani_log(VELM_LOG_DEBUG, "Input String is:%s\n", text);
    std::string_view rest{text};
    int count = 0;
    bool more = true;
    while (more && count < MAX_VLAN_PAIRS) {
        size_t comma = rest.find(',');
        more = comma != std::string_view::npos;
        char unit[LAN_PARAM_LEN];
        copy_text(unit, rest.substr(0, comma));
        rest.remove_prefix(more ? comma + 1 : rest.size());
        char *slash = strchr(unit, '/');
        if (slash == nullptr) {
            if (!more) {
                ovani_log(VELM_LOG_ERR, "Invalid string, now return failed; tmp_cnt=%d\n", count);
            }
            continue;
        }
        *slash = '\0';
        wan_vlans[count] = decimal_value(slash + 1);
        ovani_log(VELM_LOG_DEBUG, "tmp_unit = %s, wan_vlan_p[%d]=%d\n", slash + 1, count, wan_vlans[count]);
        lan_vlans[count] = decimal_value(unit);
        ovani_log(VELM_LOG_DEBUG, "tmp_res_val = %s, lan_vlan_p[%d]=%d\n", unit, count, lan_vlans[count]);
        ++count;
    }
    ovani_log(VELM_LOG_DEBUG, "Get out the funciton, *cnt = %d, tmp_cnt = %d\n", count, count);
    return count;
}

namespace {

constexpr char bind_function[] = "ovani_port_vlan_bind";

bool is_bound(const LanEthIntfVlanBind &config)
{
    return config.VLAN[0] != '\0' && config.Mode[0] != '\0' && strcasecmp(config.VLAN, "NULL") != 0 &&
           strcmp(config.Mode, "0") != 0;
}

const qv_wan_param *find_wan(int wan_vlan)
{
    for (int slot = 1; slot <= OVANI_MAX_WAN_NUM; ++slot) {
        if (static_cast<int>(s_vlanbind_wan_param[slot].vid) == wan_vlan) {
            return &s_vlanbind_wan_param[slot];
        }
    }
    return nullptr;
}

void bind_pair(int port, int i, int lan_vlan, int wan_vlan)
{
    ovani_log_as(bind_function, VELM_LOG_DEBUG, "*begin*:i=%d lan_vlan=%d wan_vlan=%d!\n", i, lan_vlan,
                 wan_vlan);
    if (lan_vlan == 0 || wan_vlan == 0) {
        ovani_log_as(bind_function, VELM_LOG_DEBUG, "i=%d no cfg!\n", i);
        return;
    }
    const qv_wan_param *wan = find_wan(wan_vlan);
    if (wan == nullptr) {
        ovani_log_as(bind_function, VELM_LOG_DEBUG, "i=%d wan_vlan(%d) find no wan!\n", i, wan_vlan);
        return;
    }
    LanVlanBindControl &applied = s_vlan_bind_control[port - 1][i];
    applied = {.lan_vlan = lan_vlan, .wan_vlan = wan_vlan, .wp = *wan};
    ovani_log_as(bind_function, VELM_LOG_DEBUG, "port=%d lan_vlan=%d!\n", port, lan_vlan);
    ovani_wan_param_print(&applied.wp);
    qvdrv_net_set_vlan_bind(static_cast<unsigned>(port), static_cast<unsigned short>(lan_vlan), &applied.wp);
}

} // namespace

int ovani_port_vlan_bind(int lan_eth_intf_id, const LanEthIntfVlanBind *lanvlanbind)
{
    const int port = lan_eth_intf_id;
    if (port < 1 || port > MAX_LAN_BIND_PORT || lanvlanbind == nullptr) {
        ovani_log(VELM_LOG_ERR, "Param is NULL!\n");
        return 0;
    }
    ovani_log(VELM_LOG_DEBUG, "[ovani_port_vlan_bind]:port=%d VLAN=%s Mode=%s, MacAddrNum=%s\n", port,
              lanvlanbind->VLAN, lanvlanbind->Mode, lanvlanbind->MacAddrNum);
    LanEthIntfVlanBind &stored = s_lan_vlan_bind[port];
    if (lanvlanbind->MacAddrNum[0] != '\0') {
        // Kept, so that a WAN change sets it again; no change of the binding.
        take_lan_param(stored.MacAddrNum, lanvlanbind->MacAddrNum);
        auto limit = static_cast<unsigned>(std::max(decimal_value(lanvlanbind->MacAddrNum), 0));
        if (qvdrv_net_set_port_mac_limit(static_cast<unsigned>(port), limit) != 0) {
            ovani_log(VELM_LOG_ERR, "Set Mac Address Limit Error!\n");
        }
    }
    bool mode_changed = take_lan_param(stored.Mode, lanvlanbind->Mode);
    bool vlan_changed = take_lan_param(stored.VLAN, lanvlanbind->VLAN);
    if (!mode_changed && !vlan_changed) {
        ovani_log(VELM_LOG_DEBUG, "Param no change!\n");
        return 0;
    }
    ovani_log(VELM_LOG_DEBUG, "port:%d!\n", port);
    ovani_port_vlan_unbind(port);
    if (!is_bound(stored)) {
        ovani_log(VELM_LOG_DEBUG, "cfg no need proc,do nothing!\n");
        return 0;
    }
    int lan_vlans[MAX_VLAN_PAIRS] = {};
    int wan_vlans[MAX_VLAN_PAIRS] = {};
    int count = parse_lan_vlan_str(stored.VLAN, lan_vlans, wan_vlans);
    ovani_log(VELM_LOG_DEBUG, "parse_lan_vlan_str: cnt=%d!\n", count);
    if (count == 0) {
        ovani_log(VELM_LOG_DEBUG, "cnt=%d,can not get vlan,do nothing!\n", count);
        return 0;
    }
    g_read_wan_param_cfg();
    for (int i = 0; i < count; ++i) {
        bind_pair(port, i, lan_vlans[i], wan_vlans[i]);
    }
    return 0;
}

int ovani_port_vlan_unbind(int port)
{
    if (port < 1 || port > MAX_LAN_PORT_NUMBER) {
        ovani_log(VELM_LOG_ERR, "port=%d is out of range!\n", port);
        return -1;
    }
    for (LanVlanBindControl &applied : s_vlan_bind_control[port - 1]) {
        if (applied.lan_vlan > 0 && applied.wan_vlan > 0) {
            ovani_log(VELM_LOG_DEBUG, "port=%d lan_vlan=%d!\n", port, applied.lan_vlan);
            ovani_wan_param_print(&applied.wp);
            qvdrv_net_del_vlan_bind(static_cast<unsigned>(port),
                                    static_cast<unsigned short>(applied.lan_vlan), &applied.wp);
        }
        applied = {};
    }
    return 0;
}

// --- All ports

namespace {

struct bind_readers {
    READ_ALL_WAN_CFG wan_table;
    READ_WANCON_CFG_BY_INDEX wan_connection;
    READ_LANETH_VLANBIND_CFG lan_binding;
};

constexpr bind_readers readers_by_operator[OPTYPE_MAX] = {
    {read_wan_param_cfg_cm, read_wan_conn_cfg_by_index_cm, read_laneth_vlan_bind_cfg_cm},
    {read_wan_param_cfg, read_wan_conn_cfg_by_index_ct, read_laneth_vlan_bind_cfg_ct},
    {read_wan_param_cfg, read_wan_conn_cfg_by_index_cu, read_laneth_vlan_bind_cfg_cu},
};

void choose_readers()
{
    unsigned code = ovani_operator_type_code_get();
    if (code >= OPTYPE_MAX) {
        ovani_log_as("vlan_bind_init", VELM_LOG_ERR, "Error: Unknow operator %d.\n", static_cast<int>(code));
        code = OPTYPE_CT;
    }
    const bind_readers &readers = readers_by_operator[code];
    g_read_wan_param_cfg = readers.wan_table;
    g_read_wan_conn_cfg_by_index = readers.wan_connection;
    g_read_laneth_vlan_bind_cfg = readers.lan_binding;
}

void clear_bindings()
{
    for (LanEthIntfVlanBind &config : s_lan_vlan_bind) {
        config = {};
    }
    for (auto &row : s_vlan_bind_control) {
        for (LanVlanBindControl &applied : row) {
            applied = {};
        }
    }
    for (qv_wan_param &slot : s_vlanbind_wan_param) {
        slot = {};
    }
}

void write_port_mac(int port, const char *mac)
{
    constexpr char function[] = "vlan_bind_init";
    char path[OVANI_URL_LEN];
    snprintf(path, sizeof path, "%s%d.MACAddress", OVANI_LAN_ETHERNET_PATH, port);
    ovani_log_as(function, VELM_LOG_DEBUG, "write Lan%d macAddr=%s!\n", port, mac);
    if (zkapi_singlevalue_set(path, mac, DEVFUNC_NOCALL_NOFLASH, OVANI_STORE_WAIT_MS) != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "write fail!\n");
    } else {
        ovani_log_as(function, VELM_LOG_DEBUG, "write succ!\n");
    }
}

} // namespace

int vlan_bind_init()
{
    clear_bindings();
    char mac[OVANI_MAC_LEN] = {};
    ovani_br_mac_get(mac);
    mac_text brmac = mac_colon_text(reinterpret_cast<const unsigned char *>(mac));
    ovani_log(VELM_LOG_DEBUG, "brmac=%s\n", brmac.data());
    choose_readers();
    ovani_lan_port_count_init();
    for (int port = 1; port <= MAX_LAN_BIND_PORT; ++port) {
        if (port <= ovani_lan_port_count()) {
            write_port_mac(port, brmac.data());
        }
        LanEthIntfVlanBind config{};
        g_read_laneth_vlan_bind_cfg(port, &config);
        ovani_port_vlan_bind(port, &config);
    }
    return 0;
}

void *vlan_bind_init_wifi(void *)
{
    constexpr unsigned wifi_start_s = 90;
    ovani_log(VELM_LOG_DEBUG, "entry vlan_bind_init_wifi wait 90s\n");
    sleep(wifi_start_s);
    ovani_log(VELM_LOG_DEBUG, " vlan_bind_init_wifi goto vlan_bind_init\n");
    vlan_bind_init();
    ovani_log(VELM_LOG_DEBUG, "vlan_bind_init_wifi over\n");
    return nullptr;
}

int ovani_rebind_port_vlan()
{
    ovani_log(VELM_LOG_DEBUG, "enter into ovani_rebind_port_vlan\n");
    g_read_wan_param_cfg();
    for (int port = 1; port <= MAX_LAN_PORT_NUMBER; ++port) {
        ovani_log(VELM_LOG_DEBUG, "-------- port = %d ----------\n", port);
        if (port <= MAX_LAN_BIND_PORT) {
            ovani_port_vlan_bind(port, &s_lan_vlan_bind[port]);
        }
    }
    ovani_log(VELM_LOG_DEBUG, "leave ovani_rebind_port_vlan\n");
    return 0;
}

// --- Configuration from the bus

namespace {

// SSIDs follow four Ethernet ports here, however many there are.
constexpr int wifi_port_offset = 4;

// The port an object path names, or -1.
int system_get_lan_eth_obj_index(const char *obj_url)
{
    bool under_lan_interfaces = false;
    int index = lan_interface_of_path(__func__, obj_url, MAX_LAN_BIND_PORT, under_lan_interfaces);
    if (index == -1) {
        return -1;
    }
    const char *wlan =
        under_lan_interfaces ? "InternetGatewayDevice.LANInterfaces.WLANConfiguration" : "WLANConfiguration";
    if (strstr(obj_url, wlan) != nullptr) {
        index += wifi_port_offset;
    }
    if (under_lan_interfaces) {
        ovani_log(VELM_LOG_DEBUG, "return lan_eth_inf_idx is %d.\n", index);
    } else {
        ovani_log(VELM_LOG_DEBUG, "111lan_eth_inf_idx is %d.\n", index);
    }
    return index;
}

} // namespace

int lan_interface_of_path(const char *function, const char *obj_url, int last_of_device,
                          bool &under_lan_interfaces)
{
    if (obj_url == nullptr) {
        ovani_log_as(function, VELM_LOG_ERR, "Get lan_eth_inf_idx Error:Param is NULL.\n");
        return -1;
    }
    InstIdStack ids{};
    zkapi_getobjidbyobjpath(obj_url, &ids);
    under_lan_interfaces = ids.currentDepth < 2;
    if (under_lan_interfaces && strstr(obj_url, "InternetGatewayDevice.LANInterfaces.") == nullptr) {
        ovani_log_as(function, VELM_LOG_ERR, "Get lan_eth_inf_idx Error:%s.\n", obj_url);
        return -1;
    }
    int index = under_lan_interfaces ? (ids.currentDepth == 1 ? ids.instance[0] : 0) : ids.instance[1];
    int last = under_lan_interfaces ? MAX_LAN_PORT : last_of_device;
    if (index < 1 || index > last) {
        ovani_log_as(function, VELM_LOG_ERR, "lan_eth_inf_idx Error:%d.\n", index);
        return -1;
    }
    return index;
}

int ovani_set_eth_cfg_process(const char *obj_url, const LanEthInterfaceParam *params)
{
    int port = system_get_lan_eth_obj_index(obj_url);
    if (port == -1 || params == nullptr) {
        ovani_log(VELM_LOG_DEBUG, "Null return\n");
        return 0;
    }
    if (params->MaxBitRate[0] != '\0' || params->DuplexMode[0] != '\0') {
        LanEthIntfWorkMode mode;
        copy_text(mode.MaxBitRate, params->MaxBitRate);
        copy_text(mode.DuplexMode, params->DuplexMode);
        ovani_log(VELM_LOG_DEBUG, "go to ovani_lan_eth_workmode_set\n");
        ovani_lan_eth_workmode_set(port, &mode);
    }
    if (params->Mode[0] == '\0' && params->VLAN[0] == '\0' && params->MacAddrNum[0] == '\0') {
        return 1;
    }
    LanEthIntfVlanBind config;
    copy_text(config.VLAN, params->VLAN);
    copy_text(config.Mode, params->Mode);
    copy_text(config.MacAddrNum, params->MacAddrNum);
    ovani_log(VELM_LOG_DEBUG, "go to ovani_port_vlan_bind\n");
    ovani_port_vlan_bind(port, &config);
    return 1;
}
