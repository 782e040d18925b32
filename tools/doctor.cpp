#include "tools/ovanictl.h"

#include "tools/doctor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string_view>
#include <thread>

#include <strings.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_host_index.h"
#include "ovani/ovani_lan_port_config.h"
#include "ovani/ovani_operator.h"
#include "platform/host/store.h"
#include "tools/bridge_state.h"
#include "tools/bus.h"
#include "tools/objects.h"
#include "tools/text.h"

namespace {

namespace fs = std::filesystem;
using Findings = std::vector<Finding>;

constexpr int PROMPT_MS = 1000;

std::string counted(size_t count, const char *one, const char *many)
{
    return std::to_string(count) + ' ' + (count == 1 ? one : many);
}

// The first few of many.
std::string listed(const std::vector<std::string> &names)
{
    constexpr size_t most = 4;
    std::string text;
    for (size_t i = 0; i < std::min(names.size(), most); ++i) {
        text += (i == 0 ? "" : ", ") + names[i];
    }
    return names.size() <= most ? text : text + " and " + std::to_string(names.size() - most) + " more";
}

// --- The daemon

// Seconds since a process began, or nothing when it is none of this network that carries the name.
std::optional<long> runs_since(const fs::path &process, std::string_view name)
{
    std::string stat;
    std::getline(std::ifstream(process / "stat"), stat);
    const size_t begin = stat.find('(');
    const size_t end = stat.rfind(')');
    if (end == std::string::npos || stat.substr(begin + 1, end - begin - 1) != name) {
        return std::nullopt;
    }
    std::error_code refused; // a path that is empty then
    if (fs::read_symlink(process / "ns/net", refused) != fs::read_symlink("/proc/self/ns/net")) {
        return std::nullopt;
    }
    std::istringstream fields(stat.substr(end + 1));
    std::string state;
    std::string skipped;
    fields >> state;
    for (int i = 0; i < 18; ++i) {
        fields >> skipped;
    }
    long started = 0; // proc(5): since boot, in ticks
    fields >> started;
    struct sysinfo now {};
    sysinfo(&now);
    return state == "Z" ? std::nullopt : std::optional(now.uptime - started / sysconf(_SC_CLK_TCK));
}

Finding find_process()
{
    std::vector<std::string> daemons;
    std::error_code vanished;
    for (const fs::directory_entry &entry : fs::directory_iterator("/proc", vanished)) {
        const std::string number = entry.path().filename();
        if (!parse_number(number, 1, INT32_MAX)) {
            continue;
        }
        if (const auto seconds = runs_since(entry.path(), "ovani")) {
            daemons.push_back("process " + number + ", for " + format_duration(*seconds));
        }
    }
    switch (daemons.size()) {
    case 0:
        return daemon_runs() ? Finding{Severity::SOUND, "daemon", "runs"}
                             : Finding{Severity::FAULT, "daemon", "does not run"};
    case 1:
        return {Severity::SOUND, "daemon", "runs: " + daemons.front()};
    default:
        return {Severity::FAULT, "daemon",
                std::to_string(daemons.size()) + " run, and both bind the ports: " + listed(daemons)};
    }
}

Finding find_object(ubus_context *bus)
{
    uint32_t id = 0;
    if (ubus_lookup_id(bus, "ovani", &id) != UBUS_STATUS_OK) {
        return {Severity::FAULT, "object", "there is no \"ovani\" on the bus"};
    }
    const Message nothing;
    const int status = ubus_invoke(bus, id, "are_you_listening", nothing.head(), nullptr, nullptr, PROMPT_MS);
    if (status == UBUS_STATUS_METHOD_NOT_FOUND) { // from the daemon itself
        return {Severity::SOUND, "object", "\"ovani\" answers"};
    }
    return {Severity::FAULT, "object", std::string("\"ovani\" does not answer: ") + ubus_strerror(status)};
}

// --- Those who tell it of devices

struct WatcherStatus {
    bool answered = false;
    bool sees_bridge = false;
    uint32_t daemon_silent_s = 0; // 0 while it listens
};

void take_status(ubus_request *request, int /*type*/, blob_attr *msg)
{
    static constexpr blobmsg_policy policy[] = {{"bridge", BLOBMSG_TYPE_BOOL},
                                                {"daemon_silent", BLOBMSG_TYPE_INT32}};
    blob_attr *fields[std::size(policy)] = {};
    blobmsg_parse(policy, std::size(policy), fields, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    if (fields[0] != nullptr && fields[1] != nullptr) {
        *static_cast<WatcherStatus *>(request->priv) = {true, blobmsg_get_bool(fields[0]),
                                                        blobmsg_get_u32(fields[1])};
    }
}

Finding find_watcher(ubus_context *bus, WatcherStatus &status)
{
    uint32_t id = 0;
    if (ubus_lookup_id(bus, "brwatch", &id) != UBUS_STATUS_OK) {
        return {Severity::WARNING, "watcher", "no ovani-brwatch is on the bus to tell of MACs and addresses"};
    }
    const Message nothing;
    ubus_invoke(bus, id, "status", nothing.head(), take_status, &status, PROMPT_MS);
    if (!status.answered) {
        return {Severity::FAULT, "watcher", "does not answer"};
    }
    if (!status.sees_bridge) {
        return {Severity::FAULT, "watcher", std::string("sees no ") + OVANI_BR_NAME};
    }
    return {Severity::SOUND, "watcher", "answers"};
}

// The hook leaves its trace where it remembers its clients.
Finding find_leases(const std::vector<StoreObject> &hosts)
{
    const char *directory = getenv("OVANI_DHCP_STATE");
    struct stat trace {};
    if (stat(directory != nullptr ? directory : "/var/run/ovani-dhcp", &trace) == 0) {
        return {Severity::SOUND, "leases",
                "the DHCP hook told its last one " + format_duration(time(nullptr) - trace.st_mtime) +
                    " ago"};
    }
    return {hosts.empty() ? Severity::SOUND : Severity::WARNING, "leases",
            "the DHCP hook has told none since the gateway started"};
}

// --- The store

std::string name_of(const StoreObject &host)
{
    const std::string_view name = host.get("HostName");
    return std::to_string(host.instance) + " (" + printable(name.empty() ? host.get("MACAddress") : name) +
           ')';
}

void find_in_store(const std::vector<StoreObject> &hosts, Findings &findings)
{
    const std::string entries = read_parameter("InternetGatewayDevice.LANDevice.1.Hosts.HostNumberOfEntries");
    if (entries != std::to_string(hosts.size())) {
        findings.push_back({Severity::FAULT, "store",
                            "HostNumberOfEntries is " + printable(entries) + ", but there are " +
                                counted(hosts.size(), "host", "hosts")});
    }
    std::set<std::string_view> macs;
    for (const StoreObject &host : hosts) {
        if (!macs.insert(host.get("MACAddress")).second) {
            findings.push_back(
                {Severity::FAULT, "store", "another host has the MAC of " + name_of(host) + " too"});
        }
    }
    const std::string ceiling = read_parameter("InternetGatewayDevice.LANDevice.1.Hosts.LANHostMaxNumber");
    const long room = parse_number(ceiling, 0, OVANI_MAX_HOST_ENTRIES).value_or(OVANI_MAX_HOST_ENTRIES);
    if (static_cast<long>(hosts.size()) >= room) {
        findings.push_back({Severity::WARNING, "store",
                            "full, with " + counted(hosts.size(), "host", "hosts") +
                                ": nobody new is taken (ovanictl delete --inactive makes room)"});
    }
    if (std::ranges::find(findings, std::string_view("store"), &Finding::subject) == findings.end()) {
        findings.push_back({Severity::SOUND, "store",
                            counted(hosts.size(), "host", "hosts") + " of " + std::to_string(room)});
    }
}

void find_on_bridge(const std::vector<StoreObject> &hosts, Findings &findings)
{
    const auto bridge = read_bridge(OVANI_BR_NAME);
    if (!bridge) {
        findings.push_back({Severity::WARNING, "hosts", "the kernel does not tell of the bridge"});
        return;
    }
    if (bridge->bridge == 0) {
        findings.push_back({Severity::FAULT, "hosts", std::string("there is no ") + OVANI_BR_NAME});
        return;
    }
    std::map<Mac, in_addr_t> neighbours;
    for (const auto &[address, mac] : bridge->neighbours) {
        neighbours.emplace(mac, address);
    }
    std::set<Mac> active;
    std::vector<std::string> unseen;
    for (const StoreObject &host : hosts) {
        const auto mac = parse_mac(host.get("MACAddress"));
        if (!mac || host.get("Active") != "1") {
            continue;
        }
        active.insert(*mac);
        if (!bridge->stations.contains(*mac) && !neighbours.contains(*mac)) {
            unseen.push_back(name_of(host));
        }
    }
    std::vector<std::string> unknown;
    for (const auto &[mac, port] : bridge->stations) {
        // Of a station that has left, the bridge knows for a while.
        const bool there = lan_port_of(port) != 0 || bridge->associations.contains(mac);
        if (there && neighbours.contains(mac) && !active.contains(mac)) {
            unknown.push_back(format_mac(mac) + " at " + port);
        }
    }
    if (!unseen.empty()) {
        findings.push_back(
            {Severity::WARNING, "hosts", "active, but neither bridge nor ARP know: " + listed(unseen)});
    }
    if (!unknown.empty()) {
        findings.push_back(
            {Severity::WARNING, "hosts", "known to bridge and ARP, but not active: " + listed(unknown)});
    }
    if (unseen.empty() && unknown.empty()) {
        findings.push_back(
            {Severity::SOUND, "hosts",
             counted(active.size(), "is", "are") + " active, and bridge and ARP know the same"});
    }
}

// --- Bindings, as the daemon reads them

bool is_bound(const LanEthIntfVlanBind &config)
{
    return config.VLAN[0] != '\0' && config.Mode[0] != '\0' && strcasecmp(config.VLAN, "NULL") != 0 &&
           strcmp(config.Mode, "0") != 0;
}

bool is_carried(int vlan)
{
    return std::ranges::any_of(std::span(s_vlanbind_wan_param).subspan(1),
                               [=](const qv_wan_param &wan) { return static_cast<int>(wan.vid) == vlan; });
}

void find_bindings(Findings &findings)
{
    ovani_operator_type_init();
    read_lan_port_count();
    const OperatorProfile &profile = operator_profile_or_default();
    g_read_wan_conn_cfg_by_index = profile.read_wan_connection;
    profile.read_wan_table();
    size_t bound = 0;
    const size_t ssids = profile.binding.wlan != nullptr ? read_objects(profile.binding.wlan).size() : 0;
    const int ports = std::min(ovani_lan_port_count() + static_cast<int>(ssids), MAX_LAN_BIND_PORT);
    for (int port = 1; port <= ports; ++port) {
        LanEthIntfVlanBind config{};
        profile.read_lan_binding(port, &config);
        int lan[MAX_VLAN_PAIRS] = {};
        int wan[MAX_VLAN_PAIRS] = {};
        const int count = is_bound(config) ? parse_lan_vlan_str(config.VLAN, lan, wan) : 0;
        for (int i = 0; i < count; ++i) {
            ++bound;
            if (lan[i] != 0 && wan[i] != 0 && !is_carried(wan[i])) {
                const int ssid = port - ovani_lan_port_count();
                findings.push_back({Severity::WARNING, "bindings",
                                    (ssid > 0 ? ssid_name(ssid) : lan_port_name(port)) +
                                        ": no connection carries WAN VLAN " + std::to_string(wan[i]) +
                                        ", to which LAN VLAN " + std::to_string(lan[i]) + " is bound"});
            }
        }
    }
    if (std::ranges::find(findings, std::string_view("bindings"), &Finding::subject) == findings.end()) {
        findings.push_back(
            {Severity::SOUND, "bindings",
             bound == 0 ? "none" : counted(bound, "leads", "lead") + " to connections that are there"});
    }
}

// --- Values that make no sense

void find_values(Findings &findings)
{
    StoreListing listing;
    if (const int result = store_list("", listing, STORE_WAIT_MS); result != STORE_OK) {
        throw std::runtime_error(store_strerror(result));
    }
    const DataModel &model = data_model();
    for (const auto &[path, value] : listing) {
        const size_t name = path.rfind('.') + 1;
        const ObjectRef object = data_model_find_object(model, std::string_view(path).substr(0, name));
        const ModelObject &known = data_model_object(object);
        const int parameter = data_model_find_parameter(known, std::string_view(path).substr(name));
        const ModelParameter &described = known.parameters[static_cast<size_t>(parameter)];
        if (!data_model_allows(described, value)) {
            std::string text = path;
            text.append(" is \"").append(value).append("\", none of ").append(described.values);
            findings.push_back({Severity::WARNING, "values", std::move(text)});
        }
    }
    if (std::ranges::find(findings, std::string_view("values"), &Finding::subject) == findings.end()) {
        findings.push_back({Severity::SOUND, "values", "make sense"});
    }
}

Findings examine_once(const char *socket)
{
    store_only_read();
    Findings findings = examine_daemon(socket);
    if (const std::string why = why_no_store(); !why.empty()) {
        findings.push_back({Severity::FAULT, "store", why});
        return findings;
    }
    try {
        const std::vector<StoreObject> hosts = read_objects(HOSTS_PATH);
        findings.push_back(find_leases(hosts));
        find_in_store(hosts, findings);
        find_on_bridge(hosts, findings);
        find_bindings(findings);
        find_values(findings);
    } catch (const std::exception &e) {
        findings.push_back({Severity::FAULT, "store", e.what()});
    }
    return findings;
}

} // namespace

// It holds its name as an abstract socket.
bool daemon_runs()
{
    std::ifstream sockets("/proc/net/unix");
    std::string line;
    while (std::getline(sockets, line)) {
        if (line.ends_with(" @ovani")) {
            return true;
        }
    }
    return false;
}

Findings examine_daemon(const char *socket)
{
    Findings findings;
    if (const std::string why = why_no_bus(socket); !why.empty()) {
        return {{Severity::FAULT, "bus", why}, find_process()};
    }
    const BusConnection bus = connect_bus(socket);
    if (!bus) {
        return {{Severity::FAULT, "bus", "the broker takes nobody in"}, find_process()};
    }
    WatcherStatus watcher;
    findings = {{Severity::SOUND, "bus", "the broker answers"},
                find_process(),
                find_object(bus.get()),
                find_watcher(bus.get(), watcher)};
    for (Finding &finding : std::span(findings).subspan(1, 2)) {
        if (finding.severity == Severity::FAULT && watcher.daemon_silent_s > 0) {
            finding.text += ", for " + format_duration(watcher.daemon_silent_s);
        }
    }
    return findings;
}

Findings examine(const char *socket)
{
    Findings findings = examine_once(socket);
    if (worst_of(findings) == Severity::SOUND) {
        return findings;
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
    return examine_once(socket);
}

Severity worst_of(const Findings &findings)
{
    return std::ranges::max(findings, {}, &Finding::severity).severity;
}

const char *severity_word(Severity severity)
{
    static constexpr const char *words[] = {"sound", "warning", "fault"};
    return words[static_cast<size_t>(severity)];
}
