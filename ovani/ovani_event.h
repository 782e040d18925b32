// What goes over the bus between the daemon and the gateway's other daemons, record by record.
//
// The raw records travel as the bytes of one bus attribute, little-endian, at natural alignment. The bus
// intake hands each one over as a local copy whose texts are terminated, in host byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "ovani/ovani_commdef.h"

// Events the daemon listens to.
inline constexpr char UBUS_EVENT_ARP_INFO[] = "110";
inline constexpr char UBUS_EVENT_MAC_ADDR_INFO[] = "109";
inline constexpr char UBUS_EVENT_UNI_PORT_LINK_STATE[] = "106";
inline constexpr char UBUS_EVENT_WIFI_ON_OFF[] = "111";
inline constexpr char UBUS_EVENT_DHCP_USER_CONN[] = "dhcp_user_event";
inline constexpr char UBUS_EVENT_WAN_VLAN_INFO[] = "wan_vlan_info";
// Events the daemon sends.
inline constexpr char UBUS_EVENT_LANHOST_UP_DOWN[] = "lanhost_event";
inline constexpr char UBUS_EVENT_LANHOST_PARAM_CHANGE[] = "lanhost_param_change";

// "109", attribute "mac_struct": the bridge learned a MAC, or forgot it.
struct ovani_mac_event {
    uint32_t event_id;
    char eth_num[16];   // the bridge port's interface
    char eth_state[16]; // not read
    char brname[16];
    uint8_t mac[6];
    uint8_t action; // 1 learned, 0 aged out
};
inline constexpr size_t OVANI_MAC_EVENT_WIRE_LEN = 59;

// "110", attribute "arp_struct": an IPv4 neighbour entry of the bridge appeared or went.
struct ovani_arp_event {
    uint32_t event_id;
    uint32_t action; // 1 added, 0 removed
    uint32_t ipv4;   // network byte order on the bus, host order inside the daemon
    uint8_t mac[6];
    char brname[64];
};
inline constexpr size_t OVANI_ARP_EVENT_WIRE_LEN = 82;

// "106", attribute "port_status_struct": a LAN Ethernet port's link changed.
struct ovani_port_status_event {
    uint32_t event_id;
    uint8_t port;   // LANEthernetInterfaceConfig instance
    uint8_t status; // 1 up, 0 down
};
inline constexpr size_t OVANI_PORT_STATUS_EVENT_WIRE_LEN = 6;

// "111", attribute "wifi_user_struct": a Wi-Fi station joined or left.
struct ovani_wifi_event {
    uint32_t event_id;
    uint8_t mac[6];
    uint8_t ssidno; // from 0; WLANConfiguration instance ssidno + 1
    uint8_t action; // 1 joined, 0 left
};
inline constexpr size_t OVANI_WIFI_EVENT_WIRE_LEN = 12;

// "lanhost_event", attribute "lanhost_struct": a host came on line or left. Sent whole, 488 bytes.
struct ovani_device_status_event {
    char status[16]; // "Online" or "Offline"
    char devicetype[64];
    char deviceMAC[64];
    char deviceIP[64];
    char AliasName[128];  // the host's name
    int32_t attachedtype; // 0 wired, 1 wireless
    char brand[128];
    char os[16];
    int32_t port; // LAN port of a wired host, 0 for a wireless one
};

static_assert(offsetof(ovani_mac_event, action) + 1 == OVANI_MAC_EVENT_WIRE_LEN);
static_assert(offsetof(ovani_arp_event, brname) + 64 == OVANI_ARP_EVENT_WIRE_LEN);
static_assert(offsetof(ovani_port_status_event, status) + 1 == OVANI_PORT_STATUS_EVENT_WIRE_LEN);
static_assert(offsetof(ovani_wifi_event, action) + 1 == OVANI_WIFI_EVENT_WIRE_LEN);
static_assert(sizeof(ovani_device_status_event) == 488);
static_assert(offsetof(ovani_device_status_event, port) == 484);

// One row for each event of the gateway: those the daemon listens to, in the order of its subscriptions, then
// those it sends.
struct EventKind {
    std::string_view name;
    const char *attribute; // that carries the payload; null where nobody reads one
    size_t wire_length;    // of a raw record, to the end of its last field; 0 for a text or a number
};
inline constexpr EventKind OVANI_EVENTS[] = {
    {UBUS_EVENT_ARP_INFO, "arp_struct", OVANI_ARP_EVENT_WIRE_LEN},
    {UBUS_EVENT_MAC_ADDR_INFO, "mac_struct", OVANI_MAC_EVENT_WIRE_LEN},
    {UBUS_EVENT_UNI_PORT_LINK_STATE, "port_status_struct", OVANI_PORT_STATUS_EVENT_WIRE_LEN},
    {UBUS_EVENT_WIFI_ON_OFF, "wifi_user_struct", OVANI_WIFI_EVENT_WIRE_LEN},
    {UBUS_EVENT_DHCP_USER_CONN, "dhcp_user_string", 0},
    {UBUS_EVENT_WAN_VLAN_INFO, nullptr, 0},
    {UBUS_EVENT_LANHOST_UP_DOWN, "lanhost_struct", sizeof(ovani_device_status_event)},
    {UBUS_EVENT_LANHOST_PARAM_CHANGE, "objnum", 0},
};

// The row of an event's name, null for any other event.
constexpr const EventKind *find_event(std::string_view name)
{
    for (const EventKind &kind : OVANI_EVENTS) {
        if (kind.name == name) {
            return &kind;
        }
    }
    return nullptr;
}

// A host as an event describes it: a set of texts, most of them inside the event's own text or the handler's
// buffers. A null pointer means absent. The record is used during the event and never kept.
struct ovani_dhcpd_host_event {
    const char *action; // "ADD", "DEL", "ADD6", "DEL6", "NB6ADD", "NB6DEL"
    const char *IPAddress;
    const char *AddressSource;      // "DHCP" or "STATIC", or what the DHCP server says
    const char *AckTime;            // as the DHCP server says
    const char *LeaseTimeRemaining; // seconds, decimal
    char *HostName;                 // UTF-8 or GBK; byte-swapped in place when it cannot be converted
    const char *AssociatedDeviceType;
    const char *MACAddress; // bare upper-case text
    const char *Layer2Interface;
    const char *InterfaceType;
    char *Active; // "1" or "0", at least 2 bytes: the MAC filter overwrites it
    const char *X_BROADCOM_COM_IfName;
    const char *IPv6Address;
    const char *IPv6LLAddress;
    const char *X_QV_Option60; // DHCP vendor class
};

// "dhcp_user_event": separator of the fields of its text, and the address types of the neighbour format.
inline constexpr char OVANI_MSG_SEPARATOR = '#';
inline constexpr char OVANI_IPV6ADDR_GUA[] = "GUA";
inline constexpr char OVANI_IPV6ADDR_LLA[] = "LLA";
