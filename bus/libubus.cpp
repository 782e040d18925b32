// Requests, objects and events.
#include <libubus.h>

#include <cstring>
#include <ctime>

#include "libubus_internal.h"

namespace bus {

namespace {

constexpr int MONITOR_TIMEOUT_MS = 1000;

constexpr const char *STATUS_TEXT[__UBUS_STATUS_LAST] = {
    "Success",
    "Invalid command",
    "Invalid argument",
    "Method not found",
    "Not found",
    "No response",
    "Permission denied",
    "Request timed out",
    "Operation not supported",
    "Unknown error",
    "Connection failed",
    "Out of memory",
    "Parsing message data failed",
    "System error",
};

int64_t now_ms()
{
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The context's outgoing blob, emptied.
blob_buf *new_message(ubus_context *ctx)
{
    return blob_buf_init(&ctx->out, 0) == 0 ? &ctx->out : nullptr;
}

bool put_data(blob_buf *out, const blob_attr *msg)
{
    return blob_put(out, UBUS_ATTR_DATA, msg != nullptr ? blob_data(msg) : nullptr,
                    msg != nullptr ? static_cast<unsigned>(blob_len(msg)) : 0) != nullptr;
}

// Sends ctx->out as a request.
int start_request(ubus_context *ctx, ubus_request *req, ubus_msg_type type, uint32_t peer)
{
    memset(req, 0, sizeof(*req));
    INIT_LIST_HEAD(&req->list);
    INIT_LIST_HEAD(&req->pending);
    req->ctx = ctx;
    req->peer = peer;
    req->seq = ++ctx->request_seq;
    return send_message(ctx, type, req->seq, peer);
}

// Sends ctx->out as a request to the broker and waits. `cb` receives the messages that answer it.
int ask_broker(ubus_context *ctx, ubus_msg_type type, ubus_data_handler_t cb, void *priv)
{
    ubus_request req;
    const int status = start_request(ctx, &req, type, 0);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    req.raw_data_cb = cb;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, 0);
}

// Ends a request; its completion callback may free it.
void finish_request(ubus_request *req, int status)
{
    list_del_init(&req->list);
    free_messages(&req->pending);
    req->status_msg = true;
    req->status_code = status;
    const ubus_complete_handler_t cb = req->complete_cb;
    req->complete_cb = nullptr;
    if (cb != nullptr) {
        cb(req, status);
    }
}

ubus_request *find_request(ubus_context *ctx, const ubus_msghdr &hdr)
{
    ubus_request *req = nullptr;
    list_for_each_entry(req, &ctx->requests, list)
    {
        if (req->seq == hdr.seq && req->peer == hdr.peer) {
            return req;
        }
    }
    return nullptr;
}

void give_data(ubus_request *req, ubus_message *msg)
{
    if (req->raw_data_cb != nullptr) {
        req->raw_data_cb(req, msg->hdr.type, &msg->blob);
    }
    if (req->data_cb == nullptr) {
        return;
    }
    const MessageAttrs attrs(&msg->blob);
    if (attrs[UBUS_ATTR_DATA] != nullptr) {
        req->data_cb(req, msg->hdr.type, attrs[UBUS_ATTR_DATA]);
    }
}

ubus_object *find_object(ubus_context *ctx, uint32_t id)
{
    ubus_object *obj = nullptr;
    list_for_each_entry(obj, &ctx->objects, list)
    {
        if (obj->id == id) {
            return obj;
        }
    }
    return nullptr;
}

// Asked of the list, for the record's own links may be left from an earlier context.
bool is_listed(ubus_context *ctx, const ubus_object *obj)
{
    const ubus_object *listed = nullptr;
    list_for_each_entry(listed, &ctx->objects, list)
    {
        if (listed == obj) {
            return true;
        }
    }
    return false;
}

const ubus_method *find_method(const ubus_object *obj, const char *name)
{
    for (int i = 0; i < obj->n_methods; ++i) {
        if (obj->methods[i].name == nullptr || strcmp(obj->methods[i].name, name) == 0) {
            return &obj->methods[i];
        }
    }
    return nullptr;
}

int call_method(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const MessageAttrs &attrs)
{
    if (obj == nullptr) {
        return UBUS_STATUS_NOT_FOUND;
    }
    if (attrs[UBUS_ATTR_METHOD] == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const char *name = blob_get_string(attrs[UBUS_ATTR_METHOD]);
    const ubus_method *method = find_method(obj, name);
    if (method == nullptr) {
        return UBUS_STATUS_METHOD_NOT_FOUND;
    }
    if (attrs[UBUS_ATTR_DATA] == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (attrs[UBUS_ATTR_USER] != nullptr && attrs[UBUS_ATTR_GROUP] != nullptr) {
        req->acl.user = blob_get_string(attrs[UBUS_ATTR_USER]);
        req->acl.group = blob_get_string(attrs[UBUS_ATTR_GROUP]);
        req->acl.object = obj->name;
    }
    return method->handler(ctx, obj, req, name, attrs[UBUS_ATTR_DATA]);
}

struct Lookup {
    ubus_lookup_handler_t cb;
    void *priv;
};

void on_lookup_data(ubus_request *req, int /*type*/, blob_attr *msg)
{
    const MessageAttrs attrs(msg);
    if (attrs[UBUS_ATTR_OBJID] == nullptr || attrs[UBUS_ATTR_OBJPATH] == nullptr ||
        attrs[UBUS_ATTR_OBJTYPE] == nullptr) {
        return;
    }
    ubus_object_data obj = {blob_get_u32(attrs[UBUS_ATTR_OBJID]), blob_get_u32(attrs[UBUS_ATTR_OBJTYPE]),
                            blob_get_string(attrs[UBUS_ATTR_OBJPATH]), attrs[UBUS_ATTR_SIGNATURE]};
    const auto *lookup = static_cast<const Lookup *>(req->priv);
    lookup->cb(req->ctx, &obj, lookup->priv);
}

void on_lookup_id_data(ubus_request *req, int /*type*/, blob_attr *msg)
{
    const MessageAttrs attrs(msg);
    if (attrs[UBUS_ATTR_OBJID] != nullptr) {
        *static_cast<uint32_t *>(req->priv) = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
    }
}

int send_lookup(ubus_context *ctx, const char *path, ubus_data_handler_t cb, void *priv)
{
    blob_buf *out = new_message(ctx);
    if (out == nullptr || (path != nullptr && blob_put_string(out, UBUS_ATTR_OBJPATH, path) == nullptr)) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    return ask_broker(ctx, UBUS_MSG_LOOKUP, cb, priv);
}

bool put_method(blob_buf *out, const ubus_method &method)
{
    void *table = blobmsg_open_table(out, method.name);
    if (table == nullptr) {
        return false;
    }
    for (int i = 0; i < method.n_policy; ++i) {
        const bool masked_out = method.mask != 0 && (method.mask & (1UL << i)) == 0;
        if (!masked_out && blobmsg_add_u32(out, method.policy[i].name, method.policy[i].type) < 0) {
            return false;
        }
    }
    blobmsg_close_table(out, table);
    return true;
}

bool put_signature(blob_buf *out, const ubus_object_type &type)
{
    void *signature = blob_nest_start(out, UBUS_ATTR_SIGNATURE);
    if (signature == nullptr) {
        return false;
    }
    for (int i = 0; i < type.n_methods; ++i) {
        if (!put_method(out, type.methods[i])) {
            return false;
        }
    }
    blob_nest_end(out, signature);
    return true;
}

void on_object_added(ubus_request *req, int /*type*/, blob_attr *msg)
{
    auto *obj = static_cast<ubus_object *>(req->priv);
    const MessageAttrs attrs(msg);
    if (attrs[UBUS_ATTR_OBJID] == nullptr) {
        return;
    }
    obj->id = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
    if (attrs[UBUS_ATTR_OBJTYPE] != nullptr && obj->type != nullptr) {
        obj->type->id = blob_get_u32(attrs[UBUS_ATTR_OBJTYPE]);
    }
    if (!is_listed(req->ctx, obj)) {
        list_add_tail(&obj->list, &req->ctx->objects);
    }
}

// The broker tells the type's id when it was dropped with its last object.
void on_object_removed(ubus_request *req, int /*type*/, blob_attr *msg)
{
    auto *obj = static_cast<ubus_object *>(req->priv);
    if (MessageAttrs(msg)[UBUS_ATTR_OBJTYPE] != nullptr && obj->type != nullptr) {
        obj->type->id = 0;
    }
}

int on_event(ubus_context *ctx, ubus_object *obj, ubus_request_data * /*req*/, const char *method,
             blob_attr *msg)
{
    ubus_event_handler *ev = container_of(obj, ubus_event_handler, obj);
    ev->cb(ctx, ev, method, msg);
    return UBUS_STATUS_OK;
}

constexpr ubus_method EVENT_METHOD = {nullptr, on_event, 0, 0, nullptr, 0};

int register_pattern(ubus_context *ctx, uint32_t object, const char *pattern)
{
    blob_buf args = {};
    const bool built = blob_buf_init(&args, 0) == 0 && blobmsg_add_u32(&args, "object", object) == 0 &&
                       (pattern == nullptr || blobmsg_add_string(&args, "pattern", pattern) == 0);
    const int status =
        built ? ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "register", args.head, nullptr, nullptr, 0)
              : UBUS_STATUS_NO_MEMORY;
    blob_buf_free(&args);
    return status;
}

} // namespace

void handle_reply(ubus_context *ctx, ubus_message *msg)
{
    ubus_request *req = find_request(ctx, msg->hdr);
    if (req == nullptr) {
        free(msg);
        return;
    }
    list_add_tail(&msg->list, &req->pending);
    if (req->blocked) { // its callback made a call of its own, which is what received this
        return;
    }

    req->blocked = true;
    while (!list_empty(&req->pending)) {
        msg = take_first(&req->pending);
        if (msg->hdr.type == UBUS_MSG_STATUS) {
            const blob_attr *status = MessageAttrs(&msg->blob)[UBUS_ATTR_STATUS];
            const int code = status != nullptr ? blob_get_int32(status) : UBUS_STATUS_INVALID_ARGUMENT;
            free(msg);
            req->blocked = false;
            finish_request(req, code);
            return;
        }
        give_data(req, msg);
        free(msg);
    }
    req->blocked = false;
}

void handle_invoke(ubus_context *ctx, ubus_message *msg)
{
    const MessageAttrs attrs(&msg->blob);
    if (attrs[UBUS_ATTR_OBJID] != nullptr) {
        ubus_request_data req = {};
        req.object = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
        req.peer = msg->hdr.peer;
        req.seq = msg->hdr.seq;
        const int status = call_method(ctx, find_object(ctx, req.object), &req, attrs);
        const bool wanted =
            attrs[UBUS_ATTR_NO_REPLY] == nullptr || blob_get_u8(attrs[UBUS_ATTR_NO_REPLY]) == 0;
        if (req.peer != 0 && wanted && !req.deferred) { // 0: an event
            ubus_complete_deferred_request(ctx, &req, status);
        }
    }
    free(msg);
}

int publish_objects(ubus_context *ctx)
{
    ubus_object *obj = nullptr;
    list_for_each_entry(obj, &ctx->objects, list)
    {
        obj->id = 0;
        if (obj->type != nullptr) {
            obj->type->id = 0;
        }
    }

    int status = UBUS_STATUS_OK;
    ++ctx->stack_depth; // no handler runs in between: the list stays as it is
    list_for_each_entry(obj, &ctx->objects, list)
    {
        status = ubus_add_object(ctx, obj);
        if (status == UBUS_STATUS_CONNECTION_FAILED) {
            break;
        }
    }
    --ctx->stack_depth;
    return status;
}

} // namespace bus

using namespace bus;

const char *ubus_strerror(int error)
{
    if (error >= 0 && error < __UBUS_STATUS_LAST) {
        return STATUS_TEXT[error];
    }
    thread_local char text[32];
    snprintf(text, sizeof(text), "Unknown error: %d", error);
    return text;
}

int ubus_complete_request(ubus_context *ctx, ubus_request *req, int timeout)
{
    const int64_t deadline = timeout > 0 ? now_ms() + timeout : 0;
    const ubus_complete_handler_t complete_cb = req->complete_cb;
    req->complete_cb = nullptr;
    ubus_complete_request_async(ctx, req);

    ++ctx->stack_depth;
    while (!req->status_msg) {
        const int64_t left = deadline != 0 ? deadline - now_ms() : -1;
        if (ctx->lost) {
            finish_request(req, UBUS_STATUS_CONNECTION_FAILED);
        } else if (deadline != 0 && left <= 0) {
            finish_request(req, UBUS_STATUS_TIMEOUT);
        } else {
            wait_and_receive(ctx, static_cast<int>(left));
        }
    }
    --ctx->stack_depth;

    const int status = req->status_code;
    if (complete_cb != nullptr) {
        complete_cb(req, status);
    }
    if (!ctx->sock.registered) {
        handle_pending(ctx);
    }
    return status;
}

void ubus_complete_request_async(ubus_context *ctx, ubus_request *req)
{
    if (list_empty(&req->list)) {
        list_add_tail(&req->list, &ctx->requests);
    }
}

void ubus_abort_request(ubus_context * /*ctx*/, ubus_request *req)
{
    if (list_empty(&req->list)) {
        return;
    }
    list_del_init(&req->list);
    req->cancelled = true;
    free_messages(&req->pending);
}

void ubus_flush_requests(ubus_context *ctx)
{
    while (!list_empty(&ctx->requests)) {
        finish_request(list_first_entry(&ctx->requests, ubus_request, list), UBUS_STATUS_CONNECTION_FAILED);
    }
}

int ubus_lookup(ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv)
{
    Lookup lookup = {cb, priv};
    return send_lookup(ctx, path, on_lookup_data, &lookup);
}

int ubus_lookup_id(ubus_context *ctx, const char *path, uint32_t *id)
{
    return send_lookup(ctx, path, on_lookup_id_data, id);
}

int ubus_add_object(ubus_context *ctx, ubus_object *obj)
{
    blob_buf *out = new_message(ctx);
    bool built = out != nullptr;
    if (built && obj->name != nullptr && obj->type != nullptr) {
        built = blob_put_string(out, UBUS_ATTR_OBJPATH, obj->name) != nullptr &&
                (obj->type->id != 0 ? blob_put_u32(out, UBUS_ATTR_OBJTYPE, obj->type->id) != nullptr
                                    : put_signature(out, *obj->type));
    }
    if (!built) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }

    const int status = ask_broker(ctx, UBUS_MSG_ADD_OBJECT, on_object_added, obj);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    return obj->id != 0 ? UBUS_STATUS_OK : UBUS_STATUS_NO_DATA;
}

int ubus_remove_object(ubus_context *ctx, ubus_object *obj)
{
    const uint32_t id = obj->id;
    if (is_listed(ctx, obj)) {
        list_del(&obj->list);
    }
    obj->id = 0;

    blob_buf *out = new_message(ctx);
    if (out == nullptr || blob_put_u32(out, UBUS_ATTR_OBJID, id) == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    return ask_broker(ctx, UBUS_MSG_REMOVE_OBJECT, on_object_removed, obj);
}

int ubus_invoke_async(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg, ubus_request *req)
{
    blob_buf *out = new_message(ctx);
    if (out == nullptr || blob_put_u32(out, UBUS_ATTR_OBJID, obj) == nullptr ||
        blob_put_string(out, UBUS_ATTR_METHOD, method) == nullptr || !put_data(out, msg)) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    return start_request(ctx, req, UBUS_MSG_INVOKE, obj);
}

int ubus_invoke(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg, ubus_data_handler_t cb,
                void *priv, int timeout)
{
    ubus_request req;
    const int status = ubus_invoke_async(ctx, obj, method, msg, &req);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    req.data_cb = cb;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, timeout);
}

int ubus_send_reply(ubus_context *ctx, ubus_request_data *req, blob_attr *msg)
{
    blob_buf *out = new_message(ctx);
    if (out == nullptr || blob_put_u32(out, UBUS_ATTR_OBJID, req->object) == nullptr || !put_data(out, msg)) {
        return UBUS_STATUS_NO_DATA;
    }
    return send_message(ctx, UBUS_MSG_DATA, req->seq, req->peer);
}

void ubus_complete_deferred_request(ubus_context *ctx, ubus_request_data *req, int ret)
{
    blob_buf *out = new_message(ctx);
    if (out != nullptr && blob_put_int32(out, UBUS_ATTR_STATUS, static_cast<uint32_t>(ret)) &&
        blob_put_u32(out, UBUS_ATTR_OBJID, req->object) != nullptr) {
        send_message(ctx, UBUS_MSG_STATUS, req->seq, req->peer);
    }
}

int ubus_send_event(ubus_context *ctx, const char *id, blob_attr *data)
{
    blob_buf *out = new_message(ctx);
    if (out == nullptr || blob_put_u32(out, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_EVENT) == nullptr ||
        blob_put_string(out, UBUS_ATTR_METHOD, "send") == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    void *args = blob_nest_start(out, UBUS_ATTR_DATA);
    if (args == nullptr || blobmsg_add_string(out, "id", id) < 0 ||
        blobmsg_add_field(out, BLOBMSG_TYPE_TABLE, "data", data != nullptr ? blob_data(data) : nullptr,
                          data != nullptr ? static_cast<unsigned>(blob_len(data)) : 0) < 0) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    blob_nest_end(out, args);

    ubus_request req;
    const int status = start_request(ctx, &req, UBUS_MSG_INVOKE, UBUS_SYSTEM_OBJECT_EVENT);
    return status == UBUS_STATUS_OK ? ubus_complete_request(ctx, &req, 0) : status;
}

int ubus_register_event_handler(ubus_context *ctx, ubus_event_handler *ev, const char *pattern)
{
    ubus_object *obj = &ev->obj;
    if (obj->id == 0) {
        if ((obj->name == nullptr) != (obj->type == nullptr)) {
            return UBUS_STATUS_INVALID_ARGUMENT;
        }
        obj->methods = &EVENT_METHOD;
        obj->n_methods = 1;
        const int status = ubus_add_object(ctx, obj);
        if (status != UBUS_STATUS_OK) {
            return status;
        }
    }
    return register_pattern(ctx, obj->id, pattern);
}

int ubus_monitor_start(ubus_context *ctx)
{
    return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_MONITOR, "add", nullptr, nullptr, nullptr, MONITOR_TIMEOUT_MS);
}

int ubus_monitor_stop(ubus_context *ctx)
{
    return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_MONITOR, "remove", nullptr, nullptr, nullptr,
                       MONITOR_TIMEOUT_MS);
}
