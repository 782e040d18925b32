// LAN ports: how many there are, their parameters as records and as operators name them, the paths that name
// them.
//
// Ports are numbered from 1: the Ethernet ports of the device first, Wi-Fi SSIDs behind them.
#pragma once

#include <cstddef>
#include <span>

inline constexpr char OVANI_LAN_ETHERNET_PATH[] =
    "InternetGatewayDevice.LANDevice.1.LANEthernetInterfaceConfig.";
inline constexpr char OVANI_WLAN_PATH[] = "InternetGatewayDevice.LANDevice.1.WLANConfiguration.";

inline constexpr int MAX_LAN_PORT = 24;
inline constexpr size_t LAN_PARAM_LEN = 256;

extern unsigned int g_lan_inf_num; // LAN Ethernet ports of the device, at most MAX_LAN_PORT

// The same as a number to compare ports with.
int ovani_lan_port_count();

// Asks the system manager for it. What it was stays when there is no answer.
void read_lan_port_count();

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

// An operator's name of one of these.
struct LanParamName {
    const char *key;
    char (LanEthInterfaceParam::*field)[LAN_PARAM_LEN];
};

// Puts one named parameter into the field of a LanEthInterfaceParam it belongs to; other names are ignored.
// Returns true.
bool parse_lan_param(std::span<const LanParamName> names, const char *key, const char *value, void *param);

// A port's binding configuration.
struct LanEthIntfVlanBind {
    char VLAN[LAN_PARAM_LEN];       // pairs "<LAN VLAN>/<WAN VLAN>", separated by commas
    char Mode[LAN_PARAM_LEN];       // "0" is off
    char MacAddrNum[LAN_PARAM_LEN]; // limit of learned MACs, decimal
};

// Where an operator keeps it, and how the reading is logged.
struct BindProfile {
    const char *ethernet; // path of the table of ports
    const char *wlan;     // of SSIDs; null: they are read like Ethernet ports
    const char *vlan;
    const char *mode;
    const char *mac_limit; // of Ethernet ports; null: there is none
    int failure_level;
    bool logs_urls;
};

// Reads it from the store; fields that cannot be read stay as they are. Returns 0.
int read_lan_binding(const BindProfile &profile, int lan_eth_id, LanEthIntfVlanBind *lanvlanbind,
                     const char *function = __builtin_FUNCTION());

// Reads a port's parameter by its path into a field, which stays as it is when that fails; logs either, a
// failure at the given level.
void read_port_param(const char *path, int port, char (&field)[LAN_PARAM_LEN], int failure_level,
                     const char *function = __builtin_FUNCTION());

// Takes over a value that is given and differs from the stored one; whether it did. The field's last byte is
// never written to, so that a reader on the other thread finds an end whenever it looks.
bool take_lan_param(char (&stored)[LAN_PARAM_LEN], const char *value);

// The number that an object path gives its LAN interface: the first instance below LANInterfaces, 1 to
// MAX_LAN_PORT, or the second below LANDevice, 1 to `last_of_device`. -1, with the reason logged, for any
// other path.
int lan_interface_of_path(const char *obj_url, int last_of_device, bool &under_lan_interfaces,
                          const char *function = __builtin_FUNCTION());
