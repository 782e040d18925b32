#include "tools/bus.h"

#include <cerrno>
#include <cstdio>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "ovani/ovani_fd.h"

namespace {

constexpr int RETRY_MS = 250;
constexpr int GREETING_MS = 1000; // the broker speaks first, and at once

// libubus hands its callbacks the context alone, so the one Bus of the process is kept here.
Bus *s_bus = nullptr;

} // namespace

bool Message::add_json(const std::string &json)
{
    return blobmsg_add_json_from_string(&buf_, json.c_str());
}

BusConnection connect_bus(const char *socket)
{
    return BusConnection(ubus_connect(socket));
}

std::string why_no_bus(const char *socket)
{
    const std::string path = socket != nullptr ? socket : BUS_DEFAULT_SOCKET;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const UniqueFd asking(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connect(asking.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
        pollfd greeting{.fd = asking.get(), .events = POLLIN};
        return poll(&greeting, 1, GREETING_MS) == 1 ? "" : "the broker at " + path + " does not answer";
    }
    switch (errno) {
    case EACCES:
    case EPERM:
        return "no right to use " + path;
    case EAGAIN: // its queue is full
        return "the broker at " + path + " does not answer";
    default:
        return "no broker at " + path;
    }
}

Bus::Bus(std::string socket) : socket_(std::move(socket))
{
    s_bus = this;
}

Bus::~Bus()
{
    s_bus = nullptr;
}

void Bus::start()
{
    connect();
    if (!ctx_) {
        fprintf(stderr, "%s, waiting\n", why_no_bus(socket_.empty() ? nullptr : socket_.c_str()).c_str());
    }
}

void Bus::connect()
{
    ctx_.reset();
    ctx_ = connect_bus(socket_.empty() ? nullptr : socket_.c_str());
    if (!ctx_) {
        retry_.set(RETRY_MS);
        return;
    }
    ctx_->connection_lost = [](ubus_context *) { s_bus->lost(); };
    listener_ = {};
    listener_.cb = [](ubus_context *, ubus_event_handler *, const char *event, blob_attr *msg) {
        s_bus->on_event(event, msg);
    };
    ubus_add_uloop(ctx_.get());
    if (on_connect) {
        on_connect();
    }
}

// libubus is still using the context when it says that the connection is lost: freeing it waits for the
// timer.
void Bus::lost()
{
    if (retry_.is_set()) {
        return;
    }
    fprintf(stderr, "broker lost, reconnecting\n");
    if (on_lost) {
        on_lost();
    }
    retry_.set(RETRY_MS);
}

bool Bus::subscribe(const char *pattern)
{
    return ubus_register_event_handler(ctx_.get(), &listener_, pattern) == UBUS_STATUS_OK;
}

bool Bus::send(const char *event, const Message &msg)
{
    return context() != nullptr && ubus_send_event(context(), event, msg.head()) == UBUS_STATUS_OK;
}
