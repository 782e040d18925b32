// Which host has which object in the configuration store: the index cache, the counters, and how start-up
// rebuilds both. Main thread only.
#pragma once

#include "ovani/ovani_commdef.h"

inline constexpr char OVANI_HOSTS_NODE_PATH[] = "InternetGatewayDevice.LANDevice.1.Hosts.";
inline constexpr char OVANI_HOST_NODE_PATH[] = "InternetGatewayDevice.LANDevice.1.Hosts.Host.";

inline constexpr int OVANI_MAX_HOST_ENTRIES = 254;
inline constexpr size_t OVANI_MAX_HOSTINFO_HASH_LEN = 20;

// Row i - 1 describes host object instance i, so instances above 254 have none.
struct HostToIndexMap {
    char hostHash[OVANI_MAX_HOSTINFO_HASH_LEN]; // the host's MAC as bare text, compared without regard to
                                                // case; empty in a free row
    int index;      // associated-device object under `path`: -1 none, -2 a WLAN device, 0 not loaded
    char path[128]; // the host's layer-2 interface
};

extern HostToIndexMap tmpHostToIndex[OVANI_MAX_HOST_ENTRIES];
extern unsigned int s_hostnumberofentries; // host objects in the store
extern unsigned int s_hostmaxnumber;       // the ceiling; both are 0 until start-up has read them

// Rebuilds the cache and the counters from the store, over empty tables and with nobody on line. When the
// counters cannot be read they stay 0 and every new host is refused. Returns R_OK.
int ovani_hostmgr_init();

// Removes the host objects without a MAC: a daemon that was killed had made them and not filled them yet, and
// they are nobody's. Only looks when the store counts more objects than the cache knows.
void remove_unfinished_hosts();

// The path of a host object.
struct HostUrl {
    char text[OVANI_URL_LEN];
};
HostUrl url_of_instance(int index);

// The cache row of a host object, or null for an instance the cache cannot describe.
HostToIndexMap *row_of_instance(int index);

// The instance whose row has this MAC text, 0 for none, which an empty text always is.
int instance_of_mac(const char *mac);

// Frees a row.
void forget_row(HostToIndexMap &row);

// As instance_of_mac, with a line in the log when there is none. The second also deletes the
// associated-device object that the row may name.
int ovani_get_host_associatedev_info(const char *mac);
int ovani_del_host_associatedev_info(const char *mac);
int ovani_del_associateddevice_info(int hostindex);
