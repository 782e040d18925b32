/*
 * Network driver. Every call returns 0 on success. MAC addresses are colon-form text; bandwidths are in the
 * driver's own unit.
 */
#ifndef PLATFORM_QVDRV_NET_API_H
#define PLATFORM_QVDRV_NET_API_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum qv_wan_type { ROUTE = 0, BRIDGE = 1 };

/* The services a WAN connection carries. */
enum qv_wan_mode {
    INTERNET = 0,
    TR069 = 1,
    VOIP = 2,
    OTHER = 3,
    INTERNET_TR069 = 4,
    INTERNET_VOIP = 5,
    TR069_VOIP = 6,
    INTERNET_TR069_VOIP = 7,
    IPTV = 8,
    AWIFI = 9,
    SPECIAL_SERVICE_1 = 10,
    SPECIAL_SERVICE_2 = 11,
    SPECIAL_SERVICE_3 = 12,
    SPECIAL_SERVICE_4 = 13,
};

enum qv_wan_addrtype { AT_DHCP = 0, AT_STATIC = 1, AT_PPPOE = 2, AT_NONE = 3 };

/* One WAN connection, as the VLAN calls want it. */
typedef struct {
    enum qv_wan_type brflag;
    uint16_t vid; /* WAN VLAN; 4093 stands for none where the operator's profile says so */
    enum qv_wan_mode wanmode;
    uint8_t pbit;         /* 802.1p priority */
    uint64_t lanBindPort; /* mask of bound LAN ports */
    uint8_t landhcp;      /* DHCP on the LAN side: 0 or 1 */
    uint8_t iptype;       /* the operator's IP mode number */
    enum qv_wan_addrtype addrtype;
} qv_wan_param;

/* Limits the MACs learned on a LAN port. */
int qvdrv_net_set_port_mac_limit(unsigned int port, unsigned int limit);

/* Maps VLAN `lan_vlan` on a LAN port to a WAN connection, in place of what it was mapped to, and takes the
 * mapping to that connection away, a failure when there is none. */
int qvdrv_net_set_vlan_bind(unsigned int port, unsigned short lan_vlan, const qv_wan_param *wan);
int qvdrv_net_del_vlan_bind(unsigned int port, unsigned short lan_vlan, const qv_wan_param *wan);

/* A device's bandwidth ceilings, upstream and downstream, and its total limits. Ceilings that were never set
 * cannot be got: that is a failure, and leaves the outputs alone. */
int qvdrv_net_get_dev_maxbandwidth(const char *mac, unsigned int *maxus, unsigned int *maxds);
int qvdrv_net_set_dev_maxbandwidth(const char *mac, unsigned int maxus, unsigned int maxds);
int qvdrv_net_set_dev_total_bandwidth(const char *mac, unsigned int up, unsigned int down);

/* The switch port behind an Ethernet interface, as LAN port number. */
int qvdrv_eth_get_port_id(const char *ifname, unsigned short *port_id);

#ifdef __cplusplus
}
#endif

#endif
