// The connection: messages in and out, and what happens when it is lost.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "libubus_internal.h"

namespace bus {

namespace {

constexpr size_t IN_SIZE = 16384;
constexpr int CONNECT_TIMEOUT_MS = 3000; // for a broker that is there but does not answer

// What precedes a message's payload on the socket.
struct WireHead {
    ubus_msghdr hdr;
    blob_attr blob;
};
constexpr size_t WIRE_HEAD = sizeof(ubus_msghdr) + sizeof(blob_attr);

constexpr blob_attr_info policy_of(unsigned type)
{
    return {type, 0, 0, nullptr};
}

void forget_input(ubus_context *ctx)
{
    free(ctx->incoming);
    ctx->incoming = nullptr;
    ctx->in_begin = 0;
    ctx->in_end = 0;
    free_messages(&ctx->pending);
    uloop_timeout_cancel(&ctx->pending_timer);
}

// Starts a message from the header at the front of the input. A damaged one leaves no way to find the next:
// the connection counts as lost.
void begin_message(ubus_context *ctx)
{
    WireHead head;
    memcpy(&head, ctx->in + ctx->in_begin, WIRE_HEAD);
    const size_t len = blob_raw_len(&head.blob);
    if (head.hdr.version != 0 || len < sizeof(blob_attr) || len > UBUS_MAX_MSGLEN) {
        ctx->lost = true;
        return;
    }
    ctx->incoming = static_cast<ubus_message *>(malloc(offsetof(ubus_message, blob) + len));
    if (ctx->incoming == nullptr) {
        ctx->lost = true;
        return;
    }
    ctx->incoming->hdr = head.hdr;
    ctx->incoming->hdr.seq = be16_to_cpu(head.hdr.seq);
    ctx->incoming->hdr.peer = be32_to_cpu(head.hdr.peer);
    ctx->incoming->blob.id_len = head.blob.id_len;
    ctx->incoming_len = sizeof(blob_attr);
    ctx->in_begin += WIRE_HEAD;
}

size_t incoming_missing(const ubus_context *ctx)
{
    return blob_raw_len(&ctx->incoming->blob) - ctx->incoming_len;
}

char *incoming_end(const ubus_context *ctx)
{
    return reinterpret_cast<char *>(&ctx->incoming->blob) + ctx->incoming_len;
}

// Reads once; the body of a long message goes straight to its place.
bool read_some(ubus_context *ctx)
{
    const bool straight = ctx->incoming != nullptr && incoming_missing(ctx) >= IN_SIZE;
    if (!straight) {
        std::copy(ctx->in + ctx->in_begin, ctx->in + ctx->in_end, ctx->in);
        ctx->in_end -= ctx->in_begin;
        ctx->in_begin = 0;
    }
    char *target = straight ? incoming_end(ctx) : ctx->in + ctx->in_end;
    const size_t room = straight ? incoming_missing(ctx) : IN_SIZE - ctx->in_end;

    ssize_t n = 0;
    do {
        n = recv(ctx->sock.fd, target, room, MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && errno == EAGAIN) {
        return false;
    }
    if (n <= 0) {
        ctx->lost = true;
        return false;
    }
    (straight ? ctx->incoming_len : ctx->in_end) += static_cast<size_t>(n);
    return true;
}

// The next complete message, or null; reads from the socket if `may_read`, which it clears.
ubus_message *next_message(ubus_context *ctx, bool &may_read)
{
    while (!ctx->lost) {
        if (ctx->incoming == nullptr && ctx->in_end - ctx->in_begin >= WIRE_HEAD) {
            begin_message(ctx);
        }
        if (ctx->incoming != nullptr) {
            const size_t n = std::min(incoming_missing(ctx), ctx->in_end - ctx->in_begin);
            memcpy(incoming_end(ctx), ctx->in + ctx->in_begin, n);
            ctx->in_begin += n;
            ctx->incoming_len += n;
            if (incoming_missing(ctx) == 0) {
                ubus_message *msg = ctx->incoming;
                ctx->incoming = nullptr;
                return msg;
            }
        }
        if (!may_read || ctx->lost) {
            break;
        }
        may_read = false;
        if (!read_some(ctx)) {
            break;
        }
    }
    return nullptr;
}

void dispatch(ubus_context *ctx, ubus_message *msg)
{
    switch (msg->hdr.type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        handle_reply(ctx, msg);
        break;
    case UBUS_MSG_INVOKE:
        if (ctx->stack_depth == 0) {
            ++ctx->stack_depth;
            handle_invoke(ctx, msg);
            --ctx->stack_depth;
            break;
        }
        list_add_tail(&msg->list, &ctx->pending);
        if (ctx->sock.registered && !ctx->pending_timer.pending) {
            uloop_timeout_set(&ctx->pending_timer, 0);
        }
        break;
    case UBUS_MSG_MONITOR:
        if (ctx->monitor_cb != nullptr) {
            ctx->monitor_cb(ctx, msg->hdr.seq, &msg->blob);
        }
        free(msg);
        break;
    default:
        free(msg);
        break;
    }
}

void default_connection_lost(ubus_context * /*ctx*/)
{
    uloop_end();
}

void lose_connection(ubus_context *ctx)
{
    const bool in_loop = ctx->sock.registered;
    uloop_fd_delete(&ctx->sock);
    uloop_timeout_cancel(&ctx->pending_timer);
    ctx->sock.eof = true;
    ubus_flush_requests(ctx);
    if (in_loop || ctx->connection_lost != default_connection_lost) {
        ctx->connection_lost(ctx);
    }
}

// Something arrived while nobody was waiting for it. Reads once, so that a flood of events leaves the loop's
// timers and other descriptors their turn; but to the end once the peer is gone.
void on_readable(uloop_fd *sock, unsigned int /*events*/)
{
    ubus_context *ctx = container_of(sock, ubus_context, sock);
    do {
        bool may_read = true;
        handle_pending(ctx);
        while (ubus_message *msg = next_message(ctx, may_read)) {
            dispatch(ctx, msg);
            handle_pending(ctx);
            if (ctx->stack_depth == 0 && uloop_cancelling()) { // the rest when the loop runs again
                uloop_timeout_set(&ctx->pending_timer, 0);
                return;
            }
        }
    } while (sock->eof && !ctx->lost);
    if (ctx->lost) {
        lose_connection(ctx);
    }
}

void on_pending_timer(uloop_timeout *timer)
{
    on_readable(&container_of(timer, ubus_context, pending_timer)->sock, ULOOP_READ);
}

int open_socket(const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(address.sun_path)) {
        return -1;
    }
    memcpy(address.sun_path, path, strlen(path));

    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    const timeval limit = {CONNECT_TIMEOUT_MS / 1000, 0}; // bounds connect as well
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// The broker speaks first, and tells our id.
bool receive_hello(ubus_context *ctx)
{
    pollfd pfd = {ctx->sock.fd, POLLIN, 0};
    while (!ctx->lost && poll(&pfd, 1, CONNECT_TIMEOUT_MS) > 0) {
        bool may_read = true;
        if (ubus_message *msg = next_message(ctx, may_read)) {
            const bool hello = msg->hdr.type == UBUS_MSG_HELLO;
            ctx->local_id = cpu_to_be32(msg->hdr.peer);
            free(msg);
            return hello;
        }
    }
    return false;
}

void close_connection(ubus_context *ctx)
{
    uloop_fd_delete(&ctx->sock);
    if (ctx->sock.fd >= 0) {
        close(ctx->sock.fd);
    }
    ctx->sock.fd = -1;
    ctx->sock.eof = true;
    ctx->lost = true;
    forget_input(ctx);
}

} // namespace

const blob_attr_info MESSAGE_POLICY[UBUS_ATTR_MAX] = {
    policy_of(BLOB_ATTR_UNSPEC), // UNSPEC
    policy_of(BLOB_ATTR_INT32),  // STATUS
    policy_of(BLOB_ATTR_STRING), // OBJPATH
    policy_of(BLOB_ATTR_INT32),  // OBJID
    policy_of(BLOB_ATTR_STRING), // METHOD
    policy_of(BLOB_ATTR_INT32),  // OBJTYPE
    policy_of(BLOB_ATTR_NESTED), // SIGNATURE
    policy_of(BLOB_ATTR_NESTED), // DATA
    policy_of(BLOB_ATTR_INT32),  // TARGET
    policy_of(BLOB_ATTR_INT8),   // ACTIVE
    policy_of(BLOB_ATTR_INT8),   // NO_REPLY
    policy_of(BLOB_ATTR_NESTED), // SUBSCRIBERS
    policy_of(BLOB_ATTR_STRING), // USER
    policy_of(BLOB_ATTR_STRING), // GROUP
};

bool members_are_sound(const blob_attr *attr)
{
    size_t left = 0;
    const blob_attr *member = nullptr;
    blob_for_each_attr(member, attr, left)
    {
        if (!blobmsg_check_attr_len(member, false, left)) {
            return false;
        }
    }
    return true;
}

MessageAttrs::MessageAttrs(blob_attr *blob)
{
    blob_parse_untrusted(blob, blob_raw_len(blob), attr_, MESSAGE_POLICY, UBUS_ATTR_MAX);
    for (const ubus_msg_attr id : {UBUS_ATTR_DATA, UBUS_ATTR_SIGNATURE}) {
        if (attr_[id] != nullptr && !members_are_sound(attr_[id])) {
            attr_[id] = nullptr;
        }
    }
}

ubus_message *take_first(list_head *list)
{
    list_head *first = list->next;
    list->next = first->next;
    list->next->prev = list;
    return list_entry(first, ubus_message, list);
}

void free_messages(list_head *list)
{
    ubus_message *msg = nullptr;
    ubus_message *next = nullptr;
    list_for_each_entry_safe(msg, next, list, list) free(msg);
    INIT_LIST_HEAD(list);
}

int send_message(ubus_context *ctx, ubus_msg_type type, uint16_t seq, uint32_t peer)
{
    size_t left = blob_raw_len(ctx->out.head);
    if (left > UBUS_MAX_MSGLEN) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }

    ubus_msghdr hdr = {0, static_cast<uint8_t>(type), cpu_to_be16(seq), cpu_to_be32(peer)};
    iovec iov[2] = {{&hdr, sizeof(hdr)}, {ctx->out.head, left}};
    msghdr out = {};
    out.msg_iov = iov;
    out.msg_iovlen = 2;
    while (out.msg_iovlen > 0) {
        const ssize_t n = sendmsg(ctx->sock.fd, &out, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EAGAIN) {
            pollfd pfd = {ctx->sock.fd, POLLOUT, 0};
            poll(&pfd, 1, -1);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return UBUS_STATUS_CONNECTION_FAILED;
        }
        auto sent = static_cast<size_t>(n);
        while (out.msg_iovlen > 0 && sent >= out.msg_iov->iov_len) {
            sent -= out.msg_iov->iov_len;
            ++out.msg_iov;
            --out.msg_iovlen;
        }
        if (out.msg_iovlen > 0) {
            out.msg_iov->iov_base = static_cast<char *>(out.msg_iov->iov_base) + sent;
            out.msg_iov->iov_len -= sent;
        }
    }
    return UBUS_STATUS_OK;
}

void wait_and_receive(ubus_context *ctx, int timeout)
{
    pollfd pfd = {ctx->sock.fd, POLLIN, 0};
    if (poll(&pfd, 1, timeout) <= 0) {
        return;
    }
    bool may_read = true;
    while (ubus_message *msg = next_message(ctx, may_read)) {
        dispatch(ctx, msg);
    }
}

void handle_pending(ubus_context *ctx)
{
    while (ctx->stack_depth == 0 && !list_empty(&ctx->pending)) {
        dispatch(ctx, take_first(&ctx->pending));
    }
}

} // namespace bus

using namespace bus;

int ubus_reconnect(ubus_context *ctx, const char *path)
{
    close_connection(ctx);
    ubus_flush_requests(ctx);

    ctx->sock.fd = open_socket(path != nullptr ? path : UBUS_UNIX_SOCKET);
    if (ctx->sock.fd < 0) {
        return UBUS_STATUS_CONNECTION_FAILED;
    }
    ctx->sock.eof = false;
    ctx->sock.error = false;
    ctx->lost = false;
    if (!receive_hello(ctx) || publish_objects(ctx) == UBUS_STATUS_CONNECTION_FAILED) {
        close_connection(ctx);
        return UBUS_STATUS_CONNECTION_FAILED;
    }
    handle_pending(ctx);
    return UBUS_STATUS_OK;
}

int ubus_connect_ctx(ubus_context *ctx, const char *path)
{
    memset(ctx, 0, sizeof(*ctx));
    ctx->sock.fd = -1;
    ctx->sock.cb = on_readable;
    ctx->pending_timer.cb = on_pending_timer;
    ctx->connection_lost = default_connection_lost;
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->objects);
    INIT_LIST_HEAD(&ctx->pending);
    ctx->in = static_cast<char *>(malloc(IN_SIZE));
    if (ctx->in != nullptr && uloop_init() == 0 && ubus_reconnect(ctx, path) == UBUS_STATUS_OK) {
        return 0;
    }
    ubus_shutdown(ctx);
    return -1;
}

ubus_context *ubus_connect(const char *path)
{
    auto *ctx = static_cast<ubus_context *>(malloc(sizeof(ubus_context)));
    if (ctx != nullptr && ubus_connect_ctx(ctx, path) < 0) {
        free(ctx);
        return nullptr;
    }
    return ctx;
}

void ubus_shutdown(ubus_context *ctx)
{
    if (ctx == nullptr) {
        return;
    }
    close_connection(ctx);
    blob_buf_free(&ctx->out);
    free(ctx->in);
    ctx->in = nullptr;
}

void ubus_free(ubus_context *ctx)
{
    ubus_shutdown(ctx);
    free(ctx);
}
