// ovani-brwatch: tells the bus what the kernel tells about a LAN bridge.
//
//   forwarding entries learned and aged on the bridge's ports   "109"
//   IPv4 neighbours of the bridge that come and go              "110"
//   carrier of the bridge's Ethernet ports                      "106"
//
// The watcher remembers what it has announced and speaks only of changes to that. Whenever it cannot follow
// the kernel step by step (messages were lost, the bridge was made anew, an event did not reach the broker)
// it takes the whole state from the kernel again and announces the difference. When the daemon appears on the
// bus it announces what there is once more: a new daemon starts with empty tables.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <tuple>

#include <CLI/CLI.hpp>
#include <linux/neighbour.h>

#include "tools/bus.h"
#include "tools/events.h"
#include "tools/netlink.h"

namespace {

constexpr char DAEMON_OBJECT[] = "ovani";
constexpr int RESYNC_DELAY_MS = 50;    // gathers what comes in one burst into one resynchronisation
constexpr int RESYNC_RETRY_MS = 500;   // after one that failed
constexpr int PROBE_TIMEOUT_MS = 5000; // a daemon that has not answered by then is asked again

// A VLAN-aware bridge may hold a MAC once per VLAN; the gateway's events know only the MAC.
struct FdbKey {
    Mac mac;
    uint16_t vlan;
    bool operator<(const FdbKey &other) const
    {
        return std::tie(mac, vlan) < std::tie(other.mac, other.vlan);
    }
};

struct Port {
    std::string name;
    bool carrier = false;
};

// What there is to say about a bridge.
struct State {
    int bridge = 0;                    // interface index, 0 while there is no such bridge
    std::map<int, Port> ports;         // by interface index
    std::map<FdbKey, std::string> fdb; // to the port's name
    std::map<in_addr_t, Mac> neighbours;
};

// Wired to its owner, so that libubox's callbacks, which are plain functions, find it.
template <typename Base, typename Owner>
struct Owned : Base {
    Owner *owner = nullptr;
};

class BridgeWatcher {
public:
    BridgeWatcher(std::string bridge, const std::string &socket, bool verbose);

    bool listen(int receive_buffer);
    void start() { bus_.start(); }

private:
    using Timer = Owned<uloop_timeout, BridgeWatcher>;

    // Following the kernel.
    void kernel_readable();
    void apply(const nlmsghdr *message);
    void apply_link(const Link &link, bool deleted);
    void apply_fdb(const Neighbour &entry, bool deleted);
    void apply_neighbour(const Neighbour &entry, bool deleted);
    bool read_kernel(State &state) const;
    bool is_station(const Neighbour &entry, int bridge) const;

    // Resynchronising.
    void resync_in(int ms);
    void resync();
    void announce_changes_to(const State &now);

    // Announcing. Each changes `said_` when the broker has taken the event, or asks for a resynchronisation.
    bool say(const Event &event);
    void say_port(int index, const Port &port);
    void say_port_gone(int index);
    void say_learned(const FdbKey &key, const std::string &port);
    void say_aged(const FdbKey &key);
    void say_neighbour(in_addr_t address, const Mac &mac);
    void say_neighbour_gone(in_addr_t address);

    // Following the daemon.
    void bus_connected();
    void bus_lost();
    void bus_event(std::string_view event, blob_attr *msg);
    void probe_daemon();
    void stop_probing();
    void daemon_left();
    void daemon_answered(int status);

    const std::string bridge_name_;
    const bool verbose_;
    Bus bus_;
    std::unique_ptr<NetlinkListener> kernel_;
    Owned<uloop_fd, BridgeWatcher> kernel_fd_{};
    Timer resync_timer_{};
    Timer probe_timer_{};
    Owned<ubus_request, BridgeWatcher> probe_{};
    bool probing_ = false;      // waiting for the daemon to listen
    bool following_ = false;    // said_ follows the kernel message by message
    bool announce_all_ = false; // the next resynchronisation says again what has been said
    bool listening_ = false;    // the daemon is there and has answered
    State said_;
    State heard_; // what had been said when the daemon last listened, while it does not
};

BridgeWatcher::BridgeWatcher(std::string bridge, const std::string &socket, bool verbose)
    : bridge_name_(std::move(bridge)), verbose_(verbose), bus_(socket)
{
    bus_.on_connect = [this] { bus_connected(); };
    bus_.on_lost = [this] { bus_lost(); };
    bus_.on_event = [this](const char *event, blob_attr *msg) { bus_event(event, msg); };
    resync_timer_.owner = this;
    resync_timer_.cb = [](uloop_timeout *t) { static_cast<Timer *>(t)->owner->resync(); };
    probe_timer_.owner = this;
    probe_timer_.cb = [](uloop_timeout *t) { static_cast<Timer *>(t)->owner->probe_daemon(); };
}

bool BridgeWatcher::listen(int receive_buffer)
{
    kernel_ = NetlinkListener::open(RTMGRP_LINK | RTMGRP_NEIGH, receive_buffer);
    if (!kernel_)
        return false;
    kernel_fd_.owner = this;
    kernel_fd_.fd = kernel_->fd();
    kernel_fd_.cb = [](uloop_fd *fd, unsigned) {
        static_cast<Owned<uloop_fd, BridgeWatcher> *>(fd)->owner->kernel_readable();
    };
    return uloop_fd_add(&kernel_fd_, ULOOP_READ) == 0;
}

void BridgeWatcher::kernel_readable()
{
    const bool complete = kernel_->receive([this](const nlmsghdr *message) {
        if (following_)
            apply(message);
    });
    if (!complete) {
        fprintf(stderr, "kernel notifications lost, resynchronising\n");
        resync_in(RESYNC_DELAY_MS);
    }
    // To the loop the overrun is an error, after which it no longer waits for the descriptor.
    if (kernel_fd_.error)
        uloop_fd_add(&kernel_fd_, ULOOP_READ);
}

void BridgeWatcher::apply(const nlmsghdr *message)
{
    const bool deleted = message->nlmsg_type == RTM_DELLINK || message->nlmsg_type == RTM_DELNEIGH;
    if (message->nlmsg_type == RTM_NEWLINK || message->nlmsg_type == RTM_DELLINK) {
        if (const auto link = parse_link(message))
            apply_link(*link, deleted);
    } else if (message->nlmsg_type == RTM_NEWNEIGH || message->nlmsg_type == RTM_DELNEIGH) {
        const auto entry = parse_neighbour(message);
        if (entry && entry->family == AF_BRIDGE)
            apply_fdb(*entry, deleted);
        else if (entry && entry->family == AF_INET)
            apply_neighbour(*entry, deleted);
    }
}

void BridgeWatcher::apply_link(const Link &link, bool deleted)
{
    const bool is_ours = link.is_bridge && link.name == bridge_name_ && !deleted;
    if (is_ours != (link.index == said_.bridge)) // our bridge appeared, was renamed or went
        return resync_in(0);
    if (said_.bridge != 0 && link.bridge == said_.bridge && !deleted)
        say_port(link.index, {link.name, link.carrier});
    else if (said_.ports.contains(link.index))
        say_port_gone(link.index);
}

// The bridge's own addresses and those of its ports are permanent; the devices behind the ports are the rest.
bool BridgeWatcher::is_station(const Neighbour &entry, int bridge) const
{
    return bridge != 0 && entry.bridge == bridge && entry.ifindex != bridge && !entry.own && entry.mac &&
           !(entry.state & NUD_PERMANENT);
}

void BridgeWatcher::apply_fdb(const Neighbour &entry, bool deleted)
{
    if (!is_station(entry, said_.bridge))
        return;
    const FdbKey key{*entry.mac, entry.vlan};
    const auto port = said_.ports.find(entry.ifindex);
    if (deleted)
        say_aged(key);
    else if (port != said_.ports.end())
        say_learned(key, port->second.name);
    else
        resync_in(RESYNC_DELAY_MS);
}

// An entry counts while the kernel could use its MAC; one that does not answer becomes FAILED.
bool is_usable(const Neighbour &entry)
{
    constexpr unsigned usable = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;
    return entry.address && entry.mac && (entry.state & usable) != 0;
}

void BridgeWatcher::apply_neighbour(const Neighbour &entry, bool deleted)
{
    if (said_.bridge == 0 || entry.ifindex != said_.bridge || !entry.address)
        return;
    if (!deleted && is_usable(entry))
        say_neighbour(entry.address->s_addr, *entry.mac);
    else
        say_neighbour_gone(entry.address->s_addr);
}

bool BridgeWatcher::read_kernel(State &state) const
{
    state = {};
    std::map<int, Link> links;
    const bool got_links = netlink_dump(RTM_GETLINK, AF_UNSPEC, [&](const nlmsghdr *message) {
        if (const auto link = parse_link(message))
            links[link->index] = *link;
    });
    for (const auto &[index, link] : links)
        if (link.is_bridge && link.name == bridge_name_)
            state.bridge = index;
    if (state.bridge == 0)
        return got_links;
    for (const auto &[index, link] : links)
        if (link.bridge == state.bridge)
            state.ports[index] = {link.name, link.carrier};

    const bool got_fdb = netlink_dump(RTM_GETNEIGH, AF_BRIDGE, [&](const nlmsghdr *message) {
        const auto entry = parse_neighbour(message);
        if (entry && is_station(*entry, state.bridge) && state.ports.contains(entry->ifindex))
            state.fdb[{*entry->mac, entry->vlan}] = state.ports[entry->ifindex].name;
    });
    const bool got_neighbours = netlink_dump(RTM_GETNEIGH, AF_INET, [&](const nlmsghdr *message) {
        const auto entry = parse_neighbour(message);
        if (entry && entry->ifindex == state.bridge && is_usable(*entry))
            state.neighbours[entry->address->s_addr] = *entry->mac;
    });
    return got_links && got_fdb && got_neighbours;
}

// Until it is done, notifications are let go by: the dump will have their outcome.
void BridgeWatcher::resync_in(int ms)
{
    following_ = false;
    if (ms == 0 || !resync_timer_.pending) // a burst without end does not put it off for ever
        uloop_timeout_set(&resync_timer_, ms);
}

void BridgeWatcher::resync()
{
    if (!bus_.context() || probing_)
        return; // whoever ends that state asks again
    // What waits in the socket is older than the dump; what comes from here on may be newer and is followed.
    const bool complete = kernel_->receive([](const nlmsghdr *) {});
    State now;
    if (!complete || !read_kernel(now))
        return resync_in(RESYNC_RETRY_MS);

    following_ = true; // cleared again where an event does not reach the broker
    announce_changes_to(now);
    if (!following_)
        return;
    announce_all_ = false;
    fprintf(stderr, "in step: %zu ports, %zu stations, %zu neighbours on %s\n", now.ports.size(),
            now.fdb.size(), now.neighbours.size(), now.bridge ? bridge_name_.c_str() : "no bridge");
}

// First what went, then what is there, ports before stations before addresses: a device's road in the daemon
// begins with its MAC. Copies are walked, since saying something changes said_.
void BridgeWatcher::announce_changes_to(const State &now)
{
    const State before = said_;
    said_.bridge = now.bridge;
    for (const auto &[address, mac] : before.neighbours)
        if (!now.neighbours.contains(address))
            say_neighbour_gone(address);
    for (const auto &[key, port] : before.fdb)
        if (!now.fdb.contains(key))
            say_aged(key);
    for (const auto &[index, port] : before.ports)
        if (!now.ports.contains(index))
            say_port_gone(index);
    if (!following_)
        return;

    for (const auto &[index, port] : now.ports)
        say_port(index, port);
    for (const auto &[key, port] : now.fdb)
        say_learned(key, port);
    for (const auto &[address, mac] : now.neighbours)
        say_neighbour(address, mac);
}

bool BridgeWatcher::say(const Event &event)
{
    if (!following_)
        return false;
    if (verbose_)
        fprintf(stderr, "%s\n",
                event_line(event.name, decode_event(event.name, event.message.head())).c_str());
    if (bus_.send(event.name, event.message))
        return true;
    resync_in(RESYNC_RETRY_MS);
    return false;
}

void BridgeWatcher::say_port(int index, const Port &port)
{
    const auto known = said_.ports.find(index);
    const unsigned number = lan_port_of(port.name);
    const bool changed = announce_all_ || known == said_.ports.end() || known->second.carrier != port.carrier;
    if (changed && number != 0 && !say(make_port_event(static_cast<uint8_t>(number), port.carrier)))
        return;
    said_.ports[index] = port;
}

void BridgeWatcher::say_port_gone(int index)
{
    const Port port = said_.ports[index];
    const unsigned number = lan_port_of(port.name);
    if (port.carrier && number != 0 && !say(make_port_event(static_cast<uint8_t>(number), false)))
        return;
    said_.ports.erase(index);
}

void BridgeWatcher::say_learned(const FdbKey &key, const std::string &port)
{
    const auto known = said_.fdb.find(key);
    if (!announce_all_ && known != said_.fdb.end() && known->second == port)
        return;
    if (say(make_mac_event(true, key.mac, port, bridge_name_)))
        said_.fdb[key] = port;
}

void BridgeWatcher::say_aged(const FdbKey &key)
{
    const auto known = said_.fdb.find(key);
    if (known == said_.fdb.end())
        return;
    const auto first = said_.fdb.lower_bound({key.mac, 0});
    const auto second = std::next(first);
    const bool in_another_vlan = second != said_.fdb.end() && second->first.mac == key.mac;
    if (in_another_vlan || say(make_mac_event(false, key.mac, known->second, bridge_name_)))
        said_.fdb.erase(known);
}

void BridgeWatcher::say_neighbour(in_addr_t address, const Mac &mac)
{
    const auto known = said_.neighbours.find(address);
    const bool same = known != said_.neighbours.end() && known->second == mac;
    if (same && !announce_all_)
        return;
    if (!same)
        say_neighbour_gone(address); // the address passes from one device to another
    if (say(make_arp_event(true, in_addr{address}, mac, bridge_name_)))
        said_.neighbours[address] = mac;
}

void BridgeWatcher::say_neighbour_gone(in_addr_t address)
{
    const auto known = said_.neighbours.find(address);
    if (known == said_.neighbours.end())
        return;
    if (say(make_arp_event(false, in_addr{address}, known->second, bridge_name_)))
        said_.neighbours.erase(known);
}

void BridgeWatcher::bus_connected()
{
    if (!bus_.subscribe("ubus.object.*"))
        fprintf(stderr, "cannot watch the bus for the daemon\n");
    fprintf(stderr, "on the bus\n");
    probe_daemon();
}

void BridgeWatcher::bus_lost()
{
    daemon_left();
    stop_probing();
    following_ = false;
}

void BridgeWatcher::bus_event(std::string_view event, blob_attr *msg)
{
    const blobmsg_policy policy = {"path", BLOBMSG_TYPE_STRING};
    blob_attr *path = nullptr;
    blobmsg_parse(&policy, 1, &path, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    if (!path || strcmp(blobmsg_get_string(path), DAEMON_OBJECT) != 0)
        return;
    // Not from here: a bus call inside a bus callback would be answered out of turn.
    if (event == "ubus.object.add" || event == "ubus.object.remove")
        uloop_timeout_set(&probe_timer_, 0);
}

// The daemon's object is on the bus before the daemon listens. Its first answer, if only that it knows no
// such method, comes from its event loop, and by then it has made its subscriptions.
void BridgeWatcher::probe_daemon()
{
    daemon_left();
    stop_probing();
    if (!bus_.context())
        return;
    uint32_t id = 0;
    if (ubus_lookup_id(bus_.context(), DAEMON_OBJECT, &id) != UBUS_STATUS_OK)
        return resync_in(0); // nobody to wait for; others may be listening
    probing_ = true;
    following_ = false;
    uloop_timeout_set(&probe_timer_, PROBE_TIMEOUT_MS);
    const Message nothing;
    static_cast<ubus_request &>(probe_) = {};
    if (ubus_invoke_async(bus_.context(), id, "are_you_listening", nothing.head(), &probe_) != UBUS_STATUS_OK)
        return;
    probe_.owner = this;
    probe_.complete_cb = [](ubus_request *request, int status) {
        static_cast<Owned<ubus_request, BridgeWatcher> *>(request)->owner->daemon_answered(status);
    };
    ubus_complete_request_async(bus_.context(), &probe_);
}

void BridgeWatcher::stop_probing()
{
    if (probing_ && probe_.complete_cb)
        ubus_abort_request(bus_.context(), &probe_);
    probe_.complete_cb = nullptr;
    probing_ = false;
    uloop_timeout_cancel(&probe_timer_);
}

void BridgeWatcher::daemon_left()
{
    if (listening_)
        heard_ = said_;
    listening_ = false;
}

// It may be the daemon of before, back with its tables after the broker's restart: what it heard of and what
// is no longer there, it must be told.
void BridgeWatcher::daemon_answered(int status)
{
    probing_ = false;
    probe_.complete_cb = nullptr;
    uloop_timeout_cancel(&probe_timer_);
    if (status == UBUS_STATUS_CONNECTION_FAILED)
        return; // the broker went, the daemon said nothing
    fprintf(stderr, "the daemon listens, announcing everything\n");
    listening_ = true;
    announce_all_ = true;
    said_.ports.merge(heard_.ports);
    said_.fdb.merge(heard_.fdb);
    said_.neighbours.merge(heard_.neighbours);
    heard_ = {};
    resync_in(0);
}

} // namespace

int main(int argc, char **argv)
try {
    CLI::App app{"Turns the kernel's notifications about a LAN bridge into the gateway's bus events"};
    std::string bridge = "br0";
    std::string socket;
    int receive_buffer = 0;
    bool verbose = false;
    app.add_option("-b,--bridge", bridge, "bridge to watch")->capture_default_str();
    app.add_option("-s,--socket", socket, "the bus's socket")->default_str(BUS_DEFAULT_SOCKET);
    app.add_option("--receive-buffer", receive_buffer, "the kernel's notification buffer, in bytes")
        ->check(CLI::PositiveNumber);
    app.add_flag("-v,--verbose", verbose, "write every event to standard error");
    CLI11_PARSE(app, argc, argv);

    signal(SIGPIPE, SIG_IGN);
    uloop_init();
    int status = 0;
    {
        BridgeWatcher watcher(bridge, socket, verbose);
        if (watcher.listen(receive_buffer)) {
            watcher.start();
            uloop_run();
        } else {
            fprintf(stderr, "cannot listen to the kernel: %s\n", strerror(errno));
            status = 1;
        }
    }
    uloop_done();
    return status;
} catch (const std::exception &e) {
    fprintf(stderr, "ovani-brwatch: %s\n", e.what());
    return 1;
}
