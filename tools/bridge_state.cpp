#include "tools/bridge_state.h"

#include <cstdio>

#include <linux/neighbour.h>

namespace {

constexpr std::string_view ACCESS_POINT_PREFIX = "bss-";

// The Wi-Fi interface of an access point's bridge; empty for any other link.
std::string wifi_interface_of(const Link &link)
{
    const bool is_access_point = link.is_bridge && link.name.starts_with(ACCESS_POINT_PREFIX);
    return is_access_point ? link.name.substr(ACCESS_POINT_PREFIX.size()) : "";
}

// The bridge's own addresses and those of its ports are permanent; the devices behind the ports are the rest.
bool is_station(const Neighbour &entry, int bridge)
{
    return bridge != 0 && entry.bridge == bridge && entry.ifindex != bridge && !entry.own && entry.mac &&
           !(entry.state & NUD_PERMANENT);
}

// An entry counts while the kernel could use its MAC; one that does not answer becomes FAILED.
bool is_usable(const Neighbour &entry)
{
    constexpr unsigned usable = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;
    return entry.address && entry.mac && (entry.state & usable) != 0;
}

} // namespace

bool BridgeTracker::listen(int receive_buffer)
{
    kernel_ = NetlinkListener::open(RTMGRP_LINK | RTMGRP_NEIGH, receive_buffer);
    return kernel_ != nullptr;
}

void BridgeTracker::follow()
{
    const bool complete = kernel_->receive([this](const nlmsghdr *message) {
        if (in_step_) {
            take(message);
        }
    });
    if (!complete) {
        fprintf(stderr, "kernel notifications lost\n");
    }
    in_step_ = in_step_ && complete;
}

bool BridgeTracker::read_anew()
{
    // What waits in the socket is older than the dumps; what comes from here on may be newer and is followed.
    if (!kernel_->receive([](const nlmsghdr *) {})) {
        return false;
    }
    BridgeState state;
    std::map<int, Link> links;
    const bool got_links = netlink_dump(RTM_GETLINK, AF_UNSPEC, [&](const nlmsghdr *message) {
        const auto link = parse_link(message);
        if (!link) {
            return;
        }
        links[link->index] = *link;
        if (link->is_bridge && link->name == name_) {
            state.bridge = link->index;
        }
        if (const std::string wifi = wifi_interface_of(*link); !wifi.empty()) {
            state.access_points[link->index] = wifi;
        }
    });
    for (const auto &[index, link] : links) {
        if (state.bridge != 0 && link.bridge == state.bridge) {
            state.ports[index] = {link.name, link.carrier};
        }
    }
    const bool got_fdb = netlink_dump(RTM_GETNEIGH, AF_BRIDGE, [&](const nlmsghdr *message) {
        const auto entry = parse_neighbour(message);
        if (!entry || !is_station(*entry, entry->bridge)) {
            return;
        }
        if (entry->bridge == state.bridge && state.ports.contains(entry->ifindex)) {
            state.fdb[{*entry->mac, entry->vlan}] = state.ports[entry->ifindex].name;
        } else if (state.access_points.contains(entry->bridge)) {
            state.associations[*entry->mac] = state.access_points[entry->bridge];
        }
    });
    const bool got_neighbours = netlink_dump(RTM_GETNEIGH, AF_INET, [&](const nlmsghdr *message) {
        const auto entry = parse_neighbour(message);
        if (entry && state.bridge != 0 && entry->ifindex == state.bridge && is_usable(*entry)) {
            state.neighbours[entry->address->s_addr] = *entry->mac;
        }
    });
    if (!got_links || !got_fdb || !got_neighbours) {
        return false;
    }
    state_ = std::move(state);
    in_step_ = true;
    fprintf(stderr, "%s: %zu ports, %zu stations, %zu neighbours, %zu on Wi-Fi\n",
            state_.bridge ? name_.c_str() : "no bridge", state_.ports.size(), state_.fdb.size(),
            state_.neighbours.size(), state_.associations.size());
    return true;
}

void BridgeTracker::take(const nlmsghdr *message)
{
    const bool deleted = message->nlmsg_type == RTM_DELLINK || message->nlmsg_type == RTM_DELNEIGH;
    if (message->nlmsg_type == RTM_NEWLINK || message->nlmsg_type == RTM_DELLINK) {
        if (const auto link = parse_link(message)) {
            take_link(*link, deleted);
        }
    } else if (message->nlmsg_type == RTM_NEWNEIGH || message->nlmsg_type == RTM_DELNEIGH) {
        const auto entry = parse_neighbour(message);
        if (entry && is_station(*entry, state_.bridge)) {
            take_fdb(*entry, deleted);
        } else if (entry && state_.access_points.contains(entry->bridge) &&
                   is_station(*entry, entry->bridge)) {
            take_association(*entry, deleted);
        } else if (entry && entry->address && entry->ifindex == state_.bridge) {
            take_neighbour(*entry, deleted);
        }
    }
}

void BridgeTracker::take_link(const Link &link, bool deleted)
{
    const bool is_ours = link.is_bridge && link.name == name_ && !deleted;
    const bool is_port = state_.bridge != 0 && link.bridge == state_.bridge && !deleted;
    const auto known = state_.ports.find(link.index);
    const bool is_known = known != state_.ports.end();
    const bool renamed = is_port && is_known && known->second.name != link.name;
    const bool bridge_changed = is_ours != (link.index == state_.bridge);
    const bool is_access_point = !wifi_interface_of(link).empty() && !deleted;
    const bool access_point_changed = is_access_point != state_.access_points.contains(link.index);
    if (bridge_changed || access_point_changed || renamed) {
        in_step_ = false;
    } else if (is_port) {
        state_.ports[link.index] = {link.name, link.carrier};
    } else if (is_known) {
        state_.ports.erase(known);
    }
}

void BridgeTracker::take_fdb(const Neighbour &entry, bool deleted)
{
    const FdbKey key{*entry.mac, entry.vlan};
    const auto port = state_.ports.find(entry.ifindex);
    if (deleted) {
        state_.fdb.erase(key);
    } else if (port != state_.ports.end()) {
        state_.fdb[key] = port->second.name;
    } else {
        in_step_ = false;
    }
}

void BridgeTracker::take_neighbour(const Neighbour &entry, bool deleted)
{
    if (!deleted && is_usable(entry)) {
        state_.neighbours[entry.address->s_addr] = *entry.mac;
    } else {
        state_.neighbours.erase(entry.address->s_addr);
    }
}

void BridgeTracker::take_association(const Neighbour &entry, bool deleted)
{
    const std::string &wifi = state_.access_points[entry.bridge];
    const auto known = state_.associations.find(*entry.mac);
    if (!deleted) {
        state_.associations[*entry.mac] = wifi;
    } else if (known != state_.associations.end() && known->second == wifi) {
        state_.associations.erase(known);
    }
}
