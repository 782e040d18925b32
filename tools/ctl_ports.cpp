// ovanictl ports, ovanictl limits: what the drivers were asked, as they keep it in the store.

#include "tools/ovanictl.h" // CLI11 before libubox, whose macros take one of its names

#include "tools/ctl_ports.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>

#include <unistd.h>

#include "platform/qvdrv_pon_api.h"
#include "platform/zk_sys_mgr.h"
#include "tools/json.h"
#include "tools/objects.h"
#include "tools/text.h"

namespace {

constexpr std::string_view DRIVER_PORTS = "InternetGatewayDevice.X_QV_Driver.LANPort.";
constexpr std::string_view DRIVER_DEVICES = "InternetGatewayDevice.X_QV_Driver.Device.";
constexpr std::string_view NO_VLAN = "4093"; // how the connection without a VLAN is bound

// --- Reading

struct Port {
    std::string name;
    std::optional<bool> link; // none where it has no interface
    StoreObject asked;
    std::vector<StoreObject> bindings; // by LAN VLAN
};

// Ethernet ports come first in the drivers' numbering, SSIDs behind them.
std::string port_name(int number, int ethernet_ports)
{
    return number <= ethernet_ports ? "LAN" + std::to_string(number)
                                    : "Wi-Fi " + std::to_string(number - ethernet_ports);
}

std::optional<bool> link_of(int number)
{
    PON_ETH_PORT_LINK_STATUS_T status{.port_index = static_cast<uint32_t>(number)};
    return qvdrv_pon_get_eth_port_link_status(&status) == 0 ? std::optional(status.link_up == 1)
                                                            : std::nullopt;
}

// Every Ethernet port, and each SSID that was ever bound.
std::vector<Port> read_ports()
{
    devinfo info{};
    zk_sys_mgr_get_devinfo(&info);
    const int ethernet_ports = static_cast<int>(info.port_num);
    std::vector<Port> ports;
    for (int number = 1; number <= ethernet_ports; ++number) {
        ports.push_back({port_name(number, ethernet_ports), link_of(number), {.instance = number}, {}});
    }
    for (StoreObject &asked : read_objects(DRIVER_PORTS)) {
        const int number = asked.instance;
        std::vector<StoreObject> bindings =
            read_objects(std::string(DRIVER_PORTS) + std::to_string(number) + ".VLANBinding.");
        if (number > ethernet_ports) {
            ports.push_back({port_name(number, ethernet_ports), {}, {}, {}});
        }
        Port &port = number > ethernet_ports ? ports.back() : ports[static_cast<size_t>(number - 1)];
        port.asked = std::move(asked);
        port.bindings = std::move(bindings);
    }
    return ports;
}

// --- As JSON

Json number_or_null(std::string_view text)
{
    const auto number = parse_number(text, 0, UINT32_MAX);
    return number ? Json(*number) : Json();
}

Json bool_or_null(std::string_view text)
{
    return text.empty() ? Json() : Json(text == "1");
}

Json binding_json(const StoreObject &binding)
{
    return {{"lan_vlan", binding.instance},
            {"wan_vlan", number_or_null(binding.get("VLAN"))},
            {"priority", number_or_null(binding.get("Priority"))},
            {"service", binding.get("Service")},
            {"type", binding.get("Type")},
            {"ip_mode", number_or_null(binding.get("IPMode"))},
            {"lan_dhcp", bool_or_null(binding.get("LANDHCP"))}};
}

Json port_json(const Port &port)
{
    Json bindings = Json::array();
    for (const StoreObject &binding : port.bindings) {
        bindings.push_back(binding_json(binding));
    }
    return {{"port", port.name},
            {"number", port.asked.instance},
            {"link", port.link ? Json(*port.link) : Json()},
            {"enabled", bool_or_null(port.asked.get("Enable"))},
            {"auto", bool_or_null(port.asked.get("AutoNegotiation"))},
            {"rate", number_or_null(port.asked.get("Rate"))},
            {"duplex", port.asked.get("Duplex")},
            {"mac_limit", number_or_null(port.asked.get("MACLimit"))},
            {"bindings", bindings}};
}

Json limits_json(const StoreObject &device, const std::string &name)
{
    return {{"mac", device.get("MACAddress")},
            {"name", name},
            {"max_up", number_or_null(device.get("MaxUpstream"))},
            {"max_down", number_or_null(device.get("MaxDownstream"))},
            {"total_up", number_or_null(device.get("TotalUpstream"))},
            {"total_down", number_or_null(device.get("TotalDownstream"))}};
}

// --- As tables

constexpr std::array PORT_TITLES = {"PORT",   "LINK", "ENABLED", "AUTO",   "RATE",
                                    "DUPLEX", "MACS", "VLAN",    "GOES TO"};

std::string yes_or_no(std::string_view text)
{
    return text.empty() ? "" : text == "1" ? "yes" : "no";
}

std::string lower_case(std::string_view text)
{
    std::string out(text);
    std::ranges::transform(out, out.begin(), [](unsigned char c) { return tolower(c); });
    return out;
}

std::string connection_text(const StoreObject &binding)
{
    const std::string_view vlan = binding.get("VLAN");
    std::string text = vlan == NO_VLAN ? "no VLAN" : "VLAN " + std::string(vlan);
    text += ", " + std::string(binding.get("Service"));
    text += binding.get("Type") == "BRIDGE" ? ", bridged" : ", routed";
    return binding.get("Priority") == "0" ? text
                                          : text + ", priority " + std::string(binding.get("Priority"));
}

// Nothing was asked of most ports: they are as the switch has them.
std::string rate_text(const StoreObject &asked)
{
    return asked.get("Rate") == "0" ? "" : std::string(asked.get("Rate"));
}

std::string duplex_text(const StoreObject &asked)
{
    return asked.get("Duplex") == "None" ? "" : lower_case(asked.get("Duplex"));
}

// A row a port, or a row for each of its bindings; only the first tells of the port.
void add_port_rows(const Port &port, std::vector<TableRow> &rows)
{
    const bool down = port.link == false;
    rows.push_back({.cells = {port.name,
                              !port.link   ? ""
                              : *port.link ? "up"
                                           : "down",
                              yes_or_no(port.asked.get("Enable")),
                              yes_or_no(port.asked.get("AutoNegotiation")), rate_text(port.asked),
                              duplex_text(port.asked), std::string(port.asked.get("MACLimit")), "", ""},
                    .dim = down});
    for (const StoreObject &binding : port.bindings) {
        if (&binding != &port.bindings.front()) {
            rows.push_back({.cells = std::vector<std::string>(PORT_TITLES.size(), " "), .dim = down});
        }
        *(rows.back().cells.end() - 2) = std::to_string(binding.instance);
        rows.back().cells.back() = connection_text(binding);
    }
}

constexpr std::array LIMIT_TITLES = {"DEVICE", "MAC", "UP", "DOWN", "TOTAL UP", "TOTAL DOWN"};

TableRow limits_row(const StoreObject &device, const std::string &name)
{
    return {.cells = {name, std::string(device.get("MACAddress")), std::string(device.get("MaxUpstream")),
                      std::string(device.get("MaxDownstream")), std::string(device.get("TotalUpstream")),
                      std::string(device.get("TotalDownstream"))}};
}

// What people call the host of a MAC: by its alias, or else by its name.
std::string name_of(const std::vector<StoreObject> &hosts, std::string_view mac)
{
    const auto host = std::ranges::find(hosts, mac, [](const StoreObject &h) { return h.get("MACAddress"); });
    if (host == hosts.end()) {
        return "";
    }
    return std::string(host->get(host->get("HostAlias").empty() ? "HostName" : "HostAlias"));
}

void show_ports(bool json)
{
    if (!json) {
        print_lines(port_lines(style_for(STDOUT_FILENO), terminal_width()));
        return;
    }
    std::vector<Json> objects;
    for (const Port &port : read_ports()) {
        objects.push_back(port_json(port));
    }
    print_json_rows(objects);
}

void show_limits(bool json)
{
    const std::vector<StoreObject> hosts = read_objects(HOSTS_PATH);
    std::vector<TableRow> rows;
    std::vector<Json> objects;
    for (const StoreObject &device : read_objects(DRIVER_DEVICES)) {
        const std::string name = name_of(hosts, device.get("MACAddress"));
        rows.push_back(limits_row(device, name));
        objects.push_back(limits_json(device, name));
    }
    if (json) {
        print_json_rows(objects);
        return;
    }
    print_lines(table_lines(LIMIT_TITLES, rows, style_for(STDOUT_FILENO), terminal_width()));
    if (rows.empty()) {
        puts("(no limits)");
    }
}

} // namespace

std::vector<std::string> port_lines(const Style &style, size_t width)
{
    std::vector<TableRow> rows;
    for (const Port &port : read_ports()) {
        add_port_rows(port, rows);
    }
    return table_lines(PORT_TITLES, rows, style, width);
}

void add_port_commands(CLI::App &app)
{
    auto json = std::make_shared<bool>(false);
    CLI::App *ports = app.add_subcommand("ports", "Show the LAN ports and where their VLANs go");
    ports->footer("LINK is the interface's. The rest is what the drivers were last asked, - what they never "
                  "were: RATE in Mbit/s, MACS how many the port learns at most.");
    ports->add_flag("--json", *json, "as a JSON array");
    ports->callback([json] { show_ports(*json); });

    CLI::App *limits = app.add_subcommand("limits", "Show the devices' bandwidth ceilings and totals");
    limits->footer("In the driver's own unit; - where none was set.");
    limits->add_flag("--json", *json, "as a JSON array");
    limits->callback([json] { show_limits(*json); });
}
