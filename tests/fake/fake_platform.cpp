#include "tests/fake/fake_platform.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sstream>
#include <tuple>
#include <utility>

#include "platform/qvdrv_net_api.h"
#include "platform/qvdrv_pon_api.h"
#include "platform/zk_log.h"
#include "platform/zk_sys_mgr.h"
#include "platform/zkcfgif.h"

namespace fake {

namespace {
Platform current;
std::recursive_mutex in_use; // the contract's calls come from any thread
} // namespace

Platform &platform()
{
    return current;
}

void reset()
{
    current = Platform{};
}

bool logged(std::string_view text, int level)
{
    return std::ranges::any_of(current.log, [&](const LogLine &line) {
        return (level < 0 || line.level == level) && line.text.find(text) != std::string::npos;
    });
}

int count_calls(std::string_view beginning)
{
    return static_cast<int>(std::ranges::count_if(
        current.calls, [&](const std::string &call) { return call.starts_with(beginning); }));
}

std::string joined(const std::vector<std::string> &texts, const char *between)
{
    std::string all;
    for (const std::string &text : texts) {
        all += (&text == &texts.front() ? "" : between) + text;
    }
    return all;
}

std::string Sent::attribute(const char *attribute_name) const
{
    auto *head = reinterpret_cast<blob_attr *>(const_cast<char *>(message.data()));
    blobmsg_policy policy{attribute_name, BLOBMSG_TYPE_UNSPEC};
    blob_attr *found = nullptr;
    blobmsg_parse(&policy, 1, &found, blob_data(head), static_cast<unsigned>(blob_len(head)));
    if (found == nullptr) {
        return {};
    }
    return {static_cast<const char *>(blobmsg_data(found)), static_cast<size_t>(blobmsg_data_len(found))};
}

namespace {

void trace(const std::string &what)
{
    if (current.keep_trace) {
        current.trace.push_back(what);
    }
}

// As the contract names them.
std::ostream &operator<<(std::ostream &out, OBJ_OP op)
{
    static const std::map<int, const char *> names{
        {OBJ_GET, "GET"}, {OBJ_GET_NO_OP, "GET_NO_OP"}, {OBJ_SET, "SET"}, {OBJ_SET_NO_OP, "SET_NO_OP"}};
    return out << names.at(op);
}

std::ostream &operator<<(std::ostream &out, OP_DEVFUNC mode)
{
    static const char *const names[] = {"CALL",           "NOCALL",        "NOFLASH",
                                        "NOCALL_NOFLASH", "CALL_NOINFORM", "NOCALL_NOINFORM"};
    return out << names[mode];
}

// Notes a call, its words separated by blanks; what it is to fail with.
template <typename... Word>
int record(const char *name, const Word &...words)
{
    std::scoped_lock lock(in_use);
    if (current.fail_every != 0 && ++current.calls_made % current.fail_every == 0) {
        return 1;
    }
    if (!current.keep_calls && !current.fail) {
        return 0;
    }
    std::ostringstream text;
    text << name;
    ((text << ' ' << words), ...);
    current.calls.push_back(text.str());
    trace(text.str());
    return current.fail ? current.fail(text.str()) : 0;
}

// A recorded call that does something, unless it fails.
int act(int failure, const std::function<void()> &effect)
{
    if (failure == 0) {
        std::scoped_lock lock(in_use);
        effect();
    }
    return failure;
}

int read_value(const std::string &path, char *value)
{
    std::scoped_lock lock(in_use);
    auto found = current.values.find(path);
    if (found == current.values.end()) {
        return 1;
    }
    memcpy(value, found->second.c_str(), found->second.size() + 1);
    return 0;
}

// A member as name=value; of a raw record its texts.
std::string shown(const blob_attr *member)
{
    std::string text = std::string(blobmsg_name(member)) + "=";
    if (blobmsg_type(member) == BLOBMSG_TYPE_INT32) {
        return text + std::to_string(blobmsg_get_u32(const_cast<blob_attr *>(member)));
    }
    const auto *bytes = static_cast<const char *>(blobmsg_data(member));
    for (size_t i = 0; i < blobmsg_data_len(member); ++i) {
        bool begins = i > 0 && bytes[i - 1] == '\0' && bytes[i] != '\0';
        text += std::string(begins ? "|" : "") + (static_cast<unsigned char>(bytes[i]) >= ' ' ? bytes[i]
                                                  : bytes[i] != '\0'                          ? '?'
                                                                                              : '\b');
    }
    std::erase(text, '\b');
    return text;
}

void send(const std::string &name, const blob_buf &message)
{
    const char *head = reinterpret_cast<const char *>(message.head);
    current.sent.push_back({name, {head, head + blob_raw_len(message.head)}});
    if (!current.keep_trace) {
        return;
    }
    blob_attr *member = nullptr;
    auto rest = static_cast<size_t>(blob_len(message.head));
    __blob_for_each_attr(member, blob_data(message.head), rest)
    {
        trace("message " + shown(member));
    }
}

// A parameter of a host needs its object; of the rest of the data model any path will do.
bool is_in_model(const std::string &path)
{
    size_t host = path.find("Hosts.Host.");
    return host == std::string::npos ||
           current.objects.contains(path.substr(0, path.find('.', host + strlen("Hosts.Host.")) + 1));
}

int write_value(const std::string &path, const char *value)
{
    std::scoped_lock lock(in_use);
    if (!is_in_model(path)) {
        return 1;
    }
    current.values[path] = value;
    return 0;
}

struct Session {
    OBJ_OP op;
    std::vector<std::pair<std::string, char *>> rows;
};

} // namespace

} // namespace fake

using fake::act;
using fake::in_use;
using fake::platform;
using fake::record;

extern "C" {

void zk_mod_log_printf(const char *module, int level, const char *fmt, ...)
{
    if (level > platform().log_level) {
        return;
    }
    char text[4096];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    std::scoped_lock lock(in_use);
    platform().log.push_back({module, level, text});
    fake::trace(std::string(module) + " " + std::to_string(level) + " " + text);
}

// --- Configuration store

int zkapi_multinode_sessioncreate(void **session, OBJ_OP op, int wait)
{
    return act(record("session_create", op, wait), [=] { *session = new fake::Session{op, {}}; });
}

int zkapi_multinode_sessionprepare(void *session, const char *fullpath, void *data)
{
    auto &rows = static_cast<fake::Session *>(session)->rows;
    return act(record("prepare", fullpath), [&] { rows.emplace_back(fullpath, static_cast<char *>(data)); });
}

int zkapi_multinode_sessionprocess(void *handle)
{
    auto &session = *static_cast<fake::Session *>(handle);
    bool reads = session.op == OBJ_GET || session.op == OBJ_GET_NO_OP;
    if (int code = record(reads ? "process get" : "process set")) {
        return code;
    }
    std::scoped_lock lock(in_use);
    if (!reads) {
        platform().written.clear();
    }
    for (auto &[path, data] : session.rows) {
        if (reads) {
            fake::read_value(path, data);
        } else if (int code = fake::write_value(path, data)) {
            return code;
        } else {
            fake::trace("write " + path + "=" + data);
            platform().written.push_back(path.substr(path.rfind('.') + 1));
        }
    }
    return 0;
}

int zkapi_multinode_sessiondestroy(void *session)
{
    delete static_cast<fake::Session *>(session);
    return record("session_destroy");
}

int zkapi_singlevalue_get(const char *path, char *value, OP_DEVFUNC mode, int wait)
{
    int code = record("get", path, mode, wait);
    return code != 0 ? code : fake::read_value(path, value);
}

int zkapi_singlevalue_set(const char *path, const char *value, OP_DEVFUNC mode, int wait)
{
    int code = record("set", path, value, mode, wait);
    return code != 0 ? code : fake::write_value(path, value);
}

int zkapi_obj_add(const char *objpath, int *instance, OP_DEVFUNC mode, int wait)
{
    if (int code = record("obj_add", objpath, mode, wait)) {
        return code;
    }
    auto path_of = [&](int number) { return objpath + std::to_string(number) + "."; };
    *instance = std::exchange(platform().next_instance, 0);
    if (*instance == 0) {
        do {
            ++*instance;
        } while (platform().objects.contains(path_of(*instance)));
    }
    platform().objects.insert(path_of(*instance));
    return 0;
}

int zkapi_obj_del(const char *objpath, int instance, OP_DEVFUNC mode, int wait)
{
    std::string path = objpath + std::to_string(instance) + ".";
    if (int code = record("obj_del", path, mode, wait)) {
        return code;
    }
    std::erase_if(platform().values, [&](const auto &entry) { return entry.first.starts_with(path); });
    return platform().objects.erase(path) == 1 ? 0 : 1;
}

int zkapi_obj_checkexist(const char *objpath, int wait)
{
    return record("exists", objpath, wait) == 0 && platform().objects.contains(objpath) ? 1 : 0;
}

int zkcfg_getsingleparamval(const char *objpath, const char *param, char *value, int wait)
{
    int code = record("get_param", objpath, param, wait);
    return code != 0 ? code : fake::read_value(std::string(objpath) + param, value);
}

int zkcfg_setsingleparamval(const char *objpath, const char *param, const char *value, int wait)
{
    int code = record("set_param", objpath, param, value, wait);
    return code != 0 ? code : fake::write_value(std::string(objpath) + param, value);
}

// --- System manager and drivers

int zk_sys_mgr_get_carrier(zk_carr_type *carrier)
{
    return act(record("carrier"), [=] { *carrier = static_cast<zk_carr_type>(platform().carrier); });
}

int zk_sys_mgr_get_areacode(char *areacode)
{
    return act(record("areacode"), [=] { snprintf(areacode, 256, "%s", platform().areacode.c_str()); });
}

int zk_sys_mgr_get_brmac(char *mac)
{
    return act(record("brmac"), [=] { snprintf(mac, 256, "%s", platform().brmac.c_str()); });
}

int zk_sys_mgr_get_devinfo(devinfo *info)
{
    return act(record("devinfo"), [=] { info->port_num = platform().port_num; });
}

void zkapi_getobjidbyobjpath(const char *path, InstIdStack *ids)
{
    *ids = {};
    std::istringstream parts(path);
    for (std::string part; std::getline(parts, part, '.') && ids->currentDepth < 8;) {
        if (!part.empty() && part.find_first_not_of("0123456789") == std::string::npos) {
            ids->instance[ids->currentDepth++] = atoi(part.c_str());
        }
    }
}

int qvdrv_net_set_port_mac_limit(unsigned int port, unsigned int limit)
{
    return record("mac_limit", port, limit);
}

int qvdrv_net_set_vlan_bind(unsigned int port, unsigned short lan_vlan, const qv_wan_param *wan)
{
    return record("bind", port, lan_vlan, wan->vid);
}

int qvdrv_net_del_vlan_bind(unsigned int port, unsigned short lan_vlan, const qv_wan_param *wan)
{
    return record("unbind", port, lan_vlan, wan->vid);
}

int qvdrv_net_get_dev_maxbandwidth(const char *mac, unsigned int *maxus, unsigned int *maxds)
{
    auto found = platform().ceilings.find(mac);
    if (found == platform().ceilings.end()) {
        return 1;
    }
    std::tie(*maxus, *maxds) = found->second;
    return 0;
}

int qvdrv_net_set_dev_maxbandwidth(const char *mac, unsigned int maxus, unsigned int maxds)
{
    platform().ceilings[mac] = {maxus, maxds};
    return record("ceiling", mac, maxus, maxds);
}

int qvdrv_net_set_dev_total_bandwidth(const char *mac, unsigned int up, unsigned int down)
{
    return record("total", mac, up, down);
}

int qvdrv_pon_set_eth_port_work_mode(const PON_ETH_PORT_WORK_MODE_T *mode)
{
    return record("work_mode", mode->port_index, mode->auto_neg_enable, mode->rate, mode->duplex_mode);
}

int qvdrv_pon_set_eth_port_state(const PON_ETH_PORT_STATE_T *state)
{
    return record("port_state", state->port_index, state->enable);
}

int qvdrv_pon_get_eth_port_link_status(PON_ETH_PORT_LINK_STATUS_T *status)
{
    status->link_up = platform().links_up.contains(static_cast<int>(status->port_index)) ? 1 : 0;
    return record("link_status", status->port_index);
}

int qvdrv_eth_get_port_id(const char *ifname, unsigned short *port_id)
{
    unsigned short number = 0;
    if (sscanf(ifname, "eth%hu", &number) != 1) {
        return 1;
    }
    *port_id = static_cast<unsigned short>(number + 1);
    return 0;
}

// --- Bus

int lib_zk_ubus_init(ubus_context **ctx)
{
    static ubus_context context;
    *ctx = nullptr;
    return act(record("bus_init"), [=] { *ctx = &context; });
}

int lib_zk_ubus_add_object(ubus_context *, ubus_object *obj)
{
    platform().object = obj;
    return record("add_object", obj->name);
}

int lib_zk_ubus_register_event_handler(ubus_context *, ubus_event_handler *, const char *pattern)
{
    return record("register", pattern);
}

int lib_zk_ubus_unregister_event_handler(ubus_context *, ubus_event_handler *)
{
    return record("unregister");
}

int lib_zk_ubus_send_event(ubus_context *, const char *event, blob_buf msg)
{
    return act(record("send", event), [&] { fake::send(event, msg); });
}

int lib_zk_ubus_call_method(ubus_context *, const char *object, const char *method, blob_buf msg,
                            ubus_data_handler_t, void *, int)
{
    std::string name = std::string(object) + "." + method;
    return act(record("call", name), [&] { fake::send(name, msg); });
}

int lib_zk_ubus_run(unsigned int flag)
{
    return record("run", flag);
}

int lib_zk_ubus_exit(ubus_context *)
{
    return record("exit");
}

int lib_zk_blobmsg_add_struct(blob_buf *buf, const char *name, const void *data, int len)
{
    return blobmsg_add_field(buf, BLOBMSG_TYPE_UNSPEC, name, data, static_cast<unsigned>(len));
}

void *lib_zk_blobmsg_get_struct(blob_attr *attr)
{
    return blobmsg_data(attr);
}

unsigned int ubus_KV_size_get(void *data, int len)
{
    unsigned int count = 0;
    blob_attr *member = nullptr;
    auto rest = static_cast<size_t>(len);
    __blob_for_each_attr(member, data, rest)
    {
        ++count;
    }
    return count;
}

bool ubus_parse_kv_config(void *data, int len, ubus_KV_Set_Func func, void *priv)
{
    blob_attr *member = nullptr;
    auto rest = static_cast<size_t>(len);
    __blob_for_each_attr(member, data, rest)
    {
        if (blobmsg_type(member) == BLOBMSG_TYPE_STRING) {
            func(blobmsg_name(member), blobmsg_get_string(member), priv);
        }
    }
    return true;
}

} // extern "C"
