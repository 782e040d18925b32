// ovanictl get, ovanictl set.

#include "tools/ovanictl.h" // CLI11 before libubox, whose macros take one of its names

#include <algorithm>
#include <cstdio>
#include <memory>

#include "platform/host/store.h"
#include "platform/zkcfgif.h"
#include "tools/objects.h"
#include "tools/text.h"

namespace {

struct StoreCommand {
    std::string path;
    std::string value;
    bool json = false;
};

void print_json(const StoreListing &listing)
{
    const char *separator = "{\n  ";
    for (const auto &[path, value] : listing) {
        printf("%s%s: %s", separator, json_quote(path).c_str(), json_quote(value).c_str());
        separator = ",\n  ";
    }
    puts(listing.empty() ? "{}" : "\n}");
}

void get(const StoreCommand &command)
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
        print_json(listing);
    } else if (is_parameter) {
        puts(printable(listing[0].second).c_str());
    } else {
        for (const auto &[path, value] : listing) {
            printf("%s = %s\n", path.c_str(), printable(value).c_str());
        }
    }
}

void set(const StoreCommand &command)
{
    const int result =
        zkapi_singlevalue_set(command.path.c_str(), command.value.c_str(), DEVFUNC_NOCALL, STORE_WAIT_MS);
    if (result != STORE_OK) {
        fail(command.path + ": " + store_strerror(result));
    }
}

} // namespace

void add_store_commands(CLI::App &app)
{
    auto command = std::make_shared<StoreCommand>();
    CLI::App *get_app = app.add_subcommand("get", "Print a parameter of the store, or a whole subtree");
    get_app->add_option("PATH", command->path, "a parameter, or an object with all below it")->required();
    get_app->add_flag("--json", command->json, "as a JSON object");
    get_app->callback([command] { get(*command); });

    CLI::App *set_app = app.add_subcommand("set", "Write a parameter of the store");
    set_app->add_option("PATH", command->path, "the parameter")->required();
    set_app->add_option("VALUE", command->value, "its new value")->required();
    set_app->callback([command] { set(*command); });
}
