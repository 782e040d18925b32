// All that differs between operators, a row each. A new one is a code and a row here, lines in the data
// model, a sample configuration and a row in the tests.
#pragma once

#include <array>
#include <span>

#include "ovani/ovani_lan_port.h"
#include "ovani/ovani_wan_config.h"

// Operator codes, as the system manager reports them.
enum operator_type {
    OPTYPE_CM = 0, // China Mobile
    OPTYPE_CT = 1, // China Telecom
    OPTYPE_CU = 2, // China Unicom
    OPTYPE_MAX = 3,
};

using READ_ALL_WAN_CFG = int (*)();
using READ_LANETH_VLANBIND_CFG = int (*)(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind);
using SYSTEM_PARSE_OVANI_CONFIG_PARAM = bool (*)(const char *key, const char *value, void *param);

struct OperatorProfile {
    operator_type code;
    const char *name;
    bool deletes_who_leaves; // the object of a host that leaves goes, instead of becoming inactive
    // One reader or parser for each of the function pointers below.
    READ_ALL_WAN_CFG read_wan_table;
    READ_WANCON_CFG_BY_INDEX read_wan_connection;
    READ_LANETH_VLANBIND_CFG read_lan_binding;
    SYSTEM_PARSE_OVANI_CONFIG_PARAM parse_lan_config;
    // What these read under.
    WanProfile wan;
    BindProfile binding;
    std::span<const LanParamName> lan_params;
};

// --- The operator in force

extern unsigned int g_ovani_operator; // its code, whatever the system manager said

// Reads the operator code and keeps it, whatever it is. R_ERROR for a code that is not one of the three.
int ovani_operator_type_init();
unsigned int ovani_operator_type_code_get();
// The operators' names, by code; the second only for a code below OPTYPE_MAX.
extern const std::array<const char *, OPTYPE_MAX> OvaniOpTypeStr;
const char *ovani_operator_type_str_get();

// The operator's row; null for a code that has none.
const OperatorProfile *ovani_operator_profile();

// The same for those who read by it: a code without a row is logged, and read like China Telecom's.
const OperatorProfile &operator_profile_or_default(const char *function = __builtin_FUNCTION());

// Chosen at start-up; g_read_wan_conn_cfg_by_index beside them.
extern READ_ALL_WAN_CFG g_read_wan_param_cfg;
extern READ_LANETH_VLANBIND_CFG g_read_laneth_vlan_bind_cfg;
extern SYSTEM_PARSE_OVANI_CONFIG_PARAM g_system_set_lan_config;

// --- Each operator's readers and parser

// read_wan_connection, read_lan_binding and parse_lan_param under its names.
int read_wan_conn_cfg_by_index_cm(qv_wan_param *wan_param, int wanIndex, int conIndex, int IPorPPP);
int read_wan_conn_cfg_by_index_ct(qv_wan_param *wan_param, int wanIndex, int conIndex, int IPorPPP);
int read_wan_conn_cfg_by_index_cu(qv_wan_param *wan_param, int wanIndex, int conIndex, int IPorPPP);
int read_laneth_vlan_bind_cfg_cm(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind);
int read_laneth_vlan_bind_cfg_ct(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind);
int read_laneth_vlan_bind_cfg_cu(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind);
bool system_parse_ovani_config_cm(const char *key, const char *value, void *param);
bool system_parse_ovani_config_ct(const char *key, const char *value, void *param);
bool system_parse_ovani_config_cu(const char *key, const char *value, void *param);
