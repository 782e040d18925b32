// The station MACs that the bridge has learned or that joined over Wi-Fi, each with the port it sits behind;
// a doubly linked list in the order of first learning. Nodes belong to the table. Main thread only.
#pragma once

#include <cstdint>

#include "ovani/node_list.h"
#include "ovani/ovani_commdef.h"

// The callers keep to this limit: before adding to a full table they evict its oldest node.
inline constexpr int OVANI_MAC_MAX_NUM = 256;

struct mac_node {
    mac_node *next;
    mac_node *prev;
    uint8_t mac[OVANI_MAC_LEN];
    char lanPortType;                      // 0 Ethernet, 1 Wi-Fi
    char lanPortNo;                        // LAN port or WLANConfiguration instance
    char onlineclock[OVANI_TIME_BUFF_LEN]; // when it was last learned
    mac_node *next_in_slot;                // the list's
};

struct mac_table : NodeList<mac_node> {
    int32_t mac_node_num = 0;
};

extern mac_table g_mac_table;
extern const char *const g_ovani_interfaceType[2]; // by lanPortType
extern char g_ovani_layer2_interface_str[128];     // the last path built

// Deletes all nodes. R_OK.
int ovani_mac_table_init();
int ovani_mac_node_num_get();

// The node of a MAC, or null.
mac_node *ovani_mac_node_match(const mac_table *table, const unsigned char *mac);

// The same, appended when there is none; a new node's port and time are the caller's to fill. Null for a null
// argument or when memory has run out.
mac_node *ovani_mac_node_get(mac_table *table, const unsigned char *mac);

// Unlink and free; R_ERROR when an argument is null, or the table is empty.
int ovani_mac_node_delete(mac_table *table, mac_node *node);
int ovani_mac_node_delete_top(mac_table *table);

// Lists the table to the log while OVANI_DEBUG_FILE exists.
void ovani_mac_table_show();

// The configuration path of the interface behind which a MAC sits, in a buffer that the next call overwrites;
// null when the MAC is not in the table.
char *ovani_layer2_interface_get_by_mac(const unsigned char *mac);

// "Ethernet" or "802.11"; null when the MAC is not in the table.
const char *ovani_port_type_get_by_mac(const unsigned char *mac);
