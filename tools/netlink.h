// Route netlink for the bridge tools: one socket, dumps, and the three kinds of message they look at.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include "tools/text.h"

using NetlinkHandler = std::function<void(const nlmsghdr *)>;

// Listens to the kernel's notifications.
class NetlinkListener {
public:
    // `groups` is a mask of RTMGRP_...; `receive_buffer` the kernel's buffer for the socket in bytes, 0 to
    // leave it. Null (and errno) when the kernel refuses.
    static std::unique_ptr<NetlinkListener> open(unsigned groups, int receive_buffer);

    int fd() const { return mnl_socket_get_fd(socket_.get()); }

    // Hands every waiting message to `handler`, without blocking. False when messages were lost: what the
    // kernel says from here on does not follow from what it said before.
    bool receive(const NetlinkHandler &handler);

private:
    struct Deleter {
        void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
    };
    std::unique_ptr<mnl_socket, Deleter> socket_;
};

// Asks for all objects of one type (RTM_GETLINK, RTM_GETNEIGH) in one family and hands them to `handler`.
// While a dump is under way the kernel may change the very thing it lists; such a dump is thrown away and
// asked for again, so `handler` sees one whole dump or nothing. False (and errno) when none is to be had.
bool netlink_dump(uint16_t type, uint8_t family, const NetlinkHandler &handler);

// An interface, from RTM_NEWLINK or RTM_DELLINK. Nothing for the bridge's own messages about its ports
// (family AF_BRIDGE): they tell less, and each is accompanied by an ordinary one.
struct Link {
    int index = 0;
    int bridge = 0;           // index of the bridge it is a port of, 0 for none
    unsigned bridge_port = 0; // its number there, when the message tells
    bool is_bridge = false;
    bool carrier = false;
    std::string name;
};
std::optional<Link> parse_link(const nlmsghdr *message);

// A forwarding entry of a bridge (family AF_BRIDGE) or a neighbour, from RTM_NEWNEIGH or RTM_DELNEIGH.
struct Neighbour {
    uint8_t family = 0;
    int ifindex = 0;
    int bridge = 0;     // forwarding entries: the bridge
    uint16_t state = 0; // NUD_...
    uint16_t vlan = 0;
    bool own = false; // not the bridge's entry but an address of the interface itself
    uint32_t age = 0; // forwarding entries: time since the MAC was last seen, in clock ticks
    std::optional<Mac> mac;
    std::optional<in_addr> address; // IPv4 neighbours
};
std::optional<Neighbour> parse_neighbour(const nlmsghdr *message);
