// LAN Ethernet ports: work mode, enable, link state.
#pragma once

#include "ovani/ovani_lan_port.h"
#include "platform/qvdrv_pon_api.h"

struct LanEthIntfWorkMode {
    char MaxBitRate[LAN_PARAM_LEN]; // "Auto" or Mbit/s
    char DuplexMode[LAN_PARAM_LEN]; // "Auto", "Full" or "Half"
};

// By port number; row 0 is that of hosts behind an interface that is no port.
extern LanEthIntfWorkMode g_LanWorkMode[MAX_LAN_PORT + 1]; // the last values applied
extern PON_ETH_PORT_LINK_STATUS_T g_port_link_status[MAX_LAN_PORT + 1];

// Chooses the operator's parser, applies every port's work mode from the store and publishes the link states.
// R_OK.
int ovani_port_mgr_init();

// Publishes every port's link state into the store. R_OK.
int ovani_node_port_status_init();

// Applies a port's work mode where it differs from the last. Returns 0, or -1 when the port has no complete
// configuration.
int ovani_lan_eth_workmode_set(int lan_eth_id, const LanEthIntfWorkMode *lanworkmode);

// Port configuration from the bus: enable and work mode, by another mapping than the one above. Returns 1
// when the path and the parameters could be used, else 0.
int ovani_set_lanport_cfg_process(const char *obj_url, const LanEthInterfaceParam *params);

// Notes a link change: status 1 is up, 0 is down. Any other status is only logged. KEPT: the link events pass
// the characters '1' and '0', so that in operation the table keeps the states of start-up.
void ovani_port_up_down_set(unsigned char port_index, unsigned char status);
