// LAN Ethernet ports: link states.
#pragma once

#include "platform/qvdrv_pon_api.h"

// Ports are numbered from 1; row 0 stays empty.
inline constexpr int MAX_LAN_PORT = 24;

// Link state by port number.
extern PON_ETH_PORT_LINK_STATUS_T g_port_link_status[MAX_LAN_PORT + 1];

// Notes a link change: status 1 is up, 0 is down. Any other status is only logged. The link events pass the
// characters '1' and '0', so that in operation the table keeps the states of start-up; that has always been
// so.
void ovani_port_up_down_set(unsigned char port_index, unsigned char status);
