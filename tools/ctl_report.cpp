// ovanictl report: the gateway as one page, or a picture of it.

#include "tools/ovanictl.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "ovani/ovani_fd.h"
#include "ovani/ovani_operator.h"
#include "tools/ctl_history.h"
#include "tools/ctl_hosts.h"
#include "tools/ctl_ports.h"
#include "tools/doctor.h"
#include "tools/objects.h"
#include "tools/report.h"
#include "tools/text.h"

namespace {

constexpr std::string_view WAN_DEVICES = "InternetGatewayDevice.WANDevice.1.WANConnectionDevice.";

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

ReportHost report_host(const Row &row)
{
    const auto text = [&](HostCell cell) { return cell_text(row.cells[cell]); };
    const Json &since = row.cells[HOST_SINCE];
    return {.name = text(HOST_NAME),
            .mac = text(HOST_MAC),
            .address = text(HOST_ADDRESS),
            .ipv6 = text(HOST_IPV6),
            .type = text(HOST_TYPE),
            .port = text(HOST_PORT),
            .since = since.is_null() ? "" : format_duration(since.get<long>()),
            .on_line = row.cells[HOST_ACTIVE] == true};
}

ReportPort report_port(const Row &row)
{
    ReportPort port = {.name = cell_text(row.cells[PORT_NAME]), .link = {}, .bindings = {}};
    if (const Json &link = row.cells[PORT_LINK]; link.is_boolean()) {
        port.link = link.get<bool>();
    }
    for (const Json &binding : row.cells[PORT_BINDINGS]) {
        const Json &vlan = binding["wan_vlan"];
        port.bindings.push_back({binding["lan_vlan"].get<int>(), vlan.is_null() ? 0 : vlan.get<int>()});
    }
    return port;
}

// Those that the drivers know, and where else a host is.
std::vector<ReportPort> report_ports(const std::vector<ReportHost> &hosts)
{
    std::vector<ReportPort> ports;
    for (const Row &row : port_rows()) {
        ports.push_back(report_port(row));
    }
    for (const ReportHost &host : hosts) {
        if (std::ranges::find(ports, host.port, &ReportPort::name) == ports.end()) {
            ports.push_back({.name = host.port, .link = {}, .bindings = {}});
        }
    }
    std::ranges::sort(ports, [](const ReportPort &a, const ReportPort &b) {
        return a.name.empty() != b.name.empty() ? b.name.empty()
                                                : strverscmp(a.name.c_str(), b.name.c_str()) < 0;
    });
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
    for (const Row &row : host_rows()) {
        report.hosts.push_back(report_host(row));
    }
    report.ports = report_ports(report.hosts);
    return report;
}

void write_report(const ReportCommand &command, const char *socket)
{
    Report report = read_gateway();
    if (!command.svg) {
        report.findings = examine(socket);
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

void add_report_command(CLI::App &app, const CtlOptions &options)
{
    auto command = std::make_shared<ReportCommand>();
    CLI::App *report = app.add_subcommand("report", "Write the gateway down as one page for a browser");
    report->add_option("-o,--output", command->file, "the file; - for standard output")
        ->capture_default_str();
    report->add_flag("--svg", command->svg, "only the picture, as SVG");
    report->add_option("--since", command->since, "a time line of only the last 90s, 15m, 2h or 3d");
    report->add_option("-d,--directory", command->directory, "where the journal lies")->capture_default_str();
    report->footer("The page asks the network for nothing and runs no script.");
    report->callback([command, &options] { write_report(*command, options.socket_or_null()); });
    report->parse_complete_callback(require_store);
}
