// What stands in a host object: the texts made of an event and of what the store holds already, and the one
// batch that writes them. Main thread only.
#pragma once

#include "ovani/ovani_event.h"
#include "ovani/ovani_host_index.h"
#include "ovani/ovani_host_table.h"

// Mesh satellites, by MAC text as received; appended only.
inline constexpr int OVANI_MAX_SLAVE_APS = 10;
extern char slaveAPMACs[OVANI_MAX_SLAVE_APS][16];
extern int g_slaveapnum;

// MAC filter: 1 black list, 2 white list, else none; the lists are searched as text. Nothing in the daemon
// sets them.
extern int g_filtermode;
extern char black_mac[512];
extern char white_mac[512];

// Forgets the satellites; no filter.
void ovani_host_object_init();

// Texts of one add or update. The capacities decide where a value is cut.
struct HostTexts {
    char HostName[HOST_NAME_LEN];
    char InterfaceType[16];
    char ConnectionType[4];
    char Port[4];
    char DevType[4];
    char MACAddress[OVANI_MAC_STR_LEN]; // lower-case colon form
    char LatestActiveTime[32];
};

// The lines by which those who convert host names say what they did.
struct NameLines {
    const char *is_utf8;
    const char *is_not_utf8; // with a line for this, the bytes of GBK characters are swapped first, in place
    const char *converted;
    const char *failed;
};

// A host name as UTF-8, cut at the buffer's size. One that cannot be converted from GBK is taken as it is, by
// then with its bytes swapped where that was asked for.
void convert_host_name(char *name, char (&host_name)[HOST_NAME_LEN], const NameLines &lines,
                       const char *function = __builtin_FUNCTION());

// Overwrites the record's Active with "0" for a MAC that the filter excludes.
void apply_mac_filter(ovani_dhcpd_host_event &hostinfo);

// Completes the texts and writes the object. The record's IPAddress becomes null for a mesh satellite that
// keeps the one it has. Returns the store's code.
int write_host_object(ovani_dhcpd_host_event &hostinfo, HostTexts &texts, const HostUrl &url,
                      const char *function = __builtin_FUNCTION());
