// ovani-brwatch: tells the bus what the kernel tells about a LAN bridge.
//
//   forwarding entries learned and aged on the bridge's ports   "109"
//   IPv4 neighbours of the bridge that come and go              "110"
//   carrier of the bridge's Ethernet ports                      "106"
//   stations that join and leave its simulated access points    "111"
//
// Whenever the kernel says that something has changed, all of it is read anew and compared with what the bus
// has been told. Only the difference is ever announced, so nothing is said twice, and what could not be said
// (there was no broker) is said as soon as it can be. What came and went between two readings is passed over.
// A daemon that comes on the bus is told everything: it may be a new one with empty tables.
//
// The object "brwatch" tells by its method "status" whether there is a "bridge", and for how many seconds the
// daemon has been silent ("daemon_silent", 0 while it listens).

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <utility>

#include <CLI/CLI.hpp>

#include "tools/bridge_state.h"
#include "tools/bus.h"
#include "tools/command_line.h"
#include "tools/events.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char DAEMON_OBJECT[] = "ovani";
constexpr int REST = 9;                // after a reading, in times of the processor time it took
constexpr int DISTURBED_MOST = 20;     // readings while the tables change: gone is what none of them has
constexpr int RETRY_MS = 500;          // after a reading or an announcement that failed
constexpr int PROBE_TIMEOUT_MS = 2000; // nobody waits longer for a daemon to answer
constexpr int PROBE_AGAIN_MS = 5000;   // then it is asked again every so often

class BridgeWatcher {
public:
    BridgeWatcher(const std::string &bridge, const std::string &socket);

    bool listen(int receive_buffer);
    void start() { bus_.start(); }

private:
    struct KernelFd : uloop_fd {
        BridgeWatcher *watcher;
    };

    struct StatusObject : ubus_object {
        BridgeWatcher *watcher;
    };

    void publish_status();
    int tell_status(ubus_request_data *request) const;
    void kernel_readable();
    void look_soon();
    void look();
    bool announce(const BridgeState &now, bool trusted);
    bool say(const Event &event) { return bus_.send(event.name, event.message); }

    void bus_connected();
    void bus_event(std::string_view event, blob_attr *msg);
    void probe_daemon();
    void daemon_answered(int status);
    void daemon_left();
    void stop_probing();

    const std::string bridge_name_;
    ChangeListener kernel_;
    Bus bus_;
    KernelFd kernel_fd_{};
    StatusObject status_object_{};
    Timer look_timer_{[this] { look(); }};
    Timer probe_timer_{[this] { probe_daemon(); }};
    ubus_request probe_{};
    Clock::time_point rested_{}; // no look before
    int disturbed_ = 0;          // readings in a row
    BridgeState seen_;           // in any of them
    bool probing_ = false;       // waiting for the daemon's answer
    int answers_ = 0;
    bool ignored_ = false;   // it has not answered: nobody waits for it
    bool listening_ = false; // the daemon has answered enough
    Clock::time_point silent_since_ = Clock::now();
    bool repeat_ = false;       // the next announcement says again what has been said
    std::optional<int> bridge_; // its index when it was last looked at
    BridgeState told_;          // what has been announced
    BridgeState heard_;         // what the daemon had been told when it left
};

BridgeWatcher::BridgeWatcher(const std::string &bridge, const std::string &socket)
    : bridge_name_(bridge), bus_(socket)
{
    bus_.on_connect = [this] { bus_connected(); };
    bus_.on_lost = [this] { daemon_left(); };
    bus_.on_event = [this](const char *event, blob_attr *msg) { bus_event(event, msg); };
}

bool BridgeWatcher::listen(int receive_buffer)
{
    if (!kernel_.open(receive_buffer)) {
        return false;
    }
    kernel_fd_.watcher = this;
    kernel_fd_.fd = kernel_.fd();
    kernel_fd_.cb = [](uloop_fd *fd, unsigned) { static_cast<KernelFd *>(fd)->watcher->kernel_readable(); };
    return uloop_fd_add(&kernel_fd_, ULOOP_READ) == 0;
}

void BridgeWatcher::kernel_readable()
{
    kernel_.changed();
    // To the loop an overrun is an error, after which it no longer waits for the descriptor.
    if (kernel_fd_.error) {
        uloop_fd_add(&kernel_fd_, ULOOP_READ);
    }
    look_soon();
}

// The first change is looked at at once: a lease counts only for a MAC that the daemon has heard of, and DHCP
// takes but milliseconds. What follows is gathered while the watcher rests.
void BridgeWatcher::look_soon()
{
    if (!look_timer_.is_set()) {
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(rested_ - Clock::now());
        look_timer_.set(static_cast<int>(std::max<int64_t>(rest.count(), 0)));
    }
}

void BridgeWatcher::look()
{
    if (bus_.context() == nullptr || (probing_ && !ignored_)) {
        return; // whoever ends that state looks
    }
    kernel_.changed();                       // what waits is older than what is read now
    const std::clock_t begin = std::clock(); // of the processor, in microseconds
    auto now = read_bridge(bridge_name_);
    rested_ = Clock::now() + std::chrono::microseconds(REST * (std::clock() - begin));
    // The kernel lists a long table piece by piece: an entry that goes meanwhile may hide another.
    const bool disturbed = kernel_.changed();
    if (disturbed && now) {
        now->merge(std::move(seen_));
        seen_ = *now;
        ++disturbed_;
    }
    const bool trusted = !disturbed || disturbed_ == DISTURBED_MOST;
    if (trusted) {
        disturbed_ = 0;
        seen_ = {};
    }
    const bool failed = !now || !announce(*now, trusted);
    if (disturbed) {
        look_soon();
    } else if (failed) {
        look_timer_.set(RETRY_MS);
    }
}

// Says that an entry is gone, of each that is missing and, if to move is to go, of each that is elsewhere.
// One that is missing from a reading not to be trusted is left alone.
template <typename Map, typename Say>
bool tell_gone(Map &told, const Map &now, bool trusted, bool to_move_is_to_go, Say say)
{
    for (auto entry = told.begin(); entry != told.end();) {
        const auto found = now.find(entry->first);
        if (found == now.end() ? !trusted : !to_move_is_to_go || found->second == entry->second) {
            ++entry;
        } else if (say(entry->first, entry->second)) {
            entry = told.erase(entry);
        } else {
            return false;
        }
    }
    return true;
}

template <typename Map, typename Say>
bool tell_new(Map &told, const Map &now, Say say)
{
    for (const auto &[key, value] : now) {
        const auto known = told.find(key);
        if (known != told.end() && known->second == value) {
            continue;
        }
        if (!say(key, value)) {
            return false;
        }
        told.insert_or_assign(key, value);
    }
    return true;
}

// False when not all could be said. A station leaves where it was before it joins where it is: to the daemon
// a leave is a leave, wherever from. Ports come before stations before addresses before joins: a device's
// road through the daemon begins with its MAC.
bool BridgeWatcher::announce(const BridgeState &now, bool trusted)
{
    if (bridge_ != now.bridge) {
        bridge_ = now.bridge;
        fprintf(stderr, "%s: %zu LAN ports, %zu stations, %zu neighbours, %zu on Wi-Fi\n",
                now.bridge != 0 ? bridge_name_.c_str() : "no bridge", now.carriers.size(),
                now.stations.size(), now.neighbours.size(), now.associations.size());
    }
    const auto say_port = [this](unsigned number, bool carrier) {
        return say(make_port_event(static_cast<uint8_t>(number), carrier));
    };
    const auto say_station = [this](bool learned) {
        return [this, learned](const Mac &mac, const std::string &port) {
            return say(make_mac_event(learned, mac, port, bridge_name_));
        };
    };
    const auto say_neighbour = [this](bool added) {
        return [this, added](in_addr_t address, const Mac &mac) {
            return say(make_arp_event(added, in_addr{address}, mac, bridge_name_));
        };
    };
    const auto say_association = [this](bool joined) {
        return
            [this, joined](const Mac &mac, uint8_t ssid) { return say(make_wifi_event(joined, mac, ssid)); };
    };
    const auto say_port_gone = [&](unsigned number, bool carrier) {
        return !carrier || say_port(number, false);
    };
    if (!tell_gone(told_.associations, now.associations, trusted, true, say_association(false)) ||
        !tell_gone(told_.neighbours, now.neighbours, trusted, true, say_neighbour(false)) ||
        !tell_gone(told_.stations, now.stations, trusted, false, say_station(false)) ||
        !tell_gone(told_.carriers, now.carriers, trusted, false, say_port_gone)) {
        return false;
    }
    if (repeat_ && trusted) {
        told_ = {};
        repeat_ = false;
    }
    return tell_new(told_.carriers, now.carriers, say_port) &&
           tell_new(told_.stations, now.stations, say_station(true)) &&
           tell_new(told_.neighbours, now.neighbours, say_neighbour(true)) &&
           tell_new(told_.associations, now.associations, say_association(true));
}

void BridgeWatcher::bus_connected()
{
    fprintf(stderr, "on the bus\n");
    if (!bus_.subscribe("ubus.object.*")) {
        fprintf(stderr, "cannot watch the bus for the daemon\n");
    }
    publish_status();
    probe_daemon();
}

void BridgeWatcher::publish_status()
{
    static const ubus_method method = {
        "status",
        [](ubus_context *, ubus_object *object, ubus_request_data *request, const char *, blob_attr *) {
            return static_cast<StatusObject *>(object)->watcher->tell_status(request);
        },
        0,
        0,
        nullptr,
        0};
    static ubus_object_type type;
    type = {.name = "brwatch", .id = 0, .methods = &method, .n_methods = 1};
    status_object_ = {};
    status_object_.name = "brwatch";
    status_object_.type = &type;
    status_object_.methods = &method;
    status_object_.n_methods = 1;
    status_object_.watcher = this;
    if (const int result = ubus_add_object(bus_.context(), &status_object_); result != UBUS_STATUS_OK) {
        fprintf(stderr, "cannot publish brwatch: %s\n", ubus_strerror(result));
    }
}

int BridgeWatcher::tell_status(ubus_request_data *request) const
{
    const auto silent = std::chrono::ceil<std::chrono::seconds>(Clock::now() - silent_since_);
    Message reply;
    reply.add_bool("bridge", bridge_.value_or(0) != 0);
    reply.add_number("daemon_silent", listening_ ? 0 : static_cast<uint32_t>(silent.count()));
    return ubus_send_reply(bus_.context(), request, reply.head());
}

void BridgeWatcher::bus_event(std::string_view event, blob_attr *msg)
{
    const blobmsg_policy policy = {"path", BLOBMSG_TYPE_STRING};
    blob_attr *path = nullptr;
    blobmsg_parse(&policy, 1, &path, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    if (path == nullptr || strcmp(blobmsg_get_string(path), DAEMON_OBJECT) != 0) {
        return;
    }
    if (event != "ubus.object.add" && event != "ubus.object.remove") {
        return;
    }
    daemon_left();
    // Not from here: a bus call inside a bus callback is answered out of turn.
    probe_timer_.set(0);
}

// The daemon's object is on the bus before the daemon listens. An answer, if only that it knows no such
// method, comes when it has made its subscriptions and runs its event loop; but when a daemon comes back
// after the broker's restart, libubus publishes its object in the middle of reconnecting and may hand it a
// call there and then. So it is asked twice: the second question is put when that is over.
//
// Whoever has the name and says nothing is not waited for: a daemon that answers later is told everything.
void BridgeWatcher::probe_daemon()
{
    if (probe_.complete_cb != nullptr && !ignored_) {
        fprintf(stderr, "the daemon does not answer, announcing all the same\n");
        ignored_ = true;
        look_timer_.set(0);
    }
    stop_probing();
    if (bus_.context() == nullptr) {
        return;
    }
    uint32_t id = 0;
    if (ubus_lookup_id(bus_.context(), DAEMON_OBJECT, &id) != UBUS_STATUS_OK) {
        fprintf(stderr, "no daemon on the bus\n");
        return look(); // others may be listening
    }
    probing_ = true;
    // The object may be gone again before it answers.
    probe_timer_.set(ignored_ ? PROBE_AGAIN_MS : PROBE_TIMEOUT_MS);
    const Message nothing;
    probe_ = {};
    if (ubus_invoke_async(bus_.context(), id, "are_you_listening", nothing.head(), &probe_) !=
        UBUS_STATUS_OK) {
        return;
    }
    probe_.priv = this;
    probe_.complete_cb = [](ubus_request *request, int status) {
        static_cast<BridgeWatcher *>(request->priv)->daemon_answered(status);
    };
    ubus_complete_request_async(bus_.context(), &probe_);
}

// It may be the daemon of before, back with its tables after the broker's restart: what it has heard of and
// what is no longer there, it must be told.
void BridgeWatcher::daemon_answered(int status)
{
    probe_.complete_cb = nullptr;
    if (status == UBUS_STATUS_CONNECTION_FAILED) {
        return; // the broker went, the daemon said nothing
    }
    if (++answers_ < 2) {
        probe_timer_.set(0);
        return;
    }
    stop_probing();
    fprintf(stderr, "the daemon listens, announcing everything\n");
    listening_ = repeat_ = true;
    told_.merge(std::move(heard_));
    heard_ = {};
    look_timer_.set(0);
}

void BridgeWatcher::daemon_left()
{
    if (listening_) {
        heard_ = told_;
        silent_since_ = Clock::now();
    }
    listening_ = ignored_ = false;
    answers_ = 0;
    stop_probing();
}

void BridgeWatcher::stop_probing()
{
    if (probe_.complete_cb != nullptr) {
        ubus_abort_request(bus_.context(), &probe_);
    }
    probe_.complete_cb = nullptr;
    probing_ = false;
    probe_timer_.cancel();
}

} // namespace

int main(int argc, char **argv)
try {
    CLI::App app{"Turns the kernel's notifications about a LAN bridge into the gateway's bus events",
                 "ovani-brwatch"};
    std::string bridge = "br0";
    std::string socket;
    int receive_buffer = 0;
    app.add_option("-b,--bridge", bridge, "bridge to watch")->capture_default_str();
    app.add_option("-s,--socket", socket, "the bus's socket")->default_str(BUS_DEFAULT_SOCKET);
    app.add_option("--receive-buffer", receive_buffer, "the kernel's notification buffer, in bytes")
        ->check(CLI::Range(1, INT32_MAX));
    if (const auto status = parse_command_line(app, argc, argv)) {
        return *status;
    }

    signal(SIGPIPE, SIG_IGN);
    uloop_init();
    BridgeWatcher watcher(bridge, socket);
    if (!watcher.listen(receive_buffer)) {
        fprintf(stderr, "cannot listen to the kernel: %s\n", strerror(errno));
        return 1;
    }
    watcher.start();
    uloop_run();
    return 0;
} catch (const std::exception &e) {
    fprintf(stderr, "ovani-brwatch: %s\n", e.what());
    return 1;
}
