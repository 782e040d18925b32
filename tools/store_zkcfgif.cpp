// platform/host/store.h over platform/zkcfgif.h, for tools on a gateway: what the data model lists is asked
// for one by one. Objects and parameters that this gateway has not are passed over.

#include "tools/ovanictl.h"

#include "platform/host/store.h"
#include "platform/zkcfgif.h"
#include "tools/objects.h"
#include "tools/store_paths.h"
#include "tools/text.h"

namespace {

constexpr size_t VALUE_SIZE = 256;
constexpr int MOST_INSTANCES = 254; // a LAN's hosts
constexpr int WIDEST_GAP = 8;       // between instances of tables that are not counted

bool read_value(const std::string &path, std::string &value, int wait)
{
    char text[VALUE_SIZE] = {};
    if (zkapi_singlevalue_get(path.c_str(), text, DEVFUNC_NOCALL, wait) != 0) {
        return false;
    }
    text[VALUE_SIZE - 1] = '\0';
    value = text;
    return true;
}

// How many instances the table has by its parameter that counts them, and where that is.
std::optional<long> counted_instances(const std::string &table, int wait)
{
    const DataModel &model = data_model();
    const ObjectRef rows = data_model_find_table(model, table);
    const ModelObject &row = model.objects[static_cast<size_t>(rows.object)];
    if (row.parent == MODEL_NONE) {
        return std::nullopt;
    }
    ObjectRef parent = rows;
    parent.object = row.parent;
    for (const ModelParameter &parameter : data_model_object(parent).parameters) {
        std::string value;
        if (parameter.counted == rows.object &&
            read_value(data_model_path(model, parent) + parameter.name, value, wait)) {
            return parse_number(value, 0, MOST_INSTANCES);
        }
    }
    return std::nullopt;
}

std::vector<int> find_instances(const std::string &table, int wait)
{
    const std::optional<long> count = counted_instances(table, wait);
    std::vector<int> numbers;
    for (int number = 1, last = 0; number <= MOST_INSTANCES; ++number) {
        if (count ? static_cast<long>(numbers.size()) >= *count : number - last > WIDEST_GAP) {
            break;
        }
        if (zkapi_obj_checkexist((table + std::to_string(number) + '.').c_str(), wait) == 1) {
            numbers.push_back(number);
            last = number;
        }
    }
    return numbers;
}

void list_below(const ModelNode &node, const std::string &path, StoreListing &listing, int wait)
{
    const DataModel &model = data_model();
    if (node.object != MODEL_NONE) {
        for (const ModelParameter &parameter : model.objects[static_cast<size_t>(node.object)].parameters) {
            std::string name = path + parameter.name;
            if (std::string value; read_value(name, value, wait)) {
                listing.emplace_back(std::move(name), std::move(value));
            }
        }
    }
    for (const auto &[name, below] : node.below) {
        list_below(model.nodes[below], path + name + '.', listing, wait);
    }
    if (node.instance != 0) {
        for (const int number : find_instances(path, wait)) {
            list_below(model.nodes[node.instance], path + std::to_string(number) + '.', listing, wait);
        }
    }
}

StoreResult result_of(int code)
{
    return code == 0 ? STORE_OK : STORE_FAILED;
}

StoreResult write_all(void *session, std::span<const StoreItem> items)
{
    for (const StoreItem &item : items) {
        const std::string path = data_model_path(data_model(), item.object) +
                                 data_model_object(item.object).parameters[item.parameter].name;
        if (zkapi_multinode_sessionprepare(session, path.c_str(), item.text) != 0) {
            return STORE_FAILED;
        }
    }
    return result_of(zkapi_multinode_sessionprocess(session));
}

} // namespace

std::string why_no_store()
{
    return "";
}

const char *store_strerror(int code)
{
    switch (code) {
    case STORE_OK:
        return "no error";
    case STORE_UNKNOWN_PATH:
        return "no such path in the data model";
    case STORE_NO_OBJECT:
        return "no such object";
    case STORE_TOO_LONG:
        return "value too long";
    case STORE_READ_ONLY:
        return "parameter is counted and cannot be set";
    default:
        return "the gateway's store refuses";
    }
}

StoreResult store_list(std::string_view path, StoreListing &listing, int wait)
{
    const size_t name = path.rfind('.') + 1; // 0 without a dot
    const ModelNode *node = find_node(path.substr(0, name));
    if (node == nullptr) {
        return STORE_UNKNOWN_PATH;
    }
    const std::string text(path);
    if (name == path.size()) {
        list_below(*node, text, listing, wait);
        return STORE_OK;
    }
    const bool is_known = node->object != MODEL_NONE &&
                          data_model_find_parameter(data_model().objects[static_cast<size_t>(node->object)],
                                                    path.substr(name)) != MODEL_NONE;
    std::string value;
    if (!is_known) {
        return STORE_UNKNOWN_PATH;
    }
    if (!read_value(text, value, wait)) {
        return STORE_NO_OBJECT;
    }
    listing.emplace_back(text, std::move(value));
    return STORE_OK;
}

StoreResult store_instances(const ObjectRef &table, std::vector<int> &numbers, int wait)
{
    if (table.object == MODEL_NONE) {
        return STORE_UNKNOWN_PATH;
    }
    const std::string row = data_model_path(data_model(), table); // ends in "0."
    numbers = find_instances(row.substr(0, row.rfind('.', row.size() - 2) + 1), wait);
    return STORE_OK;
}

StoreResult store_write(std::span<const StoreItem> items, int wait)
{
    void *session = nullptr;
    if (zkapi_multinode_sessioncreate(&session, OBJ_SET, wait) != 0) {
        return STORE_FAILED;
    }
    const StoreResult result = write_all(session, items);
    zkapi_multinode_sessiondestroy(session);
    return result;
}

// A gateway gives new instances their numbers itself: none is made here.
StoreResult store_put(std::span<const StoreItem> items, int wait)
{
    return store_write(items, wait);
}

StoreResult store_remove(const ObjectRef &object, int wait)
{
    const std::string row = data_model_path(data_model(), object);
    const size_t number = row.rfind('.', row.size() - 2) + 1;
    const int instance =
        data_model_instance_number(std::string_view(row).substr(number, row.size() - number - 1));
    return result_of(zkapi_obj_del(row.substr(0, number).c_str(), instance, DEVFUNC_NOCALL, wait));
}

void store_only_read()
{
    // Who reads makes nothing here.
}
