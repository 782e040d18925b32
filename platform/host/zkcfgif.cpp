// The configuration interface over the store. The device-function modes make no difference here: there are no
// device functions behind the parameters, every change is kept, and nobody is notified.
#include "platform/zkcfgif.h"

#include <charconv>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/store.h"

namespace {

struct Session {
    Session(bool writes_values, int wait_ms) : writes(writes_values), wait(wait_ms)
    {
        items.reserve(16); // the daemon's longest batch has 14 parameters
    }

    bool writes;
    int wait;
    std::vector<StoreItem> items;
    std::string object_path; // of the last parameter, which the next one mostly shares
    ObjectRef object;
};

bool is_write(OBJ_OP op)
{
    return op == OBJ_SET || (op >= OBJ_SET_NO_OP && op <= OBJ_SET_NOOP_NOINFORM);
}

bool is_read(OBJ_OP op)
{
    return op == OBJ_GET || op == OBJ_GET_NO_OP;
}

StoreResult find_parameter(const ObjectRef &object, std::string_view name, size_t &parameter)
{
    if (object.object == MODEL_NONE) {
        return STORE_UNKNOWN_PATH;
    }
    int index = data_model_find_parameter(data_model().objects[static_cast<size_t>(object.object)], name);
    if (index == MODEL_NONE) {
        return STORE_UNKNOWN_PATH;
    }
    parameter = static_cast<size_t>(index);
    return STORE_OK;
}

// The parts of a parameter's path: the object's, with its dot, and the name.
std::pair<std::string_view, std::string_view> split(std::string_view path)
{
    size_t name = path.rfind('.') + 1; // 0 without a dot
    return {path.substr(0, name), path.substr(name)};
}

int get(std::string_view object_path, std::string_view name, char *value, int wait)
{
    StoreItem item{
        .object = data_model_find_object(data_model(), object_path), .parameter = 0, .text = value};
    StoreResult result = find_parameter(item.object, name, item.parameter);
    return result == STORE_OK ? store_read({&item, 1}, wait) : result;
}

int set(std::string_view object_path, std::string_view name, const char *value, int wait)
{
    // A write only reads the buffer.
    StoreItem item{.object = data_model_find_object(data_model(), object_path),
                   .parameter = 0,
                   .text = const_cast<char *>(value)};
    StoreResult result = find_parameter(item.object, name, item.parameter);
    return result == STORE_OK ? store_write({&item, 1}, wait) : result;
}

} // namespace

int zkapi_multinode_sessioncreate(void **session, OBJ_OP op, int wait)
{
    if (session == nullptr || !(is_read(op) || is_write(op))) {
        return STORE_BAD_ARGUMENT;
    }
    *session = new Session(is_write(op), wait);
    return STORE_OK;
}

int zkapi_multinode_sessionprepare(void *session, const char *fullpath, void *data)
{
    auto *open = static_cast<Session *>(session);
    if (open == nullptr || fullpath == nullptr || data == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    auto [object_path, name] = split(fullpath);
    if (object_path != open->object_path) {
        open->object_path = object_path;
        open->object = data_model_find_object(data_model(), object_path);
    }
    StoreItem item{.object = open->object, .parameter = 0, .text = static_cast<char *>(data)};
    StoreResult result = find_parameter(item.object, name, item.parameter);
    if (result != STORE_OK) {
        return result;
    }
    const ModelObject &object = data_model().objects[static_cast<size_t>(item.object.object)];
    if (open->writes && object.parameters[item.parameter].counted != MODEL_NONE) {
        return STORE_READ_ONLY;
    }
    open->items.push_back(item);
    return STORE_OK;
}

int zkapi_multinode_sessionprocess(void *session)
{
    const auto *open = static_cast<const Session *>(session);
    if (open == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    return open->writes ? store_write(open->items, open->wait) : store_read(open->items, open->wait);
}

int zkapi_multinode_sessiondestroy(void *session)
{
    if (session == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    delete static_cast<Session *>(session);
    return STORE_OK;
}

int zkapi_singlevalue_get(const char *path, char *value, OP_DEVFUNC /*mode*/, int wait)
{
    if (path == nullptr || value == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    auto [object_path, name] = split(path);
    return get(object_path, name, value, wait);
}

int zkapi_singlevalue_set(const char *path, const char *value, OP_DEVFUNC /*mode*/, int wait)
{
    if (path == nullptr || value == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    auto [object_path, name] = split(path);
    return set(object_path, name, value, wait);
}

int zkapi_obj_add(const char *objpath, int *instance, OP_DEVFUNC /*mode*/, int wait)
{
    if (objpath == nullptr || instance == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    ObjectRef table = data_model_find_table(data_model(), objpath);
    return table.object == MODEL_NONE ? STORE_UNKNOWN_PATH : store_add(table, *instance, wait);
}

int zkapi_obj_del(const char *objpath, int instance, OP_DEVFUNC /*mode*/, int wait)
{
    if (objpath == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    ObjectRef object = data_model_find_table(data_model(), objpath);
    if (object.object == MODEL_NONE) {
        return STORE_UNKNOWN_PATH;
    }
    if (instance < 1) {
        return STORE_NO_OBJECT;
    }
    size_t depth = data_model().objects[static_cast<size_t>(object.object)].depth;
    object.instance[depth - 1] = instance;
    return store_remove(object, wait);
}

int zkapi_obj_checkexist(const char *objpath, int wait)
{
    if (objpath == nullptr) {
        return 0;
    }
    ObjectRef object = data_model_find_object(data_model(), objpath);
    if (object.object == MODEL_NONE) {
        return 0;
    }
    switch (store_exists(object, wait)) {
    case STORE_OK:
        return 1;
    case STORE_NO_OBJECT:
        return 0;
    default:
        return -1; // the store cannot tell; nobody is to conclude that the object is gone
    }
}

void zkapi_getobjidbyobjpath(const char *path, InstIdStack *ids)
{
    if (ids == nullptr) {
        return;
    }
    *ids = {};
    std::string_view rest = path == nullptr ? "" : path;
    while (!rest.empty() && ids->currentDepth < 8) {
        std::string_view component = rest.substr(0, rest.find('.'));
        rest.remove_prefix(component.size() == rest.size() ? rest.size() : component.size() + 1);
        int number = 0;
        const char *last = component.data() + component.size();
        auto [end, fault] = std::from_chars(component.data(), last, number);
        bool is_number = !component.empty() && fault == std::errc{} && end == last && number >= 0;
        if (is_number) {
            ids->instance[ids->currentDepth++] = number;
        }
    }
}

int zkcfg_getsingleparamval(const char *objpath, const char *param, char *value, int wait)
{
    if (objpath == nullptr || param == nullptr || value == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    return get(objpath, param, value, wait);
}

int zkcfg_setsingleparamval(const char *objpath, const char *param, const char *value, int wait)
{
    if (objpath == nullptr || param == nullptr || value == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    return set(objpath, param, value, wait);
}
