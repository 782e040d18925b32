/*
 * Bus wrapper: the one connection of a process to the local message bus.
 *
 * Results are bus statuses (UBUS_STATUS_OK is 0; ubus_strerror names them). A null context is answered with a
 * failure, never followed. A blob_buf argument is passed by value and stays the caller's.
 *
 * A broker that goes away, or is not there yet, is waited for: the wrapper connects again, publishes the
 * process's object again, as soon as nobody else holds its name, and subscribes again, so that the caller
 * keeps its context and need not know. An object or pattern given meanwhile counts as accepted and takes
 * effect then.
 *
 * All calls are made on the loop's thread: libubus is made for one.
 */
#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#include <libubox/blobmsg.h>
#include <libubus.h>

enum { UBUS_THREAD_SINGLE = 0, UBUS_THREAD_MULTIPLE = 1 };

/* Connects to the bus and attaches the connection to the event loop. */
int lib_zk_ubus_init(struct ubus_context **ctx);

int lib_zk_ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);

/* Subscribes `ev` to the events named by `pattern` (a trailing '*' stands for any rest). One handler may be
 * registered for several patterns; unregistering it drops them all. */
int lib_zk_ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev,
                                       const char *pattern);
int lib_zk_ubus_unregister_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev);

/* Broadcasts an event; its subscribers, other than this process, receive `msg`, in the order of sending. Does
 * not wait for the broker, only for room in its socket: success means that the event lies there. While there
 * is no broker, or when the loop is to end while there is no room, it fails. */
int lib_zk_ubus_send_event(struct ubus_context *ctx, const char *event, struct blob_buf msg);

/* Calls a method and waits for its end, `timeout` milliseconds at most (0: 3000). `cb`, when given, receives
 * the reply's data. An object that is not on the bus answers at once. */
int lib_zk_ubus_call_method(struct ubus_context *ctx, const char *object, const char *method,
                            struct blob_buf msg, ubus_data_handler_t cb, void *priv, int timeout);

/* Runs the event loop on the calling thread until it is ended by a signal (SIGINT, SIGTERM) or uloop_end.
 * `flag`: UBUS_THREAD_SINGLE or UBUS_THREAD_MULTIPLE. SIGCHLD, SIGPIPE and SIGHUP stay as the caller set
 * them. */
int lib_zk_ubus_run(unsigned int flag);

/* Closes the connection and frees the context, once the broker has what was sent or a second has passed. */
int lib_zk_ubus_exit(struct ubus_context *ctx);

/* Raw records inside a message: an attribute of unspecified type that holds the record's bytes. The getter
 * returns a pointer to them (blobmsg_data_len tells how many), or null for a null attribute. */
int lib_zk_blobmsg_add_struct(struct blob_buf *buf, const char *name, const void *data, int len);
void *lib_zk_blobmsg_get_struct(struct blob_attr *attr);

/* Tables of name/value pairs: `data` and `len` are the table attribute's data and its length in bytes. The
 * first counts the members, up to a damaged one; the second calls `func` with `priv` for each string member
 * in order, whatever `func` returns, and is false, with no call made, when the table is damaged. */
typedef bool (*ubus_KV_Set_Func)(const char *key, const char *value, void *priv);
unsigned int ubus_KV_size_get(void *data, int len);
bool ubus_parse_kv_config(void *data, int len, ubus_KV_Set_Func func, void *priv);

#ifdef __cplusplus
}
#endif
