#include "tools/events.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}

#include "ovani/ovani_event.h"

namespace {

constexpr size_t LEASE_FIELD_MAX = 255; // what the configuration store takes
constexpr uint32_t EVENT_ID = 1;        // nobody reads it

template <size_t N>
void set_field(char (&field)[N], std::string_view text)
{
    const size_t length = std::min(text.size(), N - 1);
    memcpy(field, text.data(), length);
    field[length] = '\0';
}

std::string lease_field(std::string_view bytes)
{
    std::string text(bytes.substr(0, LEASE_FIELD_MAX));
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return c == '#' || static_cast<uint8_t>(c) < 0x20 || c == 0x7f; }, '_');
    return text;
}

Mac mac_of(const uint8_t (&bytes)[6])
{
    return std::to_array(bytes);
}

std::string address_text(uint32_t network_order)
{
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &network_order, text, sizeof text);
    return text;
}

EventField choice(unsigned value, const char *when_zero, const char *otherwise)
{
    return {"action", value == 0 ? when_zero : otherwise};
}

EventField number(const char *name, long value)
{
    return {name, std::to_string(value), true};
}

EventField text(const char *name, std::string_view value)
{
    return {name, std::string(value)};
}

using Fields = std::vector<EventField>;

Fields decode_mac(const ovani_mac_event &e)
{
    return {choice(e.action, "deleted", "learned"), text("mac", format_mac(mac_of(e.mac))),
            text("port", field_text(e.eth_num)), text("bridge", field_text(e.brname))};
}

Fields decode_arp(const ovani_arp_event &e)
{
    return {choice(e.action, "deleted", "added"), text("address", address_text(e.ipv4)),
            text("mac", format_mac(mac_of(e.mac))), text("bridge", field_text(e.brname))};
}

Fields decode_port(const ovani_port_status_event &e)
{
    return {choice(e.status, "down", "up"), number("port", e.port)};
}

Fields decode_wifi(const ovani_wifi_event &e)
{
    return {choice(e.action, "left", "joined"), text("mac", format_mac(mac_of(e.mac))),
            number("ssid", e.ssidno)};
}

Fields decode_host_status(const ovani_device_status_event &e)
{
    return {text("action", field_text(e.status)),
            text("type", field_text(e.devicetype)),
            text("mac", field_text(e.deviceMAC)),
            text("address", field_text(e.deviceIP)),
            text("name", field_text(e.AliasName)),
            text("attached", e.attachedtype ? "wireless" : "wired"),
            number("port", e.port)};
}

// The '#'-separated fields of a "dhcp_user_event" in the order of each of its three forms; the last takes the
// rest of the text.
constexpr const char *LEASE_FIELDS[] = {"action", "address", "source",       "acknowledged", "lease",
                                        "name",   "type",    "vendor_class", "mac"};
constexpr const char *DHCPV6_FIELDS[] = {"action", "address", "mac", "link_local"};
constexpr const char *NEIGHBOUR_FIELDS[] = {"action", "type", "address", "mac"};

Fields decode_dhcp(std::string_view line)
{
    const size_t first = line.find('#');
    std::string_view rest = first == std::string_view::npos ? "" : line.substr(first + 1);
    const std::string_view action = rest.substr(0, rest.find('#'));
    std::span<const char *const> names = LEASE_FIELDS;
    if (action == "ADD6" || action == "DEL6") {
        names = DHCPV6_FIELDS;
    } else if (action == "NB6ADD" || action == "NB6DEL") {
        names = NEIGHBOUR_FIELDS;
    }

    Fields fields;
    for (size_t i = 0; i < names.size(); i++) {
        const size_t end = i + 1 == names.size() ? std::string_view::npos : rest.find('#');
        if (end == std::string_view::npos && i + 1 != names.size()) {
            return {text("error", "too few fields: " + std::string(line))};
        }
        fields.push_back(text(names[i], rest.substr(0, end)));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    return fields;
}

template <typename Record, size_t WireLength, Fields (*Decode)(const Record &)>
Fields decode_record(const uint8_t *data, size_t length)
{
    if (length < WireLength) {
        return {text("error", "record of " + std::to_string(length) + " bytes, should be " +
                                  std::to_string(WireLength))};
    }
    Record record{};
    memcpy(&record, data, std::min(length, sizeof record));
    return Decode(record);
}

struct RecordEvent {
    const char *event;
    const char *attribute;
    Fields (*decode)(const uint8_t *data, size_t length);
};

constexpr RecordEvent RECORD_EVENTS[] = {
    {UBUS_EVENT_MAC_ADDR_INFO, "mac_struct",
     decode_record<ovani_mac_event, OVANI_MAC_EVENT_WIRE_LEN, decode_mac>},
    {UBUS_EVENT_ARP_INFO, "arp_struct", decode_record<ovani_arp_event, OVANI_ARP_EVENT_WIRE_LEN, decode_arp>},
    {UBUS_EVENT_UNI_PORT_LINK_STATE, "port_status_struct",
     decode_record<ovani_port_status_event, OVANI_PORT_STATUS_EVENT_WIRE_LEN, decode_port>},
    {UBUS_EVENT_WIFI_ON_OFF, "wifi_user_struct",
     decode_record<ovani_wifi_event, OVANI_WIFI_EVENT_WIRE_LEN, decode_wifi>},
    {UBUS_EVENT_LANHOST_UP_DOWN, "lanhost_struct",
     decode_record<ovani_device_status_event, sizeof(ovani_device_status_event), decode_host_status>},
};

constexpr char DHCP_ATTRIBUTE[] = "dhcp_user_string";
constexpr char OBJNUM_ATTRIBUTE[] = "objnum";

blob_attr *attribute(blob_attr *msg, const char *name, enum blobmsg_type type)
{
    const blobmsg_policy policy = {name, type};
    blob_attr *found = nullptr;
    if (blobmsg_parse(&policy, 1, &found, blob_data(msg), static_cast<unsigned>(blob_len(msg))) != 0) {
        return nullptr;
    }
    return found;
}

Fields missing(const char *attribute_name)
{
    return {text("error", std::string("no usable \"") + attribute_name + '"')};
}

Fields decode_other(blob_attr *msg)
{
    struct Free {
        void operator()(char *p) const { free(p); }
    };
    const std::unique_ptr<char, Free> json(blobmsg_format_json(msg, true));
    return {text("message", json ? json.get() : "(damaged)")};
}

// How people call the numbered events.
constexpr struct {
    const char *event;
    const char *label;
} LABELS[] = {
    {UBUS_EVENT_MAC_ADDR_INFO, "mac"},        {UBUS_EVENT_ARP_INFO, "arp"},
    {UBUS_EVENT_UNI_PORT_LINK_STATE, "port"}, {UBUS_EVENT_WIFI_ON_OFF, "wifi"},
    {UBUS_EVENT_DHCP_USER_CONN, "dhcp"},      {UBUS_EVENT_LANHOST_PARAM_CHANGE, "host"},
    {UBUS_EVENT_WAN_VLAN_INFO, "wan"},        {UBUS_EVENT_LANHOST_UP_DOWN, "state"},
};

std::string label_of(std::string_view event)
{
    for (const auto &known : LABELS) {
        if (event == known.event) {
            return known.label;
        }
    }
    return printable(event);
}

} // namespace

Event make_mac_event(bool learned, const Mac &mac, std::string_view port, std::string_view bridge)
{
    ovani_mac_event record{};
    record.event_id = EVENT_ID;
    set_field(record.eth_num, port);
    set_field(record.eth_state, "up");
    set_field(record.brname, bridge);
    std::copy(mac.begin(), mac.end(), record.mac);
    record.action = learned;
    Event event{UBUS_EVENT_MAC_ADDR_INFO, {}};
    event.message.add_record("mac_struct", &record, sizeof record);
    return event;
}

Event make_arp_event(bool added, in_addr address, const Mac &mac, std::string_view bridge)
{
    ovani_arp_event record{};
    record.event_id = EVENT_ID;
    record.action = added;
    record.ipv4 = address.s_addr;
    std::copy(mac.begin(), mac.end(), record.mac);
    set_field(record.brname, bridge);
    Event event{UBUS_EVENT_ARP_INFO, {}};
    event.message.add_record("arp_struct", &record, sizeof record);
    return event;
}

Event make_port_event(uint8_t port, bool up)
{
    ovani_port_status_event record{};
    record.event_id = EVENT_ID;
    record.port = port;
    record.status = up;
    Event event{UBUS_EVENT_UNI_PORT_LINK_STATE, {}};
    event.message.add_record("port_status_struct", &record, sizeof record);
    return event;
}

Event make_wifi_event(bool joined, const Mac &mac, uint8_t ssid)
{
    ovani_wifi_event record{};
    record.event_id = EVENT_ID;
    std::copy(mac.begin(), mac.end(), record.mac);
    record.ssidno = ssid;
    record.action = joined;
    Event event{UBUS_EVENT_WIFI_ON_OFF, {}};
    event.message.add_record("wifi_user_struct", &record, sizeof record);
    return event;
}

std::string lease_text(const Lease &lease)
{
    std::string out = "dhcpd";
    for (const std::string &field :
         {std::string(lease.gone ? "DEL" : "ADD"), lease.address, lease.source, lease.acknowledged,
          std::to_string(lease.seconds), lease.name, lease.device_type, lease.vendor_class, lease.mac}) {
        out += '#';
        out += lease_field(field);
    }
    return out;
}

Event make_dhcp_event(const std::string &line)
{
    Event event{UBUS_EVENT_DHCP_USER_CONN, {}};
    event.message.add_text(DHCP_ATTRIBUTE, line);
    return event;
}

std::vector<EventField> decode_event(std::string_view name, blob_attr *msg)
{
    for (const RecordEvent &known : RECORD_EVENTS) {
        if (name != known.event) {
            continue;
        }
        blob_attr *attr = attribute(msg, known.attribute, BLOBMSG_TYPE_UNSPEC);
        if (!attr) {
            return missing(known.attribute);
        }
        return known.decode(static_cast<const uint8_t *>(blobmsg_data(attr)), blobmsg_data_len(attr));
    }
    if (name == UBUS_EVENT_DHCP_USER_CONN) {
        blob_attr *attr = attribute(msg, DHCP_ATTRIBUTE, BLOBMSG_TYPE_STRING);
        return attr ? decode_dhcp(blobmsg_get_string(attr)) : missing(DHCP_ATTRIBUTE);
    }
    if (name == UBUS_EVENT_LANHOST_PARAM_CHANGE) {
        blob_attr *attr = attribute(msg, OBJNUM_ATTRIBUTE, BLOBMSG_TYPE_INT32);
        return attr ? Fields{choice(1, "", "changed"),
                             number("instance", static_cast<int32_t>(blobmsg_get_u32(attr)))}
                    : missing(OBJNUM_ATTRIBUTE);
    }
    return decode_other(msg);
}

std::string clock_text()
{
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char text[16];
    strftime(text, sizeof text, "%H:%M:%S", &local);
    return text;
}

std::string event_line(std::string_view name, const std::vector<EventField> &fields)
{
    std::string line = label_of(name);
    line.append(columns_of(line) < 5 ? 5 - columns_of(line) : 0, ' ');
    for (const EventField &field : fields) {
        if (field.value.empty() || strcmp(field.name, "acknowledged") == 0) { // the line has a time already
            continue;
        }
        line += ' ';
        const bool plain = &field == &fields.front() && strcmp(field.name, "action") == 0;
        if (!plain) {
            line += std::string(field.name) + '=';
        }
        line += printable(field.value);
    }
    return line;
}

std::string event_json(std::string_view name, const std::vector<EventField> &fields)
{
    std::string json = "{\"event\":" + json_quote(name);
    for (const EventField &field : fields) {
        json += ",\"" + std::string(field.name) + "\":";
        json += field.number ? field.value : json_quote(field.value);
    }
    return json + '}';
}
