#include "broker_internal.h"

#include <algorithm>
#include <cstring>

namespace bus {

namespace {

constexpr int NO_REPLY = -1;
constexpr size_t MAX_OPEN_CALLS = 256; // of one object, that are remembered

// What an object and a pattern count for besides their texts.
constexpr size_t OBJECT_SIZE = 1024;
constexpr size_t PATTERN_SIZE = 256;

// With the two ids that a lookup tells besides, the object must fit into a message.
constexpr size_t MAX_OBJECT_MESSAGE = UBUS_MAX_MSGLEN - 2 * (sizeof(blob_attr) + sizeof(uint32_t));

// A lookup goes on while less than this waits for the client.
constexpr size_t LOOKUP_AHEAD = 1 << 20;
constexpr size_t MAX_LOOKUPS = 16; // of one client, at a time

std::string_view text_of(const blob_attr *attr)
{
    return blob_get_string(attr);
}

size_t common_prefix(std::string_view a, std::string_view b)
{
    return static_cast<size_t>(std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
}

// A pattern or path without its trailing '*', and whether it had one.
std::pair<std::string_view, bool> split_pattern(std::string_view text)
{
    const bool prefix = text.ends_with('*');
    return {text.substr(0, text.size() - (prefix ? 1 : 0)), prefix};
}

} // namespace

const Broker::Handler Broker::HANDLERS[__UBUS_MSG_LAST] = {
    nullptr,                // HELLO
    &Broker::pass_reply,    // STATUS
    &Broker::pass_reply,    // DATA
    &Broker::ping,          // PING
    &Broker::look_up,       // LOOKUP
    &Broker::invoke,        // INVOKE
    &Broker::add_object,    // ADD_OBJECT
    &Broker::remove_object, // REMOVE_OBJECT
    &Broker::not_supported, // SUBSCRIBE
    &Broker::not_supported, // UNSUBSCRIBE
    &Broker::not_supported, // NOTIFY
    nullptr,                // MONITOR
};

void Broker::handle(Client &c, const Received &m)
{
    const Handler handler = m.hdr.type < __UBUS_MSG_LAST ? HANDLERS[m.hdr.type] : nullptr;
    const int status = handler != nullptr ? (this->*handler)(c, m) : UBUS_STATUS_INVALID_COMMAND;
    if (status != NO_REPLY) {
        reply_status(c, m.hdr, status);
    }
}

// Sends out_ as an answer.
void Broker::reply(Client &c, const ubus_msghdr &request, int type)
{
    send(c, type, request.seq, request.peer, out_.head);
}

void Broker::reply_status(Client &c, const ubus_msghdr &request, int status)
{
    blob_buf_init(&out_, 0);
    blob_put_u32(&out_, UBUS_ATTR_STATUS, static_cast<uint32_t>(status));
    reply(c, request, UBUS_MSG_STATUS);
}

int Broker::ping(Client &c, const Received &m)
{
    send(c, UBUS_MSG_DATA, m.hdr.seq, m.hdr.peer, m.blob);
    return UBUS_STATUS_OK;
}

int Broker::not_supported(Client & /*c*/, const Received & /*m*/)
{
    return UBUS_STATUS_NOT_SUPPORTED;
}

// --- objects

Object *Broker::find_object(uint32_t id)
{
    const auto it = objects_.find(id);
    return it == objects_.end() ? nullptr : it->second.get();
}

// The type a new object names or describes; null without one.
ObjectType *Broker::find_type(const Received &m)
{
    if (m[UBUS_ATTR_OBJTYPE] != nullptr) {
        const auto it = types_.find(blob_get_u32(m[UBUS_ATTR_OBJTYPE]));
        return it == types_.end() ? nullptr : &it->second;
    }
    if (m[UBUS_ATTR_SIGNATURE] == nullptr) {
        return nullptr;
    }
    const auto *payload = static_cast<const uint8_t *>(blob_data(m[UBUS_ATTR_SIGNATURE]));
    const uint32_t id = new_id(types_);
    const ObjectType type = {id, 0, Bytes(payload, payload + blob_len(m[UBUS_ATTR_SIGNATURE]))};
    return &types_.emplace(id, type).first->second;
}

void Broker::leave_type(ObjectType *type)
{
    if (type != nullptr && --type->users == 0) {
        types_.erase(type->id);
    }
}

int Broker::add_object(Client &c, const Received &m)
{
    const std::string_view path =
        m[UBUS_ATTR_OBJPATH] != nullptr ? text_of(m[UBUS_ATTR_OBJPATH]) : std::string_view();
    if (!path.empty() && paths_.contains(path)) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (m[UBUS_ATTR_SIGNATURE] != nullptr && !members_are_sound(m[UBUS_ATTR_SIGNATURE])) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (blob_raw_len(m.blob) > MAX_OBJECT_MESSAGE) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const size_t held = OBJECT_SIZE + blob_raw_len(m.blob);
    if (c.registered + held > MAX_REGISTERED) {
        return UBUS_STATUS_NO_MEMORY;
    }

    auto owned = std::make_unique<Object>();
    Object &object = *owned;
    object.id = new_id(objects_);
    object.owner = &c;
    object.path = path;
    object.held = held;
    object.type = find_type(m);
    if (object.type != nullptr) {
        ++object.type->users;
    }
    objects_.emplace(object.id, std::move(owned));
    c.objects.push_back(&object);
    c.registered += held;
    account(c);
    if (!object.path.empty()) {
        paths_.emplace(object.path, &object);
        send_object_event(object, "ubus.object.add");
    }

    blob_buf_init(&out_, 0);
    blob_put_u32(&out_, UBUS_ATTR_OBJID, object.id);
    if (m[UBUS_ATTR_SIGNATURE] != nullptr && object.type != nullptr) {
        blob_put_u32(&out_, UBUS_ATTR_OBJTYPE, object.type->id);
    }
    reply(c, m.hdr, UBUS_MSG_DATA);
    return UBUS_STATUS_OK;
}

int Broker::remove_object(Client &c, const Received &m)
{
    if (m[UBUS_ATTR_OBJID] == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    Object *object = find_object(blob_get_u32(m[UBUS_ATTR_OBJID]));
    if (object == nullptr) {
        return UBUS_STATUS_NOT_FOUND;
    }
    if (object->owner != &c) {
        return UBUS_STATUS_PERMISSION_DENIED;
    }

    blob_buf_init(&out_, 0);
    blob_put_u32(&out_, UBUS_ATTR_OBJID, object->id);
    if (object->type != nullptr && object->type->users == 1) {
        blob_put_u32(&out_, UBUS_ATTR_OBJTYPE, object->type->id);
    }
    reply(c, m.hdr, UBUS_MSG_DATA);
    drop_object(*object);
    return UBUS_STATUS_OK;
}

void Broker::drop_object(Object &object)
{
    drop_patterns(object);
    if (!object.path.empty()) {
        send_object_event(object, "ubus.object.remove");
        paths_.erase(object.path);
    }
    fail_calls(object);
    leave_type(object.type);
    object.owner->registered -= object.held;
    account(*object.owner);
    std::erase(object.owner->objects, &object);
    objects_.erase(object.id);
}

// Callers of an object that goes away need not wait until their time is up.
void Broker::fail_calls(const Object &object)
{
    for (const OpenCall &call : object.calls) {
        Client *caller = find_client(call.caller);
        if (caller == nullptr) {
            continue;
        }
        blob_buf_init(&out_, 0);
        blob_put_u32(&out_, UBUS_ATTR_STATUS, UBUS_STATUS_NO_DATA);
        blob_put_u32(&out_, UBUS_ATTR_OBJID, object.id);
        send(*caller, UBUS_MSG_STATUS, call.seq, object.id, out_.head);
    }
}

void Broker::show_object(Client &c, const ubus_msghdr &request, const Object &object)
{
    if (object.type == nullptr) {
        return;
    }
    const Bytes &signature = object.type->signature;
    blob_buf_init(&out_, 0);
    blob_put_string(&out_, UBUS_ATTR_OBJPATH, object.path.c_str());
    blob_put_u32(&out_, UBUS_ATTR_OBJID, object.id);
    blob_put_u32(&out_, UBUS_ATTR_OBJTYPE, object.type->id);
    blob_put(&out_, UBUS_ATTR_SIGNATURE, signature.data(), static_cast<unsigned>(signature.size()));
    reply(c, request, UBUS_MSG_DATA);
}

int Broker::look_up(Client &c, const Received &m)
{
    const bool all = m[UBUS_ATTR_OBJPATH] == nullptr;
    const std::string_view wanted = all ? "*" : text_of(m[UBUS_ATTR_OBJPATH]);
    if (wanted.empty()) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const auto [path, prefix] = split_pattern(wanted);
    if (prefix) {
        if (c.lookups.size() == MAX_LOOKUPS) {
            return UBUS_STATUS_NO_MEMORY;
        }
        c.lookups.push_back({m.hdr, std::string(path), std::string(path), all});
        go_on_with_lookups(c);
        return NO_REPLY;
    }
    const auto it = paths_.find(path);
    if (it == paths_.end()) {
        return UBUS_STATUS_NOT_FOUND;
    }
    show_object(c, m.hdr, *it->second);
    return UBUS_STATUS_OK;
}

// Shows objects as long as the client keeps up with reading.
void Broker::go_on_with_lookups(Client &c)
{
    while (!c.lookups.empty()) {
        Lookup &lookup = c.lookups.front();
        auto it = paths_.lower_bound(lookup.next);
        for (; it != paths_.end() && it->first.starts_with(lookup.prefix); ++it) {
            if (c.queued() > LOOKUP_AHEAD || c.doomed) {
                lookup.next = it->first;
                return;
            }
            lookup.found = true;
            show_object(c, lookup.request, *it->second);
        }
        reply_status(c, lookup.request, lookup.found ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND);
        c.lookups.pop_front();
    }
}

// --- calls

int Broker::invoke(Client &c, const Received &m)
{
    if (m[UBUS_ATTR_METHOD] == nullptr || m[UBUS_ATTR_OBJID] == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const uint32_t id = blob_get_u32(m[UBUS_ATTR_OBJID]);
    const char *method = blob_get_string(m[UBUS_ATTR_METHOD]);
    if (id == UBUS_SYSTEM_OBJECT_EVENT) {
        return invoke_event_object(c, method, m[UBUS_ATTR_DATA]);
    }
    if (id == UBUS_SYSTEM_OBJECT_MONITOR) {
        return invoke_monitor_object(c, method);
    }
    Object *object = find_object(id);
    if (object == nullptr) {
        return UBUS_STATUS_NOT_FOUND;
    }

    blob_buf_init(&out_, 0);
    blob_put_u32(&out_, UBUS_ATTR_OBJID, id);
    blob_put_string(&out_, UBUS_ATTR_METHOD, method);
    if (c.user != nullptr) {
        blob_put_string(&out_, UBUS_ATTR_USER, c.user->c_str());
    }
    if (c.group != nullptr) {
        blob_put_string(&out_, UBUS_ATTR_GROUP, c.group->c_str());
    }
    if (const blob_attr *data = m[UBUS_ATTR_DATA]) {
        blob_put(&out_, UBUS_ATTR_DATA, blob_data(data), static_cast<unsigned>(blob_len(data)));
    }

    if (blob_raw_len(out_.head) > UBUS_MAX_MSGLEN) { // by what was added: the owner could not read on
        return UBUS_STATUS_INVALID_ARGUMENT;
    }

    if (!send(*object->owner, UBUS_MSG_INVOKE, m.hdr.seq, c.id, out_.head)) {
        return UBUS_STATUS_NO_DATA;
    }
    if (object->calls.size() == MAX_OPEN_CALLS) { // the oldest is left to its caller's time limit
        object->calls.erase(object->calls.begin());
    }
    object->calls.push_back({c.id, m.hdr.seq});
    return NO_REPLY;
}

// Only an object's owner speaks for it; nothing is ever said to an answer.
int Broker::pass_reply(Client &c, const Received &m)
{
    const bool status = m.hdr.type == UBUS_MSG_STATUS;
    if (m[UBUS_ATTR_OBJID] == nullptr || m[status ? UBUS_ATTR_STATUS : UBUS_ATTR_DATA] == nullptr) {
        return NO_REPLY;
    }
    Object *object = find_object(blob_get_u32(m[UBUS_ATTR_OBJID]));
    Client *caller = find_client(m.hdr.peer);
    if (object == nullptr || object->owner != &c || caller == nullptr) {
        return NO_REPLY;
    }
    if (status) {
        const auto it = std::find_if(object->calls.begin(), object->calls.end(), [&](const OpenCall &call) {
            return call.caller == caller->id && call.seq == m.hdr.seq;
        });
        if (it != object->calls.end()) {
            object->calls.erase(it);
        }
    }
    send(*caller, m.hdr.type, m.hdr.seq, object->id, m.blob);
    return NO_REPLY;
}

// --- monitors

int Broker::invoke_monitor_object(Client &c, std::string_view method)
{
    if (!c.root) {
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    if (method != "add" && method != "remove") {
        return UBUS_STATUS_METHOD_NOT_FOUND;
    }
    std::erase(monitors_, &c);
    if (method == "add") {
        c.shown = 0;
        monitors_.push_back(&c);
    }
    return UBUS_STATUS_OK;
}

// --- events

int Broker::invoke_event_object(Client &c, std::string_view method, blob_attr *data)
{
    if (method == "register") {
        return add_pattern(c, data);
    }
    if (method == "send") {
        return send_event(c, data);
    }
    return UBUS_STATUS_INVALID_COMMAND;
}

int Broker::add_pattern(Client &c, blob_attr *data)
{
    enum { OBJECT, PATTERN, LAST };
    static constexpr blobmsg_policy policy[LAST] = {{"object", BLOBMSG_TYPE_INT32},
                                                    {"pattern", BLOBMSG_TYPE_STRING}};
    if (data == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    blob_attr *args[LAST];
    blobmsg_parse(policy, LAST, args, blob_data(data), static_cast<unsigned>(blob_len(data)));
    if (args[OBJECT] == nullptr || args[PATTERN] == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }

    const uint32_t id = blobmsg_get_u32(args[OBJECT]);
    const std::string_view wanted = blobmsg_get_string(args[PATTERN]);
    if (id < UBUS_SYSTEM_OBJECT_MAX || wanted.empty()) {
        return UBUS_STATUS_PERMISSION_DENIED;
    }
    Object *object = find_object(id);
    if (object == nullptr) {
        return UBUS_STATUS_NOT_FOUND;
    }
    if (object->owner != &c) {
        return UBUS_STATUS_PERMISSION_DENIED;
    }

    const auto [text, prefix] = split_pattern(wanted);
    const auto same = [text = text, prefix = prefix](const Pattern &p) {
        return p.prefix == prefix && p.text == text;
    };
    if (std::any_of(object->patterns.begin(), object->patterns.end(), same)) {
        return UBUS_STATUS_OK;
    }
    const size_t held = PATTERN_SIZE + 2 * text.size();
    if (c.registered + held > MAX_REGISTERED) {
        return UBUS_STATUS_NO_MEMORY;
    }
    object->patterns.push_back({std::string(text), prefix});
    (prefix ? prefixes_ : exact_)[std::string(text)].push_back(object);
    object->held += held;
    c.registered += held;
    account(c);
    return UBUS_STATUS_OK;
}

void Broker::drop_patterns(Object &object)
{
    for (const Pattern &pattern : object.patterns) {
        Patterns &patterns = pattern.prefix ? prefixes_ : exact_;
        const auto it = patterns.find(pattern.text);
        std::erase(it->second, &object);
        if (it->second.empty()) {
            patterns.erase(it);
        }
    }
    object.patterns.clear();
}

int Broker::send_event(Client &c, blob_attr *data)
{
    enum { ID, DATA, LAST };
    static constexpr blobmsg_policy policy[LAST] = {{"id", BLOBMSG_TYPE_STRING},
                                                    {"data", BLOBMSG_TYPE_TABLE}};
    if (data == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    blob_attr *args[LAST];
    blobmsg_parse(policy, LAST, args, blob_data(data), static_cast<unsigned>(blob_len(data)));
    if (args[ID] == nullptr || args[DATA] == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const char *event = blobmsg_get_string(args[ID]);
    if (strncmp(event, "ubus.", 5) == 0) {
        return UBUS_STATUS_PERMISSION_DENIED;
    }

    blob_buf_init(&out_, 0);
    blob_put_u32(&out_, UBUS_ATTR_OBJID, 0);
    blob_put_string(&out_, UBUS_ATTR_METHOD, event);
    blob_put(&out_, UBUS_ATTR_DATA, blobmsg_data(args[DATA]),
             static_cast<unsigned>(blobmsg_data_len(args[DATA])));
    fan_out(event, &c);
    return UBUS_STATUS_OK;
}

void Broker::send_object_event(const Object &object, const char *event)
{
    blob_buf_init(&out_, 0);
    blob_put_u32(&out_, UBUS_ATTR_OBJID, 0);
    blob_put_string(&out_, UBUS_ATTR_METHOD, event);
    void *data = blob_nest_start(&out_, UBUS_ATTR_DATA);
    blobmsg_add_u32(&out_, "id", object.id);
    blobmsg_add_string(&out_, "path", object.path.c_str());
    blob_nest_end(&out_, data);
    fan_out(event, nullptr);
}

// Gives the event in out_, whose first member is the receiver's, to every object with a matching pattern, but
// for those of `except`.
void Broker::fan_out(std::string_view event, const Client *except)
{
    ++event_;
    if (const auto it = exact_.find(event); it != exact_.end()) {
        for (Object *object : it->second) {
            give_event(*object, except);
        }
    }
    // Those patterns that the name begins with, from the longest down. A pattern just below `rest` in the
    // order either is one or shows how much shorter the next can be at most.
    for (std::string_view rest = event;;) {
        auto it = prefixes_.upper_bound(rest);
        if (it == prefixes_.begin()) {
            break;
        }
        --it;
        const size_t common = common_prefix(it->first, rest);
        const bool matches = common == it->first.size();
        if (matches) {
            for (Object *object : it->second) {
                give_event(*object, except);
            }
        }
        if (common == 0 && matches) {
            break;
        }
        rest = rest.substr(0, matches ? common - 1 : common);
    }
}

void Broker::give_event(Object &object, const Client *except)
{
    if (object.owner == except || object.event_seen == event_) {
        return;
    }
    object.event_seen = event_;
    const uint32_t id = cpu_to_be32(object.id);
    memcpy(blob_data(static_cast<blob_attr *>(blob_data(out_.head))), &id, sizeof(id));
    send(*object.owner, UBUS_MSG_INVOKE, ++event_seq_, 0, out_.head);
}

} // namespace bus
