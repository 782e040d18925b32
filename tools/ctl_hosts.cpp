// ovanictl hosts: the LAN hosts as the configuration store has them.

#include "tools/ovanictl.h"

#include "tools/ctl_hosts.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include <sys/sysinfo.h>

#include "tools/ctl_ports.h"
#include "tools/text.h"

namespace {

constexpr Column HOST_COLUMNS[] = {
    {.title = "HOST", .member = "instance", .leaves = 6},
    {.title = "NAME", .member = "name", .cut = true},
    {.title = "MAC", .member = "mac", .leaves = 2},
    {.title = "ADDRESS", .member = "address"},
    {.title = "SOURCE", .member = "source", .leaves = 3},
    {.title = "IPV6", .member = "ipv6", .leaves = 1},
    {.title = "TYPE", .member = "type", .leaves = 5},
    {.title = "PORT", .member = "port"},
    {.title = "SINCE", .member = "since", .leaves = 4, .text = duration_text},
    {.title = "ACTIVE", .member = "active"},
    {.title = nullptr, .member = "parameters"},
};

// X_QV_DeviceType's number tells more than DeviceType's word where it is set.
std::string type_of(const StoreObject &host)
{
    static constexpr const char *words[] = {"",   "agent", "router", "phone", "pad",
                                            "PC", "OTT",   "camera", "IoT",   "slave AP"};
    const auto number = parse_number(host.get("X_QV_DeviceType"), 1, std::size(words) - 1);
    if (number) {
        return words[*number];
    }
    return host.get("DeviceType") == "OTHER" ? "" : std::string(host.get("DeviceType"));
}

std::string port_of(const StoreObject &host)
{
    const std::string_view path = host.get("Layer2Interface");
    const auto number = parse_number(host.get("Port"), 1, INT32_MAX);
    if (!number) {
        return "";
    }
    if (path.find("LANEthernetInterfaceConfig.") != std::string_view::npos) {
        return lan_port_name(static_cast<int>(*number));
    }
    return path.find("WLANConfiguration.") != std::string_view::npos ? ssid_name(static_cast<int>(*number))
                                                                     : "";
}

// Seconds since it came, or since it went; null when its time is not of this boot.
Json seconds_since(const StoreObject &host, bool active)
{
    struct sysinfo now {};
    sysinfo(&now);
    const auto then =
        parse_number(host.get(active ? "LatestActiveTime" : "LatestInactiveTime"), 0, now.uptime);
    return then ? Json(now.uptime - *then) : Json();
}

Row row_of(const StoreObject &host)
{
    const bool active = host.get("Active") == "1";
    const char *ipv6 = host.get("IPv6Address").empty() ? "IPv6LLAddress" : "IPv6Address";
    return {.cells = {host.instance, host_name(host), host.get("MACAddress"), host.get("IPAddress"),
                      host.get("AddressSource"), host.get(ipv6), type_of(host), port_of(host),
                      seconds_since(host, active), active, host.parameters},
            .dim = !active};
}

} // namespace

std::span<const Column> host_columns()
{
    return HOST_COLUMNS;
}

std::vector<Row> host_rows()
{
    const std::vector<StoreObject> hosts = read_objects(HOSTS_PATH);
    std::vector<Row> rows(hosts.size());
    std::ranges::transform(hosts, rows.begin(), row_of);
    return rows;
}

std::string host_name(const StoreObject &host)
{
    return std::string(host.get(host.get("HostAlias").empty() ? "HostName" : "HostAlias"));
}

void add_hosts_command(CLI::App &app)
{
    add_table_command(app, "hosts", "Show the LAN hosts", HOST_COLUMNS, host_rows)
        ->footer(
            "HOST is the instance number of the host's object. SINCE counts from when the host came or, if\n"
            "it is no longer active, from when it went. A narrow terminal shows fewer columns, unless -o\n"
            "names them; --json brings all parameters as well.");
}
