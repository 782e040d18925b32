// What a broker, or who poses as one, sends to a client that publishes an object, listens to events, looks
// for objects and calls one: blocks behind a byte that tells their length, one whenever the client waits. The
// broker's greeting comes by itself.
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <libubox/blobmsg_json.h>
#include <libubus.h>

#include "fuzz/fuzz.h"

namespace {

constexpr int turns = 8;
constexpr uint8_t greeting[] = {0, UBUS_MSG_HELLO, 0, 0, 0, 1, 0, 0, 0, 0, 0, 4};

int client_end = -1;
int broker_end = -1;
bool greeted;
Input input{nullptr, 0};

// Who waits for more than there is sees the connection lost.
void send_block()
{
    Bytes block = greeted ? input.block() : Bytes{greeting};
    greeted = true;
    if (block.empty()) {
        shutdown(broker_end, SHUT_WR);
        return;
    }
    send(broker_end, block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

// Reads a message to its last leaf.
void read_message(blob_attr *message)
{
    if (message != nullptr) {
        free(blobmsg_format_json(message, true));
    }
}

int on_call(ubus_context *ctx, ubus_object *, ubus_request_data *request, const char *method,
            blob_attr *message)
{
    PROMISE(strlen(method) > 0);
    read_message(message);
    return ubus_send_reply(ctx, request, message);
}

void on_event(ubus_context *, ubus_event_handler *, const char *name, blob_attr *message)
{
    PROMISE(strlen(name) < UBUS_MAX_MSGLEN);
    read_message(message);
}

void on_object(ubus_context *, ubus_object_data *object, void *)
{
    PROMISE(strlen(object->path) < UBUS_MAX_MSGLEN);
    read_message(object->signature);
}

void on_data(ubus_request *, int, blob_attr *message)
{
    read_message(message);
}

void act(ubus_context &ctx)
{
    ubus_method method{};
    method.name = "set";
    method.handler = on_call;
    ubus_object_type type{"ovani", 0, &method, 1};
    ubus_object object{};
    object.name = "ovani";
    object.type = &type;
    object.methods = &method;
    object.n_methods = 1;
    ubus_add_object(&ctx, &object);
    ubus_event_handler listener{};
    listener.cb = on_event;
    ubus_register_event_handler(&ctx, &listener, "*");
    ubus_lookup(&ctx, "ova*", on_object, nullptr);
    ubus_invoke(&ctx, 2, "get", nullptr, on_data, nullptr, 1);
    for (int i = 0; i < turns; ++i) {
        send_block();
        uloop_run_timeout(0);
    }
    ubus_remove_object(&ctx, &object);
}

} // namespace

extern "C" int __wrap_connect(int fd, const sockaddr *, socklen_t)
{
    return dup2(client_end, fd) == fd ? 0 : -1;
}

extern "C" int __real_poll(pollfd *fds, nfds_t count, int timeout);
extern "C" int __wrap_poll(pollfd *fds, nfds_t count, int timeout)
{
    send_block();
    return __real_poll(fds, count, timeout);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int ends[2];
    PROMISE(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    client_end = ends[0];
    broker_end = ends[1];
    input = {data, size};
    greeted = false;
    ubus_context ctx;
    PROMISE(ubus_connect_ctx(&ctx, "") == 0);
    close(client_end);
    ctx.connection_lost = [](ubus_context *) {};
    ubus_add_uloop(&ctx);
    act(ctx);
    ubus_shutdown(&ctx);
    close(broker_end);
    return 0;
}
