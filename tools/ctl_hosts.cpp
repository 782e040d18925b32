// ovanictl hosts: the LAN hosts as the configuration store has them.

#include "tools/ovanictl.h" // CLI11 before libubox, whose macros take one of its names

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <deque>
#include <memory>
#include <vector>

#include <sys/ioctl.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "ovani/ovani_event.h"
#include "tools/bus.h"
#include "tools/ctl_ports.h"
#include "tools/events.h"
#include "tools/json.h"
#include "tools/objects.h"
#include "tools/table.h"
#include "tools/text.h"

namespace {

constexpr int REFRESH_MS = 1000; // durations tick, and a change that nobody announced shows up
constexpr int CHANGE_MS = 50;    // gathers the announcements of one burst
constexpr size_t EVENTS_KEPT = 200;

using Host = StoreObject;

bool is_active(const Host &host)
{
    return host.get("Active") == "1";
}

// X_QV_DeviceType's number tells more than DeviceType's word where it is set.
std::string type_of(const Host &host)
{
    static constexpr const char *words[] = {"",   "agent", "router", "phone", "pad",
                                            "PC", "OTT",   "camera", "IoT",   "slave AP"};
    const auto number = parse_number(host.get("X_QV_DeviceType"), 1, std::size(words) - 1);
    if (number) {
        return words[*number];
    }
    return host.get("DeviceType") == "OTHER" ? "" : std::string(host.get("DeviceType"));
}

std::string port_of(const Host &host)
{
    const std::string_view path = host.get("Layer2Interface");
    const std::string number(host.get("Port"));
    if (path.find("LANEthernetInterfaceConfig.") != std::string_view::npos) {
        return "LAN" + number;
    }
    if (path.find("WLANConfiguration.") != std::string_view::npos) {
        return "Wi-Fi " + number;
    }
    return "";
}

// Seconds since it came, or since it went; -1 when its time is not of this boot.
long seconds_since(const Host &host)
{
    struct sysinfo now {};
    sysinfo(&now);
    const auto then =
        parse_number(host.get(is_active(host) ? "LatestActiveTime" : "LatestInactiveTime"), 0, now.uptime);
    return then ? now.uptime - *then : -1;
}

std::string since_text(const Host &host)
{
    const long seconds = seconds_since(host);
    return seconds < 0 ? "" : format_duration(seconds);
}

Json host_json(const Host &host)
{
    return {{"instance", host.instance},
            {"name", host.get("HostName")},
            {"mac", host.get("MACAddress")},
            {"address", host.get("IPAddress")},
            {"source", host.get("AddressSource")},
            {"ipv6", host.get("IPv6Address")},
            {"type", type_of(host)},
            {"port", port_of(host)},
            {"active", is_active(host)},
            {"since", seconds_since(host)},
            {"parameters", host.parameters}};
}

constexpr std::array TITLES = {"NAME", "MAC", "ADDRESS", "SOURCE", "IPV6", "TYPE", "PORT", "SINCE", "ACTIVE"};

TableRow row_of(const Host &host)
{
    return {
        .cells = {std::string(host.get("HostName")), std::string(host.get("MACAddress")),
                  std::string(host.get("IPAddress")), std::string(host.get("AddressSource")),
                  std::string(host.get(host.get("IPv6Address").empty() ? "IPv6LLAddress" : "IPv6Address")),
                  type_of(host), port_of(host), since_text(host), is_active(host) ? "yes" : "no"},
        .dim = !is_active(host)};
}

std::vector<std::string> host_lines(const std::vector<Host> &hosts, const Style &style, size_t width)
{
    std::vector<TableRow> rows;
    rows.reserve(hosts.size());
    for (const Host &host : hosts) {
        rows.push_back(row_of(host));
    }
    std::vector<std::string> lines = table_lines(TITLES, rows, style, width);
    if (rows.empty()) {
        lines.emplace_back("(no hosts)");
    }
    return lines;
}

// How people know the host of an instance: by its name, or else its MAC.
std::string name_of(const std::vector<Host> &hosts, int instance)
{
    for (const Host &host : hosts) {
        if (host.instance == instance) {
            return "  " +
                   printable(host.get("HostName").empty() ? host.get("MACAddress") : host.get("HostName"));
        }
    }
    return instance == 0 ? "" : "  (gone)";
}

std::string summary(const std::vector<Host> &hosts)
{
    const auto active = std::count_if(hosts.begin(), hosts.end(), is_active);
    return std::to_string(hosts.size()) + (hosts.size() == 1 ? " host, " : " hosts, ") +
           std::to_string(active) + " active";
}

struct HostsCommand {
    bool json = false;
    bool watch = false;
    bool events = false;
    bool ports = false;
    std::string note;
};

// The table refreshed in place, on a screen of its own that goes away at the end. Without a terminal: the
// table again whenever it has changed.
class HostsView {
public:
    HostsView(const HostsCommand &command, const std::string &socket);
    void run();

private:
    void event(const char *name, blob_attr *msg);
    void refresh();
    void draw_screen(const std::vector<Host> &hosts);
    void print_changes(const std::vector<Host> &hosts);

    const HostsCommand command_;
    const bool on_terminal_ = isatty(STDOUT_FILENO) != 0;
    const Style style_ = style_for(STDOUT_FILENO);
    Bus bus_;
    Timer timer_{[this] { refresh(); }};
    struct Happening {
        std::string line;
        int instance = 0; // of the host it is about, where it names one
    };
    std::deque<Happening> events_; // newest last
    std::optional<std::vector<TableRow>> printed_;
    std::vector<std::string> printed_ports_;
};

HostsView::HostsView(const HostsCommand &command, const std::string &socket) : command_(command), bus_(socket)
{
    bus_.on_connect = [this] { bus_.subscribe(command_.events ? "*" : UBUS_EVENT_LANHOST_PARAM_CHANGE); };
    bus_.on_event = [this](const char *name, blob_attr *msg) { event(name, msg); };
}

void HostsView::run()
{
    if (on_terminal_) {
        fputs("\033[?1049h\033[?25l", stdout); // the other screen, no cursor
    }
    bus_.start();
    refresh();
    uloop_run();
    if (on_terminal_) {
        fputs("\033[?25h\033[?1049l", stdout);
    }
    fflush(stdout);
}

void HostsView::event(const char *name, blob_attr *msg)
{
    timer_.set(CHANGE_MS);
    if (!command_.events) {
        return;
    }
    const auto fields = decode_event(name, msg);
    Happening happening{clock_text() + "  " + event_line(name, fields), fields.value("instance", 0)};
    if (!on_terminal_) {
        puts(happening.line.c_str());
    }
    events_.push_back(std::move(happening));
    if (events_.size() > EVENTS_KEPT) {
        events_.pop_front();
    }
}

void HostsView::refresh()
{
    timer_.set(REFRESH_MS);
    const auto hosts = read_objects(HOSTS_PATH);
    if (on_terminal_) {
        draw_screen(hosts);
    } else {
        print_changes(hosts);
    }
    if (fflush(stdout) == EOF) {
        uloop_end();
    }
}

// Each line is drawn over the old one and its rest cleared: nothing flickers.
void HostsView::draw_screen(const std::vector<Host> &hosts)
{
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0;
    const size_t height = known ? size.ws_row : 24;
    const size_t width = known ? size.ws_col : 80;

    std::vector<std::string> lines = {std::string(style_.green) + "●" + style_.plain + " LAN hosts: " +
                                      summary(hosts) + (bus_.context() != nullptr ? "" : ", no broker")};
    if (!command_.note.empty()) {
        lines.push_back(style_.dim + printable(command_.note) + style_.plain);
    }
    lines.emplace_back();
    for (std::string &line : host_lines(hosts, style_, width)) {
        lines.push_back(std::move(line));
    }
    if (command_.ports) {
        lines.emplace_back();
        for (std::string &line : port_lines(style_, width)) {
            lines.push_back(std::move(line));
        }
    }
    if (command_.events && lines.size() + 3 < height) {
        lines.emplace_back();
        lines.push_back(std::string(style_.bold) + "EVENTS" + style_.plain);
        const size_t room = std::min(height - lines.size() - 1, events_.size());
        for (size_t i = events_.size() - room; i < events_.size(); ++i) {
            lines.push_back(style_.dim + events_[i].line + name_of(hosts, events_[i].instance) +
                            style_.plain);
        }
    }
    if (lines.size() >= height) {
        lines.resize(height - 1);
    }

    fputs("\033[H\033[?7l", stdout); // home; long lines are cut, not wrapped
    for (const std::string &line : lines) {
        printf("%s\033[K\n", line.c_str());
    }
    fputs("\033[J\033[?7h", stdout);
}

void HostsView::print_changes(const std::vector<Host> &hosts)
{
    constexpr size_t since = 7; // changes by itself
    std::vector<TableRow> rows;
    for (const Host &host : hosts) {
        rows.push_back(row_of(host));
        rows.back().cells[since].clear();
    }
    std::vector<std::string> ports;
    if (command_.ports) {
        ports = port_lines(style_, SIZE_MAX);
        ports.insert(ports.begin(), "");
    }
    if (rows == printed_ && ports == printed_ports_) {
        return;
    }
    printed_ = std::move(rows);
    printed_ports_ = ports;
    std::vector<std::string> lines = host_lines(hosts, style_, SIZE_MAX);
    lines.insert(lines.end(), ports.begin(), ports.end());
    print_lines(lines);
    putchar('\n');
}

void show_hosts(const HostsCommand &command, const std::string &socket)
{
    if (command.watch) {
        uloop_init();
        HostsView(command, socket).run();
        return;
    }
    const auto hosts = read_objects(HOSTS_PATH);
    if (command.json) {
        std::vector<Json> objects(hosts.size());
        std::ranges::transform(hosts, objects.begin(), host_json);
        print_json_rows(objects);
        return;
    }
    print_lines(host_lines(hosts, style_for(STDOUT_FILENO), terminal_width()));
}

} // namespace

void add_hosts_command(CLI::App &app, const CtlOptions &options)
{
    auto command = std::make_shared<HostsCommand>();
    CLI::App *hosts = app.add_subcommand("hosts", "Show the LAN hosts");
    hosts->footer("SINCE counts from when the host came or, if it is no longer active, from when it went.");
    CLI::Option *json = hosts->add_flag("--json", command->json, "as a JSON array, with all parameters");
    CLI::Option *watch =
        hosts->add_flag("-w,--watch", command->watch, "keep the table up to date until interrupted")
            ->excludes(json);
    hosts->add_flag("-e,--events", command->events, "and show the bus's events below it")->needs(watch);
    hosts->add_flag("-p,--ports", command->ports, "and the LAN ports below it")->needs(watch);
    hosts->add_option("--note", command->note, "a line of text for the top of the screen")->needs(watch);
    hosts->callback([command, &options] { show_hosts(*command, options.socket); });
}
