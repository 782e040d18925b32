// Facts of the gateway: area code, mesh mode and bridge address. The globals are written at start-up and by
// the Wi-Fi binder, and only read otherwise.
#pragma once

#include "ovani/ovani_commdef.h"

struct ovani_br_info {
    unsigned long ipStr[32];
    unsigned long maskStr[32];
    char mac[OVANI_MAC_LEN]; // the only field filled
};

extern char g_ovani_areacode[32];
extern unsigned int g_ovani_ponflag; // kept 0
extern ovani_br_info g_ovani_br;

// Reads the area code. R_OK, also when there is none.
int ovani_areacode_init();
const char *ovani_areacode_get();

// Reads the mesh mode into a buffer of OVANI_VALUE_LEN bytes. False when that failed; the buffer stays as it
// was. UNUSED
bool ovani_get_mesh_mode(char *meshmode);

// Reads the bridge's MAC address into 6 bytes (zero when the system manager does not tell one). R_OK.
int ovani_br_mac_get(char *mac);
