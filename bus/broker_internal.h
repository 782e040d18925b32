// The broker's records, shared by broker.cpp (the register and the messages) and broker_io.cpp (the
// connections).
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <sys/random.h>

#include "broker.h"
#include "libubus_internal.h"

namespace bus {

// What is kept for a client, in bytes.
constexpr size_t MAX_QUEUED_EVENTS = 3 << 20; // unread messages, beyond which events are dropped
constexpr size_t MAX_QUEUED = 4 << 20;        // and beyond which calls and answers are
constexpr size_t MAX_REGISTERED = 4 << 20;    // objects and patterns
constexpr size_t MAX_HELD_BY_ALL = 64 << 20;  // all of it, for all: then the one with most is disconnected

using Bytes = std::vector<uint8_t>;

struct Client;

// A received message: the header in the host's byte order, the members by id.
struct Received {
    ubus_msghdr hdr;
    blob_attr *blob;
    blob_attr *attr[UBUS_ATTR_MAX];

    blob_attr *operator[](ubus_msg_attr id) const { return attr[id]; }
};

struct ObjectType {
    uint32_t id;
    size_t users;
    Bytes signature; // the attribute's payload
};

struct Pattern {
    std::string text;
    bool prefix; // matches whatever begins with the text
};

struct OpenCall {
    uint32_t caller;
    uint16_t seq;
};

struct Object {
    uint32_t id;
    Client *owner;
    std::string path; // empty: none
    ObjectType *type; // null: not shown in lookups
    size_t held;
    uint32_t event_seen;
    std::vector<Pattern> patterns;
    std::vector<OpenCall> calls; // not answered yet
};

// A lookup of many objects, which goes on as the client reads.
struct Lookup {
    ubus_msghdr request;
    std::string prefix;
    std::string next;
    bool found;
};

struct Client : uloop_fd {
    Broker *broker;
    uint32_t id;
    pid_t pid;
    const std::string *user; // null: not known to the system
    const std::string *group;
    bool root;

    Bytes input;    // the beginning of a message
    Bytes output;   // messages that the socket did not take yet
    size_t sent;    // of that, bytes that it has taken since
    size_t dropped; // messages for which there was no room since the output was last empty
    std::vector<Object *> objects;
    std::deque<Lookup> lookups;
    size_t registered; // bytes, objects and patterns
    size_t held;       // bytes, all that is kept for it
    bool doomed;       // to be removed once no one looks at it any more
    uint16_t shown;    // messages that it was sent, or should have been, as a monitor

    size_t queued() const { return output.size() - sent; }
};

struct Acceptor : uloop_fd {
    Broker *broker;
};

struct AcceptTimer : uloop_timeout {
    Broker *broker;
};

// Ids are drawn: they cannot be guessed, nor mistaken for those of an earlier broker.
template <class Map>
uint32_t new_id(const Map &taken)
{
    uint32_t id = 0;
    while (id < UBUS_SYSTEM_OBJECT_MAX || taken.contains(id)) {
        while (getrandom(&id, sizeof(id), 0) != sizeof(id)) {
        }
    }
    return id;
}

struct Broker {
    Broker(const char *path, int listener);
    ~Broker();
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    // Callbacks of the event loop.
    void accept_clients();
    void listen_again();
    void on_client(Client &c, unsigned events);

private:
    using Handler = int (Broker::*)(Client &, const Received &);
    static const Handler HANDLERS[__UBUS_MSG_LAST];
    using Patterns = std::map<std::string, std::vector<Object *>, std::less<>>;

    // broker_io.cpp: connections
    void add_client(int fd);
    void remove_client(Client &c);
    Client *find_client(uint32_t id);
    void doom(Client &c);
    void settle();
    void watch(Client &c);
    void account(Client &c);

    void receive(Client &c);
    size_t consume(Client &c, std::span<uint8_t> input);

    // False when the message is lost: there is no room for it, or the client reads no more.
    bool send(Client &to, int type, uint16_t seq, uint32_t peer, const blob_attr *blob);
    void flush(Client &c);
    void give_up_sending(Client &c);
    void show(const Client &c, const ubus_msghdr &hdr, const blob_attr *blob, bool sent);

    // broker.cpp: the register and the messages. A handler gives the status to answer with, or NO_REPLY.
    void handle(Client &c, const Received &m);
    int ping(Client &c, const Received &m);
    int add_object(Client &c, const Received &m);
    int remove_object(Client &c, const Received &m);
    int look_up(Client &c, const Received &m);
    int invoke(Client &c, const Received &m);
    int pass_reply(Client &c, const Received &m);
    int not_supported(Client &c, const Received &m);

    void reply(Client &c, const ubus_msghdr &request, int type);
    void reply_status(Client &c, const ubus_msghdr &request, int status);

    Object *find_object(uint32_t id);
    ObjectType *find_type(const Received &m);
    void leave_type(ObjectType *type);
    void drop_object(Object &object);
    void fail_calls(const Object &object);
    void show_object(Client &c, const ubus_msghdr &request, const Object &object);
    void go_on_with_lookups(Client &c);

    int invoke_monitor_object(Client &c, std::string_view method);
    int invoke_event_object(Client &c, std::string_view method, blob_attr *data);
    int add_pattern(Client &c, blob_attr *data);
    void drop_patterns(Object &object);
    int send_event(Client &c, blob_attr *data);
    void send_object_event(const Object &object, const char *event);
    void fan_out(std::string_view event, const Client *except);
    void give_event(Object &object, const Client *except);

    std::string path_;
    Acceptor acceptor_ = {};
    AcceptTimer accept_timer_ = {};
    std::unordered_map<uint32_t, std::unique_ptr<Client>> clients_;
    std::vector<uint32_t> doomed_;
    size_t held_ = 0;
    std::array<uint8_t, 65536> read_buffer_;

    std::unordered_map<uint32_t, std::unique_ptr<Object>> objects_;
    std::unordered_map<uint32_t, ObjectType> types_;
    std::map<std::string_view, Object *> paths_;
    Patterns exact_;
    Patterns prefixes_;
    std::unordered_map<unsigned, std::string> users_;
    std::unordered_map<unsigned, std::string> groups_;
    uint32_t event_ = 0;     // number of the current event, so that an object receives it once
    uint16_t event_seq_ = 0; // of the last message that carried one
    blob_buf out_ = {};      // the message under construction
    blob_buf shown_ = {};    // and the one that shows another to the monitors
    std::vector<Client *> monitors_;
};

} // namespace bus
