// What a broker writes to a client with an object, a listener and a call under way: steps of a byte and the
// block that is written. The byte says what the client does then: by 0 it lets its loop run, by 1 it makes a
// call and waits for the answer, by 2 it looks objects up, by 3 it starts a call whose answer may come in a
// later block. Calls are numbered from 4.
#include <libubox/blobmsg_json.h>
#include <libubus.h>

#include <sys/socket.h>
#include <unistd.h>

#include "fuzz/fuzz.h"

namespace {

constexpr int TURNS = 4; // of the loop
constexpr uint32_t OBJECT = 7;
constexpr uint32_t LISTENER = 9;
constexpr uint32_t PEER = 11;

int broker = -1; // its end of the connection

// A message of the broker's that the client must take for what it is.
void put(std::vector<char> &out, ubus_msg_type type, uint16_t seq, uint32_t peer, ubus_msg_attr attribute,
         uint32_t value)
{
    blob_buf body{};
    blob_buf_init(&body, 0);
    blob_put_u32(&body, attribute, value);
    const ubus_msghdr head{0, static_cast<uint8_t>(type), cpu_to_be16(seq), cpu_to_be32(peer)};
    const auto *first = reinterpret_cast<const char *>(&head);
    out.insert(out.end(), first, first + sizeof head);
    first = reinterpret_cast<const char *>(body.head);
    out.insert(out.end(), first, first + blob_raw_len(body.head));
    blob_buf_free(&body);
}

// What the client is told until it is ready: who it is, then an answer to each of its requests.
std::vector<std::vector<char>> welcome()
{
    std::vector<std::vector<char>> out(4);
    put(out[0], UBUS_MSG_HELLO, 0, PEER, UBUS_ATTR_UNSPEC, 0);
    for (const auto &[seq, id] : {std::pair<uint16_t, uint32_t>{1, OBJECT}, {2, LISTENER}}) {
        put(out[seq], UBUS_MSG_DATA, seq, 0, UBUS_ATTR_OBJID, id);
        put(out[seq], UBUS_MSG_STATUS, seq, 0, UBUS_ATTR_STATUS, UBUS_STATUS_OK);
    }
    put(out[3], UBUS_MSG_STATUS, 3, UBUS_SYSTEM_OBJECT_EVENT, UBUS_ATTR_STATUS, UBUS_STATUS_OK);
    return out;
}

const std::vector<std::vector<char>> WELCOME = welcome();
size_t welcomed; // so much of it has been told

void welcome_further()
{
    if (welcomed < WELCOME.size()) {
        const std::vector<char> &next = WELCOME[welcomed++];
        send(broker, next.data(), next.size(), 0);
    }
}

// To the last leaf.
void read_whole(blob_attr *message)
{
    free(blobmsg_format_json(message, true));
}

int handle_call(ubus_context *context, ubus_object *, ubus_request_data *request, const char *,
                blob_attr *message)
{
    read_whole(message);
    ubus_send_reply(context, request, message);
    return UBUS_STATUS_OK;
}

// Says something itself, as the daemon's wrapper does, and waits for nobody.
void handle_event(ubus_context *context, ubus_event_handler *, const char *, blob_attr *message)
{
    read_whole(message);
    ubus_request unanswered{};
    ubus_invoke_async(context, UBUS_SYSTEM_OBJECT_EVENT, "send", message, &unanswered);
}

void take_data(ubus_request *, int, blob_attr *message)
{
    read_whole(message);
}

void take_object(ubus_context *, ubus_object_data *object, void *)
{
    PROMISE(object->path != nullptr);
    if (object->signature != nullptr) {
        read_whole(object->signature);
    }
}

void let_work()
{
    char read[0x1000];
    for (int i = 0; i < TURNS; ++i) {
        uloop_run_timeout(0);
        while (recv(broker, read, sizeof read, MSG_DONTWAIT) > 0) {
        }
    }
}

// The broker closes its side for writing, so that a client that waits for more is told there is none.
void write_the_last(Bytes block)
{
    send(broker, block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    shutdown(broker, SHUT_WR);
}

} // namespace

// The client's socket is one end of a pair.
extern "C" int __wrap_connect(int fd, const sockaddr *, socklen_t)
{
    int pair[2];
    PROMISE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0);
    broker = pair[0];
    dup2(pair[1], fd);
    close(pair[1]);
    welcomed = 0;
    welcome_further();
    return 0;
}

extern "C" ssize_t __real_sendmsg(int fd, const msghdr *message, int flags);
extern "C" ssize_t __wrap_sendmsg(int fd, const msghdr *message, int flags)
{
    const ssize_t sent = __real_sendmsg(fd, message, flags);
    welcome_further();
    return sent;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ubus_context *context = ubus_connect("broker");
    PROMISE(context != nullptr);
    ubus_method method{};
    method.name = "call";
    method.handler = handle_call;
    ubus_object_type type{};
    ubus_object object{};
    type.name = object.name = "client";
    type.methods = object.methods = &method;
    type.n_methods = object.n_methods = 1;
    object.type = &type;
    ubus_event_handler listener{};
    listener.cb = handle_event;
    PROMISE(ubus_add_object(context, &object) == 0 && object.id == OBJECT);
    PROMISE(ubus_register_event_handler(context, &listener, "*") == 0 && listener.obj.id == LISTENER);
    ubus_add_uloop(context);

    ubus_request calls[4]{};
    size_t started = 0;
    for (Input input{{data, size}}; !input.rest.empty() && !context->sock.eof;) {
        const unsigned step = input.byte() % 4;
        const Bytes block = input.block();
        if (step == 1 || step == 2) { // which nobody would end, if not the end of the connection
            write_the_last(block);
        } else {
            send(broker, block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        switch (step) {
        case 1:
            ubus_invoke(context, PEER, "call", nullptr, take_data, nullptr, 0);
            break;
        case 2:
            ubus_lookup(context, nullptr, take_object, nullptr);
            break;
        case 3:
            if (started < std::size(calls)) {
                ubus_request &call = calls[started++];
                ubus_invoke_async(context, PEER, "call", nullptr, &call);
                call.data_cb = take_data;
                ubus_complete_request_async(context, &call);
            }
            break;
        default:
            break;
        }
        let_work();
    }
    write_the_last({});
    for (int i = 0; i < TURNS && !context->sock.eof; ++i) {
        let_work();
    }
    PROMISE(context->sock.eof && context->stack_depth == 0);
    PROMISE(list_empty(&context->requests) && list_empty(&context->pending));
    ubus_free(context);
    close(broker);
    return 0;
}
