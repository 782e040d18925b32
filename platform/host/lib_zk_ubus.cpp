// The bus wrapper over libubus: one connection, kept up across the broker's restarts. OVANI_UBUS_SOCKET names
// the broker's socket, libubus's own default otherwise.
#include "platform/lib_zk_ubus.h"

#include <algorithm>
#include <cstdlib>
#include <list>
#include <string>
#include <vector>

#include <poll.h>
#include <time.h>

#include "platform/zk_log.h"

namespace {

constexpr int RETRY_MS = 200;
constexpr int CALL_TIMEOUT_MS = 3000;
constexpr int EXIT_MS = 500;

// What libubus knows of a caller's event handler. It outlives the caller's registration: while the broker is
// away libubus forgets none of them, and puts them on the next one's bus.
struct Subscription : ubus_event_handler {
    ubus_event_handler *owner; // null once unregistered: has no patterns then, and serves the next caller
    std::vector<std::string> patterns;
};

struct Publication {
    ubus_object *object;
    bool refused; // by the present broker, and tried again since
};

struct Bus {
    ubus_context *context = nullptr;
    bool connected = false;
    uloop_timeout retry{};
    std::vector<Publication> publications;
    std::list<Subscription> subscriptions; // an address given to libubus stays
    blob_buf event{};                      // the one being sent
};

Bus bus;

const char *socket_path()
{
    const char *path = std::getenv("OVANI_UBUS_SOCKET");
    return path == nullptr || path[0] == '\0' ? nullptr : path;
}

// Told at the level of a fault both ways, so that whoever is shown the loss is shown its end.
void log_state(const char *what)
{
    const char *path = socket_path();
    zk_mod_log_printf("ubus", VELM_LOG_ERR, "%s (%s)\n", what, path == nullptr ? "default socket" : path);
}

bool is_ours(const ubus_context *ctx)
{
    return ctx != nullptr && ctx == bus.context;
}

// A failed write marks the socket before the loop comes to hear of it.
bool is_lost()
{
    return !bus.connected || bus.context->sock.eof;
}

// Whether a request ended as it did because the connection broke; what status it got depends on how far it
// came.
bool was_lost(int status)
{
    return status == UBUS_STATUS_CONNECTION_FAILED || (status != UBUS_STATUS_OK && is_lost());
}

void deliver(ubus_context *ctx, ubus_event_handler *ev, const char *type, blob_attr *msg)
{
    ubus_event_handler *owner = static_cast<Subscription *>(ev)->owner;
    if (owner != nullptr && owner->cb != nullptr) {
        owner->cb(ctx, owner, type, msg);
    }
}

Subscription *find_subscription(const ubus_event_handler *owner)
{
    auto found = std::ranges::find(bus.subscriptions, owner, &Subscription::owner);
    return found == bus.subscriptions.end() ? nullptr : &*found;
}

// The caller's subscription, or a new one.
Subscription &subscription_of(ubus_event_handler *owner)
{
    for (const ubus_event_handler *wanted : {owner, static_cast<ubus_event_handler *>(nullptr)}) {
        if (Subscription *found = find_subscription(wanted); found != nullptr) {
            found->owner = owner;
            return *found;
        }
    }
    return bus.subscriptions.emplace_back(Subscription{{.cb = deliver}, owner, {}});
}

// Where the kernel sees room at all there is enough for an event: three quarters of the socket's buffer.
bool has_room(int wait_ms)
{
    pollfd socket{.fd = bus.context->sock.fd, .events = POLLOUT, .revents = 0};
    return poll(&socket, 1, wait_ms) > 0;
}

// libubus would wait for a broker that reads nothing without end, and heed no signal.
bool wait_for_room()
{
    while (!has_room(RETRY_MS)) {
        if (uloop_cancelled) {
            return false;
        }
    }
    return true;
}

// What ubus_send_event sends, without waiting for the broker to say that it has it: its answer would lie
// behind all that has come in meanwhile, and libubus would keep that in memory to get at it. Nobody asks for
// the answer when it comes, and libubus drops it.
int send_without_waiting(const char *event, blob_attr *data)
{
    blob_buf_init(&bus.event, 0);
    blobmsg_add_string(&bus.event, "id", event);
    blobmsg_add_field(&bus.event, BLOBMSG_TYPE_TABLE, "data", blob_data(data),
                      static_cast<unsigned int>(blob_len(data)));
    ubus_request request{};
    return ubus_invoke_async(bus.context, UBUS_SYSTEM_OBJECT_EVENT, "send", bus.event.head, &request);
}

// What the broker has not read is lost when it finds the connection closed. Once it has answered the last
// message it has read all before; it need not know what that one asks for.
void wait_until_all_is_read()
{
    if (has_room(EXIT_MS)) {
        ubus_invoke(bus.context, UBUS_SYSTEM_OBJECT_EVENT, "", nullptr, nullptr, nullptr, EXIT_MS);
    }
}

// A new broker may refuse an object because somebody else has taken its name meanwhile.
int publish(Publication &publication)
{
    ubus_object *object = publication.object;
    if (object->type != nullptr) {
        object->type->id = 0; // another broker's
    }
    int status = ubus_add_object(bus.context, object);
    bool refused = status != UBUS_STATUS_OK && !was_lost(status);
    if (refused && !publication.refused) {
        zk_mod_log_printf("ubus", VELM_LOG_ERR, "object %s: %s\n", object->name, ubus_strerror(status));
    } else if (status == UBUS_STATUS_OK && publication.refused) {
        zk_mod_log_printf("ubus", VELM_LOG_ERR, "object %s: published again\n", object->name);
    }
    publication.refused = refused;
    return status;
}

// Publishes what is not on the bus, up to the loss of the connection.
int publish_missing()
{
    int result = UBUS_STATUS_OK;
    for (Publication &publication : bus.publications) {
        if (publication.object->id != 0) {
            continue;
        }
        int status = publish(publication);
        if (was_lost(status)) {
            return UBUS_STATUS_CONNECTION_FAILED;
        }
        result = status == UBUS_STATUS_OK ? result : status;
    }
    return result;
}

// False when the connection broke.
bool subscribe_all()
{
    for (Subscription &subscription : bus.subscriptions) {
        for (const std::string &pattern : subscription.patterns) {
            int status = ubus_register_event_handler(bus.context, &subscription, pattern.c_str());
            if (was_lost(status)) {
                return false;
            }
            if (status != UBUS_STATUS_OK) {
                zk_mod_log_printf("ubus", VELM_LOG_ERR, "event %s: %s\n", pattern.c_str(),
                                  ubus_strerror(status));
            }
        }
    }
    return !is_lost();
}

// Tells a new broker what the old one knew; true when that is all done.
bool reconnect()
{
    ubus_context *ctx = bus.context;
    if (ubus_reconnect(ctx, socket_path()) != UBUS_STATUS_OK) {
        ctx->sock.fd = -1; // closed already, and not to be closed again when the number is another file's
        return false;
    }
    bus.connected = true;
    // Into the loop first: outside it libubus hands out calls between one request and the next, and whoever
    // is answered may take us to be subscribed.
    ubus_add_uloop(ctx);
    int published = publish_missing();
    if (was_lost(published) || !subscribe_all()) {
        bus.connected = false;
        uloop_fd_delete(&ctx->sock);
        return false;
    }
    log_state("connected to the broker again");
    return published == UBUS_STATUS_OK;
}

void try_again(uloop_timeout *timeout)
{
    bool done = bus.connected ? publish_missing() == UBUS_STATUS_OK : reconnect();
    if (!done) {
        uloop_timeout_set(timeout, RETRY_MS);
    }
}

// libubus would end the loop here. May be called in the middle of a request, and again for the same loss.
void connection_lost(ubus_context *ctx)
{
    if (!bus.connected) {
        return;
    }
    bus.connected = false;
    log_state("the broker has gone, waiting for it");
    uloop_fd_delete(&ctx->sock); // else its end wakes the loop again and again
    for (Publication &publication : bus.publications) {
        publication.refused = false;
    }
    bus.retry.cb = try_again;
    uloop_timeout_set(&bus.retry, RETRY_MS);
}

// Null when a signal ended the loop before it ran.
ubus_context *wait_for_broker()
{
    ubus_context *ctx = ubus_connect(socket_path());
    if (ctx != nullptr) {
        return ctx;
    }
    log_state("there is no broker yet, waiting for it");
    do {
        if (uloop_cancelled) {
            return nullptr;
        }
        timespec pause{.tv_sec = 0, .tv_nsec = RETRY_MS * 1'000'000L};
        nanosleep(&pause, nullptr);
        ctx = ubus_connect(socket_path());
    } while (ctx == nullptr);
    log_state("connected to the broker");
    return ctx;
}

} // namespace

int lib_zk_ubus_init(struct ubus_context **ctx)
{
    if (ctx == nullptr || bus.context != nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    uloop_handle_sigchld = false; // the caller's choice stands: its shell commands are reaped by the kernel
    bus.context = wait_for_broker();
    if (bus.context == nullptr) {
        return UBUS_STATUS_CONNECTION_FAILED;
    }
    bus.connected = true;
    bus.context->connection_lost = connection_lost;
    ubus_add_uloop(bus.context);
    *ctx = bus.context;
    return UBUS_STATUS_OK;
}

int lib_zk_ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj)
{
    if (!is_ours(ctx) || obj == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    int status = is_lost() ? UBUS_STATUS_OK : ubus_add_object(ctx, obj);
    if (status != UBUS_STATUS_OK && !was_lost(status)) {
        return status;
    }
    if (std::ranges::find(bus.publications, obj, &Publication::object) == bus.publications.end()) {
        bus.publications.push_back({obj, false});
    }
    return UBUS_STATUS_OK;
}

int lib_zk_ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev,
                                       const char *pattern)
{
    if (!is_ours(ctx) || ev == nullptr || pattern == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    Subscription &subscription = subscription_of(ev);
    auto &patterns = subscription.patterns;
    if (std::find(patterns.begin(), patterns.end(), pattern) != patterns.end()) {
        return UBUS_STATUS_OK;
    }
    int status = is_lost() ? UBUS_STATUS_OK : ubus_register_event_handler(ctx, &subscription, pattern);
    if (status != UBUS_STATUS_OK && !was_lost(status)) {
        if (patterns.empty()) {
            lib_zk_ubus_unregister_event_handler(ctx, ev);
        }
        return status;
    }
    patterns.emplace_back(pattern);
    return UBUS_STATUS_OK;
}

int lib_zk_ubus_unregister_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev)
{
    if (!is_ours(ctx) || ev == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    Subscription *subscription = find_subscription(ev);
    if (subscription == nullptr) {
        return UBUS_STATUS_NOT_FOUND;
    }
    subscription->owner = nullptr;
    subscription->patterns.clear();
    if (subscription->obj.id == 0 || is_lost()) {
        return UBUS_STATUS_OK;
    }
    int status = ubus_unregister_event_handler(ctx, subscription);
    return was_lost(status) ? UBUS_STATUS_OK : status;
}

int lib_zk_ubus_send_event(struct ubus_context *ctx, const char *event, struct blob_buf msg)
{
    if (!is_ours(ctx) || event == nullptr || msg.head == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (is_lost() || !wait_for_room()) {
        return UBUS_STATUS_CONNECTION_FAILED;
    }
    int status = send_without_waiting(event, msg.head);
    return was_lost(status) ? UBUS_STATUS_CONNECTION_FAILED : status;
}

int lib_zk_ubus_call_method(struct ubus_context *ctx, const char *object, const char *method,
                            struct blob_buf msg, ubus_data_handler_t cb, void *priv, int timeout)
{
    if (!is_ours(ctx) || object == nullptr || method == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (is_lost()) {
        return UBUS_STATUS_CONNECTION_FAILED;
    }
    uint32_t id = 0;
    int status = ubus_lookup_id(ctx, object, &id);
    if (status == UBUS_STATUS_OK) {
        status = ubus_invoke(ctx, id, method, msg.head, cb, priv, timeout > 0 ? timeout : CALL_TIMEOUT_MS);
    }
    return was_lost(status) ? UBUS_STATUS_CONNECTION_FAILED : status;
}

int lib_zk_ubus_run(unsigned int /*flag*/)
{
    uloop_handle_sigchld = false;
    uloop_init();
    // uloop_run would forget that it was ended by a signal before it began.
    if (!uloop_cancelled) {
        uloop_run();
    }
    uloop_cancelled = false;
    return UBUS_STATUS_OK;
}

int lib_zk_ubus_exit(struct ubus_context *ctx)
{
    if (!is_ours(ctx)) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (!is_lost()) {
        wait_until_all_is_read();
    }
    uloop_timeout_cancel(&bus.retry);
    ubus_free(ctx);
    blob_buf_free(&bus.event);
    for (const auto &[object, refused] : bus.publications) { // as they were before they were published
        object->id = 0;
        if (object->type != nullptr) {
            object->type->id = 0;
        }
    }
    bus = {};
    return UBUS_STATUS_OK;
}

int lib_zk_blobmsg_add_struct(struct blob_buf *buf, const char *name, const void *data, int len)
{
    if (buf == nullptr || name == nullptr || len < 0 || (data == nullptr && len > 0)) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    return blobmsg_add_field(buf, BLOBMSG_TYPE_UNSPEC, name, data, static_cast<unsigned int>(len)) == 0
               ? UBUS_STATUS_OK
               : UBUS_STATUS_NO_MEMORY;
}

void *lib_zk_blobmsg_get_struct(struct blob_attr *attr)
{
    return attr == nullptr ? nullptr : blobmsg_data(attr);
}

// --- Tables of pairs

namespace {

// Calls `visit` with each member of a table until one is damaged or reaches past the end; false when there
// was one.
template <typename Visit>
bool visit_members(const void *data, int len, Visit visit)
{
    if (len < 0 || (data == nullptr && len > 0)) {
        return false;
    }
    auto left = static_cast<size_t>(len);
    const blob_attr *member = nullptr;
    __blob_for_each_attr(member, data, left)
    {
        if (!blobmsg_check_attr_len(member, false, left)) {
            return false;
        }
        visit(member);
    }
    return left == 0;
}

} // namespace

unsigned int ubus_KV_size_get(void *data, int len)
{
    unsigned int count = 0;
    visit_members(data, len, [&count](const blob_attr *) { count++; });
    return count;
}

bool ubus_parse_kv_config(void *data, int len, ubus_KV_Set_Func func, void *priv)
{
    if (func == nullptr || !visit_members(data, len, [](const blob_attr *) {})) {
        return false; // nothing of a damaged table is taken
    }
    return visit_members(data, len, [func, priv](const blob_attr *member) {
        // An attribute of another form than a message's has no name to be read.
        if (blobmsg_type(member) == BLOBMSG_TYPE_STRING && blob_is_extended(member)) {
            func(blobmsg_name(member), static_cast<const char *>(blobmsg_data(member)), priv);
        }
    });
}
