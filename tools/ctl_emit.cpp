// ovanictl emit: sends the gateway's events, well made or not.

#include "tools/ovanictl.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <memory>
#include <vector>

#include <arpa/inet.h>

#include "ovani/ovani_event.h"
#include "tools/bus.h"
#include "tools/events.h"

namespace {

using Sender = std::function<void(const Event &)>;

BusConnection connect(const CtlOptions &options)
{
    BusConnection bus = connect_bus(options.socket_or_null());
    if (!bus) {
        const std::string why = why_no_bus(options.socket_or_null());
        fail(why.empty() ? "the broker takes nobody in" : why);
    }
    return bus;
}

void send(const BusConnection &bus, const Event &event)
{
    if (!event.send(bus.get())) {
        fail("the broker does not take the event");
    }
}

Mac mac_argument(const std::string &text)
{
    const auto mac = parse_mac(text);
    if (!mac) {
        fail(printable(text) + " is no MAC address");
    }
    return *mac;
}

in_addr address_argument(const std::string &text)
{
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
        fail(printable(text) + " is no IPv4 address");
    }
    return address;
}

struct Arguments {
    std::string action = "add";
    std::string mac;
    std::string address;
    std::string port = "eth0";
    std::string bridge = "br0";
    unsigned number = 0;
    Lease lease{.seconds = 3600};
    std::string text;
    std::string event;
    std::string attribute;
    std::string hex;
    std::string json;

    bool came() const { return action == "add" || action == "up" || action == "join"; }
};

// A kind of event; those that tell of coming and going take one of two words first.
CLI::App *add_kind(CLI::App *emit, const char *name, const char *what, Arguments &args,
                   const std::vector<std::string> &actions)
{
    CLI::App *kind = emit->add_subcommand(name, what);
    if (!actions.empty()) {
        kind->add_option("ACTION", args.action)->required()->check(CLI::IsMember(actions));
    }
    return kind;
}

Event raw_event(const Arguments &args)
{
    Event event{args.event.c_str(), {}};
    if (!args.json.empty()) {
        if (!event.message.add_json(args.json)) {
            fail("that is no JSON object");
        }
        return event;
    }
    if (args.attribute.empty()) {
        return event;
    }
    const auto bytes = parse_hex(args.hex);
    if (!bytes) {
        fail("bytes are pairs of hexadecimal digits");
    }
    event.message.add_record(args.attribute.c_str(), bytes->data(), bytes->size());
    return event;
}

// A subcommand for each kind of event. What its words say goes to `args`, the event made of that to `sender`.
void add_kinds(CLI::App *emit, const std::shared_ptr<Arguments> &args, const Sender &sender)
{
    CLI::App *mac =
        add_kind(emit, "mac", "109: a MAC learned on a bridge port, or aged out", *args, {"add", "del"});
    mac->add_option("MAC", args->mac)->required();
    mac->add_option("-p,--port", args->port, "the port's interface")->capture_default_str();
    mac->add_option("-b,--bridge", args->bridge)->capture_default_str();
    mac->callback([args, sender] {
        sender(make_mac_event(args->came(), mac_argument(args->mac), args->port, args->bridge));
    });

    CLI::App *arp = add_kind(emit, "arp", "110: an IPv4 neighbour that came or went", *args, {"add", "del"});
    arp->add_option("ADDRESS", args->address)->required();
    arp->add_option("MAC", args->mac)->required();
    arp->add_option("-b,--bridge", args->bridge)->capture_default_str();
    arp->callback([args, sender] {
        sender(make_arp_event(args->came(), address_argument(args->address), mac_argument(args->mac),
                              args->bridge));
    });

    CLI::App *port = add_kind(emit, "port", "106: link of a LAN port", *args, {"up", "down"});
    port->add_option("NUMBER", args->number, "LAN port, from 1")->required()->check(CLI::Range(0, 255));
    port->callback(
        [args, sender] { sender(make_port_event(static_cast<uint8_t>(args->number), args->came())); });

    CLI::App *wifi = add_kind(emit, "wifi", "111: a Wi-Fi station", *args, {"join", "leave"});
    wifi->add_option("MAC", args->mac)->required();
    wifi->add_option("SSID", args->number, "number of the SSID, from 0")
        ->required()
        ->check(CLI::Range(0, 255));
    wifi->callback([args, sender] {
        sender(make_wifi_event(args->came(), mac_argument(args->mac), static_cast<uint8_t>(args->number)));
    });

    CLI::App *dhcp = add_kind(emit, "dhcp", "dhcp_user_event: a DHCPv4 lease", *args, {"add", "del"});
    dhcp->add_option("ADDRESS", args->lease.address)->required();
    dhcp->add_option("MAC", args->lease.mac)->required();
    dhcp->add_option("-n,--name", args->lease.name, "the client's host name, in any bytes");
    dhcp->add_option("-V,--vendor-class", args->lease.vendor_class, "its option 60");
    dhcp->add_option("-t,--type", args->lease.device_type, "Computer, Phone, STB, Camera");
    dhcp->add_option("-l,--lease", args->lease.seconds, "seconds remaining")->capture_default_str();
    dhcp->add_option("--source", args->lease.source)->capture_default_str();
    dhcp->callback([args, sender] {
        args->lease.gone = !args->came();
        sender(make_dhcp_event(lease_text(args->lease)));
    });

    CLI::App *text = add_kind(emit, "dhcp-text", "dhcp_user_event with any text", *args, {});
    text->add_option("TEXT", args->text, "such as '#NB6ADD#GUA#2001:db8::5#02:00:00:00:00:05'")->required();
    text->callback([args, sender] { sender(make_dhcp_event(args->text)); });

    CLI::App *wan = add_kind(emit, "wan", "wan_vlan_info: the WAN connections changed", *args, {});
    wan->callback([sender] { sender(Event{UBUS_EVENT_WAN_VLAN_INFO, {}}); });

    CLI::App *raw = add_kind(emit, "raw", "Any event, with any bytes", *args, {});
    raw->add_option("EVENT", args->event, "its name")->required();
    CLI::Option *attribute = raw->add_option("ATTRIBUTE", args->attribute, "name of a raw attribute");
    CLI::Option *hex = raw->add_option("BYTES", args->hex, "its bytes in hexadecimal")->needs(attribute);
    raw->add_option("--json", args->json, "a whole message instead")->excludes(attribute)->excludes(hex);
    raw->callback([args, sender] { sender(raw_event(*args)); });
}

// --- Many events

constexpr char LINES_FORMAT[] = R"(A line holds the words that would follow "emit", with blanks between them;
empty lines and those that begin with # are for people. In a word \\ stands for \ and
\xNN for any byte; "" stands for an empty word. The first wrong line ends the command.)";

// The words of a line, last first, as the parser takes them.
std::vector<std::string> words_of(std::string_view line)
{
    std::vector<std::string> words;
    while (true) {
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
        if (line.empty()) {
            std::ranges::reverse(words);
            return words;
        }
        const std::string_view word = line.substr(0, line.find(' '));
        line.remove_prefix(word.size());
        auto bytes = word == "\"\"" ? std::string() : unescape(word);
        if (!bytes) {
            fail("in a word, \\ is \\\\ and a byte that is no printable character \\xNN");
        }
        words.push_back(std::move(*bytes));
    }
}

void send_lines(const CtlOptions &options)
{
    const BusConnection bus = connect(options);
    CLI::App kinds;
    kinds.set_help_flag();
    kinds.require_subcommand(1);
    const auto args = std::make_shared<Arguments>();
    add_kinds(&kinds, args, [&bus](const Event &event) { send(bus, event); });
    std::string line;
    for (int number = 1; std::getline(std::cin, line); ++number) {
        if (line.empty() || line.starts_with('#')) {
            continue;
        }
        try {
            *args = {};
            kinds.parse(words_of(line));
        } catch (const std::exception &e) {
            fail("line " + std::to_string(number) + ": " + e.what());
        }
    }
}

} // namespace

void add_emit_command(CLI::App &app, const CtlOptions &options)
{
    CLI::App *emit = app.add_subcommand("emit", "Send the gateway's events");
    emit->require_subcommand(1);
    add_kinds(emit, std::make_shared<Arguments>(),
              [&options](const Event &event) { send(connect(options), event); });
    CLI::App *lines = emit->add_subcommand("lines", "Many of these, a line each from standard input");
    lines->footer(LINES_FORMAT);
    lines->callback([&options] { send_lines(options); });
}
