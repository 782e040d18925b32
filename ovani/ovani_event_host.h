// Steps that the event handlers share: describing a host to the host manager, and placing it.
#pragma once

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_event.h"
#include "ovani/ovani_host_table.h"
#include "ovani/ovani_mac_table.h"

// A host's description for an add, with the texts it points to. Not to be copied: the record points into it.
struct HostDescription {
    char ip[32];
    char lease[16];
    char ack_time[1];
    char active[2];
    mac_text mac;
    ovani_dhcpd_host_event record;
};

// Whether an event's bridge is the LAN bridge, in any case.
bool is_lan_bridge(const char *brname);

// Fills in what the host node tells: lease, name, MAC, vendor class, and that it is active. The address, its
// source and the device type are left null.
void describe_host(host_node &host, HostDescription &description);

// Adds the host's address and its source.
void describe_address(const host_node &host, HostDescription &description);

// Finds the interface behind which a host sits and keeps its path and type in both record and host. False
// when the MAC is not in the MAC table.
bool place_host(host_node &host, ovani_dhcpd_host_event &record);

// Takes over the port that the bridge has learned.
void refresh_port(host_node &host, const mac_node &station);

// Stamps the current time.
void stamp_online_clock(char (&onlineclock)[OVANI_TIME_BUFF_LEN]);

// "unknown" stands in for a missing name; in the store such a host has none.
void clear_default_host_name(host_node &host);
