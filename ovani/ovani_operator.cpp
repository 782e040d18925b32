#include "ovani/ovani_operator.h"

#include <algorithm>
#include <cstring>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_log.h"
#include "platform/zk_sys_mgr.h"

unsigned int g_ovani_operator;
READ_ALL_WAN_CFG g_read_wan_param_cfg = read_wan_param_cfg;
READ_LANETH_VLANBIND_CFG g_read_laneth_vlan_bind_cfg = read_laneth_vlan_bind_cfg_ct;
SYSTEM_PARSE_OVANI_CONFIG_PARAM g_system_set_lan_config = system_parse_ovani_config_ct;

// --- The rows

namespace {

// KEPT: China Mobile's "MACAddress" lands in Status.
constexpr LanParamName LAN_PARAMS_CM[] = {
    {"MaxBitRate", &LanEthInterfaceParam::MaxBitRate},
    {"DuplexMode", &LanEthInterfaceParam::DuplexMode},
    {"X_CMCC_Mode", &LanEthInterfaceParam::Mode},
    {"X_CMCC_VLAN", &LanEthInterfaceParam::VLAN},
    {"X_CMCC_MACAddressNum", &LanEthInterfaceParam::MacAddrNum},
    {"Enable", &LanEthInterfaceParam::Enable},
    {"Status", &LanEthInterfaceParam::Status},
    {"MACAddress", &LanEthInterfaceParam::Status},
};

constexpr LanParamName LAN_PARAMS_CT[] = {
    {"MaxBitRate", &LanEthInterfaceParam::MaxBitRate},
    {"DuplexMode", &LanEthInterfaceParam::DuplexMode},
    {"X_CT-COM_Mode", &LanEthInterfaceParam::Mode},
    {"X_CT-COM_VLAN", &LanEthInterfaceParam::VLAN},
};

constexpr LanParamName LAN_PARAMS_CU[] = {
    {"MaxBitRate", &LanEthInterfaceParam::MaxBitRate},
    {"DuplexMode", &LanEthInterfaceParam::DuplexMode},
    {"X_CU_Mode", &LanEthInterfaceParam::Mode},
    {"X_CU_VLAN", &LanEthInterfaceParam::VLAN},
};

constexpr OperatorProfile OPERATORS[OPTYPE_MAX] = {
    {
        .code = OPTYPE_CM,
        .name = "CHINA MOBILE",
        .deletes_who_leaves = false,
        .read_wan_table = read_wan_param_cfg_cm,
        .read_wan_connection = read_wan_conn_cfg_by_index_cm,
        .read_lan_binding = read_laneth_vlan_bind_cfg_cm,
        .parse_lan_config = system_parse_ovani_config_cm,
        .wan = {.last_device = 1,
                .last_connection = 8,
                .ip_mode = "X_CMCC_IPMode",
                .service_list = "X_CMCC_ServiceList",
                .lan_dhcp = "X_CMCC_LanInterface-DHCPEnable",
                .vlan_enabled = "X_CMCC_VLANMode",
                .vlan = "X_CMCC_VLANIDMark",
                .priority = "X_CMCC_802-1pMark",
                .vlan_of_device = false,
                .vlan_0_is_none = true},
        .binding = {.ethernet = "InternetGatewayDevice.LANInterfaces.LANEthernetInterfaceConfig.",
                    .wlan = "InternetGatewayDevice.LANInterfaces.WLANConfiguration.",
                    .vlan = "X_CMCC_VLAN",
                    .mode = "X_CMCC_Mode",
                    .mac_limit = "X_CMCC_MACAddressNum",
                    .failure_level = VELM_LOG_ERR,
                    .logs_urls = false},
        .lan_params = LAN_PARAMS_CM,
    },
    // KEPT: its WAN side goes by True's names, its LAN side by its own.
    {
        .code = OPTYPE_CT,
        .name = "CHINA TELECOM",
        .deletes_who_leaves = true,
        .read_wan_table = read_wan_param_cfg,
        .read_wan_connection = read_wan_conn_cfg_by_index_ct,
        .read_lan_binding = read_laneth_vlan_bind_cfg_ct,
        .parse_lan_config = system_parse_ovani_config_ct,
        .wan = {.last_device = OVANI_MAX_WAN_NUM,
                .last_connection = MAX_CONNS_IN_WAN,
                .ip_mode = "X_TRUE_IPMode",
                .service_list = "X_TRUE_ServiceList",
                .lan_dhcp = "DHCPEnable",
                .vlan_enabled = nullptr,
                .vlan = "X_TRUE_VlanID",
                .priority = "X_TRUE_VlanPriority",
                .vlan_of_device = false,
                .vlan_0_is_none = false},
        .binding = {.ethernet = OVANI_LAN_ETHERNET_PATH,
                    .wlan = OVANI_WLAN_PATH,
                    .vlan = "X_CT-COM_VLAN",
                    .mode = "X_CT-COM_Mode",
                    .mac_limit = nullptr,
                    .failure_level = VELM_LOG_DEBUG,
                    .logs_urls = true},
        .lan_params = LAN_PARAMS_CT,
    },
    {
        .code = OPTYPE_CU,
        .name = "CHINA_UNICOM", // KEPT: the underscore
        .deletes_who_leaves = false,
        .read_wan_table = read_wan_param_cfg,
        .read_wan_connection = read_wan_conn_cfg_by_index_cu,
        .read_lan_binding = read_laneth_vlan_bind_cfg_cu,
        .parse_lan_config = system_parse_ovani_config_cu,
        .wan = {.last_device = OVANI_MAX_WAN_NUM,
                .last_connection = MAX_CONNS_IN_WAN,
                .ip_mode = "X_CU_IPMode",
                .service_list = "X_CU_ServiceList",
                .lan_dhcp = nullptr,
                .vlan_enabled = "X_CU_VLANEnabled",
                .vlan = "X_CU_VLAN",
                .priority = "X_CU_802_1p",
                .vlan_of_device = true,
                .vlan_0_is_none = true},
        .binding = {.ethernet = OVANI_LAN_ETHERNET_PATH,
                    .wlan = nullptr,
                    .vlan = "X_CU_VLAN",
                    .mode = "X_CU_Mode",
                    .mac_limit = nullptr,
                    .failure_level = VELM_LOG_ERR,
                    .logs_urls = false},
        .lan_params = LAN_PARAMS_CU,
    },
};

constexpr bool rows_stand_at_their_codes()
{
    return std::ranges::all_of(OPERATORS,
                               [](const OperatorProfile &row) { return &row == &OPERATORS[row.code]; });
}
static_assert(rows_stand_at_their_codes());

} // namespace

constexpr std::array<const char *, OPTYPE_MAX> OvaniOpTypeStr = [] {
    std::array<const char *, OPTYPE_MAX> names{};
    std::ranges::transform(OPERATORS, names.begin(), &OperatorProfile::name);
    return names;
}();

// --- The operator in force

int ovani_operator_type_init()
{
    // A system manager that does not answer leaves the first code: China Mobile.
    zk_carr_type carrier = CARR_CM;
    zk_sys_mgr_get_carrier(&carrier);
    // A code the enumeration does not have must not be read as one of its values.
    static_assert(sizeof carrier == sizeof g_ovani_operator);
    memcpy(&g_ovani_operator, &carrier, sizeof carrier);
    if (g_ovani_operator >= OPTYPE_MAX) {
        ovani_log(VELM_LOG_ERR, "Get Operator Type:%d err!\n", static_cast<int>(g_ovani_operator));
        return R_ERROR;
    }
    ovani_log(VELM_LOG_DEBUG, "Get Operator Type:%s!\n", ovani_operator_type_str_get());
    return R_OK;
}

unsigned int ovani_operator_type_code_get()
{
    return g_ovani_operator;
}

const char *ovani_operator_type_str_get()
{
    return OPERATORS[g_ovani_operator].name;
}

const OperatorProfile *ovani_operator_profile()
{
    return g_ovani_operator < OPTYPE_MAX ? &OPERATORS[g_ovani_operator] : nullptr;
}

const OperatorProfile &operator_profile_or_default(const char *function)
{
    const OperatorProfile *profile = ovani_operator_profile();
    if (profile == nullptr) {
        ovani_log_as(function, VELM_LOG_ERR, "Error: Unknow operator %d.\n",
                     static_cast<int>(g_ovani_operator));
        return OPERATORS[OPTYPE_CT];
    }
    return *profile;
}

// --- Each operator's readers and parser

int read_wan_conn_cfg_by_index_cm(qv_wan_param *wan_param, int wanIndex, int conIndex, int IPorPPP)
{
    return read_wan_connection(OPERATORS[OPTYPE_CM].wan, wan_param, wanIndex, conIndex, IPorPPP);
}

int read_wan_conn_cfg_by_index_ct(qv_wan_param *wan_param, int wanIndex, int conIndex, int IPorPPP)
{
    return read_wan_connection(OPERATORS[OPTYPE_CT].wan, wan_param, wanIndex, conIndex, IPorPPP);
}

int read_wan_conn_cfg_by_index_cu(qv_wan_param *wan_param, int wanIndex, int conIndex, int IPorPPP)
{
    return read_wan_connection(OPERATORS[OPTYPE_CU].wan, wan_param, wanIndex, conIndex, IPorPPP);
}

int read_laneth_vlan_bind_cfg_cm(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind)
{
    return read_lan_binding(OPERATORS[OPTYPE_CM].binding, lan_eth_id, lanvlanbind);
}

int read_laneth_vlan_bind_cfg_ct(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind)
{
    return read_lan_binding(OPERATORS[OPTYPE_CT].binding, lan_eth_id, lanvlanbind);
}

int read_laneth_vlan_bind_cfg_cu(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind)
{
    return read_lan_binding(OPERATORS[OPTYPE_CU].binding, lan_eth_id, lanvlanbind);
}

bool system_parse_ovani_config_cm(const char *key, const char *value, void *param)
{
    return parse_lan_param(OPERATORS[OPTYPE_CM].lan_params, key, value, param);
}

bool system_parse_ovani_config_ct(const char *key, const char *value, void *param)
{
    ovani_log(VELM_LOG_DEBUG, "system_parse_ovani_config_ct keystr:%s value:%s\n", text_or_empty(key),
              text_or_empty(value));
    return parse_lan_param(OPERATORS[OPTYPE_CT].lan_params, key, value, param);
}

bool system_parse_ovani_config_cu(const char *key, const char *value, void *param)
{
    return parse_lan_param(OPERATORS[OPTYPE_CU].lan_params, key, value, param);
}
