// The gateway's bus events: made by the watcher, the DHCP hook and `ovanictl emit`, read by `ovanictl
// events`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <netinet/in.h>
#include <nlohmann/json_fwd.hpp>

#include "tools/bus.h"
#include "tools/text.h"

// An event ready to be sent.
struct Event {
    const char *name;
    Message message;

    bool send(ubus_context *ctx) const
    {
        return ubus_send_event(ctx, name, message.head()) == UBUS_STATUS_OK;
    }
};

// "109": a MAC learned on a bridge port, or aged out.
Event make_mac_event(bool learned, const Mac &mac, std::string_view port, std::string_view bridge);
// "110": an IPv4 neighbour of the bridge that came or went.
Event make_arp_event(bool added, in_addr address, const Mac &mac, std::string_view bridge);
// "106": link of a LAN Ethernet port, counted from 1.
Event make_port_event(uint8_t port, bool up);
// "111": a Wi-Fi station; `ssid` counts from 0.
Event make_wifi_event(bool joined, const Mac &mac, uint8_t ssid);

// A DHCPv4 lease as the DHCP server knows it; the texts are whatever bytes the client sent.
struct Lease {
    bool gone = false;
    std::string address;
    std::string source = "DHCP";
    std::string acknowledged; // when the lease was acknowledged
    long seconds = 0;         // remaining
    std::string name;
    std::string device_type;
    std::string vendor_class; // option 60
    std::string mac;
};
// The text of a lease in a "dhcp_user_event": its fields with a '#' before each. A '#' or a control character
// inside a field becomes '_', so no field can shift its neighbours or end the text.
std::string lease_text(const Lease &lease);
// "dhcp_user_event" with any text.
Event make_dhcp_event(const std::string &text);

// How people call an event: "mac" for "109"; others by their names, made printable.
std::string event_word(std::string_view event);

// The name or pattern that somebody asks for: a word becomes its event's name; an event's name, a pattern
// with a '*' and a name with a '.' (which is none of the gateway's) stay. Nothing for any other text.
std::optional<std::string> event_pattern(std::string_view asked);

// What an event says, in the order of its record. A message that is not what its event should carry yields
// one member named "error"; an event that is none of the gateway's yields one named "message", its content as
// JSON text.
nlohmann::ordered_json decode_event(std::string_view name, blob_attr *msg);

// One line, safe on a terminal: the fields after their names, the action without.
std::string event_line(std::string_view name, const nlohmann::ordered_json &fields);
