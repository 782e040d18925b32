// The configuration interface over the store. The device-function modes make no difference here: there are no
// device functions behind the parameters, every change is kept, and nobody is notified.
#include "platform/zkcfgif.h"

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/number.h"
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
    // Of the last parameter: the next one mostly is of the same object, and the next there.
    std::string object_path;
    ObjectRef object;
    const ModelObject *model = nullptr;
    size_t next = 0;
};

bool is_write(OBJ_OP op)
{
    return op == OBJ_SET || (op >= OBJ_SET_NO_OP && op <= OBJ_SET_NOOP_NOINFORM);
}

bool is_read(OBJ_OP op)
{
    return op == OBJ_GET || op == OBJ_GET_NO_OP;
}

// Finds a parameter, which most likely is the one at `parameter`.
bool find_parameter(const ModelObject &model, std::string_view name, size_t &parameter)
{
    if (parameter >= model.parameters.size() || model.parameters[parameter].name != name) {
        parameter = static_cast<size_t>(data_model_find_parameter(model, name));
    }
    return parameter < model.parameters.size();
}

bool is_too_long(const char *text, const ModelParameter &parameter)
{
    return strnlen(text, parameter.max_length + 1) > parameter.max_length;
}

// The parts of a parameter's path: the object's, with its dot, and the name.
std::pair<std::string_view, std::string_view> split(std::string_view path)
{
    const size_t name = path.rfind('.') + 1; // 0 without a dot
    return {path.substr(0, name), path.substr(name)};
}

using Access = StoreResult (*)(std::span<const StoreItem> items, int wait);

int access_one(Access access, std::string_view object_path, std::string_view name, const char *value,
               int wait)
{
    if (value == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    StoreItem item{.object = data_model_find_object(data_model(), object_path),
                   .parameter = 0,
                   .text = const_cast<char *>(value)}; // a write only reads it
    const bool found = item.object.object != MODEL_NONE &&
                       find_parameter(data_model_object(item.object), name, item.parameter);
    return found ? access({&item, 1}, wait) : STORE_UNKNOWN_PATH;
}

int access_path(Access access, const char *path, const char *value, int wait)
{
    if (path == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    auto [object_path, name] = split(path);
    return access_one(access, object_path, name, value, wait);
}

int access_parameter(Access access, const char *object_path, const char *name, const char *value, int wait)
{
    if (object_path == nullptr || name == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    return access_one(access, object_path, name, value, wait);
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
        open->model = open->object.object == MODEL_NONE ? nullptr : &data_model_object(open->object);
        open->next = 0;
    }
    if (open->model == nullptr || !find_parameter(*open->model, name, open->next)) {
        return STORE_UNKNOWN_PATH;
    }
    const size_t index = open->next++;
    const ModelParameter &parameter = open->model->parameters[index];
    auto *text = static_cast<char *>(data);
    if (open->writes && parameter.counted != MODEL_NONE) {
        return STORE_READ_ONLY;
    }
    if (open->writes && is_too_long(text, parameter)) {
        return STORE_TOO_LONG;
    }
    open->items.push_back({.object = open->object, .parameter = index, .text = text});
    return STORE_OK;
}

int zkapi_multinode_sessionprocess(void *session)
{
    auto *open = static_cast<Session *>(session);
    if (open == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    if (!open->writes) {
        return store_read(open->items, open->wait);
    }
    int result = store_write(open->items, open->wait);
    if (result == STORE_TOO_LONG) { // since it was prepared; it is left out as well
        std::erase_if(open->items, [](const StoreItem &item) {
            return is_too_long(item.text, data_model_object(item.object).parameters[item.parameter]);
        });
        result = store_write(open->items, open->wait);
    }
    return result;
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
    return access_path(store_read, path, value, wait);
}

int zkapi_singlevalue_set(const char *path, const char *value, OP_DEVFUNC /*mode*/, int wait)
{
    return access_path(store_write, path, value, wait);
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
    object.instance[data_model_object(object).depth - 1] = instance;
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
    while (!rest.empty() && ids->currentDepth < static_cast<int>(MODEL_MAX_DEPTH)) {
        const std::string_view component = rest.substr(0, rest.find('.'));
        rest.remove_prefix(component.size() == rest.size() ? rest.size() : component.size() + 1);
        if (const auto number = parse_number<int>(component)) {
            ids->instance[ids->currentDepth++] = *number;
        }
    }
}

int zkcfg_getsingleparamval(const char *objpath, const char *param, char *value, int wait)
{
    return access_parameter(store_read, objpath, param, value, wait);
}

int zkcfg_setsingleparamval(const char *objpath, const char *param, const char *value, int wait)
{
    return access_parameter(store_write, objpath, param, value, wait);
}
