#include "tools/events.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>

#include "ovani/ovani_event.h"
#include "tools/json.h"

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

std::string mac_text(const uint8_t (&bytes)[6])
{
    return format_mac(std::to_array(bytes));
}

std::string address_text(uint32_t network_order)
{
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &network_order, text, sizeof text);
    return text;
}

std::string_view choice(unsigned value, const char *when_zero, const char *otherwise)
{
    return value == 0 ? when_zero : otherwise;
}

template <size_t N>
std::string_view field_text(const char (&field)[N])
{
    const std::string_view whole(field, N);
    return whole.substr(0, whole.find('\0'));
}

Json decode_mac(const ovani_mac_event &e)
{
    return {{"action", choice(e.action, "deleted", "learned")},
            {"mac", mac_text(e.mac)},
            {"interface", field_text(e.eth_num)},
            {"bridge", field_text(e.brname)}};
}

Json decode_arp(const ovani_arp_event &e)
{
    return {{"action", choice(e.action, "deleted", "added")},
            {"address", address_text(e.ipv4)},
            {"mac", mac_text(e.mac)},
            {"bridge", field_text(e.brname)}};
}

Json decode_port(const ovani_port_status_event &e)
{
    return {{"action", choice(e.status, "down", "up")}, {"port", e.port}};
}

Json decode_wifi(const ovani_wifi_event &e)
{
    return {{"action", choice(e.action, "left", "joined")}, {"mac", mac_text(e.mac)}, {"ssid", e.ssidno}};
}

Json decode_host_status(const ovani_device_status_event &e)
{
    return {{"action", field_text(e.status)},
            {"type", field_text(e.devicetype)},
            {"mac", field_text(e.deviceMAC)},
            {"address", field_text(e.deviceIP)},
            {"name", field_text(e.AliasName)},
            {"attached", e.attachedtype != 0 ? "wireless" : "wired"},
            {"port", e.port}};
}

// The '#'-separated fields of a "dhcp_user_event" in the order of each of its three forms; the last takes the
// rest of the text.
constexpr const char *LEASE_FIELDS[] = {"action", "address", "source",       "acknowledged", "lease",
                                        "name",   "type",    "vendor_class", "mac"};
constexpr const char *DHCPV6_FIELDS[] = {"action", "address", "mac", "link_local"};
constexpr const char *NEIGHBOUR_FIELDS[] = {"action", "type", "address", "mac"};

Json decode_dhcp(std::string_view line)
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

    Json fields;
    for (const char *const &name : names) {
        const bool last = &name == &names.back();
        const size_t end = last ? std::string_view::npos : rest.find('#');
        if (end == std::string_view::npos && !last) {
            return {{"error", "too few fields: " + std::string(line)}};
        }
        fields[name] = rest.substr(0, end);
        rest.remove_prefix(last ? rest.size() : end + 1);
    }
    return fields;
}

// An attribute's bytes: a raw record of at least the event's length, a text with its terminator, a number.
using Payload = std::string_view;

template <typename Record, Json (*Decode)(const Record &)>
Json decode_record(Payload payload)
{
    Record record{};
    memcpy(&record, payload.data(), std::min(payload.size(), sizeof record));
    return Decode(record);
}

Json decode_text(Payload payload)
{
    return decode_dhcp(payload.data());
}

Json decode_instance(Payload payload)
{
    uint32_t instance = 0;
    memcpy(&instance, payload.data(), sizeof instance);
    return {{"action", "changed"}, {"instance", static_cast<int32_t>(ntohl(instance))}};
}

// How people call an event, and how it is read; the names are those of OVANI_EVENTS.
struct Reader {
    std::string_view event;
    const char *word;
    enum blobmsg_type type = BLOBMSG_TYPE_UNSPEC; // of its attribute
    Json (*decode)(Payload payload) = nullptr;
};

constexpr Reader READERS[] = {
    {UBUS_EVENT_MAC_ADDR_INFO, "mac", BLOBMSG_TYPE_UNSPEC, decode_record<ovani_mac_event, decode_mac>},
    {UBUS_EVENT_ARP_INFO, "arp", BLOBMSG_TYPE_UNSPEC, decode_record<ovani_arp_event, decode_arp>},
    {UBUS_EVENT_UNI_PORT_LINK_STATE, "port", BLOBMSG_TYPE_UNSPEC,
     decode_record<ovani_port_status_event, decode_port>},
    {UBUS_EVENT_WIFI_ON_OFF, "wifi", BLOBMSG_TYPE_UNSPEC, decode_record<ovani_wifi_event, decode_wifi>},
    {UBUS_EVENT_LANHOST_UP_DOWN, "state", BLOBMSG_TYPE_UNSPEC,
     decode_record<ovani_device_status_event, decode_host_status>},
    {UBUS_EVENT_DHCP_USER_CONN, "dhcp", BLOBMSG_TYPE_STRING, decode_text},
    {UBUS_EVENT_LANHOST_PARAM_CHANGE, "host", BLOBMSG_TYPE_INT32, decode_instance},
    {UBUS_EVENT_WAN_VLAN_INFO, "wan"},
};

const Reader *find_reader(std::string_view event)
{
    const auto reader = std::ranges::find(READERS, event, &Reader::event);
    return reader == std::end(READERS) ? nullptr : reader;
}

Json decode_other(blob_attr *msg)
{
    struct Free {
        void operator()(char *p) const { free(p); }
    };
    const std::unique_ptr<char, Free> json(blobmsg_format_json(msg, true));
    return {{"message", json ? json.get() : "(damaged)"}};
}

template <typename Record>
Event record_event(const char *name, const Record &record)
{
    Event event{name, {}};
    event.message.add_record(find_event(name)->attribute, &record, sizeof record);
    return event;
}

uint8_t flag(bool set)
{
    return set ? 1 : 0;
}

} // namespace

Event make_mac_event(bool learned, const Mac &mac, std::string_view port, std::string_view bridge)
{
    ovani_mac_event record{};
    record.event_id = EVENT_ID;
    record.action = flag(learned);
    set_field(record.eth_num, port);
    set_field(record.eth_state, "up");
    set_field(record.brname, bridge);
    std::ranges::copy(mac, record.mac);
    return record_event(UBUS_EVENT_MAC_ADDR_INFO, record);
}

Event make_arp_event(bool added, in_addr address, const Mac &mac, std::string_view bridge)
{
    ovani_arp_event record{};
    record.event_id = EVENT_ID;
    record.action = flag(added);
    record.ipv4 = address.s_addr;
    std::ranges::copy(mac, record.mac);
    set_field(record.brname, bridge);
    return record_event(UBUS_EVENT_ARP_INFO, record);
}

Event make_port_event(uint8_t port, bool up)
{
    ovani_port_status_event record{};
    record.event_id = EVENT_ID;
    record.port = port;
    record.status = flag(up);
    return record_event(UBUS_EVENT_UNI_PORT_LINK_STATE, record);
}

Event make_wifi_event(bool joined, const Mac &mac, uint8_t ssid)
{
    ovani_wifi_event record{};
    record.event_id = EVENT_ID;
    record.ssidno = ssid;
    record.action = flag(joined);
    std::ranges::copy(mac, record.mac);
    return record_event(UBUS_EVENT_WIFI_ON_OFF, record);
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
    event.message.add_text(find_event(event.name)->attribute, line);
    return event;
}

std::string event_word(std::string_view event)
{
    const Reader *reader = find_reader(event);
    return reader != nullptr ? reader->word : printable(event);
}

std::optional<std::string> event_pattern(std::string_view asked)
{
    if (asked.find_first_of("*.") != std::string_view::npos) {
        return std::string(asked);
    }
    for (const Reader &reader : READERS) {
        if (asked == reader.word || asked == reader.event) {
            return std::string(reader.event);
        }
    }
    return std::nullopt;
}

Json decode_event(std::string_view name, blob_attr *msg)
{
    const Reader *reader = find_reader(name);
    const EventKind *kind = find_event(name);
    if (reader == nullptr || kind == nullptr || reader->decode == nullptr) {
        return decode_other(msg);
    }
    const blobmsg_policy policy = {kind->attribute, reader->type};
    blob_attr *attr = nullptr;
    blobmsg_parse(&policy, 1, &attr, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    if (attr == nullptr) {
        return {{"error", std::string("no usable \"") + kind->attribute + '"'}};
    }
    const Payload payload(static_cast<const char *>(blobmsg_data(attr)), blobmsg_data_len(attr));
    if (payload.size() < kind->wire_length) {
        return {{"error", "record of " + std::to_string(payload.size()) + " bytes, should be " +
                              std::to_string(kind->wire_length)}};
    }
    return reader->decode(payload);
}

std::string event_line(std::string_view name, const Json &fields)
{
    std::string line = event_word(name);
    line.resize(std::max<size_t>(line.size(), 5), ' ');
    for (const auto &[field, value] : fields.items()) {
        const std::string text = value.is_string() ? value.get<std::string>() : json_text(value);
        if (text.empty() || field == "acknowledged") { // the line has a time already
            continue;
        }
        line += ' ' + (field == "action" ? "" : field + '=') + printable(text);
    }
    return line;
}
