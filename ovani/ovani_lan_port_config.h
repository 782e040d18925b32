// LAN ports: their parameters as the operators name them, and the binding of their VLANs to WAN connections.
//
// The tables here are shared by start-up, the delayed Wi-Fi binder thread and the port configuration of the
// bus, without locks: what keeps the last two apart is that the binder runs once, 90 seconds after start.
// Every text field keeps a terminator in its last byte at every instant, and every index is checked where it
// is used, so that meeting all the same can spoil a binding but not the memory.
#pragma once

#include <cstddef>

#include "ovani/ovani_wan_config.h"

// --- LAN ports

inline constexpr size_t LAN_PARAM_LEN = 256;

// What the bus asks of a port, parameter by parameter; empty where it does not ask.
struct LanEthInterfaceParam {
    char MaxBitRate[LAN_PARAM_LEN];
    char DuplexMode[LAN_PARAM_LEN];
    char VLAN[LAN_PARAM_LEN];
    char Mode[LAN_PARAM_LEN];
    char MacAddrNum[LAN_PARAM_LEN];
    char Enable[LAN_PARAM_LEN];
    char Status[LAN_PARAM_LEN];
    char MACAddress[LAN_PARAM_LEN];
};

// Puts one named parameter into the field it belongs to, under the operator's names; other names are ignored.
// `param` is a LanEthInterfaceParam. Returns true.
bool system_parse_ovani_config_cm(const char *key, const char *value, void *param);
bool system_parse_ovani_config_ct(const char *key, const char *value, void *param);
bool system_parse_ovani_config_cu(const char *key, const char *value, void *param);

// Takes over a value that is given and differs from the stored one; whether it did. The field's last byte is
// never written to, so that a reader on the other thread finds an end whenever it looks.
bool take_lan_param(char (&stored)[LAN_PARAM_LEN], const char *value);

// The number that an object path gives its LAN interface: the first instance below LANInterfaces, 1 to
// MAX_LAN_PORT, or the second below LANDevice, 1 to `last_of_device`. -1, with the reason logged as
// `function`, for any other path.
int lan_interface_of_path(const char *function, const char *obj_url, int last_of_device,
                          bool &under_lan_interfaces);

// --- VLAN binding

inline constexpr int MAX_LAN_BIND_PORT = 24;   // ports with a binding configuration
inline constexpr int MAX_LAN_PORT_NUMBER = 32; // ports with applied bindings
inline constexpr int MAX_VLAN_PAIRS = 16;

// A port's binding configuration.
struct LanEthIntfVlanBind {
    char VLAN[LAN_PARAM_LEN];       // pairs "<LAN VLAN>/<WAN VLAN>", separated by commas
    char Mode[LAN_PARAM_LEN];       // "0" is off
    char MacAddrNum[LAN_PARAM_LEN]; // limit of learned MACs, decimal
};

// One applied binding.
struct LanVlanBindControl {
    int lan_vlan;
    int wan_vlan;
    qv_wan_param wp; // the connection it goes to
};

extern LanEthIntfVlanBind
    s_lan_vlan_bind[MAX_LAN_BIND_PORT + 1]; // by port number: the last configuration applied
extern LanVlanBindControl s_vlan_bind_control[MAX_LAN_PORT_NUMBER][MAX_VLAN_PAIRS]; // by port number less one

// Read a port's binding configuration from the store. Ports above `g_lan_inf_num` are Wi-Fi SSIDs. Return 0.
int read_laneth_vlan_bind_cfg_cm(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind);
int read_laneth_vlan_bind_cfg_ct(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind);
int read_laneth_vlan_bind_cfg_cu(int lan_eth_id, LanEthIntfVlanBind *lanvlanbind);

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

// A WAN connection changed: refreshes the table and sets every port's MAC limit again. Bindings stay as they
// are: each port's configuration is compared with itself. Returns 0.
int ovani_rebind_port_vlan();

// Port configuration from the bus: work mode and VLAN binding of the port an object path names. Returns 1
// when the path and the parameters could be used, else 0.
int ovani_set_eth_cfg_process(const char *obj_url, const LanEthInterfaceParam *params);

// --- The operator's profile, chosen at start-up

using READ_LANETH_VLANBIND_CFG = int (*)(int, LanEthIntfVlanBind *);
using SYSTEM_PARSE_OVANI_CONFIG_PARAM = bool (*)(const char *key, const char *value, void *param);

extern READ_LANETH_VLANBIND_CFG g_read_laneth_vlan_bind_cfg;
extern SYSTEM_PARSE_OVANI_CONFIG_PARAM g_system_set_lan_config;
