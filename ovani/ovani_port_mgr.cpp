#include "ovani/ovani_port_mgr.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_operator.h"
#include "platform/zkcfgif.h"

LanEthIntfWorkMode g_LanWorkMode[MAX_LAN_PORT + 1];
PON_ETH_PORT_LINK_STATUS_T g_port_link_status[MAX_LAN_PORT + 1];

// --- Start-up

int ovani_port_mgr_init()
{
    std::ranges::fill(g_LanWorkMode, LanEthIntfWorkMode{});
    std::ranges::fill(g_port_link_status, PON_ETH_PORT_LINK_STATUS_T{});
    g_system_set_lan_config = operator_profile_or_default().parse_lan_config;
    read_lan_port_count();
    ovani_log(VELM_LOG_DEBUG, "g_lan_inf_num is %d\n", ovani_lan_port_count());
    for (int port = 1; port <= ovani_lan_port_count(); ++port) {
        LanEthIntfWorkMode mode{};
        char path[OVANI_URL_LEN];
        instance_path(path, OVANI_LAN_ETHERNET_PATH, port, "DuplexMode");
        read_port_param(path, port, mode.DuplexMode, VELM_LOG_ERR);
        instance_path(path, OVANI_LAN_ETHERNET_PATH, port, "MaxBitRate");
        read_port_param(path, port, mode.MaxBitRate, VELM_LOG_ERR);
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
        instance_path(path, OVANI_LAN_ETHERNET_PATH, port);
        zkcfg_setsingleparamval(path, "Status", status.link_up == 1 ? "Up" : "NoLink", OVANI_STORE_WAIT_MS);
    }
    ovani_log(VELM_LOG_DEBUG, "ovani_node_port_status_init finish\n");
    return R_OK;
}

// --- Work mode

namespace {

// Takes over what differs from a port's last work mode. Null, with the reason logged, when there is nothing
// to apply; `complete` then tells whether the port has a configuration.
const LanEthIntfWorkMode *changed_work_mode(int port, const char *max_bit_rate, const char *duplex_mode,
                                            bool &complete, const char *function = __builtin_FUNCTION())
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

constexpr std::initializer_list<uint32_t> FULL_DUPLEX_RATES = {PON_PORT_RATE_10M, PON_PORT_RATE_100M,
                                                               PON_PORT_RATE_1000M, PON_PORT_RATE_2500M};
constexpr std::initializer_list<uint32_t> HALF_DUPLEX_RATES = {PON_PORT_RATE_10M, PON_PORT_RATE_100M};

} // namespace

int ovani_lan_eth_workmode_set(int lan_eth_id, const LanEthIntfWorkMode *lanworkmode)
{
    ovani_log(VELM_LOG_DEBUG, "lan_eth_id=%d MaxBitRate=%s, DuplexMode=%s\n", lan_eth_id,
              lanworkmode->MaxBitRate, lanworkmode->DuplexMode);
    bool complete = false;
    const LanEthIntfWorkMode *mode =
        changed_work_mode(lan_eth_id, lanworkmode->MaxBitRate, lanworkmode->DuplexMode, complete);
    if (mode == nullptr) {
        return complete ? 0 : -1;
    }
    PON_ETH_PORT_WORK_MODE_T record{
        .port_index = static_cast<uint32_t>(lan_eth_id), .auto_neg_enable = 1, .rate = 0, .duplex_mode = 0};
    record.rate = strcmp(mode->MaxBitRate, "Auto") == 0 ? static_cast<uint32_t>(PON_PORT_RATE_1000M)
                                                        : rate_of(mode->MaxBitRate, FULL_DUPLEX_RATES);
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
int lan_port_of_path(const char *obj_url, const char *function = __builtin_FUNCTION())
{
    bool under_lan_interfaces = false;
    int index = lan_interface_of_path(obj_url, ovani_lan_port_count(), under_lan_interfaces, function);
    if (index != -1 && !under_lan_interfaces) {
        ovani_log_as(function, VELM_LOG_DEBUG, "lan_eth_inf_idx is %d.\n", index);
    }
    return index;
}

// KEPT: any text but "1" and "0" asks to disable port 0, which the driver does not have.
void set_port_state(int port, const char *enable, const char *function = __builtin_FUNCTION())
{
    PON_ETH_PORT_STATE_T state{};
    if (strcmp(enable, "1") == 0 || strcmp(enable, "0") == 0) {
        state.port_index = static_cast<uint32_t>(port);
        state.enable = enable[0] == '1' ? 1 : 0;
        ovani_log_as(function, VELM_LOG_DEBUG, "LAN port Enable is %s\n", enable);
    }
    qvdrv_pon_set_eth_port_state(&state);
}

void ovani_lan_port_workmode_set(int port, const LanEthInterfaceParam &params)
{
    ovani_log(VELM_LOG_DEBUG, "lan_eth_id=%d ,MaxBitRate=%s, DuplexMode=%s\n", port, params.MaxBitRate,
              params.DuplexMode);
    bool complete = false;
    const LanEthIntfWorkMode *mode = changed_work_mode(port, params.MaxBitRate, params.DuplexMode, complete);
    if (mode == nullptr) {
        return;
    }
    PON_ETH_PORT_WORK_MODE_T record{.port_index = static_cast<uint32_t>(port)};
    if (strcmp(mode->DuplexMode, "Auto") == 0) {
        record.auto_neg_enable = 1;
    } else if (strcmp(mode->DuplexMode, "Full") == 0) {
        record.duplex_mode = PON_PORT_DUPLEX_FULL;
        record.rate = rate_of(mode->MaxBitRate, FULL_DUPLEX_RATES);
    } else if (strcmp(mode->DuplexMode, "Half") == 0) {
        record.duplex_mode = PON_PORT_DUPLEX_HALF;
        record.rate = rate_of(mode->MaxBitRate, HALF_DUPLEX_RATES);
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
    bool in_range = port_index <= MAX_LAN_PORT;
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
