// Asks by ARP (RFC 826) whether an IPv4 address still answers on a LAN interface. UNUSED
#pragma once

#include <cstdint>

// How often a caller that watches a host should ask.
inline constexpr unsigned OVANI_ARPPING_INTERVAL_TIME = 30; // seconds

// The Ethernet frame as sent and received; multi-byte fields in network byte order.
struct [[gnu::packed]] arpMsg {
    uint8_t h_dest[6];
    uint8_t h_source[6];
    uint16_t h_proto;
    uint16_t htype;
    uint16_t ptype;
    uint8_t hlen;
    uint8_t plen;
    uint16_t operation; // 1 request, 2 reply
    uint8_t sHaddr[6];
    uint8_t sInaddr[4];
    uint8_t tHaddr[6];
    uint8_t tInaddr[4];
    uint8_t pad[18];
};
static_assert(sizeof(arpMsg) == 60);

// The frame without its pad: the shortest reply accepted.
inline constexpr unsigned ARP_MSG_SIZE = 42;

// Broadcasts one request for `test_ip` from `from_ip` and `from_mac` and waits up to 2 seconds for the reply.
// Addresses are numbers in host order; `lanPortType` is 0 for a wired host, 1 for a Wi-Fi host. A silent
// Wi-Fi host that has left its access point loses its entry in the kernel's ARP cache.
//
// Returns 1 for a reply, 0 for none, -1 when the raw socket cannot be opened. Blocks its caller, and
// overwrites the buffer of ovani_ipv4_ltostr.
int ovani_arp_ping(unsigned int test_ip, unsigned int from_ip, const unsigned char *from_mac,
                   const char *interface, char lanPortType);
