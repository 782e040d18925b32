// IPv6 hosts that configure themselves never talk to a DHCP server. A thread of its own watches the kernel's
// neighbour table for them and puts what it finds on the bus as "dhcp_user_event", from where it comes back
// to the main thread like any other event. It shares nothing with the daemon's tables.
#pragma once

struct rtattr;

// Interface index of br0, set once when the thread starts.
extern unsigned int ifidx_lan;

// The thread: returns (null) only when its socket fails.
void *ovani_host_neigh_poll(void *unused);

// Reads one batch of routing netlink messages (RFC 3549, linux/rtnetlink.h) and sends an event for every
// neighbour of br0 that became reachable or was removed. A damaged message ends the batch.
void read_netlink_message(int fd);

// Points tb[0..max] at the attributes in `len` bytes from `rta`, the first of each type; the others become
// null.
void neigh_parse_rattr(rtattr **tb, int max, rtattr *rta, int len);
