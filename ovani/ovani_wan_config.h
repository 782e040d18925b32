// The table of enabled WAN connections, read from the configuration store under an operator's names.
#pragma once

#include "platform/qvdrv_net_api.h"

inline constexpr int OVANI_MAX_WAN_NUM = 16;
inline constexpr int MAX_CONNS_IN_WAN = 2;     // where each connection device has its own
inline constexpr int MAX_WAN_LINK_NUM_CFG = 8; // where all are under one device
inline constexpr int NO_VLAN = 4093;

// The enabled connections in slots 1 to 16; slot 0 is never filled.
extern qv_wan_param s_vlanbind_wan_param[OVANI_MAX_WAN_NUM + 1];

void clear_wan_table();

// Service list to service type, in any case. Returns 0, or -1 when the list names no known service.
int parse_servicelist_to_wan_mode(qv_wan_mode *wanmode, const char *sList);

// What an operator calls a connection's parameters, and what it allows. A null name is a parameter it has
// not.
struct WanProfile {
    int last_device; // connection devices and connections are numbered up to these
    int last_connection;
    const char *ip_mode;
    const char *service_list;
    const char *lan_dhcp;
    const char *vlan_enabled; // the VLAN counts only where this is not 0
    const char *vlan;
    const char *priority;
    bool vlan_of_device; // the VLAN's parameters are the connection device's
    bool vlan_0_is_none; // VLAN 0 reads as NO_VLAN
};

// One connection of a connection device; `IPorPPP` is 1 for an IP connection, 2 for a PPP connection. Returns
// 0, -1 for an index out of range or an unknown service list, or the store's code.
int read_wan_connection(const WanProfile &profile, qv_wan_param *wan_param, int wanIndex, int conIndex,
                        int IPorPPP, const char *function = __builtin_FUNCTION());

// The operator's reader of one connection, chosen at start-up.
using READ_WANCON_CFG_BY_INDEX = int (*)(qv_wan_param *, int, int, int);
extern READ_WANCON_CFG_BY_INDEX g_read_wan_conn_cfg_by_index;

// Refill the table. The first gives slot n to connection device n, whose first enabled connection counts, IP
// before PPP; the second fills the slots in order with every enabled connection of device 1. Return 0.
int read_wan_param_cfg();
int read_wan_param_cfg_cm();

void ovani_wan_param_print(const qv_wan_param *wp);
