// ovanictl host, ovanictl delete: single hosts, by the names that people have for them.

#include "tools/ovanictl.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>

#include "platform/host/store.h"
#include "tools/ctl_store.h"
#include "tools/doctor.h"
#include "tools/json.h"
#include "tools/objects.h"
#include "tools/text.h"

namespace {

// --- Finding them

std::string name_of(const StoreObject &host)
{
    const std::string_view name = host.get(host.get("HostAlias").empty() ? "HostName" : "HostAlias");
    return std::to_string(host.instance) + ' ' + std::string(host.get("MACAddress")) +
           (name.empty() ? "" : ' ' + std::string(name));
}

bool is_called(const StoreObject &host, const std::string &who)
{
    if (const auto mac = parse_mac(who)) {
        return parse_mac(host.get("MACAddress")) == mac;
    }
    return who == std::to_string(host.instance) ||
           std::ranges::any_of(std::initializer_list<const char *>{"HostAlias", "HostName"},
                               [&](const char *name) { return host.get(name) == who && !who.empty(); });
}

// By name, alias, MAC or instance; ends the command unless it is exactly one.
const StoreObject &find_host(const std::vector<StoreObject> &hosts, const std::string &who)
{
    std::vector<const StoreObject *> found;
    std::string names;
    for (const StoreObject &host : hosts) {
        if (is_called(host, who)) {
            found.push_back(&host);
            names += "\n  " + printable(name_of(host));
        }
    }
    if (found.empty()) {
        fail("no host is called " + printable(who) + " (see ovanictl hosts)");
    }
    if (found.size() > 1) {
        fail(printable(who) + " is each of these; say it by its number or MAC:" + names);
    }
    return *found.front();
}

std::string path_of(const StoreObject &host)
{
    return std::string(HOSTS_PATH) + std::to_string(host.instance) + '.';
}

// --- host

struct HostCommand {
    std::string who;
    std::vector<std::string> changes;
    bool json = false;
};

void show_host(const HostCommand &command)
{
    require_store();
    const std::vector<StoreObject> hosts = read_objects(HOSTS_PATH);
    const StoreObject &host = find_host(hosts, command.who);
    if (command.json) {
        const Json shown = {
            {"schema", JSON_SCHEMA}, {"instance", host.instance}, {"parameters", host.parameters}};
        puts(json_text(shown, 1).c_str());
        return;
    }
    printf("%s\n", path_of(host).c_str());
    for (const auto &[name, value] : host.parameters) {
        printf("  %s = %s\n", name.c_str(), printable(value).c_str());
    }
}

void set_host(const HostCommand &command, const CtlOptions &options)
{
    static constexpr std::pair<std::string_view, const char *> short_names[] = {
        {"alias", "HostAlias"}, {"up", "MaxUSBandwidth"}, {"down", "MaxDSBandwidth"}};
    Pairs pairs;
    for (const std::string &change : command.changes) {
        pairs.push_back(pair_of(change));
        for (const auto &[name, parameter] : short_names) {
            if (pairs.back().first == name) {
                pairs.back().first = parameter;
            }
        }
    }
    require_store_to_write();
    const std::vector<StoreObject> hosts = read_objects(HOSTS_PATH);
    set_parameters(path_of(find_host(hosts, command.who)), pairs, options);
}

// --- delete

struct DeleteCommand {
    std::vector<std::string> whose;
    bool inactive = false;
};

void delete_host(const StoreObject &host)
{
    const std::string path = path_of(host);
    const int result = store_remove(data_model_find_object(data_model(), path), STORE_WAIT_MS);
    if (result != STORE_OK && result != STORE_NO_OBJECT) { // somebody else may have been quicker
        fail(path + ": " + store_strerror(result));
    }
    printf("deleted %s\n", printable(name_of(host)).c_str());
}

// A daemon counts the objects when it starts, and from then on those that it makes and deletes itself.
void delete_hosts(const DeleteCommand &command)
{
    require_store_to_write();
    const std::vector<StoreObject> hosts = read_objects(HOSTS_PATH);
    std::set<const StoreObject *> chosen; // all of them, before the first goes
    for (const std::string &who : command.whose) {
        chosen.insert(&find_host(hosts, who));
    }
    for (const StoreObject &host : hosts) {
        if (command.inactive && host.get("Active") != "1") {
            chosen.insert(&host);
        }
    }
    for (const StoreObject *host : chosen) {
        delete_host(*host);
    }
    if (!chosen.empty() && daemon_runs()) {
        fprintf(stderr, "ovanictl: the daemon goes on counting them until it is started again\n");
    }
}

} // namespace

void add_host_commands(CLI::App &app, const CtlOptions &options)
{
    auto command = std::make_shared<HostCommand>();
    CLI::App *host = app.add_subcommand("host", "Show one host, or set what is its own");
    host->footer("A HOST is called by its alias, its name, its MAC or its number. "
                 "Of hosts of one name it is the number or the MAC that tells them apart.");
    host->add_option("HOST", command->who)->required();
    host->add_flag("--json", command->json, "as a JSON object");
    CLI::App *set =
        host->add_subcommand("set", "Give it an alias, ceilings in the driver's unit, or any parameter");
    set->add_option("CHANGES", command->changes, "alias=TEXT, up=NUMBER, down=NUMBER, NAME=VALUE")
        ->required();
    set->footer("Exit status: 0 done, 1 failed, 3 written, but there is no daemon to be told.");
    host->callback(
        [command, set, &options] { set->parsed() ? set_host(*command, options) : show_host(*command); });

    auto chosen = std::make_shared<DeleteCommand>();
    CLI::App *deletion = app.add_subcommand("delete", "Delete hosts' objects, to make room for new ones");
    deletion->footer(
        "A host that is still there comes back with its next ARP event or lease. The daemon goes on "
        "counting the objects that were deleted until it is started again.");
    CLI::Option *whose = deletion->add_option("HOST", chosen->whose, "by alias, name, MAC or number");
    CLI::Option *inactive = deletion->add_flag("--inactive", chosen->inactive, "all that have left");
    deletion->require_option(1, 0);
    whose->excludes(inactive);
    deletion->callback([chosen] { delete_hosts(*chosen); });
}
