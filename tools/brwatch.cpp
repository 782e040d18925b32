// ovani-brwatch: tells the bus what the kernel tells about a LAN bridge.
//
//   forwarding entries learned and aged on the bridge's ports   "109"
//   IPv4 neighbours of the bridge that come and go              "110"
//   carrier of the bridge's Ethernet ports                      "106"
//   stations that join and leave its simulated access points    "111"
//
// Two states are kept: what the kernel knows, which is followed whether or not there is a bus to tell, and
// what the bus has been told. Only their difference is ever announced, so nothing is said twice, and what
// could not be said (there was no broker, notifications were lost) is said as soon as it can be. A daemon
// that comes on the bus is told everything: it may be a new one with empty tables.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include <CLI/CLI.hpp>

#include "tools/bridge_state.h"
#include "tools/bus.h"
#include "tools/events.h"

namespace {

constexpr char DAEMON_OBJECT[] = "ovani";
constexpr int READ_DELAY_MS = 50;      // gathers what comes in one burst into one reading
constexpr int RETRY_MS = 500;          // after a reading or an announcement that failed
constexpr int PROBE_TIMEOUT_MS = 5000; // a daemon that has not answered by then is asked again

// What has been announced.
struct Told {
    std::map<unsigned, bool> carriers; // by LAN port number
    std::map<Mac, std::string> stations;
    std::map<in_addr_t, Mac> neighbours;
    std::map<Mac, std::string> associations;
};

// Knows its owner, so that libubox's callbacks, which are plain functions, find it.
template <typename Base, typename Owner>
struct Owned : Base {
    Owner *owner = nullptr;
};

class BridgeWatcher {
public:
    BridgeWatcher(const std::string &bridge, const std::string &socket);

    bool listen(int receive_buffer);
    void start() { bus_.start(); }

private:
    template <typename Base>
    using Mine = Owned<Base, BridgeWatcher>;

    void kernel_readable();
    void read_kernel();

    void announce();
    bool announce_gone(const std::map<unsigned, bool> &carriers);
    bool announce_present(const std::map<unsigned, bool> &carriers);
    bool announce_joins();
    bool say(const Event &event) { return bus_.send(event.name, event.message); }

    void bus_connected();
    void bus_event(std::string_view event, blob_attr *msg);
    void probe_daemon();
    void daemon_answered(int status);
    void daemon_left();
    void stop_probing();

    const std::string bridge_name_;
    BridgeTracker tracker_;
    Bus bus_;
    Mine<uloop_fd> kernel_fd_{};
    Mine<uloop_timeout> read_timer_{};
    Mine<uloop_timeout> announce_timer_{};
    Mine<uloop_timeout> probe_timer_{};
    Mine<ubus_request> probe_{};
    bool probing_ = false; // waiting for the daemon's answer
    int answers_ = 0;
    bool listening_ = false; // the daemon has answered enough
    bool repeat_ = false;    // the next announcement says again what has been said
    Told told_;
    Told heard_; // what the daemon had been told when it left
};

BridgeWatcher::BridgeWatcher(const std::string &bridge, const std::string &socket)
    : bridge_name_(bridge), tracker_(bridge), bus_(socket)
{
    bus_.on_connect = [this] { bus_connected(); };
    bus_.on_lost = [this] { daemon_left(); };
    bus_.on_event = [this](const char *event, blob_attr *msg) { bus_event(event, msg); };
    read_timer_.owner = announce_timer_.owner = probe_timer_.owner = this;
    read_timer_.cb = [](uloop_timeout *t) { static_cast<Mine<uloop_timeout> *>(t)->owner->read_kernel(); };
    announce_timer_.cb = [](uloop_timeout *t) { static_cast<Mine<uloop_timeout> *>(t)->owner->announce(); };
    probe_timer_.cb = [](uloop_timeout *t) { static_cast<Mine<uloop_timeout> *>(t)->owner->probe_daemon(); };
}

bool BridgeWatcher::listen(int receive_buffer)
{
    if (!tracker_.listen(receive_buffer)) {
        return false;
    }
    kernel_fd_.owner = this;
    kernel_fd_.fd = tracker_.fd();
    kernel_fd_.cb = [](uloop_fd *fd, unsigned) {
        static_cast<Mine<uloop_fd> *>(fd)->owner->kernel_readable();
    };
    read_kernel();
    return uloop_fd_add(&kernel_fd_, ULOOP_READ) == 0;
}

void BridgeWatcher::kernel_readable()
{
    tracker_.follow();
    // To the loop an overrun is an error, after which it no longer waits for the descriptor.
    if (kernel_fd_.error) {
        uloop_fd_add(&kernel_fd_, ULOOP_READ);
    }
    if (tracker_.in_step()) {
        announce();
    } else if (!read_timer_.pending) { // a burst without end does not put it off for ever
        uloop_timeout_set(&read_timer_, READ_DELAY_MS);
    }
}

void BridgeWatcher::read_kernel()
{
    if (tracker_.read_anew()) {
        announce();
    } else {
        uloop_timeout_set(&read_timer_, RETRY_MS);
    }
}

// The LAN ports among the bridge's ports.
std::map<unsigned, bool> carriers_of(const BridgeState &state)
{
    std::map<unsigned, bool> carriers;
    for (const auto &[index, port] : state.ports) {
        if (const unsigned number = lan_port_of(port.name); number != 0) {
            carriers[number] = port.carrier;
        }
    }
    return carriers;
}

void BridgeWatcher::announce()
{
    if (!bus_.context() || probing_ || !tracker_.in_step()) {
        return; // whoever ends that state announces
    }
    const auto carriers = carriers_of(tracker_.state());
    if (announce_gone(carriers) && announce_present(carriers) && announce_joins()) {
        repeat_ = false;
    } else {
        uloop_timeout_set(&announce_timer_, RETRY_MS);
    }
}

// Says of each entry that is no longer there that it is gone, and forgets it. False when that could not be
// said.
template <typename Map, typename IsThere, typename Say>
bool forget_gone(Map &told, IsThere is_there, Say say_gone)
{
    for (auto entry = told.begin(); entry != told.end();) {
        if (is_there(entry->first, entry->second)) {
            ++entry;
        } else if (say_gone(entry->first, entry->second)) {
            entry = told.erase(entry);
        } else {
            return false;
        }
    }
    return true;
}

// The SSIDs of the simulated access points, as "111" counts them.
std::optional<uint8_t> ssid_of(std::string_view wifi_interface)
{
    static constexpr std::pair<std::string_view, uint8_t> ssids[] = {{"ra0", 0}, {"rai0", 4}};
    for (const auto &[name, ssid] : ssids) {
        if (name == wifi_interface) {
            return ssid;
        }
    }
    return std::nullopt;
}

// A station leaves where it was before it joins where it is: to the daemon a leave is a leave, wherever from.
bool BridgeWatcher::announce_gone(const std::map<unsigned, bool> &carriers)
{
    const BridgeState &now = tracker_.state();
    const auto neighbour_is_there = [&](in_addr_t address, const Mac &mac) {
        const auto found = now.neighbours.find(address);
        return found != now.neighbours.end() && found->second == mac;
    };
    const auto station_is_there = [&](const Mac &mac, const std::string &) { // on whichever port, in any VLAN
        const auto found = now.fdb.lower_bound({mac, 0});
        return found != now.fdb.end() && found->first.mac == mac;
    };
    const auto port_is_there = [&](unsigned number, bool) { return carriers.contains(number); };
    const auto is_associated = [&](const Mac &mac, const std::string &wifi) {
        const auto found = now.associations.find(mac);
        return found != now.associations.end() && found->second == wifi;
    };
    return forget_gone(told_.associations, is_associated,
                       [&](const Mac &mac, const std::string &wifi) {
                           return say(make_wifi_event(false, mac, ssid_of(wifi).value_or(0)));
                       }) &&
           forget_gone(told_.neighbours, neighbour_is_there,
                       [&](in_addr_t address, const Mac &mac) {
                           return say(make_arp_event(false, in_addr{address}, mac, bridge_name_));
                       }) &&
           forget_gone(told_.stations, station_is_there,
                       [&](const Mac &mac, const std::string &port) {
                           return say(make_mac_event(false, mac, port, bridge_name_));
                       }) &&
           forget_gone(told_.carriers, port_is_there, [&](unsigned number, bool carrier) {
               return !carrier || say(make_port_event(static_cast<uint8_t>(number), false));
           });
}

// Ports before stations before addresses: a device's road through the daemon begins with its MAC.
bool BridgeWatcher::announce_present(const std::map<unsigned, bool> &carriers)
{
    const auto is_told = [this](const auto &told, const auto &key, const auto &value) {
        const auto found = told.find(key);
        return !repeat_ && found != told.end() && found->second == value;
    };
    for (const auto &[number, carrier] : carriers) {
        if (is_told(told_.carriers, number, carrier)) {
            continue;
        }
        if (!say(make_port_event(static_cast<uint8_t>(number), carrier))) {
            return false;
        }
        told_.carriers[number] = carrier;
    }
    const Mac *previous = nullptr;
    for (const auto &[key, port] : tracker_.state().fdb) {
        const bool again = previous && *previous == key.mac; // in another VLAN
        previous = &key.mac;
        if (again || is_told(told_.stations, key.mac, port)) {
            continue;
        }
        if (!say(make_mac_event(true, key.mac, port, bridge_name_))) {
            return false;
        }
        told_.stations[key.mac] = port;
    }
    for (const auto &[address, mac] : tracker_.state().neighbours) {
        if (is_told(told_.neighbours, address, mac)) {
            continue;
        }
        if (!say(make_arp_event(true, in_addr{address}, mac, bridge_name_))) {
            return false;
        }
        told_.neighbours[address] = mac;
    }
    return true;
}

// After the MACs: the daemon asks the bridge where a station sits that it does not know.
bool BridgeWatcher::announce_joins()
{
    for (const auto &[mac, wifi] : tracker_.state().associations) {
        const auto told = told_.associations.find(mac);
        const auto ssid = ssid_of(wifi);
        if (!ssid || (!repeat_ && told != told_.associations.end())) {
            continue;
        }
        if (!say(make_wifi_event(true, mac, *ssid))) {
            return false;
        }
        told_.associations[mac] = wifi;
    }
    return true;
}

void BridgeWatcher::bus_connected()
{
    fprintf(stderr, "on the bus\n");
    if (!bus_.subscribe("ubus.object.*")) {
        fprintf(stderr, "cannot watch the bus for the daemon\n");
    }
    probe_daemon();
}

void BridgeWatcher::bus_event(std::string_view event, blob_attr *msg)
{
    const blobmsg_policy policy = {"path", BLOBMSG_TYPE_STRING};
    blob_attr *path = nullptr;
    blobmsg_parse(&policy, 1, &path, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    if (!path || strcmp(blobmsg_get_string(path), DAEMON_OBJECT) != 0) {
        return;
    }
    if (event != "ubus.object.add" && event != "ubus.object.remove") {
        return;
    }
    daemon_left();
    uloop_timeout_set(&probe_timer_,
                      0); // not from here: a bus call inside a bus callback is answered out of turn
}

// The daemon's object is on the bus before the daemon listens. An answer, if only that it knows no such
// method, comes when it has made its subscriptions and runs its event loop; but when a daemon comes back
// after the broker's restart, libubus publishes its object in the middle of reconnecting and may hand it a
// call there and then. So it is asked twice: the second question is put when that is over.
void BridgeWatcher::probe_daemon()
{
    stop_probing();
    if (!bus_.context()) {
        return;
    }
    uint32_t id = 0;
    if (ubus_lookup_id(bus_.context(), DAEMON_OBJECT, &id) != UBUS_STATUS_OK) {
        fprintf(stderr, "no daemon on the bus\n");
        return announce(); // others may be listening
    }
    probing_ = true;
    uloop_timeout_set(&probe_timer_, PROBE_TIMEOUT_MS); // the object may be gone again before it answers
    const Message nothing;
    static_cast<ubus_request &>(probe_) = {};
    if (ubus_invoke_async(bus_.context(), id, "are_you_listening", nothing.head(), &probe_) !=
        UBUS_STATUS_OK) {
        return;
    }
    probe_.owner = this;
    probe_.complete_cb = [](ubus_request *request, int status) {
        static_cast<Mine<ubus_request> *>(request)->owner->daemon_answered(status);
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
        uloop_timeout_set(&probe_timer_, 0);
        return;
    }
    stop_probing();
    fprintf(stderr, "the daemon listens, announcing everything\n");
    listening_ = repeat_ = true;
    told_.carriers.merge(heard_.carriers);
    told_.stations.merge(heard_.stations);
    told_.neighbours.merge(heard_.neighbours);
    told_.associations.merge(heard_.associations);
    heard_ = {};
    uloop_timeout_set(&announce_timer_, 0);
}

void BridgeWatcher::daemon_left()
{
    if (listening_) {
        heard_ = told_;
    }
    listening_ = false;
    answers_ = 0;
    stop_probing();
}

void BridgeWatcher::stop_probing()
{
    if (probe_.complete_cb) {
        ubus_abort_request(bus_.context(), &probe_);
    }
    probe_.complete_cb = nullptr;
    probing_ = false;
    uloop_timeout_cancel(&probe_timer_);
}

} // namespace

int main(int argc, char **argv)
try {
    CLI::App app{"Turns the kernel's notifications about a LAN bridge into the gateway's bus events"};
    std::string bridge = "br0";
    std::string socket;
    int receive_buffer = 0;
    app.add_option("-b,--bridge", bridge, "bridge to watch")->capture_default_str();
    app.add_option("-s,--socket", socket, "the bus's socket")->default_str(BUS_DEFAULT_SOCKET);
    app.add_option("--receive-buffer", receive_buffer, "the kernel's notification buffer, in bytes")
        ->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);

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
