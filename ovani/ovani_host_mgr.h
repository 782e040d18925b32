// The life of host objects in the configuration store: created when a host with an address is first seen,
// updated by every later event, deleted or marked inactive when it leaves. Main thread only.
#pragma once

#include "ovani/ovani_event.h"
#include "ovani/ovani_host_index.h"
#include "ovani/ovani_host_table.h"

// --- Adding and updating

// Creates or updates the object of a host. Returns its instance, -1 on failure, 0 for a null record. A new
// host without an address gets no object. The record's Active may be overwritten, its IPAddress become null.
// Announces nothing: the caller does, for an instance above 0.
int ovani_add_host_info(ovani_dhcpd_host_event *hostinfo);

// The same, with the change announced, and the host when it came on line with it.
int add_and_announce(host_node &host, ovani_dhcpd_host_event &record);

// Adds IPv6 addresses to a host's object and announces the change. Returns its instance, -1 when the store
// refuses, 0 when there is no object or no record.
int ovani_add_host_ipv6_info(const ovani_dhcpd_host_event *hostinfo);

// Moves a host's object to another port and announces the change. Returns its instance, -1 when the store
// refuses, 0 when there is no object or no record.
int ovani_update_host_lanport(const ovani_dhcpd_host_event *hostinfo, int portno);

// Writes a host object's "LatestActiveTime", if there is one.
int ovani_update_active_time(const char *macaddr);

// --- Removing

// Takes a host out of the online set by its MACAddress: the operator's profile says whether its object is
// deleted or marked inactive. Returns its instance, 0 when it is not known, -1 when the store refuses the
// marking. Announces nothing.
int ovani_del_host_info(const ovani_dhcpd_host_event *hostinfo);

// The same, with the change announced, and the host, where the caller knows it, when it went off line with
// it.
int retire_and_announce(host_node *host, const ovani_dhcpd_host_event &record);

// The same for a node of the host table, which becomes inactive with its object. R_OK, or R_ERROR for null.
int ovani_del_host_info_by_node(host_node *pNodeInfo);

// The same for the wired hosts of a port, whose nodes are attached to no port then. R_OK, or 0 for a null
// table.
int ovani_host_info_delete_by_port(host_table *table, int port);
