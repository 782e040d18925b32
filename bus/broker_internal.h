// The broker's records, shared by broker.cpp (the register and the messages) and broker_io.cpp (the
// connections).
#ifndef BUS_BROKER_INTERNAL_H
#define BUS_BROKER_INTERNAL_H

#include <array>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <sys/random.h>

#include "broker.h"
#include "libubus_internal.h"

namespace bus {

// What is kept for a client, in bytes: messages waiting for it, what it registered, half a message it sent.
constexpr size_t kMaxQueued = 4 << 20;
constexpr size_t kMaxRegistered = 4 << 20;
constexpr size_t kMaxHeldByAll = 64 << 20; // all of it, for all: then the one with most is disconnected

// A client for which more than kHighWater waits holds back those who send to it, until no more than kLowWater
// is left. If it takes nothing for kStallMs, it is disconnected.
constexpr size_t kHighWater = 1 << 20;
constexpr size_t kLowWater = kHighWater / 2;
constexpr int kStallMs = 3000;

using Bytes = std::vector<uint8_t>;
using MessageHead = std::array<uint8_t, sizeof(ubus_msghdr) + 12>;

struct Client;

// A message to one or more clients. The head is each receiver's own: the header and, for an event, the blob
// up to the end of its first member, the receiver's object id. The body is common to all; it is copied, once,
// when the first of them has to wait for it.
struct Outgoing {
    MessageHead head;
    size_t head_len;
    std::span<const uint8_t> body;
    std::shared_ptr<const Bytes> kept;

    size_t size() const { return head_len + body.size(); }
};

// The same, waiting. `sent` bytes of it are gone.
struct Queued {
    MessageHead head;
    size_t head_len;
    std::shared_ptr<const Bytes> body;
    size_t sent;

    size_t size() const { return head_len + body->size(); }
};

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

struct StallTimer : uloop_timeout {
    Client *client;
};

struct Client : uloop_fd {
    Broker *broker;
    uint32_t id;
    const std::string *user; // null: not known to the system
    const std::string *group;

    Bytes input; // the beginning of a message
    std::list<Queued> queue;
    size_t queued;     // bytes, with what a record takes
    size_t registered; // bytes, objects and patterns
    size_t held;       // all that is kept for it, these included
    std::vector<Object *> objects;
    std::optional<Lookup> lookup;

    StallTimer stall;
    int64_t last_read;               // when it last took something from its queue, or the queue began
    std::vector<uint32_t> held_back; // clients that wait for this one to catch up
    int waits;                       // for how many this one waits
    bool doomed;                     // to be removed once no one looks at it any more

    bool paused() const { return waits > 0 || lookup; }
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

inline std::span<const uint8_t> bytes_of(const blob_attr *blob)
{
    return {reinterpret_cast<const uint8_t *>(blob), blob_raw_len(blob)};
}

// A message whose body is all of `blob`.
Outgoing message(int type, uint16_t seq, uint32_t peer, const blob_attr *blob);
void put_header(Outgoing &m, int type, uint16_t seq, uint32_t peer);

struct Broker {
    Broker(const char *path, int listener);
    ~Broker();
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    // Callbacks of the event loop.
    void accept_clients();
    void listen_again();
    void on_client(Client &c, unsigned events);
    void on_stall(Client &c);

private:
    using Handler = int (Broker::*)(Client &, const Received &);
    static const Handler kHandlers[__UBUS_MSG_LAST];
    using Patterns = std::map<std::string, std::vector<Object *>, std::less<>>;

    // broker_io.cpp: connections
    void add_client(int fd);
    void remove_client(Client &c);
    Client *find_client(uint32_t id);
    void doom(Client &c);
    void settle();
    void resume(Client &c);
    void watch(Client &c);
    void hold(Client &c, size_t bytes);
    void release(Client &c, size_t bytes);

    void receive(Client &c);
    size_t consume(Client &c, std::span<uint8_t> input);
    void keep_input(Client &c, std::span<const uint8_t> rest);

    // Sends a message that `from` (or null: nobody) is the cause of. False when there is no room to queue it.
    bool send(Client *from, Client &to, Outgoing &m);
    void enqueue(Client &to, Outgoing &m, size_t sent);
    void hold_back(Client *from, Client &to);
    void flush(Client &c);
    void after_progress(Client &c);
    void let_go(Client &c);

    // broker.cpp: the register and the messages. A handler gives the status to answer with, or kNoReply.
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
    void drop_object(Object &object, Client *cause);
    void fail_calls(const Object &object);
    void show_object(Client &c, const ubus_msghdr &request, const Object &object);
    void go_on_with_lookup(Client &c);

    int invoke_event_object(Client &c, std::string_view method, blob_attr *data);
    int add_pattern(Client &c, blob_attr *data);
    void drop_patterns(Object &object);
    int send_event(Client &c, blob_attr *data);
    void send_object_event(const Object &object, const char *event, Client *cause);
    void fan_out(std::string_view event, Client *cause, const Client *except);
    void give_event(Object &object, Outgoing &m, Client *cause, const Client *except);

    std::string path_;
    Acceptor acceptor_ = {};
    AcceptTimer accept_timer_ = {};
    std::unordered_map<uint32_t, std::unique_ptr<Client>> clients_;
    std::vector<uint32_t> doomed_;
    std::vector<uint32_t> resumed_;
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
};

} // namespace bus

#endif
