// brctl: lists a bridge's forwarding table the way the gateway's own command does, interface in the last
// column.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include <linux/neighbour.h>
#include <unistd.h>

#include "tools/netlink.h"

namespace {

struct Row {
    Mac mac;
    Link port;
    bool local;
    uint32_t age; // clock ticks
};

int show_macs(const char *bridge_name)
{
    int bridge = 0;
    std::map<int, Link> links;
    const bool got_links = netlink_dump(RTM_GETLINK, AF_UNSPEC, [&](const nlmsghdr *message) {
        const auto link = parse_link(message);
        if (!link) {
            return;
        }
        links[link->index] = *link;
        if (link->is_bridge && link->name == bridge_name) {
            bridge = link->index;
        }
    });
    if (got_links && bridge == 0) {
        errno = ENODEV;
    }
    if (bridge == 0) {
        fprintf(stderr, "bridge %s: %s\n", bridge_name, strerror(errno));
        return 1;
    }

    std::vector<Row> rows;
    const bool got_fdb = netlink_dump(RTM_GETNEIGH, AF_BRIDGE, [&](const nlmsghdr *message) {
        const auto entry = parse_neighbour(message);
        if (!entry || entry->own || !entry->mac || entry->bridge != bridge || entry->ifindex == bridge) {
            return;
        }
        rows.push_back({*entry->mac, links[entry->ifindex], (entry->state & NUD_PERMANENT) != 0, entry->age});
    });
    if (!got_fdb) {
        fprintf(stderr, "forwarding table of %s: %s\n", bridge_name, strerror(errno));
        return 1;
    }
    std::sort(rows.begin(), rows.end(), [](const Row &a, const Row &b) { return a.mac < b.mac; });

    printf("port no\tmac addr\t\tis local?\tageing timer\tinterface\n");
    const auto ticks = static_cast<uint32_t>(sysconf(_SC_CLK_TCK));
    for (const Row &row : rows) {
        const uint32_t age = row.local ? 0 : row.age;
        printf("%3u\t%s\t%s\t\t%4u.%02u\t%s\n", row.port.bridge_port, format_mac(row.mac).c_str(),
               row.local ? "yes" : "no", age / ticks, age % ticks * 100 / ticks, row.port.name.c_str());
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], "showmacs") == 0) {
        return show_macs(argv[2]);
    }
    fprintf(stderr, "usage: brctl showmacs BRIDGE\n");
    return 1;
}
