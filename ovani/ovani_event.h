// What the bus tells the daemon, record by record, and what the daemon makes of it.
//
// The raw records travel as the bytes of one bus attribute, little-endian, at natural alignment. The bus
// intake hands each one over as a local copy whose texts are terminated, in host byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "ovani/ovani_commdef.h"

struct host_node;

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

// --- Bridge MAC events
//
// Unless said otherwise the functions of this header return R_OK, or R_ERROR for a null or impossible record;
// a failure is logged and ends the handling of that event.

// Entry for an event: dispatches on its action. Events of other bridges and of the gateway's own interfaces
// are passed over.
int ovani_mac_event_process(const ovani_mac_event *event);

// A MAC was learned: refreshes its node and its host's port, and brings back the object of a host that is
// attached to no port.
int ovani_mac_event_add(const ovani_mac_event *event);

// A MAC aged out: drops its node and retires its host's object. The second variant also purges the kernel's
// ARP cache, and passes over a MAC without a node; no event uses it.
int ovani_mac_event_del_static(const ovani_mac_event *event);
int ovani_mac_event_del(const ovani_mac_event *event);

// Removes the kernel's ARP entries of a MAC given as text.
int del_item_from_arp(const char *mac_str);

// Learns a MAC given as colon text from the bridge's own table, when it sits behind a port that is a LAN
// port; the first only when that is a Wi-Fi interface.
void ovani_lanhost_wifi_add_mac(const unsigned char *mac_str);
void ovani_lanhost_resolve_mac(const unsigned char *mac_str);

// Writes an event as a line of JSON, at most OVANI_MAC_INFO_LEN bytes.
inline constexpr size_t OVANI_MAC_INFO_LEN = 80;
int ovani_get_mac_info(const ovani_mac_event *event, char *povani_mac_info);

// --- ARP events

// Entry for an event. Removals do not remove hosts: those leave when their MAC ages or their lease ends.
int ovani_arp_event_process(const ovani_arp_event *event);

// An IPv4 address was seen: finds or creates its host, which is static unless its lease is for this very
// address, and writes its object. R_ERROR also when the object cannot be written.
int ovani_arp_event_add(const ovani_arp_event *event);

// Retires and forgets the host of an address; no event uses it.
int ovani_arp_event_del(const ovani_arp_event *event);

// Writes a host object's "LatestActiveTime".
int ovani_update_active_time(const char *macaddr);

// --- DHCP and IPv6 events

// Parses the text of a "dhcp_user_event", cutting it in place, and applies it.
void ovani_dhcpd_user_event_process(char *eventBuf);

// A lease was given: fills in a host already known and writes its object. Leases never create hosts.
int ovani_udhcpd_event_add(ovani_dhcpd_host_event *hostinfo);

// A lease ended: retires the host's object.
int ovani_udhcpd_event_del(ovani_dhcpd_host_event *hostinfo);

// An IPv6 address was seen: adds it to a host's object. Withdrawals are ignored.
int ovani_dhcp6s_event_add6(ovani_dhcpd_host_event *hostinfo);
int ovani_dhcp6s_event_del6(ovani_dhcpd_host_event *hostinfo);

// --- Wi-Fi and port link events

// Entry for a station's event: dispatches on its action. R_ERROR also for an unknown one.
int ovani_wifi_user_event_process(const ovani_wifi_event *event);

// A station joined: moves the object of one that is known already, else learns it from the bridge's table.
int ovani_wifi_user_event_add(const ovani_wifi_event *event);

// A station left: retires its host's object and drops its node, whichever SSID it left. Returns the
// deletion's result when there was a node.
int ovani_wifi_user_event_del(const ovani_wifi_event *event);

// Entry for a link change: dispatches on its status. R_ERROR also for a port that cannot be and an unknown
// status.
int ovani_port_status_event_process(const ovani_port_status_event *event);

// The port's link state goes to the port manager; a link that went down retires the port's wired hosts.
int ovani_port_status_event_up(unsigned char port);
int ovani_port_status_event_down(unsigned char port);

// --- Start-up discovery

// Finds the devices that were attached before the daemon started. Once, before events are subscribed.
void ovani_lanhost_info_init();

// --- Announcements to the bus

// Fills a zeroed device status record from a host; brand and os stay as they are.
int ovani_get_lanhost_device_struct(const host_node *pnode, ovani_device_status_event *povani_device_struct);

// Sends "lanhost_event". Returns R_OK whatever the bus says.
int ovani_device_status_ubus_send(const ovani_device_status_event *povani_device_struct);

// Sends "lanhost_param_change" for a host object's instance. Returns R_OK whatever the bus says.
int ovani_host_status_ubus_send(int objnum);
