// Host objects in the configuration store: created when a host with an address is first seen, updated by
// every later event, deleted or marked inactive when it leaves. Main thread only.
#pragma once

#include "ovani/ovani_commdef.h"

struct host_node;
struct ovani_dhcpd_host_event;

inline constexpr char OVANI_HOSTS_NODE_PATH[] = "InternetGatewayDevice.LANDevice.1.Hosts.";
inline constexpr char OVANI_HOST_NODE_PATH[] = "InternetGatewayDevice.LANDevice.1.Hosts.Host.";

inline constexpr int OVANI_MAX_HOST_ENTRIES = 254;
inline constexpr size_t OVANI_MAX_HOSTINFO_HASH_LEN = 20;

// Which host has which instance: row i - 1 describes host object instance i, so instances above 254 have
// none.
struct HostToIndexMap {
    char hostHash[OVANI_MAX_HOSTINFO_HASH_LEN]; // the host's MAC as bare text, compared without regard to
                                                // case; empty in a free row
    int index;      // associated-device object under `path`: -1 none, -2 a WLAN device, 0 not loaded
    char path[128]; // the host's layer-2 interface
};

extern HostToIndexMap tmpHostToIndex[OVANI_MAX_HOST_ENTRIES];
extern unsigned int s_hostnumberofentries; // host objects in the store
extern unsigned int s_hostmaxnumber;       // the ceiling; both are 0 until start-up has read them

// Mesh satellites, by MAC text as received; appended only.
inline constexpr int OVANI_MAX_SLAVE_APS = 10;
extern char slaveAPMACs[OVANI_MAX_SLAVE_APS][16];
extern int g_slaveapnum;

// MAC filter: 1 black list, 2 white list, else none; the lists are searched as text. Nothing in the daemon
// sets them.
extern int g_filtermode;
extern char black_mac[512];
extern char white_mac[512];

// Empties the host table and rebuilds the cache and the counters from the store. When the counters cannot be
// read they stay 0 and every new host is refused. Returns R_OK.
int ovani_hostmgr_init();

// Creates or updates the object of a host. Returns its instance, -1 on failure, 0 for a null record. A new
// host without an address gets no object. The record's Active may be overwritten, its IPAddress become null.
// Announces nothing: the caller does, for an instance above 0.
int ovani_add_host_info(ovani_dhcpd_host_event *hostinfo);

// Adds IPv6 addresses to a host's object and announces the change. Returns its instance, -1 when the store
// refuses, 0 when there is no object or no record.
int ovani_add_host_ipv6_info(const ovani_dhcpd_host_event *hostinfo);

// Takes a host out of the online set by its MACAddress: the China Telecom profile deletes the object, the
// others mark it inactive. Returns its instance, 0 when it is not known, -1 when the store refuses the
// marking. Announces nothing.
int ovani_del_host_info(const ovani_dhcpd_host_event *hostinfo);

// The same, and tells whether the object really left the online set: the instance of a host is returned also
// when the store refused to delete its object.
int ovani_del_host_info(const ovani_dhcpd_host_event *hostinfo, bool &retired);

// The same for a node of the host table, announced; the node becomes inactive with its object. R_OK, or
// R_ERROR for null.
int ovani_del_host_info_by_node(host_node *pNodeInfo);

// Moves a host's object to another port and announces the change. Returns its instance, -1 when the store
// refuses, 0 when there is no object or no record.
int ovani_update_host_lanport(const ovani_dhcpd_host_event *hostinfo, int portno);

// The instance of the host with this MAC text, or 0. The second also deletes the associated-device object
// that the row may name.
int ovani_get_host_associatedev_info(const char *mac);
int ovani_del_host_associatedev_info(const char *mac);
int ovani_del_associateddevice_info(int hostindex);

// The IPv4 address of an interface as dotted text, at most 16 bytes. Returns 0 or -1.
int get_lanif_addr(const char *ifname, char *ifaddr);
