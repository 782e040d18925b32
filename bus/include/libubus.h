/*
 * Client of the bus.
 *
 * A program connects, publishes objects with methods, calls the methods of others by object id, sends events
 * and receives those whose names match a pattern. Results are UBUS_STATUS_*, 0 being success, unless said
 * otherwise.
 *
 * While a call waits for its reply, method calls and events that arrive are put aside and handled afterwards,
 * in order, from the event loop (or before the call returns, if the connection is not in the loop): a handler
 * never runs inside somebody else's call. A handler may itself make calls.
 *
 * Once the connection is lost (`sock.eof`), everything fails with UBUS_STATUS_CONNECTION_FAILED until
 * ubus_reconnect succeeds. A context belongs to one thread at a time.
 */
#pragma once

#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <stdint.h>

#include "ubus_common.h"
#include "ubusmsg.h"

#ifdef __cplusplus
extern "C" {
#endif

struct ubus_context;
struct ubus_object;
struct ubus_object_data;
struct ubus_request;
struct ubus_request_data;
struct ubus_event_handler;

typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx, struct ubus_object_data *obj, void *priv);

/* A method: `msg` holds the parameters (blobmsg_parse with blob_data and blob_len; unchecked), `method` the
 * name. The result is the call's status; data is sent before by ubus_send_reply. `msg` and `req` end with the
 * call. */
typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj,
                              struct ubus_request_data *req, const char *method, struct blob_attr *msg);
typedef void (*ubus_event_handler_t)(struct ubus_context *ctx, struct ubus_event_handler *ev,
                                     const char *type, struct blob_attr *msg);
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);
typedef void (*ubus_complete_handler_t)(struct ubus_request *req, int ret);

#define UBUS_OBJECT_TYPE(_name, _methods)                                                                    \
    {                                                                                                        \
        .name = _name, .id = 0, .methods = _methods, .n_methods = ARRAY_SIZE(_methods)                       \
    }

/* A method with parameters, one whose parameters are those of `_policy` at the bits of `_mask`, one without.
 */
#define UBUS_METHOD(_name, _handler, _policy) UBUS_METHOD_MASK(_name, _handler, _policy, 0)
#define UBUS_METHOD_MASK(_name, _handler, _policy, _mask)                                                    \
    {                                                                                                        \
        .name = _name, .handler = _handler, .mask = _mask, .tags = 0, .policy = _policy,                     \
        .n_policy = ARRAY_SIZE(_policy)                                                                      \
    }
#define UBUS_METHOD_NOARG(_name, _handler)                                                                   \
    {                                                                                                        \
        .name = _name, .handler = _handler, .mask = 0, .tags = 0, .policy = NULL, .n_policy = 0              \
    }

struct ubus_method {
    const char *name; /* null: takes any */
    ubus_handler_t handler;

    unsigned long mask;
    unsigned long tags;
    const struct blobmsg_policy *policy;
    int n_policy;
};

struct ubus_object_type {
    const char *name;
    uint32_t id; /* the broker's, once an object of the type was added */

    const struct ubus_method *methods;
    int n_methods;
};

/* An object to publish, all zeroes but for what the owner fills in: name, type, methods (usually the type's).
 * An object without a name can be called by its id only. It must stay where it is while it is added. */
struct ubus_object {
    struct list_head list;

    const char *name;
    uint32_t id; /* the broker's, 0 while it is not on the bus */

    const char *path;
    struct ubus_object_type *type;

    const struct ubus_method *methods;
    int n_methods;
};

struct ubus_event_handler {
    struct ubus_object obj;

    ubus_event_handler_t cb;
};

struct ubus_context {
    struct uloop_fd sock;

    uint32_t local_id; /* this client's id on the bus, in network byte order */

    /* Called when the connection is lost, from the event loop or ubus_handle_event, after pending requests
     * were failed; `sock` is out of the loop then. May reconnect, must not free. The default ends the event
     * loop that the connection was in. */
    void (*connection_lost)(struct ubus_context *ctx);

    /* Called for each message shown after ubus_monitor_start, even while a call waits for its reply: `data`
     * holds the members of enum ubus_monitor_attr, unchecked. */
    void (*monitor_cb)(struct ubus_context *ctx, uint32_t seq, struct blob_attr *data);

    /* the library's own */
    struct list_head requests;
    struct list_head objects;
    struct list_head pending;
    struct uloop_timeout pending_timer;
    uint16_t request_seq;
    bool lost;
    int stack_depth;
    struct blob_buf out;
    struct ubus_message *incoming; /* a message of which `incoming_len` bytes of blob have come */
    size_t incoming_len;
    char *in; /* bytes received, not yet looked at: from in_begin to in_end */
    size_t in_begin;
    size_t in_end;
};

struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char *path;
    struct blob_attr *signature; /* or null: a table a method, parameter name to BLOBMSG_TYPE_* */
};

struct ubus_acl_key {
    const char *user;
    const char *group;
    const char *object;
};

/* An incoming call. `acl` tells who calls, texts that end with the handler, or nulls. */
struct ubus_request_data {
    uint32_t object;
    uint32_t peer;
    uint16_t seq;

    struct ubus_acl_key acl;

    bool deferred;
};

/* An outgoing call. The callbacks and `priv` are the caller's to set, after starting it. */
struct ubus_request {
    struct list_head list;

    struct list_head pending;
    int status_code;
    bool status_msg;
    bool blocked;
    bool cancelled;

    uint32_t peer;
    uint16_t seq;

    ubus_data_handler_t raw_data_cb; /* is given the whole message's blob, data_cb its DATA member */
    ubus_data_handler_t data_cb;
    ubus_complete_handler_t complete_cb;

    struct ubus_context *ctx;
    void *priv;
};

/*
 * Connects to the broker at `path` (null: UBUS_UNIX_SOCKET). Also calls uloop_init. ubus_connect gives a
 * context for ubus_free, or null; ubus_connect_ctx fills in the caller's, for ubus_shutdown, and is 0 or -1.
 * Either end leaves nothing behind in the event loop; objects and requests of the context are not touched any
 * more.
 */
struct ubus_context *ubus_connect(const char *path);
int ubus_connect_ctx(struct ubus_context *ctx, const char *path);
void ubus_free(struct ubus_context *ctx);
void ubus_shutdown(struct ubus_context *ctx);

/*
 * Connects again and publishes the context's objects, under new ids. Event patterns must be registered again
 * and the context attached to the event loop again by the caller. On failure the context is as after a lost
 * connection, and it may be tried again.
 */
int ubus_reconnect(struct ubus_context *ctx, const char *path);

/* A text for a status; for an unknown one it lasts until the thread's next call. */
const char *ubus_strerror(int error);

static inline void ubus_add_uloop(struct ubus_context *ctx)
{
    uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

/* Handles what has arrived; for a program that waits for `sock.fd` itself. */
static inline void ubus_handle_event(struct ubus_context *ctx)
{
    ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

/* Waits for a started request, `timeout` milliseconds at most (0: as long as it takes), and gives its status.
 */
int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout);

/* Lets a started request go on by itself: its callbacks run from the event loop. */
void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req);

/* Forgets such a request: no callback runs any more. */
void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req);

/* Fails every request that is under way. */
void ubus_flush_requests(struct ubus_context *ctx);

/* Calls `cb` for each object whose path is `path` (null: any; a trailing '*' stands for any rest).
 * UBUS_STATUS_NOT_FOUND when a path was given and there is none. */
int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv);
int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);

/* Puts an object on the bus, takes it off. A removed object is forgotten whatever the result. */
int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);
int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj);

/* Calls a method. `msg` (null: no parameters) is copied. The first form waits like ubus_complete_request;
 * `cb`, if any, receives the reply's data. The second returns once the call is sent. */
int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                ubus_data_handler_t cb, void *priv, int timeout);
int ubus_invoke_async(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                      struct ubus_request *req);

/* Sends data in reply to a call. */
int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg);

/* Keeps a call open beyond its handler: `new_req` is for ubus_send_reply and, at last,
 * ubus_complete_deferred_request. */
static inline void ubus_defer_request(struct ubus_context *ctx, struct ubus_request_data *req,
                                      struct ubus_request_data *new_req)
{
    (void)ctx;
    memcpy(new_req, req, sizeof(*req));
    req->deferred = true;
}
void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req, int ret);

/* Sends an event to everyone else whose pattern matches, and waits until the broker has it. Names that begin
 * with "ubus." are the broker's: "ubus.object.add" and "ubus.object.remove" { id, path }. */
int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data);

/* Lets `ev` receive the events named `pattern` (a trailing '*' stands for any rest), beside those it was
 * registered for before. Unregistering ends them all. */
int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *pattern);

static inline int ubus_unregister_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev)
{
    return ubus_remove_object(ctx, &ev->obj);
}

/* Has the broker show this client every message from now on, or no more. Root's alone. */
int ubus_monitor_start(struct ubus_context *ctx);
int ubus_monitor_stop(struct ubus_context *ctx);

#ifdef __cplusplus
}
#endif
