#include "ovani/ovani_event_dhcp.h"

#include <cstring>
#include <string_view>

#include "ovani/ovani_device_type.h"
#include "ovani/ovani_event_host.h"
#include "ovani/ovani_event_mac.h"
#include "ovani/ovani_host_mgr.h"
#include "ovani/ovani_host_object.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_shell.h"

// --- Parsing

namespace {

constexpr size_t LONGEST_REFUSED_TEXT = 20;

// An event's text cut into a record. Most texts lie in the event's own; those that parsing rewrites, which
// may need more room than their field had, lie here.
struct ParsedEvent {
    ovani_dhcpd_host_event record;
    char mac[OVANI_MAC_STR_LEN];
    char device_class[DEVICE_CLASS_LEN];
};

// The next field, terminated in place; null when no separator is left. `rest` moves behind it.
char *cut_field(char *&rest)
{
    char *separator = strchr(rest, OVANI_MSG_SEPARATOR);
    if (separator == nullptr) {
        return nullptr;
    }
    *separator = '\0';
    char *field = rest;
    rest = separator + 1;
    return field;
}

// Cuts `count` fields into `fields`; false when the separators run out. Cuts already made stay.
bool cut_fields(char *&rest, char **fields, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        fields[i] = cut_field(rest);
        if (fields[i] == nullptr) {
            return false;
        }
    }
    return true;
}

// Whether the action, the text's second field, is one of two words. Only that decides which parser a text is
// for: a client may put any word into its host name or vendor class.
bool has_action(const char *text, std::string_view add, std::string_view del)
{
    const char *first = strchr(text, OVANI_MSG_SEPARATOR);
    if (first == nullptr) {
        return false;
    }
    std::string_view rest{first + 1};
    std::string_view action = rest.substr(0, rest.find(OVANI_MSG_SEPARATOR));
    return action == add || action == del;
}

// The MAC becomes bare upper-case text, or absent when it has no such form.
void set_mac(ParsedEvent &event, const char *mac)
{
    bool has_form = mac_form_translate(mac, MAC_FORM_BARE_UPPER, event.mac) == 0;
    event.record.MACAddress = has_form ? event.mac : nullptr;
}

// Cuts an IPv6 text with one of two actions; the last field is left in `text`.
bool cut_ipv6_text(char *&text, std::string_view add, std::string_view del, char *(&fields)[4],
                   const char *function)
{
    if (!has_action(text, add, del)) {
        ovani_log_as(function, VELM_LOG_DEBUG, "not for ipv6\n");
        return false;
    }
    return cut_fields(text, fields, std::size(fields));
}

// first # action # IPv6Address # MACAddress # IPv6LLAddress
bool parse_dhcpv6(char *text, ParsedEvent &event, const char *function)
{
    char *fields[4];
    if (!cut_ipv6_text(text, "ADD6", "DEL6", fields, function)) {
        return false;
    }
    ovani_dhcpd_host_event &record = event.record;
    record.action = fields[1];
    record.IPv6Address = fields[2];
    record.IPv6LLAddress = text;
    set_mac(event, fields[3]);
    char neighbour_mac[NEIGHBOUR_MAC_LEN] = {};
    if (ovani_get_mac_by_ipv6(record.IPv6LLAddress, neighbour_mac, sizeof neighbour_mac) == 0) {
        set_mac(event, neighbour_mac);
        ovani_log_as(function, VELM_LOG_DEBUG, "realmac = %s\n", text_or_empty(record.MACAddress));
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "action:%s,IPaddress:%s,mac=%s,\n", record.action,
                 record.IPv6Address, text_or_empty(record.MACAddress));
    return true;
}

// first # action # address type # address # MACAddress
bool parse_neighbour(char *text, ParsedEvent &event, const char *function)
{
    char *fields[4];
    if (!cut_ipv6_text(text, "NB6ADD", "NB6DEL", fields, function)) {
        return false;
    }
    ovani_dhcpd_host_event &record = event.record;
    record.action = fields[1];
    if (strcmp(fields[2], OVANI_IPV6ADDR_GUA) == 0) {
        record.IPv6Address = fields[3];
    } else if (strcmp(fields[2], OVANI_IPV6ADDR_LLA) == 0) {
        record.IPv6LLAddress = fields[3];
    } else {
        ovani_log_as(function, VELM_LOG_ERR, "Unknown IPv6 addr type\n");
        return false;
    }
    set_mac(event, text);
    ovani_log_as(function, VELM_LOG_DEBUG, "action:%s,IPv6address:%s,IPv6lladdress:%s,mac=%s,\n",
                 record.action, text_or_empty(record.IPv6Address), text_or_empty(record.IPv6LLAddress),
                 text_or_empty(record.MACAddress));
    return true;
}

// first # action # IPAddress # AddressSource # AckTime # LeaseTimeRemaining # HostName # AssociatedDeviceType
// # X_QV_Option60 # MACAddress
bool parse_dhcpv4(char *text, ParsedEvent &event, const char *function)
{
    char *fields[9];
    bool complete = cut_fields(text, fields, std::size(fields));
    if (complete) {
        set_mac(event, text);
    }
    if (!complete || !is_bare_mac(event.record.MACAddress)) {
        ovani_log_as(function, VELM_LOG_ERR, "parse_udhcpd_info error\n");
        return false;
    }
    DevType_translate(fields[7], event.device_class);
    ovani_dhcpd_host_event &record = event.record;
    record.action = fields[1];
    record.IPAddress = fields[2];
    record.AddressSource = fields[3];
    record.AckTime = fields[4];
    record.LeaseTimeRemaining = fields[5];
    record.HostName = fields[6];
    record.AssociatedDeviceType = event.device_class;
    record.X_QV_Option60 = fields[8];
    ovani_log_as(function, VELM_LOG_DEBUG, "action:%s,IPaddress:%s,%s,%s,%s,%s,%s,%s\n", record.action,
                 record.IPAddress, record.AddressSource, record.AckTime, record.LeaseTimeRemaining,
                 record.HostName, record.AssociatedDeviceType, record.X_QV_Option60);
    return true;
}

// The three formats, in the order in which they are tried on the same text. A parser that does not apply or
// runs out of separators passes on.
constexpr bool (*PARSERS[])(char *, ParsedEvent &, const char *) = {parse_dhcpv6, parse_neighbour,
                                                                    parse_dhcpv4};

bool parse(char *text, ParsedEvent &event, const char *function = __builtin_FUNCTION())
{
    for (auto *parser : PARSERS) {
        event = {};
        if (parser(text, event, function)) {
            return true;
        }
    }
    return false;
}

struct ActionHandler {
    const char *action;
    int (*handle)(ovani_dhcpd_host_event *);
};

constexpr ActionHandler HANDLERS[] = {
    {"ADD", ovani_udhcpd_event_add},   {"DEL", ovani_udhcpd_event_del},
    {"ADD6", ovani_dhcp6s_event_add6}, {"NB6ADD", ovani_dhcp6s_event_add6},
    {"DEL6", ovani_dhcp6s_event_del6}, {"NB6DEL", ovani_dhcp6s_event_del6},
};

void dispatch(ovani_dhcpd_host_event &record, const char *function = __builtin_FUNCTION())
{
    for (const ActionHandler &handler : HANDLERS) {
        if (strcmp(record.action, handler.action) == 0) {
            handler.handle(&record);
            return;
        }
    }
    ovani_log_as(function, VELM_LOG_ERR, "rev_udhcpd_info receive udhcpd error\n");
}

} // namespace

void ovani_dhcpd_user_event_process(char *eventBuf)
{
    if (eventBuf == nullptr) {
        ovani_log(VELM_LOG_ERR, "rev_udhcpd_info::eventBuf NULLP error!!\n");
        return;
    }
    size_t length = strlen(eventBuf);
    if (length <= LONGEST_REFUSED_TEXT) {
        ovani_log(VELM_LOG_ERR, "rev_udhcpd_info msg len = %d, too short error!r\n",
                  static_cast<int>(length));
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "**********dhcpd process parse ubus msg**********");
    ParsedEvent event;
    if (!parse(eventBuf, event)) {
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "**********dhcpd process parse ubus msg end*********");
    dispatch(event.record);
    ovani_host_table_show();
}

// --- DHCPv4 leases

namespace {

constexpr NameLines LEASE_NAME_LINES{
    .is_utf8 = "***is_utf8 != 0   is  utf8*****\r\n",
    .is_not_utf8 = "***is_utf8 = 0   is not utf8*****\r\n",
    .converted = "***ret_convert = 0   convert succ*****\r\n",
    .failed = "***ret_convert != 0   convert fail*****\r\n",
};

void apply_lease(host_node &host, const ovani_dhcpd_host_event &hostinfo, const char *host_name,
                 const char *function = __builtin_FUNCTION())
{
    host.ip = static_cast<uint32_t>(ovani_ipv4_strtol(hostinfo.IPAddress));
    stamp_online_clock(host.onlineclock);
    host.AddressSource = HOST_TYPE_DHCP;
    host.LeaseTimeRemaining = static_cast<unsigned>(decimal_value(hostinfo.LeaseTimeRemaining));
    copy_text(host.HostName, host_name);
    copy_text(host.DeviceType, hostinfo.AssociatedDeviceType);
    if (hostinfo.X_QV_Option60 != nullptr) {
        copy_text(host.option60, hostinfo.X_QV_Option60);
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "update/add host node: mac:%s, hostname:%s, option60:%s\r\n",
                 text_or_empty(hostinfo.MACAddress), host.HostName, host.option60);
    host.Active = OVANI_HOST_ONLINE;
}

} // namespace

int ovani_udhcpd_event_add(ovani_dhcpd_host_event *hostinfo)
{
    if (hostinfo == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_udhcpd_event_add::pArpEvent NULLP error!!");
        return R_ERROR;
    }
    const char *ip = text_or_empty(hostinfo->IPAddress);
    const char *mac_bare = text_or_empty(hostinfo->MACAddress);
    ovani_log(VELM_LOG_DEBUG, "+++++[ovani_udhcpd_event_add]::entry  mac = %s , ip = %s !+++++++\n", mac_bare,
              ip);
    char host_name[HOST_NAME_LEN];
    convert_host_name(hostinfo->HostName, host_name, LEASE_NAME_LINES);
    unsigned char mac[OVANI_MAC_LEN] = {};
    ovani_str2mac2(mac_bare, reinterpret_cast<char *>(mac));

    host_node *host = ovani_host_node_match_by_mac(&g_host_table_ipv4, mac);
    if (host == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_udhcpd_event_add::ovani_host_node_get_by_ip_and_mac R_ERROR\n");
        return R_ERROR;
    }
    ovani_log(VELM_LOG_DEBUG, "ovani_arp_event_add::ovani_host_node_get_by_ip_and_mac OK\n");
    apply_lease(*host, *hostinfo, host_name);
    static char active[2]; // outlives the record, and may be overwritten by the MAC filter
    copy_text(active, "1");
    hostinfo->Active = active;

    mac_node *station = ovani_mac_node_match(&g_mac_table, mac);
    if (station == nullptr) {
        ovani_log(VELM_LOG_DEBUG,
                  " host table=%s add but not in mac table! Try to add it in mac table now\r\n", ip);
        station = learn_from_bridge(mac);
    }
    if (station == nullptr) {
        ovani_log(VELM_LOG_DEBUG, " host table=%s add but not in mac table!\r\n", ip);
        return R_OK;
    }
    refresh_port(*host, *station);
    if (!place_host(*host, *hostinfo)) {
        ovani_log(VELM_LOG_ERR, "ERRER : host = %s  mac = %s  cant find in ovani mactable\r\n", ip, mac_bare);
        return R_OK;
    }
    int index = add_and_announce(*host, *hostinfo);
    ovani_log(VELM_LOG_DEBUG, "add host obj %s,index=%d!\n", index < 1 ? "error" : "success", index);
    return index == -1 ? R_ERROR : R_OK;
}

int ovani_udhcpd_event_del(ovani_dhcpd_host_event *hostinfo)
{
    if (hostinfo == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_udhcpd_event_add::pArpEvent NULLP error!!");
        return R_ERROR;
    }
    const char *mac_bare = text_or_empty(hostinfo->MACAddress);
    ovani_log(VELM_LOG_DEBUG, "-----[ovani_udhcpd_event_del]::entry  mac = %s , ip = %s !-----\n", mac_bare,
              text_or_empty(hostinfo->IPAddress));
    unsigned char mac[OVANI_MAC_LEN] = {};
    ovani_str2mac2(mac_bare, reinterpret_cast<char *>(mac));
    host_node *leaving = ovani_host_node_match_by_mac(&g_host_table_ipv4, mac);
    bool found = leaving != nullptr ||
                 ovani_host_node_match(&g_host_table_ipv4, ovani_ipv4_strtol(hostinfo->IPAddress)) != nullptr;
    if (!found) {
        ovani_log(VELM_LOG_ERR, "ovani_udhcpd_event_del:: host not find!!");
    }
    // The object goes by its MAC, whether or not the table knows the host. Its port stays: it may still be
    // there.
    int index = retire_and_announce(leaving, *hostinfo);
    ovani_log(VELM_LOG_DEBUG, "delete host index %d\n", index);
    if (found) {
        ovani_log(VELM_LOG_DEBUG, "device_status ubus send finish\n");
    }
    return R_OK;
}

// --- IPv6 addresses

int ovani_dhcp6s_event_add6(ovani_dhcpd_host_event *hostinfo)
{
    if (hostinfo == nullptr || (hostinfo->IPv6Address == nullptr && hostinfo->IPv6LLAddress == nullptr) ||
        hostinfo->MACAddress == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_dhcp6s_event_add6::event NULLP error!!\n");
        return R_ERROR;
    }
    // KEPT: the table is asked for the first six characters of the MAC's text, not for its bytes. No host has
    // that address, so a node of its own stands for it, one for each such beginning; the object is found by
    // the text.
    unsigned char key[OVANI_MAC_LEN] = {};
    memcpy(key, hostinfo->MACAddress, strnlen(hostinfo->MACAddress, sizeof key));
    if (ovani_host_node_get_by_mac(&g_host_table_ipv4, key) == nullptr) {
        ovani_log(VELM_LOG_DEBUG, "mac cant find node_host ,no update!!!\n ");
        return R_OK;
    }
    ovani_add_host_ipv6_info(hostinfo);
    ovani_log(VELM_LOG_DEBUG, "IPV6 update  node_host !!!\n");
    return R_OK;
}

int ovani_dhcp6s_event_del6(ovani_dhcpd_host_event *)
{
    return R_OK;
}
