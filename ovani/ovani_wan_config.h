// The table of enabled WAN connections, read from the configuration store under the names of the operator's
// profile.
#pragma once

#include "platform/qvdrv_net_api.h"

inline constexpr int OVANI_MAX_WAN_NUM = 16;
inline constexpr int MAX_CONNS_IN_WAN = 2;     // per connection device, China Unicom and China Telecom
inline constexpr int MAX_WAN_LINK_NUM_CFG = 8; // all under one device, China Mobile
inline constexpr int NO_VLAN = 4093;

// The enabled connections in slots 1 to 16; slot 0 is never filled.
extern qv_wan_param s_vlanbind_wan_param[OVANI_MAX_WAN_NUM + 1];

// Service list to service type, in any case. Returns 0, or -1 when the list names no known service.
int parse_servicelist_to_wan_mode(qv_wan_mode *wanmode, const char *sList);

// One connection of a connection device; `IPorPPP` is 1 for an IP connection, 2 for a PPP connection. Returns
// 0, -1 for an index out of range or an unknown service list, or the store's code.
int read_wan_conn_cfg_by_index_cm(qv_wan_param *wan_param, int wanIndex, int conIndex, int IPorPPP);
int read_wan_conn_cfg_by_index_ct(qv_wan_param *wan_param, int wanIndex, int conIndex, int IPorPPP);
int read_wan_conn_cfg_by_index_cu(qv_wan_param *wan_param, int wanIndex, int conIndex, int IPorPPP);

// Refill the table. The first gives slot n to connection device n, whose first enabled connection counts, IP
// before PPP; the second fills the slots in order with every enabled connection of device 1. Return 0.
int read_wan_param_cfg();
int read_wan_param_cfg_cm();

void ovani_wan_param_print(const qv_wan_param *wp);

// The operator's readers, chosen at start-up.
using READ_ALL_WAN_CFG = int (*)();
using READ_WANCON_CFG_BY_INDEX = int (*)(qv_wan_param *, int, int, int);
extern READ_ALL_WAN_CFG g_read_wan_param_cfg;
extern READ_WANCON_CFG_BY_INDEX g_read_wan_conn_cfg_by_index;
