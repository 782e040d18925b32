// ovanictl history, ovanictl timeline: who was on line when, from the journal's files.

#include "tools/ovanictl.h" // CLI11 before libubox, whose macros take one of its names

#include "tools/ctl_history.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>

#include <strings.h>
#include <unistd.h>

#include "tools/objects.h"
#include "tools/table.h"

namespace {

constexpr int64_t SECOND = 1'000'000;
constexpr int64_t DAY = 86400 * SECOND;

struct HistoryCommand {
    std::string directory = journal_directory();
    std::string host;
    std::string since;
    bool json = false;
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

constexpr std::array TITLES = {"NAME", "MAC", "ADDRESS", "PORT", "FROM", "TO", "LASTED", "WHY"};

std::string joined(const std::vector<std::string> &texts)
{
    std::string out;
    for (const std::string &text : texts) {
        out += (out.empty() ? "" : ", ") + text;
    }
    return out;
}

TableRow row_of(const History &history, const Stay &stay)
{
    const int64_t now = history.last_wall();
    return {.cells = {stay.name, format_mac(stay.mac), joined(stay.addresses), joined(stay.places),
                      (stay.exact ? "" : "before ") + time_text(history.wall_from(stay), now),
                      stay.to ? time_text(history.wall_to(stay), now) : "",
                      format_duration(history.lasted(stay) / SECOND), stay.why},
            .dim = stay.to.has_value()};
}

void show_history(const HistoryCommand &command)
{
    History history;
    load_history(command.directory, history);
    int64_t since = 0;
    const std::vector<Stay> stays = chosen_stays(command, history, since);
    std::vector<TableRow> rows;
    std::vector<Json> objects;
    for (const Stay &stay : stays) {
        rows.push_back(row_of(history, stay));
        objects.push_back(stay_json(history, stay));
    }
    if (command.json) {
        print_json_rows(objects);
    } else {
        print_lines(table_lines(TITLES, rows, style_for(STDOUT_FILENO), terminal_width()));
    }
}

// --- As bars

constexpr size_t WIDEST_LABEL = 20;
constexpr size_t NARROWEST_BAR = 20;
constexpr size_t WIDTH_ELSEWHERE = 80; // than on a terminal

bool locale_is_utf8()
{
    for (const char *name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        if (const char *locale = getenv(name); locale != nullptr && locale[0] != '\0') {
            return strcasestr(locale, "UTF-8") != nullptr || strcasestr(locale, "UTF8") != nullptr;
        }
    }
    return false;
}

// A character for each part of the time, by how much of it the host was on line.
std::string bar_of(const std::vector<const Stay *> &stays, const History &history, int64_t from, int64_t to,
                   size_t columns)
{
    static constexpr std::array unicode = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    static constexpr std::array ascii = {" ", ".", ".", "-", "-", "=", "=", "=", "#"};
    const auto &levels = locale_is_utf8() ? unicode : ascii;
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

void show_timeline(const HistoryCommand &command)
{
    History history;
    load_history(command.directory, history);
    int64_t from = 0;
    const std::vector<Stay> stays = chosen_stays(command, history, from);
    const int64_t to = std::max(history.last_wall(), from + SECOND);

    const std::vector<HostStays> hosts = stays_by_host(stays);
    size_t label_width = 4;
    for (const HostStays &host : hosts) {
        label_width = std::max(label_width, columns_of(printable(host.label)));
    }
    label_width = std::min(label_width, WIDEST_LABEL);
    const size_t width = terminal_width() == SIZE_MAX ? WIDTH_ELSEWHERE : terminal_width();
    const size_t columns = std::max(NARROWEST_BAR, width - std::min(width, label_width + 3));

    const std::string begin = time_text(from, to);
    const std::string end = time_text(to, to);
    const Style style = style_for(STDOUT_FILENO);
    printf("%s%s  %s%s%s\n", style.dim, fit("", label_width).c_str(),
           fit(begin, columns - std::min(columns, end.size())).c_str(), end.c_str(), style.plain);
    for (const HostStays &host : hosts) {
        printf("%s  %s%s%s\n", fit(printable(host.label), label_width).c_str(), style.green,
               bar_of(host.stays, history, from, to, columns).c_str(), style.plain);
    }
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
    const size_t unit = text.empty() ? units.npos : units.find(text.back());
    const auto number =
        parse_number(std::string_view(text).substr(0, text.size() - (unit != units.npos ? 1 : 0)), 0, 999999);
    if (!number) {
        fail(printable(text) + " is no duration: say 90s, 15m, 2h or 3d");
    }
    return *number * SECOND * (unit != units.npos ? seconds[unit] : 1);
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
    history->add_flag("--json", command->json, "as a JSON array");
    history->footer("A stay without an end lasts. WHY is the event that brought its end about.\n"
                    "Durations go by the time since boot, whatever was done to the clock.");
    history->callback([command] { show_history(*command); });
    timeline->callback([command] { show_timeline(*command); });
}
