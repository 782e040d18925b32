// ovanictl ports, ovanictl limits: the LAN ports' links, and what the drivers were asked, as they keep it in
// the store.

#include "tools/ovanictl.h"

#include "tools/ctl_ports.h"

#include <algorithm>
#include <fstream>
#include <map>

#include <net/if.h>

#include "ovani/ovani_interface.h"
#include "platform/host/driver.h"
#include "platform/qvdrv_pon_api.h"
#include "platform/zk_sys_mgr.h"
#include "tools/ctl_hosts.h"
#include "tools/objects.h"
#include "tools/text.h"

namespace {

constexpr std::string_view DRIVER_PORTS = "InternetGatewayDevice.X_QV_Driver.LANPort.";
constexpr int NO_VLAN = 4093; // how the connection without a VLAN is bound

// --- Values: null for a number or a yes or no that is not there

Json number_or_null(std::string_view text)
{
    const auto number = parse_number(text, 0, UINT32_MAX);
    return number ? Json(*number) : Json();
}

Json bool_or_null(std::string_view text)
{
    return text.empty() ? Json() : Json(text == "1");
}

// --- What the kernel says of a port's link

// A link that is down has no speed, whatever a virtual interface says.
Json link_json(int number, bool ethernet)
{
    const std::string interface = driver_interface_of_port(static_cast<unsigned>(number));
    PON_ETH_PORT_LINK_STATUS_T status{.port_index = static_cast<uint32_t>(number)};
    Json link = {{"up", nullptr}, {"speed", nullptr}, {"duplex", ""}};
    if (!ethernet || if_nametoindex(interface.c_str()) == 0 ||
        qvdrv_pon_get_eth_port_link_status(&status) != 0) {
        return link;
    }
    link["up"] = status.link_up == 1;
    if (status.link_up != 1) {
        return link;
    }
    std::string speed;
    std::ifstream("/sys/class/net/" + interface + "/speed") >> speed; // -1 where unknown
    link["speed"] = number_or_null(speed);
    std::string duplex;
    std::ifstream("/sys/class/net/" + interface + "/duplex") >> duplex;
    link["duplex"] = duplex == "unknown" ? "" : duplex;
    return link;
}

// --- What was asked of it

Json asked_json(const StoreObject &asked)
{
    return {{"enabled", bool_or_null(asked.get("Enable"))},
            {"auto", bool_or_null(asked.get("AutoNegotiation"))},
            {"rate", number_or_null(asked.get("Rate"))},
            {"duplex", asked.get("Duplex")},
            {"mac_limit", number_or_null(asked.get("MACLimit"))}};
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

Row port_row(int number, int ethernet_ports, const StoreObject &asked)
{
    const bool ethernet = number <= ethernet_ports;
    const Json link = link_json(number, ethernet);
    Json bindings = Json::array();
    for (const StoreObject &binding :
         read_objects(driver_port_path(static_cast<unsigned>(number)) + "VLANBinding.")) {
        bindings.push_back(binding_json(binding));
    }
    const Json was_asked = asked_json(asked);
    return {.cells = {ethernet ? lan_port_name(number) : ssid_name(number - ethernet_ports), number,
                      link["up"], link["speed"], link["duplex"], was_asked, was_asked, was_asked, bindings,
                      bindings},
            .dim = link["up"] == false};
}

// --- As texts

std::string link_text(const Json &up)
{
    return up.is_null() ? "" : up.get<bool>() ? "up" : "down";
}

std::string enabled_text(const Json &asked)
{
    return cell_text(asked["enabled"]);
}

std::string mac_limit_text(const Json &asked)
{
    return cell_text(asked["mac_limit"]);
}

// "auto", or what was asked instead: "100 full".
std::string mode_text(const Json &asked)
{
    if (asked["auto"] == true) {
        return "auto";
    }
    std::string text = asked["rate"] == 0 ? "" : cell_text(asked["rate"]);
    const auto duplex = asked["duplex"].get<std::string>();
    if (duplex == "Full" || duplex == "Half") {
        text += std::string(text.empty() ? "" : " ") + (duplex == "Full" ? "full" : "half");
    }
    return text;
}

std::string lan_vlan_text(const Json &binding)
{
    return cell_text(binding["lan_vlan"]);
}

std::string connection_text(const Json &binding)
{
    std::string text = binding["wan_vlan"] == NO_VLAN ? "no VLAN" : "VLAN " + cell_text(binding["wan_vlan"]);
    text += ", " + binding["service"].get<std::string>();
    text += binding["type"] == "BRIDGE" ? ", bridged" : ", routed";
    return binding["priority"] == 0 ? text : text + ", priority " + cell_text(binding["priority"]);
}

constexpr Column PORT_COLUMNS[] = {
    {.title = "PORT", .member = "port"},
    {.title = nullptr, .member = "number"},
    {.title = "LINK", .member = "link", .text = link_text},
    {.title = "SPEED", .member = "speed", .leaves = 3},
    {.title = "DUPLEX", .member = "duplex", .leaves = 2},
    {.title = "ENABLED", .member = "asked", .leaves = 4, .text = enabled_text},
    {.title = "ASKED", .member = nullptr, .leaves = 5, .text = mode_text},
    {.title = "MACS", .member = nullptr, .leaves = 1, .text = mac_limit_text},
    {.title = "VLAN", .member = "bindings", .leaves = 7, .text = lan_vlan_text},
    {.title = "WAN", .member = nullptr, .leaves = 6, .cut = true, .text = connection_text},
};

constexpr Column LIMIT_COLUMNS[] = {
    {.title = "HOST", .member = "instance", .leaves = 1},
    {.title = "NAME", .member = "name", .cut = true},
    {.title = "MAC", .member = "mac"},
    {.title = "MAX-UP", .member = "max_up"},
    {.title = "MAX-DOWN", .member = "max_down"},
    {.title = "TOTAL-UP", .member = "total_up"},
    {.title = "TOTAL-DOWN", .member = "total_down"},
};

std::vector<Row> limit_rows()
{
    const std::vector<StoreObject> hosts = read_objects(HOSTS_PATH);
    std::vector<Row> rows;
    for (const StoreObject &device : read_objects(DRIVER_DEVICES)) {
        const auto host = std::ranges::find(hosts, device.get("MACAddress"),
                                            [](const StoreObject &h) { return h.get("MACAddress"); });
        const bool known = host != hosts.end();
        rows.push_back({.cells = {known ? Json(host->instance) : Json(), known ? host_name(*host) : "",
                                  device.get("MACAddress"), number_or_null(device.get("MaxUpstream")),
                                  number_or_null(device.get("MaxDownstream")),
                                  number_or_null(device.get("TotalUpstream")),
                                  number_or_null(device.get("TotalDownstream"))}});
    }
    return rows;
}

} // namespace

std::span<const Column> port_columns()
{
    return PORT_COLUMNS;
}

// Every Ethernet port, and each SSID that was ever bound, which the drivers number behind them.
std::vector<Row> port_rows()
{
    devinfo info{};
    zk_sys_mgr_get_devinfo(&info);
    const int ethernet_ports = static_cast<int>(std::min(info.port_num, DRIVER_MAX_PORT));
    std::map<int, StoreObject> ports;
    for (int number = 1; number <= ethernet_ports; ++number) {
        ports[number] = {};
    }
    for (StoreObject &asked : read_objects(DRIVER_PORTS)) {
        ports[asked.instance] = std::move(asked);
    }
    std::vector<Row> rows;
    rows.reserve(ports.size());
    for (const auto &[number, asked] : ports) {
        rows.push_back(port_row(number, ethernet_ports, asked));
    }
    return rows;
}

void add_port_commands(CLI::App &app)
{
    add_table_command(app, "ports", "Show the LAN ports and where their VLANs go", PORT_COLUMNS, port_rows)
        ->footer("LINK, SPEED (in Mbit/s) and DUPLEX are what the interface says. The rest is what the\n"
                 "drivers were last asked: ASKED is \"auto\" or a speed and duplex, MACS how many the\n"
                 "port learns at most, WAN where a LAN VLAN goes. - stands for what is unknown or was\n"
                 "never asked.");
    add_table_command(app, "limits", "Show the devices' bandwidth ceilings and totals", LIMIT_COLUMNS,
                      limit_rows)
        ->footer("In the driver's own unit; - where none was set. HOST is the instance number of the\n"
                 "host's object.");
}
