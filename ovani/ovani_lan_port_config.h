// The binding of the LAN ports' VLANs to WAN connections.
//
// The tables here are shared by start-up, the delayed Wi-Fi binder thread and the port configuration of the
// bus, without locks: what keeps the last two apart is that the binder runs once, 90 seconds after start.
// Every text field keeps a terminator in its last byte at every instant, and every index is checked where it
// is used, so that meeting all the same can spoil a binding but not the memory.
#pragma once

#include "ovani/ovani_lan_port.h"
#include "platform/qvdrv_net_api.h"

inline constexpr int MAX_LAN_BIND_PORT = 24;   // ports with a binding configuration
inline constexpr int MAX_LAN_PORT_NUMBER = 32; // ports with applied bindings
inline constexpr int MAX_VLAN_PAIRS = 16;

// One applied binding.
struct LanVlanBindControl {
    int lan_vlan;
    int wan_vlan;
    qv_wan_param wp; // the connection it goes to
};

extern LanEthIntfVlanBind
    s_lan_vlan_bind[MAX_LAN_BIND_PORT + 1]; // by port number: the last configuration applied
extern LanVlanBindControl s_vlan_bind_control[MAX_LAN_PORT_NUMBER][MAX_VLAN_PAIRS]; // by port number less one

// Takes up to MAX_VLAN_PAIRS pairs out of a VLAN text; returns how many.
int parse_lan_vlan_str(const char *text, int (&lan_vlans)[MAX_VLAN_PAIRS], int (&wan_vlans)[MAX_VLAN_PAIRS]);

// Applies a port's configuration where it differs from the last; its MAC limit is set every time. Returns 0
// in every case.
int ovani_port_vlan_bind(int lan_eth_intf_id, const LanEthIntfVlanBind *lanvlanbind);

// Takes all bindings of a port away. Returns 0, or -1 for a port that cannot be.
int ovani_port_vlan_unbind(int port);

// Chooses the operator's readers and binds every port from the store. Returns 0.
int vlan_bind_init();

// Thread: the same again after 90 seconds, when Wi-Fi is up.
void *vlan_bind_init_wifi(void *unused);

// How that thread waits, given seconds: sleep(), but in tests.
extern unsigned (*g_wait_for_wifi)(unsigned seconds);

// A WAN connection changed: refreshes the table and sets every port's MAC limit again. Bindings stay as they
// are: each port's configuration is compared with itself. Returns 0.
int ovani_rebind_port_vlan();

// Port configuration from the bus: work mode and VLAN binding of the port an object path names. Returns 1
// when the path and the parameters could be used, else 0.
int ovani_set_eth_cfg_process(const char *obj_url, const LanEthInterfaceParam *params);
