// The hosts the daemon knows: one node each, in a doubly linked list in the order they were first seen. Nodes
// belong to the table. Main thread only.
//
// The table is not bounded, and a node outlives its host's object in the configuration store.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ovani/node_list.h"
#include "ovani/ovani_commdef.h"

inline constexpr size_t HOST_NAME_LEN = 128;
inline constexpr size_t OVANI_DEVICE_TYPE_LEN = 64;
inline constexpr size_t OVANI_IF_TYPE_LEN = 64;
inline constexpr size_t OVANI_OPTION60_LEN = 256;

// What a host has before anything is known of it. The misspellings are compared with elsewhere.
inline constexpr char OVANI_DEFAULT_HOSTNAME[] = "HostName_unknow";
inline constexpr char OVANI_DEFAULT_DEVICETYPE[] = "DeviceType_unknow";
inline constexpr char OVANI_DEFAULT_IFTYPE[] = "IfType_Ethernet";

inline constexpr unsigned OVANI_ADDR_TYPE_DHCP = 0;
inline constexpr unsigned OVANI_ADDR_TYPE_STATIC = 1;
inline constexpr unsigned OVANI_ADDR_TYPE_AUTOIP = 2;
inline constexpr unsigned HOST_TYPE_DHCP = OVANI_ADDR_TYPE_DHCP;
inline constexpr unsigned HOST_TYPE_STATIC = OVANI_ADDR_TYPE_STATIC;
inline constexpr unsigned HOST_TYPE_AUTO_IP = OVANI_ADDR_TYPE_AUTOIP;

inline constexpr char OVANI_HOST_ONLINE = 1;
inline constexpr char OVANI_HOST_OFFLINE = 0;

struct host_node {
    host_node *next;
    host_node *prev;
    uint32_t ip; // host order, 0 for none
    unsigned int AddressSource;
    uint8_t mac[OVANI_MAC_LEN];
    char lanPortType; // 0 wired, else Wi-Fi
    char lanPortNo;   // LAN port or WLANConfiguration instance; OVANI_INVALID_VALUE when attached to none
    unsigned int LeaseTimeRemaining; // seconds
    char VendorClassID[128];
    char ClientID[256];
    char UserClassID[128];
    char HostName[HOST_NAME_LEN];
    char DeviceType[OVANI_DEVICE_TYPE_LEN];
    char InterfaceType[OVANI_IF_TYPE_LEN];
    char Active; // OVANI_HOST_ONLINE or OVANI_HOST_OFFLINE
    char onlineclock[OVANI_TIME_BUFF_LEN];
    char path[128]; // layer-2 interface path
    char ip6addr[128];
    char option60[OVANI_OPTION60_LEN]; // DHCP vendor class
    host_node *next_in_slot;           // the list's
};

// How a host's address source reads in the configuration store.
inline const char *address_source_text(const host_node &host)
{
    return host.AddressSource == OVANI_ADDR_TYPE_DHCP ? "DHCP" : "STATIC";
}

struct host_table : NodeList<host_node> {
    int host_node_num = 0;
};

extern host_table g_host_table_ipv4;

// Deletes all nodes. R_OK.
int ovani_host_table_init();
int ovani_host_node_num_get();

// A zeroed node with a static address source, belonging to no table yet; null when memory has run out.
host_node *ovani_host_node_create();
int ovani_host_node_free(host_node *node);

// Append, and unlink and free. R_ERROR when either argument is null.
int ovani_host_node_add(host_table *table, host_node *node);
int ovani_host_node_delete(host_table *table, host_node *node);

// The oldest node with this key, or null.
host_node *ovani_host_node_match(const host_table *table, unsigned long ipv4);
host_node *ovani_host_node_match_by_mac(const host_table *table, const unsigned char *mac);
host_node *ovani_host_node_match_by_ip_and_mac(const host_table *table, unsigned long ipv4,
                                               const unsigned char *mac);

// The same, created with the defaults above, active and attached to no port, when there is none. Null only
// for a null argument or when memory has run out. Those that take an IPv4 address are UNUSED.
host_node *ovani_host_node_get(host_table *table, unsigned long ipv4);
host_node *ovani_host_node_get_by_mac(host_table *table, const unsigned char *mac);
host_node *ovani_host_node_get_by_ip_and_mac(host_table *table, unsigned long ipv4, const unsigned char *mac);

// Whether a host sits behind this Ethernet port.
inline bool is_wired_to(const host_node &host, int port)
{
    return host.lanPortType == 0 && host.lanPortNo == port;
}

// Deletes the wired nodes of a port. Returns 0. UNUSED
int ovani_host_node_delete_by_port(host_table *table, int port);

// Lists the table to the log while OVANI_DEBUG_FILE exists.
void ovani_host_table_show();
