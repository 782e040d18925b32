// What the daemon is told over the bus and what it says, in the broker's order and whoever takes part: read
// with libubus's monitor, and so root's alone.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "ovani/ovani_event.h"
#include "tools/bus.h"

inline constexpr char DAEMON_OBJECT[] = "ovani";
inline constexpr std::string_view DAEMON_METHODS[] = {"ovani_devfuc_port_cfg", "set_lanhost_config"};

// Whether an event of this name is the daemon's to send.
constexpr bool is_announcement(std::string_view event)
{
    return event == UBUS_EVENT_LANHOST_UP_DOWN || event == UBUS_EVENT_LANHOST_PARAM_CHANGE;
}

struct TapItem {
    enum Kind {
        EVENT,     // one of the gateway's, by somebody else
        ANNOUNCED, // one of the gateway's, by the daemon
        CALL,      // of one of the daemon's methods
        ANSWER,    // to one
        CAME,      // the daemon: its object is on the bus, its subscriptions come later
        WENT,
        LOST, // messages that the broker had no room for
    };
    Kind kind;
    std::string name;  // of the event or method
    std::string bytes; // its message's attributes as they travelled
    bool heard = true; // EVENT: the broker gave it to the daemon
    int number = 0;    // ANSWER: the status; LOST: how many
};

inline constexpr int SETTLE_MS = 10000; // what a daemon is given to handle what it was told

// One a process.
class BusTap {
public:
    // `take` is called from within settle() and wait(), and must not use the bus.
    explicit BusTap(std::function<void(const TapItem &)> take) : take_(std::move(take)) {}
    ~BusTap();
    BusTap(const BusTap &) = delete;
    BusTap &operator=(const BusTap &) = delete;

    // Null or what went wrong. A daemon that is there already does not count as having come.
    const char *start(const char *socket);

    ubus_context *context() const { return bus_.get(); }
    bool is_lost() const { return bus_ == nullptr || bus_->sock.eof; }
    bool daemon_is_there() const { return object_ != 0; }
    uint32_t daemon_object() const { return object_; }

    // Returns when the daemon has handled all that it was told before, and what it said to that was taken:
    // it answers a call, of a method that it does not have, in its turn. False when there is none, or it does
    // not answer within `milliseconds`.
    bool settle(int milliseconds);

    // Takes what comes within `milliseconds` (below 0: without end), or until a signal of `mask`'s
    // complement.
    void wait(int milliseconds, const sigset_t *mask = nullptr);

private:
    struct Shown {
        uint32_t client;
        uint32_t peer;
        uint16_t seq;
        uint32_t type;
    };
    void shown(uint32_t number, blob_attr *msg);
    void received(const Shown &message, blob_attr *const *attr);
    void event_sent(uint32_t client, blob_attr *data);
    void called(const Shown &message, blob_attr *const *attr);
    void invoked(const Shown &message, blob_attr *const *attr);
    void object_event(std::string_view event, blob_attr *data);
    void flush();

    std::function<void(const TapItem &)> take_;
    BusConnection bus_;
    ubus_event_handler listener_{};
    uint16_t number_ = 0;   // of the last message shown
    uint32_t object_ = 0;   // the daemon's
    uint32_t client_ = 0;   // the daemon, once it was heard of
    uint32_t newcomer_ = 0; // who publishes its object
    TapItem pending_{};     // an event of which it is not known yet who hears it
    bool is_pending_ = false;
    std::map<std::pair<uint32_t, uint16_t>, std::string_view> calls_; // by caller, not answered yet
};
