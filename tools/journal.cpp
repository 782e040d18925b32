// ovani-journal: writes down what happens on the LAN, and tells the bus who was there.

#include <csignal>
#include <cstdio>
#include <map>

#include <CLI/CLI.hpp>
#include <iconv.h>
#include <sys/signalfd.h>

#include "ovani/ovani_event.h"
#include "tools/bus.h"
#include "tools/command_line.h"
#include "tools/events.h"
#include "tools/history.h"
#include "tools/journal.h"

namespace {

constexpr size_t MOST_HOSTS = 512;
constexpr size_t MOST_STAYS = 1024; // that have ended
constexpr size_t MOST_TOLD = 1000;  // stays in an answer, so that it fits a bus message
constexpr size_t LONGEST_TEXT = 512;
constexpr size_t LONGEST_RAW = 1024;
constexpr int HEARTBEAT_MS = 5000;
constexpr int64_t LATE = 2'000'000; // microseconds
constexpr char DAEMON[] = "ovani";
constexpr const char *STATES[] = {"seen", "on line", "off line"}; // as History::State

// A name as UTF-8: clients send it like that or in GBK. What is neither stays as it is.
std::string readable_name(std::string name)
{
    for (const char *encoding : {"UTF-8", "GBK"}) {
        const iconv_t converter = iconv_open("UTF-8", encoding);
        if (converter == reinterpret_cast<iconv_t>(-1)) {
            continue;
        }
        std::string converted(name.size() * 3, '\0');
        char *in = name.data();
        char *out = converted.data();
        size_t in_left = name.size();
        size_t out_left = converted.size();
        const bool done = iconv(converter, &in, &in_left, &out, &out_left) != static_cast<size_t>(-1);
        iconv_close(converter);
        if (done) {
            converted.resize(converted.size() - out_left);
            return converted;
        }
    }
    return name;
}

Json event_entry(const Moment &when, const char *name, blob_attr *msg)
{
    Json line = journal_line(when);
    line["event"] = name;
    Json fields = decode_event(name, msg);
    for (auto &[key, value] : fields.items()) {
        if (value.is_string() && value.get_ref<const std::string &>().size() > LONGEST_TEXT) {
            value.get_ref<std::string &>().resize(LONGEST_TEXT);
        }
        if (key == "name" && value.is_string()) {
            value = readable_name(value.get<std::string>());
        }
        line.emplace(key, std::move(value));
    }
    const std::string_view raw(static_cast<const char *>(blob_data(msg)), blob_len(msg));
    line["raw"] = base64(raw.substr(0, LONGEST_RAW));
    if (raw.size() > LONGEST_RAW) {
        line["length"] = raw.size();
    }
    return line;
}

class Journal {
public:
    Journal(std::string directory, size_t files, size_t bytes, const std::string &socket);
    bool begin();
    void end() { mark("stopped"); }

private:
    static Json host_json(const History &history, const History::Host &host);
    void connected();
    void daemon_is(bool there);
    void publish();
    void event(const char *name, blob_attr *msg);
    void object_event(std::string_view name, blob_attr *msg);
    void mark(const char *what, const Json &more = Json::object());
    void keep(const Moment &when, const Json &line);
    void heartbeat();
    Json hosts();
    Json history(blob_attr *msg);
    Json health();

    template <Json (Journal::*Answer)(blob_attr *)>
    static int answer(ubus_context *ctx, ubus_object *object, ubus_request_data *request, const char *,
                      blob_attr *msg);
    Json hosts(blob_attr *) { return hosts(); }
    Json health(blob_attr *) { return health(); }

    struct Object : ubus_object {
        Journal *journal;
    };
    struct Hangup : uloop_fd {
        Journal *journal;
    };

    const std::string directory_;
    const Moment began_ = moment_now();
    History history_{MOST_HOSTS, MOST_STAYS};
    JournalFile file_;
    Bus bus_;
    Object object_{};
    Hangup hangup_{};
    bool daemon_ = false;
    std::map<std::string, uint64_t> events_; // by name, all of those that are kept
    int64_t beat_ = 0;
    size_t late_ = 0;
    Timer heartbeat_{[this] { heartbeat(); }};
};

Journal::Journal(std::string directory, size_t files, size_t bytes, const std::string &socket)
    : directory_(std::move(directory)),
      file_(directory_, files, bytes, [this] { return history_.on_line(); }), bus_(socket)
{
    for (const EventKind &kind : OVANI_EVENTS) {
        events_.emplace(kind.name, 0);
    }
    bus_.on_connect = [this] { connected(); };
    bus_.on_lost = [this] { mark("disconnected"); };
    bus_.on_event = [this](const char *name, blob_attr *msg) { event(name, msg); };
}

bool Journal::begin()
{
    const JournalReading before = read_journal(directory_, [this](const Json &line) { history_.add(line); });
    if (before.written) {
        fprintf(stderr, "%s: another journal writes there\n", directory_.c_str());
        return false;
    }
    history_.add(began_, {{"journal", 1}, {"boot", boot_id()}});
    mark("started");

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGHUP);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    hangup_.fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    hangup_.journal = this;
    hangup_.cb = [](uloop_fd *fd, unsigned) {
        signalfd_siginfo ignored{};
        while (read(fd->fd, &ignored, sizeof ignored) > 0) {
        }
        static_cast<Hangup *>(fd)->journal->file_.reopen();
    };
    uloop_fd_add(&hangup_, ULOOP_READ);

    beat_ = began_.boot;
    heartbeat_.set(HEARTBEAT_MS);
    bus_.start();
    return true;
}

// --- The bus

void Journal::connected()
{
    for (const auto &[name, count] : events_) {
        if (!bus_.subscribe(name.c_str())) {
            fprintf(stderr, "cannot subscribe to %s\n", name.c_str());
        }
    }
    bus_.subscribe("ubus.object.add");
    bus_.subscribe("ubus.object.remove");
    mark("connected");
    uint32_t id = 0;
    daemon_is(ubus_lookup_id(bus_.context(), DAEMON, &id) == UBUS_STATUS_OK);
    publish();
}

// Without it nobody is on line, whatever was true when the journal last heard of it.
void Journal::daemon_is(bool there)
{
    const bool news = there != daemon_ || (!there && !history_.on_line().empty());
    daemon_ = there;
    if (news) {
        mark(there ? "daemon came" : "daemon went");
    }
}

void Journal::publish()
{
    static const blobmsg_policy history_policy[] = {{"host", BLOBMSG_TYPE_STRING},
                                                    {"since", BLOBMSG_TYPE_INT32}};
    static const ubus_method methods[] = {
        {"hosts", answer<&Journal::hosts>, 0, 0, nullptr, 0},
        {"history", answer<&Journal::history>, 0, 0, history_policy, std::size(history_policy)},
        {"health", answer<&Journal::health>, 0, 0, nullptr, 0},
    };
    static ubus_object_type type = {"ovani.journal", 0, methods, std::size(methods)};
    type.id = 0;
    object_ = {};
    object_.journal = this;
    object_.name = type.name;
    object_.type = &type;
    object_.methods = methods;
    object_.n_methods = std::size(methods);
    if (const int result = ubus_add_object(bus_.context(), &object_); result != UBUS_STATUS_OK) {
        fprintf(stderr, "cannot publish %s: %s\n", type.name, ubus_strerror(result));
    }
}

template <Json (Journal::*Answer)(blob_attr *)>
int Journal::answer(ubus_context *ctx, ubus_object *object, ubus_request_data *request, const char *,
                    blob_attr *msg)
{
    Message reply;
    if (!reply.add_json(json_text((static_cast<Object *>(object)->journal->*Answer)(msg)))) {
        return UBUS_STATUS_UNKNOWN_ERROR;
    }
    return ubus_send_reply(ctx, request, reply.head());
}

void Journal::event(const char *name, blob_attr *msg)
{
    const auto counter = events_.find(name);
    if (counter == events_.end()) {
        return object_event(name, msg);
    }
    ++counter->second;
    const Moment now = moment_now();
    keep(now, event_entry(now, name, msg));
}

void Journal::object_event(std::string_view name, blob_attr *msg)
{
    const blobmsg_policy policy = {"path", BLOBMSG_TYPE_STRING};
    blob_attr *path = nullptr;
    blobmsg_parse(&policy, 1, &path, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    if (path != nullptr && std::string_view(blobmsg_get_string(path)) == DAEMON) {
        daemon_is(name == "ubus.object.add");
    }
}

// --- Writing

void Journal::mark(const char *what, const Json &more)
{
    const Moment now = moment_now();
    Json line = journal_line(now);
    line["mark"] = what;
    line.update(more);
    keep(now, line);
}

// In this order: should the line begin a new file, who was on line until now stands before it.
void Journal::keep(const Moment &when, const Json &line)
{
    file_.write(when, line);
    history_.add(when, line);
}

void Journal::heartbeat()
{
    const int64_t now = moment_now().boot;
    const int64_t late = now - beat_ - int64_t{HEARTBEAT_MS} * 1000;
    if (late > LATE) {
        ++late_;
        mark("late", {{"seconds", late / 1'000'000}});
    }
    beat_ = now;
    heartbeat_.set(HEARTBEAT_MS);
}

// --- Answers

Json Journal::hosts()
{
    history_.catch_up();
    Json hosts = Json::array();
    for (const auto &[mac, host] : history_.hosts()) {
        hosts.push_back(host_json(history_, host));
    }
    return {{"hosts", hosts}};
}

Json Journal::host_json(const History &history, const History::Host &host)
{
    const auto last = [](const std::vector<std::string> &texts) { return texts.empty() ? "" : texts.back(); };
    const Stay &stay = host.stay;
    Json json = {{"mac", format_mac(stay.mac)},
                 {"name", stay.name},
                 {"address", last(stay.addresses)},
                 {"place", last(stay.places)},
                 {"state", STATES[static_cast<size_t>(host.state)]}};
    if (host.state != History::State::SEEN) {
        json["since"] =
            iso_time(host.state == History::State::ON_LINE ? history.wall_from(stay) : history.wall_to(stay));
    }
    return json;
}

// The newest, oldest first.
Json Journal::history(blob_attr *msg)
{
    static constexpr blobmsg_policy policy[] = {{"host", BLOBMSG_TYPE_STRING}, {"since", BLOBMSG_TYPE_INT32}};
    blob_attr *args[std::size(policy)] = {};
    blobmsg_parse(policy, std::size(policy), args, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    const std::string_view who = args[0] != nullptr ? blobmsg_get_string(args[0]) : "";
    history_.catch_up();
    const int64_t since =
        args[1] != nullptr ? history_.last_wall() - int64_t{blobmsg_get_u32(args[1])} * 1'000'000 : INT64_MIN;
    Json stays = Json::array();
    for (const Stay &stay : history_.stays()) {
        if ((who.empty() || stay.is_of(who)) && history_.wall_to(stay) >= since) {
            stays.push_back(stay_json(history_, stay));
        }
    }
    const size_t left_out = stays.size() - std::min(stays.size(), MOST_TOLD);
    stays.erase(stays.begin(), stays.begin() + static_cast<ptrdiff_t>(left_out));
    return {{"stays", stays}, {"left_out", left_out}};
}

Json Journal::health()
{
    const Moment now = moment_now();
    return {{"started", iso_time(now.wall - (now.boot - began_.boot))},
            {"seconds", (now.boot - began_.boot) / 1'000'000},
            {"daemon", daemon_},
            {"directory", directory_},
            {"failure", file_.failure()},
            {"events", events_},
            {"lost", file_.lost()},
            {"late", late_}};
}

} // namespace

int main(int argc, char **argv)
try {
    CLI::App app{"Writes down what happens on the LAN, and tells the bus who was there", "ovani-journal"};
    std::string directory = journal_directory();
    std::string socket;
    size_t files = JOURNAL_FILES;
    size_t bytes = JOURNAL_BYTES;
    app.add_option("-d,--directory", directory, "where the files lie; OVANI_JOURNAL names it too")
        ->capture_default_str();
    app.add_option("--files", files, "how many are kept")->capture_default_str()->check(CLI::Range(2, 99));
    app.add_option("--bytes", bytes, "how long one gets")
        ->capture_default_str()
        ->check(CLI::Range(256 << 10, 1 << 30));
    app.add_option("-s,--socket", socket, "the bus's socket")->default_str(BUS_DEFAULT_SOCKET);
    app.footer(
        "SIGHUP opens the file anew. On the bus it is \"ovani.journal\", with the methods hosts, history\n"
        "(of a host: name, MAC or address; since so many seconds) and health.\n"
        "Whatever the LAN does, it remembers at most 512 hosts and 1024 stays, in less than 4 MiB.");
    if (const auto status = parse_command_line(app, argc, argv)) {
        return *status;
    }

    signal(SIGPIPE, SIG_IGN);
    uloop_init();
    Journal journal(directory, files, bytes, socket);
    if (!journal.begin()) {
        return 1;
    }
    uloop_run();
    journal.end();
    return 0;
} catch (const std::exception &e) {
    fprintf(stderr, "ovani-journal: %s\n", e.what());
    return 1;
}
