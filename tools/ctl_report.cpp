// ovanictl report: the gateway as one page, or a picture of it.

#include "tools/ovanictl.h" // CLI11 before libubox, whose macros take one of its names

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <sys/sysinfo.h>

#include "ovani/ovani_fd.h"
#include "ovani/ovani_operator.h"
#include "platform/qvdrv_pon_api.h"
#include "platform/zk_sys_mgr.h"
#include "tools/ctl_history.h"
#include "tools/objects.h"
#include "tools/report.h"
#include "tools/text.h"

namespace {

constexpr std::string_view DRIVER_PORTS = "InternetGatewayDevice.X_QV_Driver.LANPort.";
constexpr std::string_view WAN_DEVICES = "InternetGatewayDevice.WANDevice.1.WANConnectionDevice.";

constexpr int SSIDS = 8;

struct ReportCommand {
    std::string file = "-";
    std::string directory = journal_directory();
    std::string since;
    bool svg = false;
};

// --- WAN connections, as the daemon reads them

ReportConnection read_connection(const WanProfile &profile, int device, int index, int kind,
                                 const StoreObject &object)
{
    qv_wan_param read{};
    read_wan_connection(profile, &read, device, index, kind);
    return {.kind = kind == 1 ? "IP" : "PPP",
            .services = std::string(object.get(profile.service_list)),
            .vlan = read.vid,
            .priority = read.pbit,
            .bridged = read.brflag == BRIDGE,
            .enabled = object.get("Enable") == "1"};
}

std::vector<ReportConnection> read_connections(const WanProfile &profile)
{
    std::vector<ReportConnection> connections;
    for (const StoreObject &device : read_objects(WAN_DEVICES)) {
        const std::string path = std::string(WAN_DEVICES) + std::to_string(device.instance);
        for (const int kind : {1, 2}) {
            const char *table = kind == 1 ? ".WANIPConnection." : ".WANPPPConnection.";
            for (const StoreObject &object : read_objects(path + table)) {
                connections.push_back(
                    read_connection(profile, device.instance, object.instance, kind, object));
            }
        }
    }
    return connections;
}

// --- Ports and hosts

// "LAN1", "SSID 5", or nothing.
std::string port_of(const StoreObject &host)
{
    const std::string_view path = host.get("Layer2Interface");
    const std::string port(host.get("Port"));
    return path.find("LANEthernetInterfaceConfig.") != path.npos ? "LAN" + port
           : path.find("WLANConfiguration.") != path.npos        ? "SSID " + port
                                                                 : "";
}

ReportHost read_host(const StoreObject &host)
{
    struct sysinfo now {};
    sysinfo(&now);
    const bool active = host.get("Active") == "1";
    const auto then =
        parse_number(host.get(active ? "LatestActiveTime" : "LatestInactiveTime"), 0, now.uptime);
    return {.name = std::string(host.get(host.get("HostAlias").empty() ? "HostName" : "HostAlias")),
            .mac = std::string(host.get("MACAddress")),
            .address = std::string(host.get("IPAddress")),
            .ipv6 = std::string(host.get(host.get("IPv6Address").empty() ? "IPv6LLAddress" : "IPv6Address")),
            .port = port_of(host),
            .since = then ? format_duration(now.uptime - *then) : "",
            .on_line = active};
}

std::vector<ReportBinding> read_bindings(int port)
{
    std::vector<ReportBinding> bindings;
    for (const StoreObject &binding :
         read_objects(std::string(DRIVER_PORTS) + std::to_string(port) + ".VLANBinding.")) {
        bindings.push_back(
            {.lan_vlan = binding.instance,
             .wan_vlan = static_cast<int>(parse_number(binding.get("VLAN"), 0, 65535).value_or(0))});
    }
    return bindings;
}

std::optional<bool> link_of(int number)
{
    PON_ETH_PORT_LINK_STATUS_T status{.port_index = static_cast<uint32_t>(number)};
    return qvdrv_pon_get_eth_port_link_status(&status) == 0 ? std::optional(status.link_up == 1)
                                                            : std::nullopt;
}

// Every Ethernet port, and the SSIDs that are bound or have a host. The drivers number them behind the ports.
std::vector<ReportPort> read_ports(const std::vector<ReportHost> &hosts)
{
    devinfo info{};
    zk_sys_mgr_get_devinfo(&info);
    const int ethernet_ports = static_cast<int>(info.port_num);
    std::vector<ReportPort> ports;
    for (int number = 1; number <= ethernet_ports + SSIDS; ++number) {
        const bool ethernet = number <= ethernet_ports;
        ReportPort port = {.name = ethernet ? "LAN" + std::to_string(number)
                                            : "SSID " + std::to_string(number - ethernet_ports),
                           .link = ethernet ? link_of(number) : std::nullopt,
                           .bindings = read_bindings(number)};
        if (ethernet || !port.bindings.empty() ||
            std::ranges::count(hosts, port.name, &ReportHost::port) > 0) {
            ports.push_back(std::move(port));
        }
    }
    return ports;
}

// --- All of it

void read_timeline(const ReportCommand &command, Report &report)
{
    try {
        load_history(command.directory, report.history);
    } catch (const std::runtime_error &e) {
        report.no_timeline = e.what();
        return;
    }
    const History &history = report.history;
    report.since =
        command.since.empty() ? history.first_wall() : history.last_wall() - duration_argument(command.since);
    report.stays = history.stays();
    std::erase_if(report.stays, [&](const Stay &stay) { return history.wall_to(stay) < report.since; });
}

Report read_gateway()
{
    ovani_operator_type_init();
    const OperatorProfile &profile = operator_profile_or_default();
    Report report;
    report.title = std::string("Gateway of ") + profile.name;
    report.time = date_text();
    report.connections = read_connections(profile.wan);
    for (const StoreObject &host : read_objects(HOSTS_PATH)) {
        report.hosts.push_back(read_host(host));
    }
    report.ports = read_ports(report.hosts);
    return report;
}

void write_report(const ReportCommand &command)
{
    Report report = read_gateway();
    if (!command.svg) {
        read_timeline(command, report);
    }
    const std::string text = command.svg ? report_picture(report) : report_page(report);
    const bool to_stdout = command.file == "-";
    const UniqueFile file(to_stdout ? nullptr : fopen(command.file.c_str(), "we"));
    FILE *out = to_stdout ? stdout : file.get();
    if (out == nullptr || fwrite(text.data(), 1, text.size(), out) != text.size() || fflush(out) != 0) {
        fail(printable(command.file) + ": " + strerror(errno));
    }
}

} // namespace

void add_report_command(CLI::App &app)
{
    auto command = std::make_shared<ReportCommand>();
    CLI::App *report = app.add_subcommand("report", "Write the gateway down as one page for a browser");
    report->add_option("-o,--output", command->file, "the file; - for standard output")
        ->capture_default_str();
    report->add_flag("--svg", command->svg, "only the picture, as SVG");
    report->add_option("--since", command->since, "a time line of only the last 90s, 15m, 2h or 3d");
    report->add_option("-d,--directory", command->directory, "where the journal lies")->capture_default_str();
    report->footer("The page asks the network for nothing and runs no script.");
    report->callback([command] { write_report(*command); });
}
