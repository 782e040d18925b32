// ovanictl metrics: what the journal knows, for Prometheus (text exposition format 0.0.4).

#include "tools/ovanictl.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>

#include "tools/bus.h"
#include "tools/json.h"
#include "tools/text.h"

namespace {

constexpr char JOURNAL[] = "ovani.journal";
constexpr int HEALTH_MS = 3000;

[[noreturn]] void no_answer(const std::string &why)
{
    fprintf(stderr, "ovanictl: %s: %s\n", JOURNAL, why.c_str());
    throw CLI::RuntimeError(NO_ANSWER);
}

Json ask_journal(ubus_context *bus, const char *method)
{
    Json answer;
    uint32_t id = 0;
    int result = ubus_lookup_id(bus, JOURNAL, &id);
    if (result == UBUS_STATUS_OK) {
        const auto take = [](ubus_request *request, int, blob_attr *msg) {
            const std::unique_ptr<char, decltype(&free)> text(blobmsg_format_json(msg, true), free);
            *static_cast<Json *>(request->priv) = Json::parse(text ? text.get() : "", nullptr, false);
        };
        result = ubus_invoke(bus, id, method, Message().head(), take, &answer, HEALTH_MS);
    }
    if (result != UBUS_STATUS_OK || !answer.is_object()) {
        no_answer(ubus_strerror(result));
    }
    return answer;
}

// A label's value: what would disturb a terminal as \xNN, and then as the format wants it.
std::string label(const std::string &text)
{
    std::string out;
    for (const char c : printable(text)) {
        out += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    }
    return out;
}

void print_family(const char *name, const char *type, const char *help)
{
    printf("# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
}

void print_number(const char *name, const char *type, const char *help, uint64_t value)
{
    print_family(name, type, help);
    printf("%s %ju\n", name, static_cast<uintmax_t>(value));
}

void print_hosts(const Json &hosts)
{
    std::map<std::string, unsigned> states = {{"on line", 0}, {"off line", 0}, {"seen", 0}};
    for (const Json &host : hosts) {
        ++states[host.value("state", "")];
    }
    print_family("ovani_hosts", "gauge", "Hosts that the journal remembers, by state.");
    for (const auto &[state, count] : states) {
        printf("ovani_hosts{state=\"%s\"} %u\n", label(state).c_str(), count);
    }
    print_family("ovani_host_up", "gauge", "Whether a host is on line.");
    for (const Json &host : hosts) {
        if (const std::string state = host.value("state", ""); state != "seen") {
            printf("ovani_host_up{mac=\"%s\",name=\"%s\",address=\"%s\",place=\"%s\"} %d\n",
                   label(host.value("mac", "")).c_str(), label(host.value("name", "")).c_str(),
                   label(host.value("address", "")).c_str(), label(host.value("place", "")).c_str(),
                   state == "on line" ? 1 : 0);
        }
    }
}

void show_metrics(const CtlOptions &options)
{
    const BusConnection bus = connect_bus(options.socket_or_null());
    if (!bus) {
        no_answer("no broker");
    }
    const Json health = ask_journal(bus.get(), "health");
    const Json hosts = ask_journal(bus.get(), "hosts");

    print_number("ovani_up", "gauge", "Whether the daemon is on the bus.",
                 health.value("daemon", false) ? 1 : 0);
    print_hosts(hosts.value("hosts", Json::array()));
    print_family("ovani_events_total", "counter", "Events on the bus since the journal started, by name.");
    const Json events = health.value("events", Json::object());
    for (const auto &[event, count] : events.items()) {
        printf("ovani_events_total{event=\"%s\"} %ju\n", label(event).c_str(), count.get<uintmax_t>());
    }
    print_number("ovani_journal_seconds_total", "counter", "How long the journal has been running.",
                 health.value("seconds", uint64_t{0}));
    print_number("ovani_journal_lost_total", "counter", "Lines the journal could not write.",
                 health.value("lost", uint64_t{0}));
    print_number("ovani_journal_late_total", "counter",
                 "How often the journal did not run for so long that the broker may have dropped events.",
                 health.value("late", uint64_t{0}));
}

} // namespace

void add_metrics_command(CLI::App &app, const CtlOptions &options)
{
    CLI::App *metrics = app.add_subcommand("metrics", "Tell Prometheus what the journal knows");
    metrics->footer("Exit status: 0 done, 3 there is no journal on the bus.");
    metrics->callback([&options] { show_metrics(options); });
}
