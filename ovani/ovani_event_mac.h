// "109": the bridge learned a MAC, or forgot it.
//
// Unless said otherwise the functions of this header return R_OK, or R_ERROR for a null or impossible record;
// a failure is logged and ends the handling of that event.
#pragma once

#include "ovani/ovani_event.h"
#include "ovani/ovani_mac_table.h"

// Entry for an event: dispatches on its action. Events of other bridges and of the gateway's own interfaces
// are passed over.
int ovani_mac_event_process(const ovani_mac_event *event);

// A MAC was learned: refreshes its node and its host's port, and brings back the object of a host that is
// attached to no port.
int ovani_mac_event_add(const ovani_mac_event *event);

// A MAC aged out: drops its node and retires its host's object. The second variant, UNUSED, also purges the
// kernel's ARP cache, and passes over a MAC without a node.
int ovani_mac_event_del_static(const ovani_mac_event *event);
int ovani_mac_event_del(const ovani_mac_event *event);

// Learns a MAC given as colon text from the bridge's own table, when it sits behind a port that is a LAN
// port; the first only when that is a Wi-Fi interface.
void ovani_lanhost_wifi_add_mac(const unsigned char *mac_str);
void ovani_lanhost_resolve_mac(const unsigned char *mac_str);

// Learns a MAC that neither has been told of; null when the bridge does not know it either.
mac_node *learn_from_bridge(const unsigned char *mac);

// Lists both tables to the log while OVANI_DEBUG_FILE exists, which is looked for but once an event.
void list_tables();

// Writes an event as a line of JSON, at most OVANI_MAC_INFO_LEN bytes. UNUSED
inline constexpr size_t OVANI_MAC_INFO_LEN = 80;
int ovani_get_mac_info(const ovani_mac_event *event, char *povani_mac_info);
