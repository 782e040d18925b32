// ovanictl record: writes down what a gateway's daemon is told and what it says, to be replayed elsewhere.

#include "tools/ovanictl.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>

#include "ovani/ovani_fd.h"
#include "tools/bus_tap.h"
#include "tools/journal.h"
#include "tools/program.h"
#include "tools/recording.h"
#include "tools/text.h"

namespace {

constexpr int MOST_TRIES = 100; // for a moment in which nothing happens
constexpr int REST_MS = 200;    // in which nothing happens, for the store to be looked at
constexpr char CARRIER[] = "InternetGatewayDevice.DeviceInfo.X_QV_Carrier";
constexpr std::array CARRIERS = {"cm", "ct", "cu", "international"};

// --- Surroundings

std::string said_by(const std::vector<std::string> &command)
{
    return output_of(command).value_or("");
}

// A file that need not tell its length, one of the kernel's for instance.
std::string content_of(const std::string &file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator(in), {}};
}

std::string bridge_table()
{
    return said_by({"brctl", "showmacs", "br0"});
}

std::string neighbours()
{
    return said_by({"ip", "-6", "neigh"});
}

std::string limits()
{
    return content_of("/qvconf/speedlimit_maclist");
}

// br0, its ports and the wired ports that are in no bridge.
Json links()
{
    Json found = Json::object();
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator("/sys/class/net", ignored)) {
        const std::string directory = entry.path().string() + '/';
        const std::string name = entry.path().filename().string();
        const bool in_bridge =
            std::filesystem::read_symlink(directory + "master", ignored).filename() == "br0";
        if (name != "br0" && !in_bridge && lan_port_of(name) == 0) {
            continue;
        }
        const std::string flags = content_of(directory + "flags");
        constexpr unsigned long up = 1; // IFF_UP
        found[name] = {{"mac", content_of(directory + "address").substr(0, 17)},
                       {"up", (strtoul(flags.c_str(), nullptr, 16) & up) != 0},
                       {"carrier", content_of(directory + "operstate").starts_with('u')}}; // "up", "unknown"
    }
    return found;
}

Json surroundings()
{
    Json found = {
        {"brctl", bridge_table()}, {"neighbours", neighbours()}, {"arp", content_of("/proc/net/arp")},
        {"limits", limits()},      {"stations", Json::object()}, {"links", links()}};
    for (const auto &[interface, link] : found["links"].items()) {
        if (interface.starts_with("ra")) {
            found["stations"][interface] = said_by({"wl", "-i", interface, "assoclist"});
        }
    }
    return found;
}

// A bridge's table without its timers, which always change.
std::string without_timers(const std::string &table)
{
    std::string rest;
    for (size_t at = 0; at < table.size();) {
        const size_t end = std::min(table.find_first_of(" \t\n", at), table.size() - 1) + 1;
        const std::string word = table.substr(at, end - at);
        rest += word.find('.') == std::string::npos ? word : "";
        at = end;
    }
    return rest;
}

// --- The store

// What the daemon writes by itself. A front end's share of it goes by the call that tells the daemon.
bool is_daemons_own(const std::string &path)
{
    return path.starts_with("InternetGatewayDevice.LANDevice.1.Hosts.") ||
           path.starts_with("InternetGatewayDevice.X_QV_Driver.") || path.ends_with(".Status");
}

// --- Recording

class Recorder {
public:
    Recorder(const std::string &file, std::string store_command);

    void record(const char *socket, long seconds);

private:
    void begin();
    void follow(long seconds);
    void end();
    bool settle() { return tap_.settle(SETTLE_MS) || !tap_.daemon_is_there(); }
    StoreText export_store() const;

    void take(const TapItem &item);
    void take_event(const TapItem &item);
    void note_surroundings(const Json &fields);
    void note_store(const Json &call);
    void note_store(const StoreText &now, const Json &call);
    void note_rest();
    void write(const Json &line);

    const std::string file_name_;
    const std::string store_command_;
    UniqueFile file_;
    BusTap tap_{[this](const TapItem &item) { take(item); }};
    bool began_ = false;
    size_t items_ = 0; // that came
    size_t lost_ = 0;
    size_t lines_ = 0;
    size_t rested_ = 0;    // of these, when all was last at rest
    StoreText store_;      // as last seen
    StoreText rest_store_; // as last written, at rest
    Json surroundings_;    // as last written
    bool is_stale_ = true; // the bridge's table may be another by now
};

volatile sig_atomic_t s_end = 0;

// A file of ours alone: it tells who is in somebody's home.
UniqueFile create_file(const std::string &name)
{
    UniqueFd fd(open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!fd) {
        fail(name + ": " + strerror(errno));
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd.get());
    return UniqueFile(fopen(path.c_str(), "we"));
}

Recorder::Recorder(const std::string &file, std::string store_command)
    : file_name_(file), store_command_(std::move(store_command)), file_(create_file(file))
{
}

void Recorder::record(const char *socket, long seconds)
{
    // Signals are heard where it waits, and nowhere else.
    sigset_t ending;
    sigemptyset(&ending);
    struct sigaction action {};
    action.sa_handler = [](int) { s_end = 1; };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ending, signal);
        sigaction(signal, &action, nullptr);
    }
    sigprocmask(SIG_BLOCK, &ending, nullptr);

    if (const char *wrong = tap_.start(socket); wrong != nullptr) {
        fail(wrong);
    }
    begin();
    fprintf(stderr, "recording\n");
    follow(seconds);
    if (tap_.is_lost()) {
        fail("the broker has gone; the recording has no end");
    }
    end();
    fprintf(stderr, "%s: %zu lines\n", file_name_.c_str(), lines_);
    if (lost_ > 0) {
        fail("the bus was faster: " + std::to_string(lost_) + " messages are missing");
    }
}

// Store and surroundings belong to the same moment when nothing came while they were read.
void Recorder::begin()
{
    for (int tries = 0;; ++tries) {
        if (!settle() || tap_.is_lost() || tries == MOST_TRIES) {
            fail("the daemon is never at rest");
        }
        const size_t before = items_;
        surroundings_ = surroundings();
        store_ = export_store();
        if (settle() && items_ == before) {
            break;
        }
    }
    rested_ = items_;
    rest_store_ = store_;
    began_ = true;
    const auto carrier = parse_number(store_[CARRIER], 0, CARRIERS.size() - 1);
    write({{"recording", RECORDING_FORMAT},
           {"boot", boot_id()},
           {"version", OVANI_VERSION},
           {"operator", carrier ? CARRIERS[static_cast<size_t>(*carrier)] : "unknown"},
           {"daemon", tap_.daemon_is_there()},
           {"store", store_json(store_)},
           {"surroundings", surroundings_}});
}

void Recorder::follow(long seconds)
{
    sigset_t none;
    sigemptyset(&none);
    const int64_t last = moment_now().boot + seconds * 1'000'000;
    while (s_end == 0 && !tap_.is_lost()) {
        const int64_t left = seconds == 0 ? INT32_MAX : (last - moment_now().boot) / 1000;
        if (left <= 0) {
            break;
        }
        const size_t before = items_;
        const int64_t longest = items_ == rested_ ? INT32_MAX : REST_MS;
        tap_.wait(static_cast<int>(std::min<int64_t>(left, longest)), &none);
        if (left > longest && items_ == before && items_ != rested_ && s_end == 0) {
            note_rest();
        }
    }
}

// Front ends write first and call then: what they wrote is not taken for the daemon's doing when the call
// comes before it is written down.
void Recorder::note_rest()
{
    settle();
    const size_t before = items_;
    const StoreText now = export_store();
    for (int64_t end = moment_now().boot + REST_MS * int64_t{1000}, left = 0;
         items_ == before && (left = end - moment_now().boot) > 0;) {
        tap_.wait(static_cast<int>(left / 1000) + 1);
    }
    settle();
    if (items_ != before) {
        return;
    }
    rested_ = items_;
    note_store(now, {});
    write(rest_line(change_of_store(rest_store_, now)));
    rest_store_ = now;
}

void Recorder::end()
{
    StoreText store;
    size_t before = 0;
    int tries = 0;
    do {
        settle();
        before = items_;
        store = export_store();
        settle();
    } while (items_ != before && ++tries < MOST_TRIES);
    write({{"end", 1}, {"store", store_json(store)}});
}

StoreText Recorder::export_store() const
{
    const auto text = store_command_.empty() ? output_of({own_path(), "store", "export", "-"})
                                             : output_of({"sh", "-c", store_command_});
    if (!text) {
        fail("the store cannot be exported");
    }
    return parse_store(*text);
}

// What comes before the head is part of that already.
void Recorder::take(const TapItem &item)
{
    ++items_;
    if (!began_) {
        return;
    }
    switch (item.kind) {
    case TapItem::EVENT:
    case TapItem::ANNOUNCED:
        take_event(item);
        break;
    case TapItem::CALL:
        note_store(recording_line(item));
        write(recording_line(item));
        break;
    case TapItem::ANSWER:
        write(recording_line(item));
        break;
    case TapItem::CAME:
        surroundings_ = surroundings();
        write({{"surroundings", surroundings_}});
        note_store({});
        write({{"mark", "daemon came"}});
        break;
    case TapItem::WENT:
        write({{"mark", "daemon went"}});
        break;
    case TapItem::LOST:
        lost_ += static_cast<size_t>(item.number);
        write({{"mark", "lost"}, {"count", item.number}});
        break;
    }
}

void Recorder::take_event(const TapItem &item)
{
    if (item.kind == TapItem::EVENT && item.heard) {
        note_surroundings(decode_message(item.name, item.bytes));
        if (item.name == UBUS_EVENT_WAN_VLAN_INFO) {
            note_store({});
        }
    }
    write(recording_line(item));
}

// What the daemon may ask now. It asks for a host's place in the bridge when it writes or first sees the
// host; asked at the same time, the bridge says the same.
void Recorder::note_surroundings(const Json &fields)
{
    const bool moves = fields.contains("interface") || fields.contains("port") || fields.contains("ssid");
    is_stale_ = is_stale_ || moves;
    if (!fields.contains("mac")) {
        return;
    }
    Json changed = Json::object();
    const auto &mac = fields["mac"].get_ref<const std::string &>();
    const auto &known = surroundings_["brctl"].get_ref<const std::string &>();
    if (is_stale_ || strcasestr(known.c_str(), mac.c_str()) == nullptr) {
        const std::string table = bridge_table();
        if (without_timers(table) != without_timers(known)) {
            changed["brctl"] = table;
        }
        is_stale_ = false;
    }
    if (const std::string text = limits(); text != surroundings_["limits"]) {
        changed["limits"] = text;
    }
    if (fields["action"] == "ADD6") {
        changed["neighbours"] = neighbours();
    }
    if (!changed.empty()) {
        surroundings_.update(changed);
        write({{"surroundings", changed}});
    }
}

// What others have changed in the store since it was last looked at. Of the daemon's own objects that is what
// a call tells it of.
void Recorder::note_store(const Json &call)
{
    note_store(export_store(), call);
}

void Recorder::note_store(const StoreText &now, const Json &call)
{
    const Parsed message = call.contains("message")
                               ? Parsed::parse(call["message"].get_ref<const std::string &>(), nullptr, false)
                               : Parsed();
    const std::string url = message.is_object() && message.contains("url") && message["url"].is_string()
                                ? message["url"].get<std::string>()
                                : "";
    StoreText changed;
    for (const auto &[path, value] : now) {
        const bool told = !url.empty() && path.starts_with(url) && message.contains("data") &&
                          message["data"].is_object() && message["data"].contains(path.substr(url.size()));
        if (!told && is_daemons_own(path)) {
            continue;
        }
        auto &before = store_[path];
        if (before != value) {
            before = value;
            changed.emplace(path, value);
        }
    }
    if (!changed.empty()) {
        write({{"store", store_json(changed)}});
    }
}

void Recorder::write(const Json &line)
{
    Json whole = journal_line(moment_now());
    whole.update(line);
    const std::string text = json_text(whole) + '\n';
    if (fwrite(text.data(), 1, text.size(), file_.get()) != text.size() || fflush(file_.get()) != 0) {
        fail(file_name_ + ": " + strerror(errno));
    }
    ++lines_;
}

struct RecordCommand {
    std::string file;
    std::string store_command;
    long seconds = 0;
};

} // namespace

void add_record_command(CLI::App &app, const CtlOptions &options)
{
    auto command = std::make_shared<RecordCommand>();
    CLI::App *record =
        app.add_subcommand("record", "Write down what the daemon is told and says, for replay elsewhere");
    record->add_option("FILE", command->file)->required();
    record->add_option("--seconds", command->seconds, "how long; until Ctrl-C without it")
        ->check(CLI::PositiveNumber);
    record->add_option(
        "--store", command->store_command,
        "a shell command that prints the store as `ovanictl store export` does, where that is another's");
    record->footer("The file tells who is in somebody's home. Only root may listen to all of the bus.");
    record->callback([command, &options] {
        Recorder(command->file, command->store_command).record(options.socket_or_null(), command->seconds);
    });
}
