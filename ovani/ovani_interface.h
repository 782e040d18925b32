// Interfaces: what the kernel knows of them, and which LAN port one is.
#pragma once

#include <string_view>

// Whether the kernel reports the interface running (IFF_RUNNING): 1, 0, or -1 when it cannot be asked.
int ovani_get_ifc_status(const char *ifname);

// The interface's hardware address. Returns 0, or -1 when it has none or does not exist. The second asks over
// the caller's own socket (any AF_INET one), for those who ask often.
int ovani_get_mac_by_ifname(const char *ifname, unsigned char *macAddr);
int ovani_get_mac_by_ifname(int sockfd, const char *ifname, unsigned char *macAddr);

// Wi-Fi SSIDs as interface names: the first four of a radio are numbered from `first`, further ones from
// `further`, which leaves the other radio's four in between.
struct WifiRadio {
    std::string_view name;
    int first;
    int further;

    constexpr int port_number(int ssid) const { return ssid + (ssid < 4 ? first : further); }
};
inline constexpr WifiRadio WIFI_RADIOS[] = {
    {"rai", 5, 9}, // before "ra", which it contains
    {"ra", 1, 5},
};

// LAN port of an interface name: "eth…" is wired (type 0), numbered by the switch driver; "ra<n>" and
// "rai<n>" are Wi-Fi (type 1), numbered by their WLANConfiguration instance. Returns R_OK, or 0 with both
// outputs untouched when the name is not a LAN port's.
int eth_num2lanport_no_type(const char *eth_num, char *lanport_no, char *lanport_type);

// 1 to 4 for a text containing "eth0" to "eth3", else -1.
int ovani_wanstr2index(const char *wan_ifc);

// The IPv4 address of an interface as dotted text, at most 16 bytes. Returns 0 or -1. UNUSED
int get_lanif_addr(const char *ifname, char *ifaddr);
