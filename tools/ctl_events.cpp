// ovanictl events, ovanictl sysmgr: programs that stay on the bus.

#include "tools/ovanictl.h" // CLI11 before libubox, whose macros take one of its names

#include <cstdio>
#include <map>
#include <memory>
#include <vector>

#include <unistd.h>

#include "ovani/ovani_event.h"
#include "tools/bus.h"
#include "tools/events.h"
#include "tools/json.h"
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

void print_event(const EventsCommand &command, const char *name, blob_attr *msg)
{
    const Json fields = decode_event(name, msg);
    if (command.json) {
        Json event = {{"event", name}};
        event.update(fields);
        puts(json_text(event).c_str());
    } else {
        printf("%s  %s\n", clock_text().c_str(), event_line(name, fields).c_str());
    }
    if (fflush(stdout) == EOF) {
        uloop_end(); // whoever read us is gone
    }
}

void follow_events(const EventsCommand &command, const std::string &socket)
{
    uloop_init();
    Bus bus(socket);
    long left = command.count;
    bus.on_connect = [&] {
        for (const std::string &pattern : command.patterns) {
            if (!bus.subscribe(pattern.c_str())) {
                fprintf(stderr, "cannot subscribe to %s\n", pattern.c_str());
            }
        }
        fprintf(stderr, "listening\n");
    };
    bus.on_event = [&](const char *name, blob_attr *msg) {
        print_event(command, name, msg);
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
                       "names of events, a trailing * for any rest (all of them)");
    events->add_option("-n,--count", command->count, "end after so many")->check(CLI::Range(1, INT32_MAX));
    events->add_flag("--json", command->json, "one JSON object a line");
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
