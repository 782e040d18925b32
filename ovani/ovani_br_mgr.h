// Facts of the gateway: its operator, area code, mesh mode and bridge address. The globals are written at
// start-up on the main thread and only read afterwards.
#pragma once

#include "ovani/ovani_commdef.h"

// Operator codes, as the system manager reports them.
enum operator_type {
    OPTYPE_CM = 0, // China Mobile
    OPTYPE_CT = 1, // China Telecom
    OPTYPE_CU = 2, // China Unicom
    OPTYPE_MAX = 3,
};

struct ovani_br_info {
    unsigned long ipStr[32];
    unsigned long maskStr[32];
    char mac[OVANI_MAC_LEN]; // the only field filled
};

extern unsigned int g_ovani_operator;
extern char g_ovani_areacode[32];
extern unsigned int g_ovani_ponflag; // kept 0
extern const char *const OvaniOpTypeStr[OPTYPE_MAX];
extern ovani_br_info g_ovani_br;

// Reads the operator code and keeps it, whatever it is. R_ERROR for a code that is not one of the three.
int ovani_operator_type_init();
unsigned int ovani_operator_type_code_get();
// Only for a code below OPTYPE_MAX.
const char *ovani_operator_type_str_get();

// Reads the area code. R_OK, also when there is none.
int ovani_areacode_init();
const char *ovani_areacode_get();

// Reads the mesh mode into a buffer of OVANI_VALUE_LEN bytes. False when that failed; the buffer stays as it
// was.
bool ovani_get_mesh_mode(char *meshmode);

// Reads the bridge's MAC address into 6 bytes (zero when the system manager does not tell one). R_OK.
int ovani_br_mac_get(char *mac);
