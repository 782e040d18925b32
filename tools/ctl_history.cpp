// ovanictl history, ovanictl timeline: who was on line when, from the journal's files.

#include "tools/ovanictl.h"

#include "tools/ctl_history.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>

#include <sys/ioctl.h>
#include <unistd.h>

#include "tools/objects.h"
#include "tools/table.h"

namespace {

constexpr int64_t SECOND = 1'000'000;

struct HistoryCommand {
    std::string directory = journal_directory();
    std::string host;
    std::string since;
    TableOptions table;
};

// --- Choosing

// An instance stands for the host that the store has there now.
std::string host_argument(const std::string &host)
{
    const auto instance = parse_number(host, 1, INT32_MAX);
    if (!instance) {
        return host;
    }
    for (const StoreObject &object : read_objects(HOSTS_PATH)) {
        if (object.instance == *instance) {
            return std::string(object.get("MACAddress"));
        }
    }
    fail("there is no host " + host);
}

// The stays that were asked for and, in `since`, from when on.
std::vector<Stay> chosen_stays(const HistoryCommand &command, const History &history, int64_t &since)
{
    since =
        command.since.empty() ? history.first_wall() : history.last_wall() - duration_argument(command.since);
    const std::string host = host_argument(command.host);
    std::vector<Stay> stays = history.stays();
    std::erase_if(stays, [&](const Stay &stay) {
        return history.wall_to(stay) < since || (!host.empty() && !stay.is_of(host));
    });
    if (stays.empty() && !host.empty()) {
        fail("the journal knows nothing of " + printable(command.host));
    }
    return stays;
}

// --- As a table

// The times stand twice: as people read them, and as programs do.
constexpr Column STAY_COLUMNS[] = {
    {.title = "NAME", .member = "name", .cut = true},
    {.title = "MAC", .member = "mac", .leaves = 2},
    {.title = "ADDRESS", .member = "addresses", .leaves = 3},
    {.title = "PORT", .member = "places", .leaves = 4},
    {.title = "FROM", .member = nullptr},
    {.title = nullptr, .member = "from"},
    {.title = nullptr, .member = "exact"},
    {.title = "TO", .member = nullptr},
    {.title = nullptr, .member = "to"},
    {.title = "LASTED", .member = "seconds", .leaves = 1, .text = duration_text},
    {.title = "WHY", .member = "why"},
};

Row row_of_stay(const History &history, const Stay &stay)
{
    const int64_t now = history.last_wall();
    Row row = {.cells = {}, .dim = stay.to.has_value()};
    const Json json = stay_json(history, stay);
    for (const Column &column : STAY_COLUMNS) {
        row.cells.push_back(column.member != nullptr ? json[column.member] : Json());
    }
    row.cells[4] = (stay.exact ? "" : "before ") + time_text(history.wall_from(stay), now);
    row.cells[7] = stay.to ? time_text(history.wall_to(stay), now) : "";
    return row;
}

void show_history(const HistoryCommand &command)
{
    History history;
    load_history(command.directory, history);
    int64_t since = 0;
    std::vector<Row> rows;
    for (const Stay &stay : chosen_stays(command, history, since)) {
        rows.push_back(row_of_stay(history, stay));
    }
    print_rows("stays", STAY_COLUMNS, std::move(rows), command.table);
}

// --- As bars

constexpr size_t WIDEST_LABEL = 20;
constexpr size_t NARROWEST_BAR = 20;

// A character for each part of the time, by how much of it the host was on line.
std::string bar_of(const std::vector<const Stay *> &stays, const History &history, int64_t from, int64_t to,
                   size_t columns)
{
    static constexpr std::array levels = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    std::string bar;
    for (size_t i = 0; i < columns; ++i) {
        const auto at = [&](size_t n) {
            return from + static_cast<int64_t>(static_cast<double>(to - from) * static_cast<double>(n) /
                                               static_cast<double>(columns));
        };
        int64_t covered = 0;
        for (const Stay *stay : stays) {
            covered += std::max<int64_t>(0, std::min(history.wall_to(*stay), at(i + 1)) -
                                                std::max(history.wall_from(*stay), at(i)));
        }
        const int64_t whole = std::max<int64_t>(1, at(i + 1) - at(i));
        // Any moment shows, and a full cell is one that is full.
        const int64_t level = covered == 0 ? 0 : std::clamp<int64_t>(covered * 8 / whole, 1, 8);
        bar += levels[static_cast<size_t>(level)];
    }
    return bar;
}

// Of the terminal; 80 elsewhere.
size_t width_for_bars()
{
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

void show_timeline(const HistoryCommand &command)
{
    History history;
    load_history(command.directory, history);
    int64_t from = 0;
    const std::vector<Stay> stays = chosen_stays(command, history, from);
    const int64_t to = std::max(history.last_wall(), from + SECOND);
    const size_t width = width_for_bars();
    const size_t columns = std::max(NARROWEST_BAR, width - std::min(width, WIDEST_LABEL + 2));

    const std::string begin = time_text(from, to);
    const std::string end = time_text(to, to);
    const size_t gap = columns - std::min(columns - 1, begin.size() + end.size());
    const std::string title = begin + std::string(gap, ' ') + end;
    const Column shown[] = {{.title = "HOST", .member = nullptr},
                            {.title = title.c_str(), .member = nullptr}};
    std::vector<Row> rows;
    for (const HostStays &host : stays_by_host(stays)) {
        rows.push_back({.cells = {cut(printable(host.label), WIDEST_LABEL),
                                  bar_of(host.stays, history, from, to, columns)}});
    }
    print_rows("hosts", shown, std::move(rows), {});
}

} // namespace

void load_history(const std::string &directory, History &history)
{
    const JournalReading reading = read_journal(directory, [&](const Json &line) { history.add(line); });
    if (reading.files == 0) {
        fail("no journal in " + directory + ": " + strerror(errno));
    }
    if (reading.damaged > 0) {
        fprintf(stderr, "%zu damaged lines passed over\n", reading.damaged);
    }
    if (reading.written) {
        history.catch_up();
    } else {
        fprintf(stderr, "nobody keeps the journal in %s: this is how things stood at its end\n",
                directory.c_str());
    }
}

std::vector<HostStays> stays_by_host(const std::vector<Stay> &stays)
{
    std::vector<HostStays> hosts;
    std::map<Mac, size_t> places;
    for (const Stay &stay : stays) {
        const auto [place, is_new] = places.emplace(stay.mac, hosts.size());
        if (is_new) {
            hosts.emplace_back();
        }
        HostStays &host = hosts[place->second];
        host.label = stay.name.empty() ? format_mac(stay.mac) : stay.name;
        host.stays.push_back(&stay);
    }
    return hosts;
}

int64_t duration_argument(const std::string &text)
{
    static constexpr std::string_view units = "smhd";
    static constexpr int64_t seconds[] = {1, 60, 3600, 86400};
    const size_t unit = text.empty() ? std::string_view::npos : units.find(text.back());
    const auto number = parse_number(
        std::string_view(text).substr(0, text.size() - (unit != std::string_view::npos ? 1 : 0)), 0, 999999);
    if (!number) {
        fail(printable(text) + " is no duration: say 90s, 15m, 2h or 3d");
    }
    return *number * SECOND * (unit != std::string_view::npos ? seconds[unit] : 1);
}

std::string time_text(int64_t wall, int64_t now)
{
    const std::string text = iso_time(wall);
    const std::string time = text.substr(11, 8);
    return text.substr(0, 10) == iso_time(now).substr(0, 10) ? time : text.substr(0, 10) + " " + time;
}

void add_history_commands(CLI::App &app)
{
    auto command = std::make_shared<HistoryCommand>();
    CLI::App *history = app.add_subcommand("history", "Show who was on line, where, when, and why it left");
    CLI::App *timeline = app.add_subcommand("timeline", "Show when hosts were on line, a bar for each");
    for (CLI::App *shown : {history, timeline}) {
        shown->add_option("HOST", command->host, "its name, MAC, address or instance");
        shown->add_option("--since", command->since, "only the last 90s, 15m, 2h or 3d");
        shown->add_option("-d,--directory", command->directory, "where the journal lies")
            ->capture_default_str();
    }
    add_table_options(history, command->table, STAY_COLUMNS);
    history->footer("A stay without an end lasts. WHY is the event that brought its end about.\n"
                    "Durations go by the time since boot, whatever was done to the clock.");
    history->callback([command] { show_history(*command); });
    timeline->callback([command] { show_timeline(*command); });
}
