/*
 * System manager: facts of the device. Every call returns 0 on success and leaves its output alone on
 * failure.
 */
#ifndef PLATFORM_ZK_SYS_MGR_H
#define PLATFORM_ZK_SYS_MGR_H

#ifdef __cplusplus
extern "C" {
#endif

/* The operator the gateway was made for. */
typedef enum {
    CARR_CM = 0,  /* China Mobile */
    CARR_CT = 1,  /* China Telecom */
    CARR_CU = 2,  /* China Unicom */
    CARR_INT = 3, /* international */
    CARR_MAX = 4,
} zk_carr_type;

typedef struct {
    unsigned int port_num; /* LAN Ethernet ports */
} devinfo;

int zk_sys_mgr_get_carrier(zk_carr_type *carrier);

/* `areacode` and `mac` hold at least 256 bytes; `mac` becomes the bridge's MAC address as text. */
int zk_sys_mgr_get_areacode(char *areacode);
int zk_sys_mgr_get_brmac(char *mac);

int zk_sys_mgr_get_devinfo(devinfo *info);

#ifdef __cplusplus
}
#endif

#endif
