#include "tools/ovanictl.h" // CLI11 before libubox, whose macros take one of its names

#include "tools/objects.h"

#include <cerrno>
#include <cstdlib>

#include <unistd.h>

#include "platform/host/store.h"
#include "tools/text.h"

std::string store_file()
{
    const char *file = getenv("OVANI_STORE");
    return file == nullptr || file[0] == '\0' ? "/var/lib/ovani/store.db" : file;
}

void require_store()
{
    if (access(store_file().c_str(), R_OK) != 0) {
        fail((errno == EACCES ? "no right to read " : "no store at ") + store_file());
    }
}

std::vector<StoreObject> read_objects(std::string_view table)
{
    StoreListing listing;
    const int result = store_list(table, listing, STORE_WAIT_MS);
    if (result != STORE_OK) {
        fail(std::string(table) + ": " + store_strerror(result));
    }
    std::vector<StoreObject> objects;
    for (auto &[path, value] : listing) {
        const std::string_view rest = std::string_view(path).substr(table.size());
        const size_t dot = rest.find('.');
        const auto instance = parse_number(rest.substr(0, dot), 1, INT32_MAX);
        if (!instance || dot == std::string_view::npos) {
            continue;
        }
        if (objects.empty() || objects.back().instance != *instance) {
            objects.push_back({static_cast<int>(*instance), {}});
        }
        objects.back().parameters.emplace(rest.substr(dot + 1), std::move(value));
    }
    return objects;
}
