#include "ovani/ovani_lan_port_config.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include <strings.h>
#include <unistd.h>

#include "ovani/ovani_br_mgr.h"
#include "ovani/ovani_commdef.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_operator.h"
#include "ovani/ovani_port_mgr.h"
#include "ovani/ovani_wan_config.h"
#include "platform/zkcfgif.h"

LanEthIntfVlanBind s_lan_vlan_bind[MAX_LAN_BIND_PORT + 1];
LanVlanBindControl s_vlan_bind_control[MAX_LAN_PORT_NUMBER][MAX_VLAN_PAIRS];
unsigned (*g_wait_for_wifi)(unsigned seconds) = sleep;

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

void bind_pair(int port, int i, int lan_vlan, int wan_vlan, const char *function = __builtin_FUNCTION())
{
    ovani_log_as(function, VELM_LOG_DEBUG, "*begin*:i=%d lan_vlan=%d wan_vlan=%d!\n", i, lan_vlan, wan_vlan);
    if (lan_vlan == 0 || wan_vlan == 0) {
        ovani_log_as(function, VELM_LOG_DEBUG, "i=%d no cfg!\n", i);
        return;
    }
    const qv_wan_param *wan = find_wan(wan_vlan);
    if (wan == nullptr) {
        ovani_log_as(function, VELM_LOG_DEBUG, "i=%d wan_vlan(%d) find no wan!\n", i, wan_vlan);
        return;
    }
    LanVlanBindControl &applied = s_vlan_bind_control[port - 1][i];
    applied = {.lan_vlan = lan_vlan, .wan_vlan = wan_vlan, .wp = *wan};
    ovani_log_as(function, VELM_LOG_DEBUG, "port=%d lan_vlan=%d!\n", port, lan_vlan);
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
        auto limit = static_cast<unsigned>(decimal_value(lanvlanbind->MacAddrNum)); // wraps
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

void clear_bindings()
{
    std::ranges::fill(s_lan_vlan_bind, LanEthIntfVlanBind{});
    for (auto &row : s_vlan_bind_control) {
        std::ranges::fill(row, LanVlanBindControl{});
    }
    clear_wan_table();
}

void write_port_mac(int port, const char *mac, const char *function = __builtin_FUNCTION())
{
    char path[OVANI_URL_LEN];
    instance_path(path, OVANI_LAN_ETHERNET_PATH, port, "MACAddress");
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
    const OperatorProfile &profile = operator_profile_or_default();
    g_read_wan_param_cfg = profile.read_wan_table;
    g_read_wan_conn_cfg_by_index = profile.read_wan_connection;
    g_read_laneth_vlan_bind_cfg = profile.read_lan_binding;
    if (ovani_lan_port_count() == 0) { // the port manager asks later
        read_lan_port_count();
    }
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
    g_wait_for_wifi(wifi_start_s);
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

// KEPT: SSIDs follow four Ethernet ports here, however many there are.
constexpr int WIFI_PORT_OFFSET = 4;

// The port an object path names, or -1.
int system_get_lan_eth_obj_index(const char *obj_url)
{
    bool under_lan_interfaces = false;
    int index = lan_interface_of_path(obj_url, MAX_LAN_BIND_PORT, under_lan_interfaces);
    if (index == -1) {
        return -1;
    }
    const char *wlan =
        under_lan_interfaces ? "InternetGatewayDevice.LANInterfaces.WLANConfiguration" : "WLANConfiguration";
    if (strstr(obj_url, wlan) != nullptr) {
        index += WIFI_PORT_OFFSET;
    }
    if (under_lan_interfaces) {
        ovani_log(VELM_LOG_DEBUG, "return lan_eth_inf_idx is %d.\n", index);
    } else {
        ovani_log(VELM_LOG_DEBUG, "111lan_eth_inf_idx is %d.\n", index);
    }
    return index;
}

} // namespace

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
