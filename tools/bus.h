// The message bus for the tools: messages, one-shot senders, and a connection that survives its broker.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/lib_zk_ubus.h"
#include "tools/libubox.h"

// A message under construction.
class Message {
public:
    Message() { blob_buf_init(&buf_, 0); }
    ~Message() { blob_buf_free(&buf_); }
    Message(Message &&other) noexcept : buf_(std::exchange(other.buf_, {})) {}
    Message &operator=(Message &&) = delete;

    // A raw record: an attribute of unspecified type holding the record's bytes.
    void add_record(const char *name, const void *data, size_t len)
    {
        blobmsg_add_field(&buf_, BLOBMSG_TYPE_UNSPEC, name, data, static_cast<unsigned>(len));
    }
    void add_text(const char *name, const std::string &text)
    {
        blobmsg_add_string(&buf_, name, text.c_str());
    }
    void add_bool(const char *name, bool value) { blobmsg_add_u8(&buf_, name, value ? 1 : 0); }
    void add_number(const char *name, uint32_t value) { blobmsg_add_u32(&buf_, name, value); }

    void add_texts(const char *name, const std::vector<std::pair<std::string, std::string>> &texts)
    {
        void *table = blobmsg_open_table(&buf_, name);
        for (const auto &[key, text] : texts) {
            add_text(key.c_str(), text);
        }
        blobmsg_close_table(&buf_, table);
    }

    // The members of a JSON object; false when the text is none.
    bool add_json(const std::string &json);

    blob_attr *head() const { return buf_.head; }

private:
    blob_buf buf_{};
};

struct BusDeleter {
    void operator()(ubus_context *ctx) const { ubus_free(ctx); }
};
using BusConnection = std::unique_ptr<ubus_context, BusDeleter>;

// For a program that sends one thing and ends. `socket` null is the bus's usual place. Null when no broker
// answers.
BusConnection connect_bus(const char *socket);

// Why there is no bus: no right to use the socket, nobody behind it, or somebody who says nothing for a
// second. Empty when somebody answers there.
std::string why_no_bus(const char *socket);

// Where the bus's socket usually is, for messages to people.
inline constexpr char BUS_DEFAULT_SOCKET[] = "/var/run/ubus/ubus.sock";

// A timer of the event loop; it ends with its object.
class Timer : uloop_timeout {
public:
    explicit Timer(std::function<void()> due) : uloop_timeout{}, due_(std::move(due))
    {
        cb = [](uloop_timeout *timer) { static_cast<Timer *>(timer)->due_(); };
    }
    ~Timer() { cancel(); }
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;

    void set(int milliseconds) { uloop_timeout_set(this, milliseconds); }
    void cancel() { uloop_timeout_cancel(this); }
    bool is_set() const { return pending; }

private:
    std::function<void()> due_;
};

// The bus connection of a program that stays: it runs in the event loop, and while no broker is there it
// tries again every so often. Everything that belongs to one connection (objects, subscriptions, requests) is
// made afresh in `on_connect`. At most one a process, and uloop_init comes first.
class Bus {
public:
    using Handler = std::function<void(const char *event, blob_attr *msg)>;

    explicit Bus(std::string socket);
    ~Bus();
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;

    std::function<void()> on_connect; // a fresh connection is up
    std::function<void()> on_lost;    // it is gone; its context is still there, for aborting requests
    Handler on_event;                 // what subscribe() asked for

    void start();

    // Null while there is no broker.
    ubus_context *context() const { return retry_.is_set() ? nullptr : ctx_.get(); }

    // For on_connect: deliver events of this pattern to on_event.
    bool subscribe(const char *pattern);

    // True when the broker has taken the event, and so has handed it on to those who listen.
    bool send(const char *event, const Message &msg);

private:
    void connect();
    void lost();

    std::string socket_;
    BusConnection ctx_;
    ubus_event_handler listener_{};
    Timer retry_{[this] { connect(); }};
};
