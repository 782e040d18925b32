// ovanictl get, ovanictl set, ovanictl store.

#include "tools/ovanictl.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>

#include "platform/host/store.h"
#include "tools/bus.h"
#include "tools/ctl_store.h"
#include "tools/json.h"
#include "tools/objects.h"
#include "tools/text.h"

namespace {

// --- get

struct GetCommand {
    std::string path;
    bool json = false;
};

void get(const GetCommand &command)
{
    StoreListing listing;
    int result = store_list(command.path, listing, STORE_WAIT_MS);
    if (result == STORE_UNKNOWN_PATH && !command.path.ends_with('.')) {
        result = store_list(command.path + '.', listing, STORE_WAIT_MS);
    }
    if (result != STORE_OK) {
        fail(command.path + ": " + store_strerror(result));
    }

    const bool is_parameter = listing.size() == 1 && listing[0].first == command.path;
    if (command.json) {
        Json json = {{"schema", JSON_SCHEMA}, {"parameters", Json::object()}};
        auto &members = json["parameters"].get_ref<Json::object_t &>();
        for (auto &[path, value] : listing) {
            members.emplace_back(std::move(path), std::move(value)); // each path is there once
        }
        puts(json_text(json, 2).c_str());
    } else if (is_parameter) {
        puts(printable(listing[0].second).c_str());
    } else {
        for (const auto &[path, value] : listing) {
            printf("%s = %s\n", path.c_str(), printable(value).c_str());
        }
    }
}

// --- A parameter to write

struct Assignment {
    std::string value;
    ObjectRef object;
    size_t parameter = 0;
};

// Finds the parameter and tells whether it can have the value.
StoreResult assign(std::string_view path, std::string value, Assignment &assignment)
{
    const size_t name = path.rfind('.') + 1; // 0 without a dot
    const ObjectRef object = data_model_find_object(data_model(), path.substr(0, name));
    if (object.object == MODEL_NONE) {
        return STORE_UNKNOWN_PATH;
    }
    const ModelObject &model = data_model().objects[static_cast<size_t>(object.object)];
    const int parameter = data_model_find_parameter(model, path.substr(name));
    if (parameter == MODEL_NONE) {
        return STORE_UNKNOWN_PATH;
    }
    assignment = {std::move(value), object, static_cast<size_t>(parameter)};
    const ModelParameter &kept = model.parameters[assignment.parameter];
    if (kept.counted != MODEL_NONE) {
        return STORE_READ_ONLY;
    }
    return assignment.value.size() > kept.max_length ? STORE_TOO_LONG : STORE_OK;
}

std::vector<StoreItem> items_of(std::vector<Assignment> &assignments)
{
    std::vector<StoreItem> items;
    items.reserve(assignments.size());
    for (Assignment &assignment : assignments) {
        items.push_back({assignment.object, assignment.parameter, assignment.value.data()});
    }
    return items;
}

// --- set

struct SetCommand {
    std::string path;
    std::string value; // or the first pair
    std::vector<std::string> more;
};

// What is to be set, and in which object: `path` becomes the object's.
Pairs pairs_of(const SetCommand &command, std::string &path)
{
    Pairs pairs;
    path = command.path + (command.path.ends_with('.') ? "" : ".");
    if (data_model_find_object(data_model(), path).object != MODEL_NONE) {
        pairs.push_back(pair_of(command.value));
        std::ranges::transform(command.more, std::back_inserter(pairs), pair_of);
        return pairs;
    }
    const size_t name = command.path.rfind('.') + 1;
    if (name == command.path.size() || !command.more.empty()) {
        fail(printable(command.path) + ": " + store_strerror(STORE_UNKNOWN_PATH));
    }
    path = command.path.substr(0, name);
    pairs.emplace_back(command.path.substr(name), command.value);
    return pairs;
}

void write_pairs(const std::string &object, const Pairs &pairs)
{
    std::vector<Assignment> assignments;
    for (const auto &[name, value] : pairs) {
        const std::string path = printable(object + name);
        const Assignment &made = assignments.emplace_back();
        if (const int result = assign(object + name, value, assignments.back()); result != STORE_OK) {
            fail(path + ": " + store_strerror(result));
        }
        const ModelParameter &parameter = data_model_object(made.object).parameters[made.parameter];
        if (!data_model_allows(parameter, value)) {
            fail(path + ": \"" + printable(value) + "\" is none of " + parameter.values);
        }
    }
    if (const int result = store_write(items_of(assignments), STORE_WAIT_MS); result != STORE_OK) {
        fail(object + ": " + store_strerror(result));
    }
}

// Whose changes the daemon is told of, and by which of its methods.
struct ToldTable {
    std::string_view path;
    const char *method;
};

constexpr ToldTable TOLD_TABLES[] = {
    {"InternetGatewayDevice.LANDevice.1.LANEthernetInterfaceConfig.", "ovani_devfuc_port_cfg"},
    {"InternetGatewayDevice.LANDevice.1.WLANConfiguration.", "ovani_devfuc_port_cfg"},
    {"InternetGatewayDevice.LANInterfaces.", "ovani_devfuc_port_cfg"},
    {"InternetGatewayDevice.LANDevice.1.Hosts.Host.", "set_lanhost_config"},
};

constexpr int ANSWER_MS = 5000;

// Calls a method of the daemon as the gateway's front ends do, and shows what it answers.
void tell_daemon(const CtlOptions &options, const char *method, const std::string &object, const Pairs &pairs)
{
    const BusConnection bus = connect_bus(options.socket_or_null());
    uint32_t daemon = 0;
    if (!bus || ubus_lookup_id(bus.get(), "ovani", &daemon) != UBUS_STATUS_OK) {
        const std::string why = bus ? "no daemon on the bus" : why_no_bus(options.socket_or_null());
        fprintf(stderr, "ovanictl: %s: %s; the store is written, and the daemon reads it when it starts\n",
                method, why.c_str());
        throw CLI::RuntimeError(NO_ANSWER);
    }
    Message message;
    message.add_text("url", object);
    message.add_texts("data", pairs);
    const int status = ubus_invoke(bus.get(), daemon, method, message.head(), nullptr, nullptr, ANSWER_MS);
    if (status != UBUS_STATUS_OK) {
        fail(std::string(method) + ": " + ubus_strerror(status) + "; the store is written");
    }
    printf("%s: %s\n", method, ubus_strerror(status));
}

} // namespace

std::pair<std::string, std::string> pair_of(const std::string &text)
{
    const size_t equals = text.find('=');
    if (equals == std::string::npos) {
        fail(printable(text) + ": NAME=VALUE expected");
    }
    return {text.substr(0, equals), text.substr(equals + 1)};
}

void set_parameters(const std::string &object, const Pairs &pairs, const CtlOptions &options)
{
    write_pairs(object, pairs);
    for (const ToldTable &table : TOLD_TABLES) {
        if (object.starts_with(table.path)) {
            tell_daemon(options, table.method, object, pairs);
        }
    }
}

namespace {

void set(const SetCommand &command, const CtlOptions &options)
{
    std::string object;
    const Pairs pairs = pairs_of(command, object);
    set_parameters(object, pairs, options);
}

// --- store export, store import

constexpr char FORMAT[] = "One PATH=VALUE a line, in UTF-8; empty lines and those that begin with # are for "
                          "people. In a value \\\\ "
                          "stands for \\ and \\xNN for any byte.";

bool is_kept(const std::string &path)
{
    Assignment ignored;
    return assign(path, "", ignored) == STORE_OK;
}

void export_store(const std::string &file)
{
    StoreListing listing;
    if (const int result = store_list("", listing, STORE_WAIT_MS); result != STORE_OK) {
        fail(std::string("the store: ") + store_strerror(result));
    }
    std::sort(listing.begin(), listing.end());
    std::ofstream to_file;
    if (file != "-") {
        to_file.open(file, std::ios::binary);
    }
    std::ostream &out = file == "-" ? std::cout : to_file;
    for (const auto &[path, value] : listing) {
        if (is_kept(path)) {
            out << path << '=' << escape(value) << '\n';
        }
    }
    if (!out.flush()) {
        fail(file + ": cannot be written");
    }
}

// What is wrong with a line, or null.
const char *take_line(std::string_view line, std::vector<Assignment> &assignments)
{
    if (line.empty() || line.starts_with('#')) {
        return nullptr;
    }
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
        return "PATH=VALUE expected";
    }
    std::optional<std::string> value = unescape(line.substr(equals + 1));
    if (!value) {
        return "in a value, \\ is \\\\ and a byte that is no printable character \\xNN";
    }
    assignments.emplace_back();
    const int result = assign(line.substr(0, equals), std::move(*value), assignments.back());
    return result == STORE_OK ? nullptr : store_strerror(result);
}

void import_store(const std::string &file)
{
    std::ifstream from_file;
    if (file != "-") {
        from_file.open(file, std::ios::binary);
    }
    std::istream &in = file == "-" ? std::cin : from_file;
    std::vector<Assignment> assignments;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (const char *wrong = take_line(line, assignments); wrong != nullptr) {
            fail(file + ":" + std::to_string(number) + ": " + wrong);
        }
    }
    if (!in.eof()) {
        fail(file + ": cannot be read");
    }
    if (const int result = store_put(items_of(assignments), STORE_WAIT_MS); result != STORE_OK) {
        fail(file + ": " + store_strerror(result));
    }
}

} // namespace

void add_store_commands(CLI::App &app, const CtlOptions &options)
{
    auto get_command = std::make_shared<GetCommand>();
    CLI::App *get_app = app.add_subcommand("get", "Print a parameter of the store, or a whole subtree");
    get_app->add_option("PATH", get_command->path, "a parameter, or an object with all below it")->required();
    get_app->add_flag("--json", get_command->json, "as a JSON object");
    get_app->callback([get_command] { get(*get_command); });

    auto set_command = std::make_shared<SetCommand>();
    CLI::App *set_app =
        app.add_subcommand("set", "Write parameters of the store, as the gateway's front ends do");
    set_app->footer("What is set of a LAN port, an SSID or a host goes to the daemon as well, in one call.\n"
                    "Exit status: 0 done, 1 failed, 3 written, but there is no daemon to be told.");
    set_app->add_option("PATH", set_command->path, "a parameter, or an object")->required();
    set_app->add_option("VALUE", set_command->value, "its new value; of an object, NAME=VALUE")->required();
    set_app->add_option("MORE", set_command->more, "and more NAME=VALUE");
    set_app->callback([set_command, &options] { set(*set_command, options); });

    auto file = std::make_shared<std::string>("-");
    CLI::App *store = app.add_subcommand("store", "The whole store as text");
    store->require_subcommand(1);
    CLI::App *export_app = store->add_subcommand("export", "Write all parameters, sorted, to a file");
    export_app->add_option("FILE", *file, "- is standard output")->capture_default_str();
    export_app->callback([file] { export_store(*file); });
    CLI::App *import_app =
        store->add_subcommand("import", "Set what a file says, all of it or nothing; the rest stays");
    import_app->add_option("FILE", *file, "- is standard input")->capture_default_str();
    import_app->footer(FORMAT);
    import_app->callback([file] { import_store(*file); });
}
