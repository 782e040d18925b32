#include "tools/ovanictl.h"

#include "tools/objects.h"

#include "platform/host/store.h"
#include "tools/text.h"

void require_store()
{
    store_only_read();
    require_store_to_write();
}

void require_store_to_write()
{
    if (const std::string why = why_no_store(); !why.empty()) {
        fail(why);
    }
}

static StoreListing read_listing(std::string_view path)
{
    StoreListing listing;
    if (const int result = store_list(path, listing, STORE_WAIT_MS); result != STORE_OK) {
        fail(std::string(path) + ": " + store_strerror(result));
    }
    return listing;
}

std::string read_parameter(std::string_view path)
{
    return read_listing(path).front().second;
}

std::vector<StoreObject> read_objects(std::string_view table)
{
    std::vector<StoreObject> objects;
    for (auto &[path, value] : read_listing(table)) {
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
