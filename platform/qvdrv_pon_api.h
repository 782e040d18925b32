/*
 * PON driver: the LAN Ethernet ports of the switch. Every call returns 0 on success; `port_index` counts
 * from 1.
 */
#ifndef PLATFORM_QVDRV_PON_API_H
#define PLATFORM_QVDRV_PON_API_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    PON_PORT_RATE_10M = 10,
    PON_PORT_RATE_100M = 100,
    PON_PORT_RATE_1000M = 1000,
    PON_PORT_RATE_1250M = 1250,
    PON_PORT_RATE_2500M = 2500,
    PON_PORT_RATE_10000M = 10000,
};

enum { PON_PORT_DUPLEX_HALF = 1, PON_PORT_DUPLEX_FULL = 2 };

typedef struct {
    uint32_t port_index;
    uint32_t auto_neg_enable;
    uint32_t rate;        /* PON_PORT_RATE_..., 0 for none */
    uint32_t duplex_mode; /* PON_PORT_DUPLEX_..., 0 for none */
} PON_ETH_PORT_WORK_MODE_T;

typedef struct {
    uint32_t port_index;
    uint32_t enable;
} PON_ETH_PORT_STATE_T;

typedef struct {
    uint32_t port_index;
    uint32_t link_up;
} PON_ETH_PORT_LINK_STATUS_T;

int qvdrv_pon_set_eth_port_work_mode(const PON_ETH_PORT_WORK_MODE_T *mode);
int qvdrv_pon_set_eth_port_state(const PON_ETH_PORT_STATE_T *state);

/* Fills `link_up` for the port in `port_index`. */
int qvdrv_pon_get_eth_port_link_status(PON_ETH_PORT_LINK_STATUS_T *status);

#ifdef __cplusplus
}
#endif

#endif
