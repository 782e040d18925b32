#include "ovani/ovani_port_mgr.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ovani/ovani_br_mgr.h"
#include "ovani/ovani_commdef.h"
#include "ovani/ovani_log.h"
#include "platform/zk_sys_mgr.h"
#include "platform/zkcfgif.h"

LanEthIntfWorkMode g_LanWorkMode[MAX_LAN_PORT + 1];
PON_ETH_PORT_LINK_STATUS_T g_port_link_status[MAX_LAN_PORT + 1];
unsigned int g_lan_inf_num;
SYSTEM_PARSE_OVANI_CONFIG_PARAM g_system_set_lan_config = system_parse_ovani_config_ct;

// --- Start-up

int ovani_lan_port_count()
{
    return static_cast<int>(g_lan_inf_num);
}

namespace {

void read_port_count()
{
    devinfo info{};
    if (zk_sys_mgr_get_devinfo(&info) == 0) {
        g_lan_inf_num = std::min<unsigned>(info.port_num, MAX_LAN_PORT);
    }
}

constexpr SYSTEM_PARSE_OVANI_CONFIG_PARAM parsers_by_operator[OPTYPE_MAX] = {
    system_parse_ovani_config_cm, system_parse_ovani_config_ct, system_parse_ovani_config_cu};

void choose_parser()
{
    unsigned code = ovani_operator_type_code_get();
    if (code >= OPTYPE_MAX) {
        ovani_log_as("ovani_port_mgr_init", VELM_LOG_ERR, "Error: Unknow operator %d.\n",
                     static_cast<int>(code));
        code = OPTYPE_CT;
    }
    g_system_set_lan_config = parsers_by_operator[code];
}

void read_mode_param(int port, const char *name, char (&field)[LAN_PARAM_LEN])
{
    constexpr char function[] = "ovani_port_mgr_init";
    char path[OVANI_URL_LEN];
    snprintf(path, sizeof path, "%s%d.%s", OVANI_LAN_ETHERNET_PATH, port, name);
    char value[OVANI_VALUE_LEN] = {};
    if (zkapi_singlevalue_get(path, value, DEVFUNC_NOCALL_NOFLASH, OVANI_STORE_WAIT_MS) != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "get Lan%d %s fail!\n", port, name);
        return;
    }
    copy_text(field, value);
    ovani_log_as(function, VELM_LOG_DEBUG, "get Lan%d %s=%s!\n", port, name, field);
}

} // namespace

void ovani_lan_port_count_init()
{
    if (g_lan_inf_num == 0) {
        read_port_count();
    }
}

int ovani_port_mgr_init()
{
    for (LanEthIntfWorkMode &mode : g_LanWorkMode) {
        mode = {};
    }
    choose_parser();
    read_port_count();
    ovani_log(VELM_LOG_DEBUG, "g_lan_inf_num is %d\n", ovani_lan_port_count());
    for (int port = 1; port <= ovani_lan_port_count(); ++port) {
        LanEthIntfWorkMode mode{};
        read_mode_param(port, "DuplexMode", mode.DuplexMode);
        read_mode_param(port, "MaxBitRate", mode.MaxBitRate);
        ovani_lan_eth_workmode_set(port, &mode);
    }
    return ovani_node_port_status_init();
}

int ovani_node_port_status_init()
{
    for (int port = 1; port <= ovani_lan_port_count(); ++port) {
        PON_ETH_PORT_LINK_STATUS_T &status = g_port_link_status[port];
        status.port_index = static_cast<uint32_t>(port);
        qvdrv_pon_get_eth_port_link_status(&status);
        char path[OVANI_URL_LEN];
        snprintf(path, sizeof path, "%s%d.Status", OVANI_LAN_ETHERNET_PATH, port);
        zkapi_singlevalue_set(path, status.link_up == 1 ? "Up" : "NoLink", DEVFUNC_NOCALL_NOFLASH,
                              OVANI_STORE_WAIT_MS);
    }
    ovani_log(VELM_LOG_DEBUG, "ovani_node_port_status_init finish\n");
    return R_OK;
}

// --- Work mode

namespace {

// Takes over what differs from a port's last work mode. Null, with the reason logged as `function`, when
// there is nothing to apply; `complete` then tells whether the port has a configuration.
const LanEthIntfWorkMode *changed_work_mode(const char *function, int port, const char *max_bit_rate,
                                            const char *duplex_mode, bool &complete)
{
    complete = false;
    if (port < 1 || port > MAX_LAN_PORT) {
        ovani_log_as(function, VELM_LOG_ERR, "lan_eth_id=%d has no cfg!\n", port);
        return nullptr;
    }
    LanEthIntfWorkMode &stored = g_LanWorkMode[port];
    bool rate_changed = take_lan_param(stored.MaxBitRate, max_bit_rate);
    bool duplex_changed = take_lan_param(stored.DuplexMode, duplex_mode);
    if (!rate_changed && !duplex_changed) {
        ovani_log_as(function, VELM_LOG_DEBUG, "work_mode Not change:%s %s!\n", stored.MaxBitRate,
                     stored.DuplexMode);
        complete = true;
        return nullptr;
    }
    if (stored.MaxBitRate[0] == '\0' || stored.DuplexMode[0] == '\0') {
        ovani_log_as(function, VELM_LOG_ERR, "lan_eth_id=%d has no cfg!\n", port);
        return nullptr;
    }
    complete = true;
    return &stored;
}

// The rate a text names, if it is one of `rates`, else 0.
uint32_t rate_of(const char *text, std::initializer_list<uint32_t> rates)
{
    int value = decimal_value(text);
    for (uint32_t rate : rates) {
        if (value == static_cast<int>(rate)) {
            return rate;
        }
    }
    return 0;
}

constexpr std::initializer_list<uint32_t> full_duplex_rates = {PON_PORT_RATE_10M, PON_PORT_RATE_100M,
                                                               PON_PORT_RATE_1000M, PON_PORT_RATE_2500M};
constexpr std::initializer_list<uint32_t> half_duplex_rates = {PON_PORT_RATE_10M, PON_PORT_RATE_100M};

} // namespace

int ovani_lan_eth_workmode_set(int lan_eth_id, const LanEthIntfWorkMode *lanworkmode)
{
    ovani_log(VELM_LOG_DEBUG, "lan_eth_id=%d MaxBitRate=%s, DuplexMode=%s\n", lan_eth_id,
              lanworkmode->MaxBitRate, lanworkmode->DuplexMode);
    bool complete = false;
    const LanEthIntfWorkMode *mode =
        changed_work_mode(__func__, lan_eth_id, lanworkmode->MaxBitRate, lanworkmode->DuplexMode, complete);
    if (mode == nullptr) {
        return complete ? 0 : -1;
    }
    PON_ETH_PORT_WORK_MODE_T record{
        .port_index = static_cast<uint32_t>(lan_eth_id), .auto_neg_enable = 1, .rate = 0, .duplex_mode = 0};
    record.rate = strcmp(mode->MaxBitRate, "Auto") == 0 ? static_cast<uint32_t>(PON_PORT_RATE_1000M)
                                                        : rate_of(mode->MaxBitRate, full_duplex_rates);
    if (strcmp(mode->DuplexMode, "Auto") == 0) {
        record.duplex_mode = PON_PORT_DUPLEX_HALF;
    } else if (strcmp(mode->DuplexMode, "Full") == 0) {
        record.auto_neg_enable = 0;
        record.duplex_mode = PON_PORT_DUPLEX_FULL;
    } else if (strcmp(mode->DuplexMode, "Half") == 0) {
        record.auto_neg_enable = 0;
        record.duplex_mode = PON_PORT_DUPLEX_HALF;
    } else {
        ovani_log(VELM_LOG_ERR, "duplex_mode=%d has no cfg!\n", static_cast<int>(record.duplex_mode));
    }
    ovani_log(VELM_LOG_DEBUG, "lan_eth_id=%d auto_neg_enable=%d,rate = %d, duplex_mode = %d.\n", lan_eth_id,
              static_cast<int>(record.auto_neg_enable), static_cast<int>(record.rate),
              static_cast<int>(record.duplex_mode));
    qvdrv_pon_set_eth_port_work_mode(&record);
    return 0;
}

// --- Configuration from the bus

namespace {

// The port an object path names, or -1. No offset for Wi-Fi here.
int lan_port_of_path(const char *obj_url)
{
    constexpr char function[] = "ovani_set_lanport_cfg_process";
    bool under_lan_interfaces = false;
    int index = lan_interface_of_path(function, obj_url, ovani_lan_port_count(), under_lan_interfaces);
    if (index != -1 && !under_lan_interfaces) {
        ovani_log_as(function, VELM_LOG_DEBUG, "lan_eth_inf_idx is %d.\n", index);
    }
    return index;
}

// Any text but "1" and "0" asks to disable port 0, which the driver does not have.
void set_port_state(int port, const char *enable)
{
    PON_ETH_PORT_STATE_T state{};
    if (strcmp(enable, "1") == 0 || strcmp(enable, "0") == 0) {
        state.port_index = static_cast<uint32_t>(port);
        state.enable = enable[0] == '1' ? 1 : 0;
        ovani_log_as("ovani_set_lanport_cfg_process", VELM_LOG_DEBUG, "LAN port Enable is %s\n", enable);
    }
    qvdrv_pon_set_eth_port_state(&state);
}

void ovani_lan_port_workmode_set(int port, const LanEthInterfaceParam &params)
{
    ovani_log(VELM_LOG_DEBUG, "lan_eth_id=%d ,MaxBitRate=%s, DuplexMode=%s\n", port, params.MaxBitRate,
              params.DuplexMode);
    bool complete = false;
    const LanEthIntfWorkMode *mode =
        changed_work_mode(__func__, port, params.MaxBitRate, params.DuplexMode, complete);
    if (mode == nullptr) {
        return;
    }
    PON_ETH_PORT_WORK_MODE_T record{.port_index = static_cast<uint32_t>(port)};
    if (strcmp(mode->DuplexMode, "Auto") == 0) {
        record.auto_neg_enable = 1;
    } else if (strcmp(mode->DuplexMode, "Full") == 0) {
        record.duplex_mode = PON_PORT_DUPLEX_FULL;
        record.rate = rate_of(mode->MaxBitRate, full_duplex_rates);
    } else if (strcmp(mode->DuplexMode, "Half") == 0) {
        record.duplex_mode = PON_PORT_DUPLEX_HALF;
        record.rate = rate_of(mode->MaxBitRate, half_duplex_rates);
    }
    ovani_log(VELM_LOG_DEBUG, "auto_neg_enable=%d ,duplex_mode=%d,port_index=%d,rate=%d\n",
              static_cast<int>(record.auto_neg_enable), static_cast<int>(record.duplex_mode), port,
              static_cast<int>(record.rate));
    qvdrv_pon_set_eth_port_work_mode(&record);
}

} // namespace

int ovani_set_lanport_cfg_process(const char *obj_url, const LanEthInterfaceParam *params)
{
    ovani_log(VELM_LOG_DEBUG, "goto ovani_set_lanport_cfg_process\n");
    int port = lan_port_of_path(obj_url);
    if (port == -1 || params == nullptr) {
        ovani_log(VELM_LOG_DEBUG, "Null return\n");
        return 0;
    }
    if (params->Enable[0] != '\0') {
        set_port_state(port, params->Enable);
    }
    if (params->MaxBitRate[0] == '\0' && params->DuplexMode[0] == '\0') {
        return 1;
    }
    ovani_log(VELM_LOG_DEBUG, "go to ovani_lan_eth_workmode_set\n");
    ovani_lan_port_workmode_set(port, *params);
    return 1;
}

// --- Link changes

void ovani_port_up_down_set(unsigned char port_index, unsigned char status)
{
    bool in_range = port_index >= 1 && port_index <= MAX_LAN_PORT;
    if (in_range && status == 1) {
        g_port_link_status[port_index].link_up = 1;
        ovani_log(VELM_LOG_DEBUG, "g_port_link_status port Status change Up\n");
    } else if (in_range && status == 0) {
        g_port_link_status[port_index].link_up = 0;
        ovani_log(VELM_LOG_DEBUG, "g_port_link_status port Status change NoLink\n");
    } else {
        ovani_log(VELM_LOG_DEBUG, "g_port_link_status port Status change\n");
    }
}
