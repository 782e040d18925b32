// ovanictl events, ovanictl sysmgr: programs that stay on the bus.

#include "tools/ovanictl.h"

#include <cstdio>
#include <map>
#include <memory>
#include <vector>

#include <unistd.h>

#include "ovani/ovani_event.h"
#include "platform/host/store.h"
#include "tools/bus.h"
#include "tools/events.h"
#include "tools/journal.h"
#include "tools/json.h"
#include "tools/objects.h"
#include "tools/table.h"

namespace {

struct EventsCommand {
    std::vector<std::string> patterns = {"*"};
    long count = 0;
    bool json = false;
    bool list = false;
};

std::string length_text(const Json &bytes)
{
    return bytes == 0 ? "" : cell_text(bytes);
}

constexpr Column LIST_COLUMNS[] = {
    {.title = "EVENT", .member = "event"},
    {.title = "WORD", .member = "word"},
    {.title = "ATTRIBUTE", .member = "attribute"},
    {.title = "BYTES", .member = "bytes", .text = length_text},
};

void list_events(bool json)
{
    std::vector<Row> rows;
    for (const EventKind &kind : OVANI_EVENTS) {
        const char *attribute = kind.attribute != nullptr ? kind.attribute : "";
        rows.push_back({.cells = {kind.name, event_word(kind.name), attribute, kind.wire_length}});
    }
    print_rows("events", LIST_COLUMNS, std::move(rows), {.json = json});
}

std::vector<std::string> names_of(const std::vector<std::string> &patterns)
{
    std::vector<std::string> names;
    for (const std::string &pattern : patterns) {
        const auto name = event_pattern(pattern);
        if (!name) {
            std::string known;
            for (const EventKind &kind : OVANI_EVENTS) {
                known.append(known.empty() ? "" : ", ").append(event_word(kind.name));
                known.append(" (").append(kind.name).append(")");
            }
            throw CLI::ValidationError("no event is called " + printable(pattern) + ", there are " + known);
        }
        names.push_back(*name);
    }
    return names;
}

// What the host of an object is called now: later it may be gone, and its number another's.
std::string host_of(const Json &fields)
{
    const int instance = fields.value("instance", 0);
    if (instance == 0 || !why_no_store().empty()) {
        return "";
    }
    const std::string object = std::string(HOSTS_PATH) + std::to_string(instance) + '.';
    try {
        for (const char *parameter : {"HostAlias", "HostName", "MACAddress"}) {
            if (const std::string name = read_parameter(object + parameter); !name.empty()) {
                return "  " + printable(name);
            }
        }
    } catch (const std::exception &) {
        return "  (gone)";
    }
    return "";
}

void flush()
{
    if (fflush(stdout) == EOF) {
        uloop_end(); // whoever read us is gone
    }
}

// Lines on standard output. Those that say the same as the one before are counted, and told of once a second
// or when another comes.
class FoldedLines {
public:
    ~FoldedLines() { settle(); }

    void print(const std::string &text)
    {
        if (text != text_) {
            settle();
            text_ = text;
            write("");
        } else if (++untold_ == 1) {
            settle_.set(1000);
        }
    }

private:
    void settle()
    {
        if (untold_ > 0) {
            write("  ×" + std::to_string(untold_));
        }
        untold_ = 0;
        settle_.cancel();
    }
    void write(const std::string &times)
    {
        printf("%s  %s%s\n", clock_text().c_str(), text_.c_str(), times.c_str());
        flush();
    }

    std::string text_;
    size_t untold_ = 0;
    Timer settle_{[this] { settle(); }};
};

// As the journal has it, with its schema before it.
std::string event_json(const char *name, blob_attr *msg)
{
    Json event = {{"schema", JSON_SCHEMA}};
    event.update(journal_line(moment_now()));
    event["event"] = name;
    event.update(decode_event(name, msg));
    event["raw"] = base64({static_cast<const char *>(blob_data(msg)), blob_len(msg)});
    return json_text(event);
}

void follow_events(const EventsCommand &command, const std::string &socket)
{
    const std::vector<std::string> names = names_of(command.patterns);
    store_only_read();
    uloop_init();
    Bus bus(socket);
    FoldedLines lines;
    long left = command.count;
    bus.on_connect = [&] {
        for (const std::string &name : names) {
            if (!bus.subscribe(name.c_str())) {
                fprintf(stderr, "cannot subscribe to %s\n", name.c_str());
            }
        }
        fprintf(stderr, "listening\n");
    };
    bus.on_event = [&](const char *name, blob_attr *msg) {
        if (command.json) {
            puts(event_json(name, msg).c_str());
            flush();
        } else {
            const Json fields = decode_event(name, msg);
            lines.print(event_line(name, fields) + host_of(fields));
        }
        if (command.count > 0 && --left == 0) {
            uloop_end();
        }
    };
    bus.start();
    uloop_run();
}

constexpr size_t MOST_PROCESSES = 256;
constexpr size_t LONGEST_NAME = 64;

// How often each process has reported ready.
std::map<std::string, unsigned> s_ready;

int process_ready(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *msg)
{
    const blobmsg_policy policy = {"name", BLOBMSG_TYPE_STRING};
    blob_attr *name = nullptr;
    blobmsg_parse(&policy, 1, &name, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    if (name == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const std::string process = std::string(blobmsg_get_string(name)).substr(0, LONGEST_NAME);
    if (s_ready.size() < MOST_PROCESSES || s_ready.contains(process)) {
        ++s_ready[process];
    }
    printf("%s is ready\n", printable(process).c_str());
    fflush(stdout);
    return UBUS_STATUS_OK;
}

int list_ready(ubus_context *ctx, ubus_object *, ubus_request_data *request, const char *, blob_attr *)
{
    Message reply;
    for (const auto &[process, times] : s_ready) {
        reply.add_number(process.c_str(), times);
    }
    return ubus_send_reply(ctx, request, reply.head());
}

void be_system_manager(const std::string &socket)
{
    static const blobmsg_policy name_policy[] = {{"name", BLOBMSG_TYPE_STRING}};
    static const ubus_method methods[] = {
        {"process_ready", process_ready, 0, 0, name_policy, 1},
        {"list", list_ready, 0, 0, nullptr, 0},
    };
    static ubus_object_type type = {"sysmgr", 0, methods, std::size(methods)};
    static ubus_object object;

    uloop_init();
    Bus bus(socket);
    bus.on_connect = [&] {
        type.id = 0;
        object = {};
        object.name = "sysmgr";
        object.type = &type;
        object.methods = methods;
        object.n_methods = std::size(methods);
        if (const int result = ubus_add_object(bus.context(), &object); result != UBUS_STATUS_OK) {
            fprintf(stderr, "cannot publish sysmgr: %s\n", ubus_strerror(result));
        }
    };
    bus.start();
    uloop_run();
}

} // namespace

void add_events_command(CLI::App &app, const CtlOptions &options)
{
    auto command = std::make_shared<EventsCommand>();
    CLI::App *events = app.add_subcommand("events", "Follow the bus, the gateway's records decoded");
    events->add_option("PATTERN", command->patterns,
                       "events by word (mac) or name (109), a trailing * for any rest (all of them)");
    events->add_option("-n,--count", command->count, "end after so many")->check(CLI::Range(1, INT32_MAX));
    events->add_flag("--json", command->json, "one JSON object a line, as the journal has it");
    events->footer("Lines that say the same as the one before are counted: ×37.");
    events->add_flag("--list", command->list,
                     "instead: the gateway's events, the words for them, and what carries their records");
    events->callback([command, &options] {
        command->list ? list_events(command->json) : follow_events(*command, options.socket);
    });
}

void add_sysmgr_command(CLI::App &app, const CtlOptions &options)
{
    CLI::App *sysmgr = app.add_subcommand("sysmgr", "Stand in for the gateway's system manager");
    sysmgr->footer(
        "Publishes the object \"sysmgr\": its method process_ready takes the name of a process that is\n"
        "ready, its method list tells who reported and how often.");
    sysmgr->callback([&options] { be_system_manager(options.socket); });
}
