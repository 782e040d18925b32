// What the gateway tells only through its command-line tools: the bridge's forwarding table, the IPv6
// neighbours, the mesh.
//
// The tools are found in PATH by their plain names. An address is put into a command only after its alphabet
// was checked; one that fails the check is answered as "not found".
#pragma once

#include <cstddef>
#include <string>

// One row of "brctl showmacs", as text.
struct BRCTL_MACS_INFO {
    char islocal[8]; // "yes" for the bridge's own addresses, "no" for a device behind a port
    char agetime[16];
    char intf[16]; // the port's interface
};

// What the calls below without a size argument write at most, terminator included.
inline constexpr size_t GET_CMD_RES_LEN = 32;
inline constexpr size_t NEIGHBOUR_MAC_LEN = 32;
inline constexpr size_t CONNECT_TYPE_LEN = 16;

// Runs a command and gives the first word of its output, cut at the buffer's size. Null discards the output.
// An output without any word, or a command that cannot be run, leaves the buffer alone.
void get_cmd_res(const char *cmd, char *res_string);
void get_cmd_res(const char *cmd, char *res_string, size_t size);

// The link-layer address of an IPv6 neighbour on br0, as the kernel prints it. Returns 0, or -1.
int ovani_get_mac_by_ipv6(const char *v6_addr, char *mac);
int ovani_get_mac_by_ipv6(const char *v6_addr, char *mac, size_t size);

// The forwarding-table row of a MAC given as colon text, in any case. The caller zeroes `info`. Returns 1
// when found, else -1.
int get_brctl_info_from_mac(const char *macaddr, BRCTL_MACS_INFO *info);

// While one lives, get_brctl_info_from_mac asks what the bridge said at its making, in place of the bridge.
class BridgeListing {
public:
    BridgeListing();
    ~BridgeListing();
    BridgeListing(const BridgeListing &) = delete;
    BridgeListing &operator=(const BridgeListing &) = delete;

private:
    std::string text_;
};

// How a host reaches the gateway: "wireless" or "wired" by the bridge port it sits behind, or, for a mesh
// repeater (`isMeshSlave`), what the mesh controller has recorded. Returns 0, or -1 when the repeater is not
// known or an argument is null.
int ovani_meshhost_connect_type_get(const char *host_mac, char *type, int isMeshSlave);
int ovani_meshhost_connect_type_get(const char *host_mac, char *type, size_t size, int isMeshSlave);

// Removes the kernel's ARP entries of a MAC given as text. R_OK, or R_ERROR for what is no address.
int del_item_from_arp(const char *mac_str);
