#include "tools/report.h"

#include <algorithm>
#include <cstdarg>
#include <map>
#include <string_view>

#include "tools/ctl_history.h"
#include "tools/text.h"

namespace {

constexpr int NO_VLAN = 4093; // stands for none
constexpr int64_t SECOND = 1'000'000;

// --- Text

// As it stands in HTML and XML, whatever a host calls itself.
std::string markup(std::string_view bytes)
{
    std::string out;
    for (const char c : printable(bytes)) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

// The same of at most so many columns.
std::string short_markup(std::string_view bytes, size_t columns)
{
    return markup(cut(printable(bytes), columns));
}

[[gnu::format(printf, 1, 2)]] std::string format(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, args);
    va_end(args);
    std::string out = length < 0 ? "" : text;
    free(text);
    return out;
}

std::string vlan_text(int vlan)
{
    return vlan == NO_VLAN ? "no VLAN" : "VLAN " + std::to_string(vlan);
}

std::string label_of(const ReportHost &host)
{
    return !host.name.empty() ? host.name : !host.address.empty() ? host.address : host.mac;
}

// All that is known of a host, on the lines of a tip.
std::string tip_of(const ReportHost &host)
{
    std::string tip = markup(label_of(host));
    for (const std::string &more : {host.mac, host.address, host.ipv6}) {
        tip += more.empty() ? "" : "\n" + markup(more);
    }
    return tip + (host.on_line ? "\non line" : "\noff line") +
           (host.since.empty() ? "" : " since " + markup(host.since));
}

// --- The picture: connections to the left, the gateway, ports and their hosts to the right

constexpr int LINE = 18;
constexpr int PADDING = 10;
constexpr int GAP = 12;       // between boxes
constexpr int CHIP = 24;      // a host's height
constexpr int DOT = 16;       // of a host among many
constexpr size_t MANY = 24;   // hosts of a port, which then are dots
constexpr int LETTER = 7;     // about a column's width
constexpr size_t COLOURS = 6; // of connections

struct Layout {
    int width;
    int connection; // widths of boxes
    int bus;        // the lines between them
    int chip;

    int gateway() const { return connection + bus / 2; }
    int ports() const { return connection + bus; }
    int port() const { return width - ports(); }
};
constexpr Layout WIDE = {.width = 1000, .connection = 250, .bus = 116, .chip = 146};
constexpr Layout NARROW = {.width = 340, .connection = 112, .bus = 48, .chip = 160};

class Picture {
public:
    Picture(const Report &report, const Layout &layout) : report_(report), layout_(layout) {}
    std::string draw();

private:
    struct Spot { // a connection's place
        const ReportConnection *connection;
        int y;
        size_t colour;
    };

    void draw_connection(const ReportConnection &connection);
    void draw_port(const ReportPort &port, const std::vector<const ReportHost *> &hosts);
    void draw_hosts(const std::vector<const ReportHost *> &hosts);
    void draw_binding(const ReportBinding &binding);
    void text(const char *classes, int x, int y, std::string_view words, int width);

    const Report &report_;
    const Layout &layout_;
    int y_ = 0;
    std::vector<Spot> spots_;
    std::string lines_; // below the boxes
    std::string boxes_;
};

void Picture::text(const char *classes, int x, int y, std::string_view words, int width)
{
    boxes_ += format("<text class=\"%s\" x=\"%d\" y=\"%d\">%s</text>\n", classes, x, y,
                     short_markup(words, static_cast<size_t>(width / LETTER)).c_str());
}

void Picture::draw_connection(const ReportConnection &connection)
{
    constexpr int height = 2 * PADDING + 2 * LINE;
    const size_t colour = spots_.size() % COLOURS;
    boxes_ += format("<rect class=\"box %s\" x=\"1\" y=\"%d\" width=\"%d\" height=\"%d\" rx=\"6\"/>\n",
                     connection.enabled ? "" : "off", y_, layout_.connection - 2, height);
    boxes_ += format("<rect class=\"w%zu\" x=\"1\" y=\"%d\" width=\"5\" height=\"%d\" rx=\"2\"/>\n",
                     connection.enabled ? colour : COLOURS, y_, height);
    const int room = layout_.connection - 2 * PADDING - 6;
    std::string_view services = connection.services;
    text("strong", PADDING + 4, y_ + PADDING + 12, services.empty() ? "no service" : services, room);
    std::string more = vlan_text(connection.vlan);
    if (layout_.width == WIDE.width) {
        more += std::string(connection.bridged ? ", bridged, " : ", routed, ") + connection.kind;
        more += connection.priority != 0 ? ", priority " + std::to_string(connection.priority) : "";
    }
    text("dim", PADDING + 4, y_ + PADDING + 12 + LINE, connection.enabled ? more : "disabled", room);
    const int middle = y_ + height / 2;
    if (connection.enabled) {
        spots_.push_back({&connection, middle, colour});
        if (!connection.bridged) {
            lines_ += format("<path class=\"plain\" d=\"M%d %dH%d\"/>\n", layout_.connection, middle,
                             layout_.gateway());
        }
    }
    y_ += height + GAP;
}

void Picture::draw_binding(const ReportBinding &binding)
{
    const auto spot = std::ranges::find(spots_, binding.wan_vlan,
                                        [](const Spot &candidate) { return candidate.connection->vlan; });
    const bool carried = spot != spots_.end();
    const int y = y_ - 4;
    if (carried) {
        const int from = layout_.connection;
        const int to = layout_.ports();
        const int middle = (from + to) / 2;
        lines_ += format("<path class=\"bound l%zu\" d=\"M%d %dC%d %d %d %d %d %d\"/>\n", spot->colour, from,
                         spot->y, middle, spot->y, middle, y, to, y);
    } else {
        lines_ += format("<path class=\"bound lost\" d=\"M%d %dh-16\"/>\n", layout_.ports(), y);
    }
    const std::string words = vlan_text(binding.lan_vlan) + " → " + vlan_text(binding.wan_vlan) +
                              (carried ? "" : ", which nobody carries");
    text(carried ? "dim" : "bad", layout_.ports() + PADDING, y_, words, layout_.port() - 2 * PADDING);
    y_ += LINE;
}

// An element of its own cuts off what is too long in the reader's font.
void Picture::draw_hosts(const std::vector<const ReportHost *> &hosts)
{
    const bool many = hosts.size() > MANY;
    const int room = layout_.port() - 2 * PADDING;
    const int step_x = many ? DOT + 4 : layout_.chip + 6;
    const int step_y = many ? DOT + 4 : CHIP + 6;
    const int columns = std::max(1, (room + 6) / step_x);
    for (size_t i = 0; i < hosts.size(); ++i) {
        const ReportHost &host = *hosts[i];
        const int x = layout_.ports() + PADDING + static_cast<int>(i) % columns * step_x;
        const int y = y_ + static_cast<int>(i) / columns * step_y;
        const int width = many ? DOT : std::min(layout_.chip, room);
        const int height = many ? DOT : CHIP;
        boxes_ += format("<svg x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\"><title>%s</title>", x, y, width,
                         height, tip_of(host).c_str());
        boxes_ += format("<rect class=\"host %s\" x=\"1\" y=\"1\" width=\"%d\" height=\"%d\" rx=\"4\"/>",
                         host.on_line ? "on" : "off", width - 2, height - 2);
        if (!many) {
            boxes_ +=
                format("<circle class=\"%s\" cx=\"12\" cy=\"12\" r=\"4\"/><text x=\"22\" y=\"16\">%s"
                       "</text>",
                       host.on_line ? "up" : "gone",
                       short_markup(label_of(host), static_cast<size_t>((width - 28) / LETTER)).c_str());
        }
        boxes_ += "</svg>\n";
    }
    y_ += (static_cast<int>(hosts.size()) + columns - 1) / columns * step_y;
}

void Picture::draw_port(const ReportPort &port, const std::vector<const ReportHost *> &hosts)
{
    const int top = y_;
    const size_t at = boxes_.size();
    y_ += PADDING + 12;
    text("strong", layout_.ports() + PADDING, y_, port.name.empty() ? "elsewhere" : port.name, 100);
    std::string state = !port.link ? "" : *port.link ? "link up" : "no link";
    if (hosts.size() > MANY) {
        state = std::to_string(hosts.size()) + " hosts";
    }
    boxes_ += format("<text class=\"dim end\" x=\"%d\" y=\"%d\">%s</text>\n", layout_.width - PADDING, y_,
                     state.c_str());
    if (port.bindings.empty()) {
        lines_ +=
            format("<path class=\"plain\" d=\"M%d %dH%d\"/>\n", layout_.gateway(), y_ - 4, layout_.ports());
    }
    y_ += LINE;
    for (const ReportBinding &binding : port.bindings) {
        draw_binding(binding);
    }
    y_ += PADDING - LINE;
    draw_hosts(hosts);
    y_ += hosts.empty() ? 0 : PADDING - 6;
    boxes_.insert(
        at, format("<rect class=\"box %s\" x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" rx=\"6\"/>\n",
                   port.link == false ? "off" : "", layout_.ports(), top, layout_.port() - 1, y_ - top));
    y_ += GAP;
}

std::string Picture::draw()
{
    constexpr int top = 1;
    y_ = top;
    for (const ReportConnection &connection : report_.connections) {
        draw_connection(connection);
    }
    const int connections_end = y_;
    y_ = top;
    std::map<std::string_view, std::vector<const ReportHost *>> hosts;
    for (const ReportHost &host : report_.hosts) {
        hosts[host.port].push_back(&host);
    }
    for (const ReportPort &port : report_.ports) {
        draw_port(port, hosts[port.name]);
    }
    const int height = std::max({connections_end, y_, top + GAP + 40}) - GAP + 1;
    const int bar = 16;
    return format("<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"%s\" viewBox=\"0 0 %d %d\" role=\"img\" "
                  "aria-label=\"Connections, gateway, ports and hosts\">\n",
                  layout_.width == WIDE.width ? "wide" : "narrow", layout_.width, height) +
           format("<rect class=\"gateway\" x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" rx=\"6\"/>"
                  "\n<text class=\"dim\" transform=\"translate(%d %d) rotate(-90)\">gateway"
                  "</text>\n",
                  layout_.gateway() - bar / 2, top, bar, height - 2 * top, layout_.gateway() + 4,
                  height - 10) +
           lines_ + boxes_ + "</svg>\n";
}

// --- Styles

constexpr char PICTURE_STYLE[] = R"(
:root { color-scheme: light dark; --ground: #fff; --ink: #1b1f24; --dim: #5b6470; --line: #c9d0d8; --box: #f5f7f9;
  --on: #d9f2e1; --up: #1a7f43; --gone: #8a939e; --bad: #b3261e; --warn: #8a5a00; --bar: #dfe4ea;
  --w0: #2563c9; --w1: #b3471b; --w2: #7b3fb5; --w3: #0f7c85; --w4: #a3316f; --w5: #6a6d13; }
@media (prefers-color-scheme: dark) { :root { --ground: #14181d; --ink: #e6eaef; --dim: #9aa5b1; --line: #3a434d;
  --box: #1d232a; --on: #173b26; --up: #4cc27a; --gone: #7d8793; --bad: #ff8a80; --warn: #f0b94a; --bar: #2b333c;
  --w0: #6ea3f7; --w1: #f0936a; --w2: #bd8cf0; --w3: #4fc0c9; --w4: #ee84bb; --w5: #c2c65a; } }
svg text { font: 12px system-ui, sans-serif; fill: var(--ink); }
svg .strong { font-weight: 600; } svg .dim { fill: var(--dim); } svg .bad { fill: var(--bad); }
svg .end { text-anchor: end; }
.box { fill: var(--box); stroke: var(--line); } .box.off { stroke-dasharray: 4 3; fill: none; }
.gateway { fill: var(--bar); }
.host.on { fill: var(--on); stroke: var(--up); } .host.off { fill: none; stroke: var(--gone); stroke-dasharray: 3 2; }
circle.up { fill: var(--up); } circle.gone { fill: none; stroke: var(--gone); }
path { fill: none; } .plain { stroke: var(--line); stroke-width: 2; } .bound { stroke-width: 2.5; }
.lost { stroke: var(--bad); stroke-dasharray: 3 3; }
.w0 { fill: var(--w0); } .w1 { fill: var(--w1); } .w2 { fill: var(--w2); } .w3 { fill: var(--w3); }
.w4 { fill: var(--w4); } .w5 { fill: var(--w5); } .w6 { fill: var(--gone); }
.l0 { stroke: var(--w0); } .l1 { stroke: var(--w1); } .l2 { stroke: var(--w2); } .l3 { stroke: var(--w3); }
.l4 { stroke: var(--w4); } .l5 { stroke: var(--w5); }
)";

constexpr char PAGE_STYLE[] = R"(
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 1060px; padding: 24px 30px 48px; background: var(--ground); color: var(--ink);
  font: 14px/1.45 system-ui, sans-serif; overflow-wrap: break-word; }
h1 { font-size: 22px; margin: 0; } h2 { font-size: 16px; margin: 32px 0 10px; } p { margin: 8px 0 0; }
.dim, small { color: var(--dim); } small { display: block; font-size: 12px; }
.bad { color: var(--bad); } .warn { color: var(--warn); } .good { color: var(--up); }
svg { display: block; width: 100%; height: auto; } svg.narrow { display: none; }
ul { list-style: none; margin: 0; padding: 0; } li { padding: 3px 0; display: grid; grid-template-columns: 4.8em 1fr; }
table { border-collapse: collapse; width: 100%; } th { text-align: left; font-weight: 600; color: var(--dim); }
th, td { padding: 5px 12px 5px 0; border-bottom: 1px solid var(--line); vertical-align: top; }
th:last-child, td:last-child { padding-right: 0; }
.state, small { overflow-wrap: anywhere; } td, th { white-space: nowrap; }
.state, small, td:nth-child(3) { white-space: normal; }
.gone td { color: var(--dim); } .state::before { content: "●"; margin-right: 6px; color: var(--up); }
.gone .state::before { content: "○"; color: var(--gone); }
.bars { display: grid; grid-template-columns: minmax(90px, 22%) 1fr; gap: 3px 12px; align-items: center; }
.bars span { overflow: hidden; text-overflow: ellipsis; white-space: nowrap; }
.bars svg { height: 14px; background: var(--box); border-radius: 3px; } .stay { fill: var(--gone); }
.stay.on { fill: var(--up); } .ends { display: flex; justify-content: space-between; color: var(--dim); }
@media (max-width: 640px) { body { padding: 16px 10px 32px; } svg.wide { display: none; } svg.narrow { display: block; }
  table { font-size: 12px; } small { font-size: 11px; } th, td { padding-right: 8px; } }
)";

// --- The page

constexpr char LEGEND[] = "<p class=\"dim\">Green is on line, dashed is off line, without link or disabled. "
                          "A line in a connection's "
                          "colour is a VLAN bound to it; all else goes by the gateway.</p>\n";

std::string section(const char *title, const std::string &content)
{
    return format("<section>\n<h2>%s</h2>\n", title) + content + "</section>\n";
}

std::string summary(const Report &report)
{
    const auto on_line = std::ranges::count_if(report.hosts, &ReportHost::on_line);
    return format("<header>\n<h1>%s</h1>\n<p class=\"dim\">%s, %zu hosts, %td on line</p>\n</header>\n",
                  markup(report.title).c_str(), markup(report.time).c_str(), report.hosts.size(), on_line);
}

std::string findings(const Report &report)
{
    static constexpr const char *colours[] = {"good", "warn", "bad"};
    std::string out = "<ul>\n";
    for (const Finding &finding : report.findings) {
        out +=
            format("<li><b class=\"%s\">%s</b> %s: %s</li>\n", colours[static_cast<size_t>(finding.severity)],
                   severity_word(finding.severity), finding.subject, markup(finding.text).c_str());
    }
    return out + "</ul>\n";
}

std::string host_table(const Report &report)
{
    std::string out =
        "<table>\n<thead><tr><th>Host</th><th>Address</th><th>Port</th><th>Since</th></tr></thead>\n"
        "<tbody>\n";
    for (const ReportHost &host : report.hosts) {
        const std::string mac = host.name.empty() ? "" : markup(host.mac) + " ";
        out += format(
            "<tr%s><td class=\"state\">%s<small>%s%s</small></td><td>%s<small>%s</small></td><td>%s</td>"
            "<td>%s</td></tr>\n",
            host.on_line ? "" : " class=\"gone\"", markup(host.name.empty() ? host.mac : host.name).c_str(),
            mac.c_str(), markup(host.type).c_str(), markup(host.address).c_str(), markup(host.ipv6).c_str(),
            markup(host.port).c_str(), markup(host.since).c_str());
    }
    return out + "</tbody>\n</table>\n";
}

// A row's width stands for the whole time, in thousandths.
std::string bar_of(const std::vector<const Stay *> &stays, const Report &report, int64_t end)
{
    constexpr double whole = 1000;
    constexpr double least = 2; // a moment shows too
    const History &history = report.history;
    const auto place = [&](int64_t wall) {
        return whole * static_cast<double>(std::clamp(wall, report.since, end) - report.since) /
               static_cast<double>(std::max<int64_t>(end - report.since, 1));
    };
    std::string out = "<svg viewBox=\"0 0 1000 14\" preserveAspectRatio=\"none\">";
    for (const Stay *stay : stays) {
        const double from = place(history.wall_from(*stay));
        const double width = std::max(least, place(history.wall_to(*stay)) - from);
        out += format("<rect class=\"stay%s\" x=\"%.1f\" y=\"0\" width=\"%.1f\" height=\"14\"><title>",
                      stay->to ? "" : " on", std::min(from, whole - least), width);
        out += time_text(history.wall_from(*stay), end) + " to " +
               (stay->to ? time_text(history.wall_to(*stay), end) : "now");
        for (const auto *more : {&stay->places, &stay->addresses}) {
            out += more->empty() ? "" : "\n" + markup(more->back());
        }
        out += stay->why.empty() ? "" : "\n" + markup(stay->why);
        out += "</title></rect>";
    }
    return out + "</svg>\n";
}

std::string timeline(const Report &report)
{
    if (!report.no_timeline.empty()) {
        return "<p class=\"dim\">" + markup(report.no_timeline) + "</p>\n";
    }
    const int64_t end = std::max(report.history.last_wall(), report.since + SECOND);
    std::string out = "<div class=\"bars\">\n<span></span><div class=\"ends\"><span>" +
                      time_text(report.since, end) + "</span><span>" + time_text(end, end) +
                      "</span></div>\n";
    for (const auto &[label, stays] : stays_by_host(report.stays)) {
        out += "<span title=\"" + markup(format_mac(stays.front()->mac)) + "\">" + markup(label) + "</span>" +
               bar_of(stays, report, end);
    }
    return out + "</div>\n";
}

} // namespace

std::string report_picture(const Report &report)
{
    std::string picture = Picture(report, WIDE).draw();
    const std::string style =
        std::string("<style>") + PICTURE_STYLE + "svg { background: var(--ground); }\n</style>\n";
    return picture.insert(picture.find('\n') + 1, style);
}

std::string report_page(const Report &report)
{
    std::string out = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
                      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
                      "style-src 'unsafe-inline'\">\n"
                      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
                      markup(report.title) + "</title>\n<style>" + PICTURE_STYLE + PAGE_STYLE +
                      "</style>\n</head>\n<body>\n" + summary(report);
    out += section("Findings", findings(report));
    out += section("Connections, ports and hosts",
                   Picture(report, WIDE).draw() + Picture(report, NARROW).draw() + LEGEND);
    out += section("Hosts", host_table(report));
    out += section("Time line", timeline(report));
    return out + "</body>\n</html>\n";
}
