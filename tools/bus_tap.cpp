#include "tools/bus_tap.h"

#include <algorithm>
#include <iterator>

#include <poll.h>

namespace {

// libubus hands its callbacks the context alone.
BusTap *s_tap = nullptr;

constexpr size_t MOST_OPEN_CALLS = 1024;

constexpr blob_attr_info policy_of(unsigned type)
{
    return {type, 0, 0, nullptr};
}
constexpr blob_attr_info NUMBER = policy_of(BLOB_ATTR_INT32);
constexpr blob_attr_info TEXT = policy_of(BLOB_ATTR_STRING);
constexpr blob_attr_info MEMBERS = policy_of(BLOB_ATTR_NESTED);
constexpr blob_attr_info ANY = policy_of(BLOB_ATTR_UNSPEC);

// By the ids of ubus_monitor_attr, and by those of ubus_msg_attr as far as they are of interest.
constexpr blob_attr_info SHOWN[] = {NUMBER, NUMBER, policy_of(BLOB_ATTR_INT8), NUMBER, NUMBER, MEMBERS};
constexpr blob_attr_info MESSAGE[] = {ANY, NUMBER, TEXT, NUMBER, TEXT, ANY, ANY, MEMBERS};
static_assert(std::size(SHOWN) == UBUS_MONITOR_MAX && std::size(MESSAGE) == UBUS_ATTR_DATA + 1);

using MessageMembers = blob_attr * [std::size(MESSAGE)];

// Members by id; null where one is missing or of another type.
template <size_t N>
void parse_members(blob_attr *blob, const blob_attr_info (&policy)[N], blob_attr *(&attr)[N])
{
    blob_parse_untrusted(blob, blob_raw_len(blob), attr, policy, N);
}

// The two members of a table, null both when one is missing.
void parse_pair(blob_attr *table, const blobmsg_policy (&policy)[2], blob_attr *(&attr)[2])
{
    std::ranges::fill(attr, nullptr);
    if (table != nullptr) {
        blobmsg_parse(policy, 2, attr, blob_data(table), static_cast<unsigned>(blob_len(table)));
    }
    if (attr[0] == nullptr || attr[1] == nullptr) {
        std::ranges::fill(attr, nullptr);
    }
}

std::string_view text_of(blob_attr *attr)
{
    return attr == nullptr ? "" : blob_get_string(attr);
}

uint32_t number_of(blob_attr *attr)
{
    return attr == nullptr ? 0 : blob_get_u32(attr);
}

} // namespace

BusTap::~BusTap()
{
    s_tap = nullptr;
}

const char *BusTap::start(const char *socket)
{
    s_tap = this;
    bus_ = connect_bus(socket);
    if (bus_ == nullptr) {
        return "there is no broker";
    }
    listener_.cb = [](ubus_context *, ubus_event_handler *, const char *, blob_attr *) {};
    bus_->monitor_cb = [](ubus_context *, uint32_t number, blob_attr *msg) { s_tap->shown(number, msg); };
    if (ubus_register_event_handler(bus_.get(), &listener_, "ubus.object.add") != UBUS_STATUS_OK ||
        ubus_register_event_handler(bus_.get(), &listener_, "ubus.object.remove") != UBUS_STATUS_OK) {
        return "the broker does not tell who comes and goes";
    }
    if (const int status = ubus_monitor_start(bus_.get()); status != UBUS_STATUS_OK) {
        return status == UBUS_STATUS_PERMISSION_DENIED ? "only root may listen to all of the bus"
                                                       : ubus_strerror(status);
    }
    uint32_t object = 0;
    if (ubus_lookup_id(bus_.get(), DAEMON_OBJECT, &object) == UBUS_STATUS_OK) {
        object_ = object;
    }
    return nullptr;
}

bool BusTap::settle(int milliseconds)
{
    if (object_ == 0) {
        return false;
    }
    const Message nothing;
    const int status =
        ubus_invoke(bus_.get(), object_, "no_such_method", nothing.head(), nullptr, nullptr, milliseconds);
    flush();
    return status == UBUS_STATUS_METHOD_NOT_FOUND;
}

void BusTap::wait(int milliseconds, const sigset_t *mask)
{
    pollfd socket{.fd = bus_->sock.fd, .events = POLLIN, .revents = 0};
    const timespec time{.tv_sec = milliseconds / 1000, .tv_nsec = milliseconds % 1000 * 1'000'000L};
    if (ppoll(&socket, 1, milliseconds < 0 ? nullptr : &time, mask) > 0) {
        ubus_handle_event(bus_.get());
    }
}

void BusTap::shown(uint32_t number, blob_attr *msg)
{
    blob_attr *shown[std::size(SHOWN)];
    parse_members(msg, SHOWN, shown);
    if (std::ranges::find(shown, nullptr) != std::end(shown)) {
        return;
    }
    const auto missing = static_cast<uint16_t>(number - number_ - 1);
    number_ = static_cast<uint16_t>(number);
    if (missing > 0) {
        take_({.kind = TapItem::LOST, .number = missing});
    }

    const Shown message = {.client = number_of(shown[UBUS_MONITOR_CLIENT]),
                           .peer = number_of(shown[UBUS_MONITOR_PEER]),
                           .seq = static_cast<uint16_t>(number_of(shown[UBUS_MONITOR_SEQ])),
                           .type = number_of(shown[UBUS_MONITOR_TYPE])};
    MessageMembers attr;
    parse_members(shown[UBUS_MONITOR_DATA], MESSAGE, attr);
    if (blob_get_u8(shown[UBUS_MONITOR_SEND]) == 0) {
        flush();
        received(message, attr);
    } else if (message.type == UBUS_MSG_INVOKE) {
        invoked(message, attr);
    } else {
        flush();
    }
}

// The broker got a message.
void BusTap::received(const Shown &message, blob_attr *const *attr)
{
    if (message.type == UBUS_MSG_ADD_OBJECT && text_of(attr[UBUS_ATTR_OBJPATH]) == DAEMON_OBJECT) {
        newcomer_ = message.client;
    } else if (message.type == UBUS_MSG_STATUS && message.client == client_) {
        const auto call = calls_.find({message.peer, message.seq});
        if (call != calls_.end()) {
            take_({.kind = TapItem::ANSWER,
                   .name = std::string(call->second),
                   .number = static_cast<int>(number_of(attr[UBUS_ATTR_STATUS]))});
            calls_.erase(call);
        }
    } else if (message.type == UBUS_MSG_INVOKE) {
        const uint32_t object = number_of(attr[UBUS_ATTR_OBJID]);
        if (object == UBUS_SYSTEM_OBJECT_EVENT && text_of(attr[UBUS_ATTR_METHOD]) == "send") {
            event_sent(message.client, attr[UBUS_ATTR_DATA]);
        } else if (object == object_ && object != 0) {
            called(message, attr);
        }
    }
}

void BusTap::event_sent(uint32_t client, blob_attr *data)
{
    static constexpr blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_STRING}, {"data", BLOBMSG_TYPE_TABLE}};
    blob_attr *args[2];
    parse_pair(data, policy, args);
    const EventKind *kind = args[0] != nullptr ? find_event(blobmsg_get_string(args[0])) : nullptr;
    const bool by_daemon = client == client_;
    if (kind == nullptr || by_daemon != is_announcement(kind->name)) {
        return; // who else sends what the daemon announces is not heard by it
    }
    pending_ = {.kind = by_daemon ? TapItem::ANNOUNCED : TapItem::EVENT,
                .name = std::string(kind->name),
                .bytes = {static_cast<const char *>(blobmsg_data(args[1])), blobmsg_data_len(args[1])},
                .heard = by_daemon};
    is_pending_ = true;
}

void BusTap::called(const Shown &message, blob_attr *const *attr)
{
    const auto method = std::ranges::find(DAEMON_METHODS, text_of(attr[UBUS_ATTR_METHOD]));
    if (method == std::end(DAEMON_METHODS) || calls_.size() == MOST_OPEN_CALLS) {
        return;
    }
    calls_[{message.client, message.seq}] = *method;
    const blob_attr *data = attr[UBUS_ATTR_DATA];
    take_({.kind = TapItem::CALL,
           .name = std::string(*method),
           .bytes = data == nullptr
                        ? ""
                        : std::string(static_cast<const char *>(blob_data(data)), blob_len(data))});
}

// The broker invoked a client's object: called it, or gave it an event.
void BusTap::invoked(const Shown &message, blob_attr *const *attr)
{
    const std::string_view method = text_of(attr[UBUS_ATTR_METHOD]);
    if (message.client == be32_to_cpu(bus_->local_id)) {
        flush();
        object_event(method, attr[UBUS_ATTR_DATA]);
    } else if (number_of(attr[UBUS_ATTR_OBJID]) == object_ && object_ != 0) {
        client_ = message.client;
    } else if (message.client == client_ && is_pending_ && method == pending_.name) {
        pending_.heard = true;
    }
}

void BusTap::object_event(std::string_view event, blob_attr *data)
{
    static constexpr blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_INT32}, {"path", BLOBMSG_TYPE_STRING}};
    blob_attr *args[2];
    parse_pair(data, policy, args);
    if (args[0] == nullptr || std::string_view(blobmsg_get_string(args[1])) != DAEMON_OBJECT) {
        return;
    }
    const bool came = event == "ubus.object.add";
    object_ = came ? blobmsg_get_u32(args[0]) : 0;
    client_ = came ? newcomer_ : 0;
    calls_.clear();
    take_({.kind = came ? TapItem::CAME : TapItem::WENT});
}

void BusTap::flush()
{
    if (is_pending_) {
        is_pending_ = false;
        take_(pending_);
    }
}
