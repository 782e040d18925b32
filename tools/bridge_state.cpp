#include "tools/bridge_state.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <utility>
#include <vector>

#include <linux/if.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

namespace {

constexpr size_t BUFFER_SIZE = size_t{32} * 1024; // the kernel sends no longer piece of a dump

// --- Netlink

using Handler = std::function<void(const nlmsghdr *)>;
using Attributes = std::array<const nlattr *, IFLA_LINKINFO + 1>; // by type, null where there is none

int take_attribute(const nlattr *attr, void *priv)
{
    auto &table = *static_cast<Attributes *>(priv);
    if (mnl_attr_get_type(attr) < table.size()) {
        table[mnl_attr_get_type(attr)] = attr;
    }
    return MNL_CB_OK;
}

// The attribute's value, when it is as long as a T (the kernel's attributes are aligned to four bytes only).
template <typename T>
std::optional<T> value_of(const nlattr *attr)
{
    if (attr == nullptr || mnl_attr_get_payload_len(attr) < sizeof(T)) {
        return std::nullopt;
    }
    T value;
    memcpy(&value, mnl_attr_get_payload(attr), sizeof value);
    return value;
}

std::string text_of(const nlattr *attr)
{
    if (attr == nullptr) {
        return {};
    }
    const char *text = static_cast<const char *>(mnl_attr_get_payload(attr));
    return {text, strnlen(text, mnl_attr_get_payload_len(attr))};
}

// Both kinds of message begin with a header no longer than this, and one without an attribute tells nothing.
int call_handler(const nlmsghdr *message, void *priv)
{
    static_assert(sizeof(ifinfomsg) >= sizeof(ndmsg));
    if (mnl_nlmsg_get_payload_len(message) >= sizeof(ifinfomsg)) {
        (*static_cast<const Handler *>(priv))(message);
    }
    return MNL_CB_OK;
}

// Asks for all objects of one type (RTM_GETLINK, RTM_GETNEIGH) in one family. False (and errno, EINTR when
// they changed meanwhile) when not all were had.
bool dump(mnl_socket *socket, uint16_t type, uint8_t family, Handler handler)
{
    alignas(nlmsghdr) char buffer[BUFFER_SIZE];
    nlmsghdr *request = mnl_nlmsg_put_header(buffer);
    request->nlmsg_type = type;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    // Both kinds of request begin with the family; the longer header serves either.
    static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)))->ifi_family = family;
    if (mnl_socket_sendto(socket, request, request->nlmsg_len) < 0) {
        return false;
    }
    int result = MNL_CB_OK;
    while (result == MNL_CB_OK) {
        const ssize_t length = mnl_socket_recvfrom(socket, buffer, sizeof buffer);
        result = length < 0 ? MNL_CB_ERROR
                            : mnl_cb_run(buffer, static_cast<size_t>(length), 0,
                                         mnl_socket_get_portid(socket), call_handler, &handler);
    }
    return result == MNL_CB_STOP;
}

// --- Links, forwarding entries, neighbours

struct Link {
    int index = 0;
    int master = 0; // index of the bridge it is a port of, 0 for none
    bool is_bridge = false;
    bool carrier = false;
    std::string name;
};

Link parse_link(const nlmsghdr *message)
{
    const auto *header = static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(message));
    Attributes table{};
    Attributes info{};
    mnl_attr_parse(message, sizeof *header, take_attribute, &table);
    if (table[IFLA_LINKINFO] != nullptr) {
        mnl_attr_parse_nested(table[IFLA_LINKINFO], take_attribute, &info);
    }
    return {.index = header->ifi_index,
            .master = value_of<int>(table[IFLA_MASTER]).value_or(0),
            .is_bridge = text_of(info[IFLA_INFO_KIND]) == "bridge",
            .carrier = (header->ifi_flags & IFF_LOWER_UP) != 0,
            .name = text_of(table[IFLA_IFNAME])};
}

struct Neighbour {
    int ifindex = 0;
    int bridge = 0; // forwarding entries: the bridge
    unsigned state = 0;
    unsigned flags = 0;
    uint16_t vlan = 0;
    std::optional<Mac> mac;
    std::optional<in_addr_t> address; // IPv4 neighbours
};

Neighbour parse_neighbour(const nlmsghdr *message)
{
    const auto *header = static_cast<const ndmsg *>(mnl_nlmsg_get_payload(message));
    Attributes table{};
    mnl_attr_parse(message, sizeof *header, take_attribute, &table);
    return {.ifindex = header->ndm_ifindex,
            .bridge = value_of<int>(table[NDA_MASTER]).value_or(0),
            .state = header->ndm_state,
            .flags = header->ndm_flags,
            .vlan = value_of<uint16_t>(table[NDA_VLAN]).value_or(0),
            .mac = value_of<Mac>(table[NDA_LLADDR]),
            .address = value_of<in_addr_t>(table[NDA_DST])};
}

// The bridge's own addresses and those of its ports are permanent; the devices behind the ports are the rest.
bool is_station(const Neighbour &entry)
{
    return entry.mac && (entry.flags & NTF_SELF) == 0 && (entry.state & NUD_PERMANENT) == 0;
}

// An entry counts while the kernel could use its MAC; one that does not answer becomes FAILED.
bool is_usable(const Neighbour &entry)
{
    constexpr unsigned usable = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;
    return entry.mac && entry.address && (entry.state & usable) != 0;
}

// The SSID of the access point that a bridge stands for, as "111" counts it.
std::optional<uint8_t> ssid_of(const Link &link)
{
    static constexpr std::pair<std::string_view, uint8_t> access_points[] = {{"bss-ra0", 0}, {"bss-rai0", 4}};
    for (const auto &[name, ssid] : access_points) {
        if (link.is_bridge && link.name == name) {
            return ssid;
        }
    }
    return std::nullopt;
}

} // namespace

void BridgeState::merge(BridgeState older)
{
    carriers.merge(older.carriers);
    stations.merge(older.stations);
    neighbours.merge(older.neighbours);
    associations.merge(older.associations);
}

std::optional<BridgeState> read_bridge(const std::string &name)
{
    const std::unique_ptr<mnl_socket, int (*)(mnl_socket *)> socket(
        mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC), mnl_socket_close);
    if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        return std::nullopt;
    }

    BridgeState state;
    std::map<int, Link> links;
    std::map<int, uint8_t> access_points; // by index of their bridge
    const bool got_links = dump(socket.get(), RTM_GETLINK, AF_UNSPEC, [&](const nlmsghdr *message) {
        const Link link = parse_link(message);
        links[link.index] = link;
        if (link.is_bridge && link.name == name) {
            state.bridge = link.index;
        }
        if (const auto ssid = ssid_of(link)) {
            access_points[link.index] = *ssid;
        }
    });
    const auto is_port = [&](int index) { return state.bridge != 0 && links[index].master == state.bridge; };
    for (const auto &[index, link] : links) {
        if (const unsigned number = lan_port_of(link.name); is_port(index) && number != 0) {
            state.carriers[number] = link.carrier;
        }
    }

    // A bridge that knows VLANs may have a MAC in several of them: it sits where the lowest says.
    std::map<std::pair<Mac, uint16_t>, int> stations;
    const bool got_entries =
        got_links && dump(socket.get(), RTM_GETNEIGH, AF_BRIDGE, [&](const nlmsghdr *message) {
            const Neighbour entry = parse_neighbour(message);
            if (!is_station(entry)) {
                return;
            }
            if (const auto found = access_points.find(entry.bridge); found != access_points.end()) {
                state.associations[*entry.mac] = found->second;
            } else if (entry.bridge == state.bridge && is_port(entry.ifindex)) {
                stations[{*entry.mac, entry.vlan}] = entry.ifindex;
            }
        });
    for (const auto &[key, port] : stations) {
        state.stations.emplace(key.first, links[port].name);
    }

    const bool got_neighbours =
        got_entries && dump(socket.get(), RTM_GETNEIGH, AF_INET, [&](const nlmsghdr *message) {
            const Neighbour entry = parse_neighbour(message);
            if (state.bridge != 0 && entry.ifindex == state.bridge && is_usable(entry)) {
                state.neighbours[*entry.address] = *entry.mac;
            }
        });
    return got_neighbours ? std::optional(std::move(state)) : std::nullopt;
}

bool ChangeListener::open(int receive_buffer)
{
    socket_.reset(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    return socket_ &&
           (receive_buffer == 0 ||
            setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer) == 0) &&
           mnl_socket_bind(socket_.get(), RTMGRP_LINK | RTMGRP_NEIGH, MNL_SOCKET_AUTOPID) == 0;
}

bool ChangeListener::changed()
{
    bool changed = false;
    char ignored;
    while (true) {
        if (recv(fd(), &ignored, sizeof ignored, MSG_DONTWAIT) >= 0) {
            changed = true;
        } else if (errno == ENOBUFS) {
            fprintf(stderr, "kernel notifications lost\n");
            changed = true;
        } else if (errno != EINTR) {
            return changed;
        }
    }
}
