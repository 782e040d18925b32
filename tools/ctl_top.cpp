// ovanictl top: the hosts, the ports and the events of the gateway, live.

#include "tools/ovanictl.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <deque>
#include <exception>
#include <memory>
#include <utility>
#include <vector>

#include "tools/bus.h"
#include "tools/ctl_hosts.h"
#include "tools/ctl_ports.h"
#include "tools/doctor.h"
#include "tools/events.h"
#include "tools/screen.h"

namespace {

constexpr int REFRESH_MS = 1000; // durations tick, and a change that nobody announced shows up
constexpr int CHANGE_MS = 50;    // gathers the announcements of one burst
constexpr int HEALTH_MS = 3000;  // between looks: while somebody does not answer, each takes a second
constexpr size_t EVENTS_KEPT = 1000;
constexpr size_t FOLDED_AMONG = 16; // the latest, where what repeats becomes one
constexpr size_t LONGEST_FILTER = 64;
constexpr int ROWS_FOR_NOTE = 16; // a smaller screen has none to spare

constexpr wint_t BACKSPACE = 8;
constexpr wint_t ESCAPE = 27;
constexpr wint_t DELETE = 127;

constexpr char SHORT_HELP[] = "q quit  ? keys  / filter  < > r sort  Tab pane  Enter object";
const TableLine HELP_LINES[] = {
    {"q, Ctrl-C          quit"},
    {"Ctrl-Z             give the terminal back, until \"fg\""},
    {"Up, Down           another host; in the other panes, a row on"},
    {"PgUp, PgDn         a page on"},
    {"Home, End          the first, the last"},
    {"Tab                another pane: hosts, ports, events"},
    {"Enter              the object of the chosen host"},
    {"/                  only hosts and events with the text that follows; Enter keeps it, Esc drops it"},
    {"<, >, Left, Right  sort the hosts by another column"},
    {"r                  the other way round"},
    {"Esc                back; drop the filter"},
};

// --- Panes

struct Content {
    std::string title;
    std::string heading; // may be empty
    std::vector<TableLine> lines;

    size_t frame() const { return heading.empty() ? 1 : 2; }
    size_t height() const { return frame() + lines.size(); }
};

// Which of its lines are in sight. The counts are those of the last time it was drawn.
struct Pane {
    size_t first = 0;
    bool to_end = false; // stays with the last line
    size_t lines = 0;
    size_t room = 1;

    size_t last_first() const { return lines > room ? lines - room : 0; }
    void settle() { first = to_end ? last_first() : std::min(first, last_first()); }
    void show(size_t line) { first = std::clamp(first, line >= room ? line - room + 1 : 0, line); }
};

// The first three share the screen, the others have it to themselves.
enum PaneNumber : size_t { HOSTS, PORTS, EVENTS, OBJECT, HELP, PANES };
constexpr size_t SHARING = 3;

// Rows of the screen for each pane; none where there are too few. The pane with the focus comes first, and
// takes twice when they share what is left.
std::array<size_t, SHARING> share_rows(size_t rows, size_t focus,
                                       const std::array<Content, SHARING> &contents)
{
    std::array<size_t, SHARING> heights{};
    const auto give = [&](size_t pane, size_t wanted) {
        wanted = std::min(wanted, contents[pane].height() - heights[pane]);
        if (wanted == 0 || wanted > rows) {
            return false;
        }
        heights[pane] += wanted;
        rows -= wanted;
        return true;
    };
    for (size_t i = 0; i < SHARING; ++i) {
        const size_t pane = (focus + i) % SHARING;
        give(pane, contents[pane].frame() + 1);
    }
    for (bool given = true; given;) {
        given = false;
        for (const size_t pane : {focus, size_t{HOSTS}, size_t{PORTS}, size_t{EVENTS}}) {
            given |= heights[pane] > 0 && give(pane, 1);
        }
    }
    return heights;
}

int instance_of(const Row &row)
{
    return row.cells[HOST_INSTANCE].get<int>();
}

Content table_content(std::string title, const std::vector<TableLine> &lines, const char *none)
{
    Content content{std::move(title), lines.front().text, {lines.begin() + 1, lines.end()}};
    if (content.lines.empty()) {
        content.lines.push_back({.text = none});
    }
    return content;
}

// --- Sorting and filtering

bool comes_before(const Json &a, const Json &b)
{
    if (!a.is_string() || !b.is_string()) {
        return a < b;
    }
    return strverscmp(a.get_ref<const std::string &>().c_str(), b.get_ref<const std::string &>().c_str()) < 0;
}

std::wstring folded(std::string_view text)
{
    const std::string printed = printable(text);
    std::wstring out(printed.size() + 1, L'\0');
    const size_t length = mbstowcs(out.data(), printed.c_str(), out.size());
    out.resize(length == SIZE_MAX ? 0 : length);
    std::ranges::transform(out, out.begin(), towlower);
    return out;
}

bool contains(std::string_view text, std::string_view part)
{
    return folded(text).find(folded(part)) != std::wstring::npos;
}

// --- The screen

// An event, or something said on our own standard error.
struct Happening {
    std::string line;
    int instance = 0; // of the host it is about, where it names one
    std::string host; // what people call that
    std::string time;
    unsigned times = 1;

    bool operator==(const Happening &other) const { return line == other.line && instance == other.instance; }
};

class Top {
public:
    Top(const CtlOptions &options, std::string note);
    void run();

private:
    // What there is
    void add_event(const char *name, blob_attr *msg);
    void add_happening(Happening happening);
    void refresh();
    void look_after_health();
    void read_store();
    void name_hosts(const std::vector<Row> &rows);

    // What of it is chosen
    void select_hosts();
    size_t chosen_row() const;
    void choose(size_t row) { chosen_ = shown_.empty() ? 0 : instance_of(shown_[row]); }

    // What is shown
    void draw();
    void draw_pane(int row, size_t height, const Content &content, PaneNumber number);
    std::string health() const;
    Content hosts_content() const;
    Content ports_content() const;
    Content events_content() const;
    Content object_content() const;

    // What the keys do
    void take_key(int kind, wint_t key);
    void take_named_key(wint_t key);
    void take_filter_key(wint_t key);
    void take_command(wint_t key);
    void look_at(PaneNumber pane);
    void sort_by(size_t column, bool backwards);

    const CtlOptions &options_;
    const std::string note_;
    Screen screen_;
    Bus bus_;
    Timer timer_{[this] { refresh(); }};
    bool change_due_ = false;
    Timer health_timer_{[this] { look_after_health(); }};

    Severity health_ = Severity::SOUND;
    bool examined_ = false;
    std::string health_since_;
    std::string worst_finding_;
    std::string store_fault_;
    std::vector<Row> hosts_;
    std::vector<Row> ports_;
    std::deque<Happening> events_; // newest last

    std::vector<Row> shown_; // the hosts that match the filter, sorted
    int chosen_ = 0;         // one's instance
    size_t chosen_before_ = 0;
    size_t sort_ = HOST_INSTANCE;
    bool backwards_ = false;
    std::string filter_;
    bool typing_ = false; // it

    std::array<Pane, PANES> panes_;
    PaneNumber focus_ = HOSTS;
};

Top::Top(const CtlOptions &options, std::string note)
    : options_(options), note_(std::move(note)), bus_(options.socket)
{
    screen_.on_key = [this](int kind, wint_t key) { take_key(kind, key); };
    screen_.on_change = [this] { draw(); };
    screen_.on_text = [this](const std::string &line) { add_happening({.line = printable(line)}); };
    bus_.on_connect = [this] {
        bus_.subscribe("*");
        health_timer_.set(0);
    };
    bus_.on_lost = [this] { health_timer_.set(0); };
    bus_.on_event = [this](const char *name, blob_attr *msg) { add_event(name, msg); };
    panes_[EVENTS].to_end = true;
}

void Top::run()
{
    bus_.start();
    look_after_health();
    refresh();
    uloop_run();
}

// --- What there is

void Top::add_event(const char *name, blob_attr *msg)
{
    const Json fields = decode_event(name, msg);
    add_happening({.line = event_line(name, fields), .instance = fields.value("instance", 0)});
}

void Top::add_happening(Happening happening)
{
    const auto latest = events_.end() - static_cast<long>(std::min(events_.size(), FOLDED_AMONG));
    const auto same = std::find(latest, events_.end(), happening);
    if (same != events_.end()) {
        happening.times += same->times;
        events_.erase(same);
    }
    happening.time = clock_text();
    events_.push_back(std::move(happening));
    if (events_.size() > EVENTS_KEPT) {
        events_.pop_front();
    }
    if (!change_due_) {
        change_due_ = true;
        timer_.set(CHANGE_MS);
    }
}

void Top::refresh()
{
    change_due_ = false;
    timer_.set(REFRESH_MS);
    read_store();
    select_hosts();
    draw();
}

void Top::look_after_health()
{
    const std::vector<Finding> findings = examine_daemon(options_.socket_or_null());
    const Finding &worst = *std::ranges::max_element(findings, {}, &Finding::severity);
    if (std::exchange(health_, worst.severity) != worst.severity && examined_) {
        health_since_ = " since " + clock_text();
    }
    examined_ = true;
    worst_finding_ = std::string(worst.subject) + ' ' + worst.text;
    health_timer_.set(HEALTH_MS);
}

void Top::read_store()
{
    const std::vector<Row> before = hosts_;
    try {
        require_store();
        hosts_ = host_rows();
        ports_ = port_rows();
        store_fault_.clear();
    } catch (const std::exception &e) {
        store_fault_ = e.what();
    }
    name_hosts(hosts_);
    name_hosts(before);
}

// An event's host is called what it was called when the event came: later its object may be gone, or
// another's.
void Top::name_hosts(const std::vector<Row> &rows)
{
    for (Happening &happening : events_) {
        if (happening.instance != 0 && happening.host.empty()) {
            const auto host = std::ranges::find(rows, happening.instance, instance_of);
            if (host != rows.end()) {
                const std::string name = cell_text(host->cells[HOST_NAME]);
                happening.host = name.empty() ? cell_text(host->cells[HOST_MAC]) : name;
            }
        }
    }
}

// --- What of it is chosen

void Top::select_hosts()
{
    chosen_before_ = chosen_row();
    shown_.clear();
    for (const Row &row : hosts_) {
        const auto fits = [&](const Json &cell) { return contains(cell_text(cell), filter_); };
        if (filter_.empty() || std::any_of(row.cells.begin(), row.cells.begin() + HOST_SINCE, fits)) {
            shown_.push_back(row);
        }
    }
    std::ranges::stable_sort(shown_, [this](const Row &a, const Row &b) {
        return backwards_ ? comes_before(b.cells[sort_], a.cells[sort_])
                          : comes_before(a.cells[sort_], b.cells[sort_]);
    });
    if (focus_ != OBJECT) {
        choose(chosen_row());
    }
}

// When the chosen host has gone, whoever has its place is chosen.
size_t Top::chosen_row() const
{
    const auto chosen = std::ranges::find(shown_, chosen_, instance_of);
    if (chosen != shown_.end()) {
        return static_cast<size_t>(chosen - shown_.begin());
    }
    return shown_.empty() ? 0 : std::min(chosen_before_, shown_.size() - 1);
}

// --- What is shown

std::string Top::health() const
{
    const std::string text = clock_text() + "  ovani: " + severity_word(health_) + health_since_;
    return health_ == Severity::SOUND ? text : text + ": " + printable(worst_finding_);
}

void Top::draw()
{
    screen_.begin();
    const int height = screen_.height();
    int row = 0;
    screen_.put(row++, health(),
                health_ == Severity::SOUND   ? screen_.good()
                : health_ == Severity::FAULT ? screen_.bad()
                                             : A_BOLD);
    if (!store_fault_.empty()) {
        screen_.put(row++, printable(store_fault_), screen_.bad());
    }
    if (!note_.empty() && height >= ROWS_FOR_NOTE) {
        screen_.put(row++, printable(note_), A_DIM);
    }
    const auto room = static_cast<size_t>(std::max(height - row - 1, 0));
    if (focus_ == OBJECT) {
        draw_pane(row, room, object_content(), OBJECT);
    } else if (focus_ == HELP) {
        draw_pane(row, room, {"KEYS", "", {std::begin(HELP_LINES), std::end(HELP_LINES)}}, HELP);
    } else {
        const std::array<Content, SHARING> contents = {hosts_content(), ports_content(), events_content()};
        const auto heights = share_rows(room, focus_, contents);
        for (const PaneNumber pane : {HOSTS, PORTS, EVENTS}) {
            draw_pane(row, heights[pane], contents[pane], pane);
            row += static_cast<int>(heights[pane]);
        }
    }
    const std::string filter = typing_ || !filter_.empty() ? "filter: " + printable(filter_) : "";
    screen_.put(height - 1, typing_ ? filter + "_" : filter + (filter.empty() ? "" : "  ") + SHORT_HELP,
                A_DIM);
    screen_.show();
}

void Top::draw_pane(int row, size_t height, const Content &content, PaneNumber number)
{
    Pane &pane = panes_[number];
    pane.lines = content.lines.size();
    if (height <= content.frame()) {
        return;
    }
    pane.room = height - content.frame();
    pane.settle();
    const size_t chosen = number == HOSTS ? chosen_row() : SIZE_MAX;
    if (number == HOSTS) {
        pane.show(chosen);
    }
    const size_t end = std::min(pane.first + pane.room, pane.lines);
    std::string title = content.title;
    if (pane.first > 0) {
        title += "   " + std::to_string(pane.first) + " rows above";
    }
    if (end < pane.lines) {
        title += "   " + std::to_string(pane.lines - end) + " more rows below";
    }
    screen_.put(row++, title, number == focus_ ? A_BOLD | A_REVERSE : A_BOLD);
    if (!content.heading.empty()) {
        screen_.put(row++, content.heading, A_BOLD);
    }
    for (size_t i = pane.first; i < end; ++i) {
        const TableLine &line = content.lines[i];
        screen_.put(row++, line.text, (line.dim ? A_DIM : A_NORMAL) | (i == chosen ? A_REVERSE : A_NORMAL));
    }
}

Content Top::hosts_content() const
{
    std::vector<Column> columns(host_columns().begin(), host_columns().end());
    const std::string title = std::string(columns[sort_].title) + (backwards_ ? "↑" : "↓");
    columns[sort_].title = title.c_str();
    columns[sort_].leaves = 0;
    const auto active = std::ranges::count(hosts_, false, &Row::dim);
    return table_content("HOSTS   " + std::to_string(hosts_.size()) + ", " + std::to_string(active) +
                             " active",
                         table_lines(columns, shown_, static_cast<size_t>(screen_.width())),
                         filter_.empty() ? "(no hosts)" : "(no such hosts)");
}

Content Top::ports_content() const
{
    return table_content("PORTS", table_lines(port_columns(), ports_, static_cast<size_t>(screen_.width())),
                         "(no ports)");
}

Content Top::events_content() const
{
    Content content{"EVENTS", "", {}};
    for (const Happening &happening : events_) {
        std::string line = happening.time;
        if (happening.times > 1) {
            line += " ×" + std::to_string(happening.times);
        }
        line += "  " + happening.line;
        if (!happening.host.empty()) {
            line += "  " + printable(happening.host);
        }
        if (filter_.empty() || contains(line, filter_)) {
            content.lines.push_back({std::move(line)});
        }
    }
    if (content.lines.empty()) {
        content.lines.push_back({filter_.empty() ? "(no events yet)" : "(no such events)"});
    }
    return content;
}

Content Top::object_content() const
{
    static constexpr Column columns[] = {{.title = "PARAMETER"}, {.title = "VALUE", .cut = true}};
    const auto host = std::ranges::find(hosts_, chosen_, instance_of);
    std::vector<Row> rows;
    if (host != hosts_.end()) {
        for (const auto &[name, value] : host->cells[HOST_PARAMETERS].items()) {
            rows.push_back({.cells = {name, value}});
        }
    }
    return table_content(std::string(HOSTS_PATH) + std::to_string(chosen_) + ".",
                         table_lines(columns, rows, static_cast<size_t>(screen_.width())),
                         "(this object is gone)");
}

// --- What the keys do

void Top::take_key(int kind, wint_t key)
{
    if (kind == KEY_CODE_YES && key != KEY_ENTER && key != KEY_BACKSPACE) {
        return take_named_key(key);
    }
    if (kind == KEY_CODE_YES) {
        key = key == KEY_ENTER ? L'\n' : DELETE;
    }
    typing_ ? take_filter_key(key) : take_command(key);
}

void Top::take_named_key(wint_t key)
{
    Pane &pane = panes_[focus_];
    const bool hosts = focus_ == HOSTS;
    const size_t last = hosts ? std::max<size_t>(shown_.size(), 1) - 1 : pane.last_first();
    const size_t from = hosts ? chosen_row() : pane.first;
    size_t to = 0;
    switch (key) {
    case KEY_UP:
        to = from - std::min<size_t>(from, 1);
        break;
    case KEY_DOWN:
        to = from + 1;
        break;
    case KEY_PPAGE:
        to = from - std::min(from, pane.room);
        break;
    case KEY_NPAGE:
        to = from + pane.room;
        break;
    case KEY_HOME:
        break;
    case KEY_END:
        to = last;
        break;
    case KEY_LEFT:
        return take_command('<');
    case KEY_RIGHT:
        return take_command('>');
    default:
        return;
    }
    to = std::min(to, last);
    if (hosts) {
        choose(to);
    } else {
        pane.first = to;
        pane.to_end = focus_ == EVENTS && to == last;
    }
}

void Top::take_filter_key(wint_t key)
{
    if (key == ESCAPE) {
        filter_.clear();
    }
    if (key == ESCAPE || key == '\n') {
        typing_ = false;
    } else if (key == DELETE || key == BACKSPACE) {
        while (!filter_.empty() && (filter_.back() & 0xc0) == 0x80) { // a character of several bytes
            filter_.pop_back();
        }
        filter_.resize(std::max<size_t>(filter_.size(), 1) - 1);
    } else if (iswprint(key) != 0 && filter_.size() < LONGEST_FILTER) {
        char bytes[MB_LEN_MAX];
        mbstate_t state{};
        const size_t length = wcrtomb(bytes, static_cast<wchar_t>(key), &state);
        filter_.append(bytes, length == SIZE_MAX ? 0 : length);
    }
    select_hosts();
}

void Top::take_command(wint_t key)
{
    constexpr size_t columns = HOST_PARAMETERS; // all but these are in the table
    switch (key) {
    case 'q':
        return uloop_end();
    case '?':
        return look_at(HELP);
    case '\t':
        return look_at(static_cast<PaneNumber>(focus_ < SHARING ? (focus_ + 1) % SHARING : HOSTS));
    case '\n':
        return look_at(focus_ < SHARING && !shown_.empty() ? OBJECT : HOSTS);
    case ESCAPE:
        if (focus_ < SHARING) {
            filter_.clear();
            select_hosts();
        }
        return look_at(HOSTS);
    case '/':
        look_at(HOSTS);
        typing_ = true;
        return;
    case '<':
        return sort_by((sort_ + columns - 1) % columns, false);
    case '>':
        return sort_by((sort_ + 1) % columns, false);
    case 'r':
        return sort_by(sort_, !backwards_);
    default:
        return;
    }
}

void Top::look_at(PaneNumber pane)
{
    focus_ = pane;
    if (pane >= SHARING) {
        panes_[pane].first = 0;
    }
}

void Top::sort_by(size_t column, bool backwards)
{
    sort_ = column;
    backwards_ = backwards;
    select_hosts();
}

} // namespace

void add_top_command(CLI::App &app, const CtlOptions &options)
{
    auto note = std::make_shared<std::string>();
    CLI::App *top = app.add_subcommand("top", "Show hosts, ports and events, live");
    top->add_option("--note", *note, "a line of text for the top of the screen");
    top->footer("Its keys: " + std::string(SHORT_HELP));
    top->callback([note, &options] {
        setenv("OVANI_LOG_LEVEL", "emerg", 0); // what is wrong stands on the screen
        uloop_init();
        Top(options, *note).run();
    });
}
