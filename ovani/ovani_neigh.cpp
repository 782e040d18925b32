#include "ovani/ovani_neigh.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "ovani/ovani_command.h"
#include "ovani/ovani_commdef.h"
#include "ovani/ovani_event.h"
#include "ovani/ovani_fd.h"
#include "ovani/ovani_log.h"

unsigned int ifidx_lan;

namespace {

constexpr int RECEIVE_BUFFER_SIZE = 0x20000;
constexpr int HIGHEST_ATTRIBUTE = 10;
// Link, neighbour, traffic control and IPv4 address messages; only the second are of interest.
constexpr unsigned MULTICAST_GROUPS = 0x1d;
// The addresses that a text of 32 bytes can show.
constexpr size_t LONGEST_LINK_ADDRESS = 10;

struct Neighbour {
    char address[INET6_ADDRSTRLEN];
    char mac[OVANI_MAC_STR_LEN];
};

size_t payload_length(const rtattr *attribute)
{
    return attribute->rta_len - RTA_LENGTH(0);
}

bool format_link_address(const rtattr *attribute, char (&mac)[OVANI_MAC_STR_LEN])
{
    size_t length = payload_length(attribute);
    if (length == 0 || length > LONGEST_LINK_ADDRESS) {
        return false;
    }
    const auto *bytes = static_cast<const uint8_t *>(RTA_DATA(attribute));
    char *out = mac;
    for (size_t i = 0; i < length; ++i) {
        out +=
            snprintf(out, static_cast<size_t>(mac + sizeof mac - out), "%s%02x", i > 0 ? ":" : "", bytes[i]);
    }
    return true;
}

// Takes a neighbour out of a message of `length` bytes; false when it is none of br0's IPv6 neighbours, or
// not to be told of.
bool parse_neighbour(nlmsghdr *message, Neighbour &found)
{
    constexpr size_t header_length = NLMSG_LENGTH(sizeof(ndmsg));
    if (message->nlmsg_len < header_length) {
        return false;
    }
    auto *header = static_cast<ndmsg *>(NLMSG_DATA(message));
    if (header->ndm_ifindex != static_cast<int>(ifidx_lan) || header->ndm_family != AF_INET6) {
        return false;
    }
    bool is_new = message->nlmsg_type == RTM_NEWNEIGH;
    if (is_new && (header->ndm_state & (NUD_REACHABLE | NUD_PERMANENT)) == 0) {
        return false;
    }
    rtattr *attributes[HIGHEST_ATTRIBUTE + 1];
    auto *first = reinterpret_cast<rtattr *>(reinterpret_cast<char *>(header) + NLMSG_ALIGN(sizeof *header));
    neigh_parse_rattr(attributes, HIGHEST_ATTRIBUTE, first,
                      static_cast<int>(message->nlmsg_len - header_length));
    const rtattr *address = attributes[NDA_DST];
    const rtattr *link_address = attributes[NDA_LLADDR];
    if (address == nullptr || link_address == nullptr || payload_length(address) < sizeof(in6_addr) ||
        inet_ntop(AF_INET6, RTA_DATA(address), found.address, sizeof found.address) == nullptr) {
        return false;
    }
    bool multicast = strncmp(found.address, "ff", 2) == 0;
    return !multicast && format_link_address(link_address, found.mac);
}

// Everything in the command was formatted here, from numbers.
void send_event(bool is_new, const Neighbour &found, const char *function = __builtin_FUNCTION())
{
    const char *type = strncmp(found.address, "fe80", 4) == 0 ? OVANI_IPV6ADDR_LLA : OVANI_IPV6ADDR_GUA;
    char command[256];
    snprintf(command, sizeof command, "ubus send dhcp_user_event '{\"dhcp_user_string\":\"#%s#%s#%s#%s\"}'",
             is_new ? "NB6ADD" : "NB6DEL", type, found.address, found.mac);
    run_command(command);
    ovani_log_as(function, VELM_LOG_DEBUG, "read_netlink_message cmd = %s\n", command);
}

} // namespace

void neigh_parse_rattr(rtattr **tb, int max, rtattr *rta, int len)
{
    std::fill_n(tb, max + 1, nullptr);
    int last_length = 0;
    while (len >= static_cast<int>(sizeof *rta)) {
        last_length = rta->rta_len;
        if (last_length < static_cast<int>(sizeof *rta) || last_length > len) {
            break;
        }
        if (rta->rta_type <= max && tb[rta->rta_type] == nullptr) {
            tb[rta->rta_type] = rta;
        }
        int step = std::min(static_cast<int>(RTA_ALIGN(static_cast<unsigned>(last_length))), len);
        rta = reinterpret_cast<rtattr *>(reinterpret_cast<char *>(rta) + step);
        len -= step;
    }
    if (len > 0) {
        fprintf(stderr, "!!!Deficit %d, rta_len=%d\n", len, last_length);
    }
}

void read_netlink_message(int fd)
{
    alignas(nlmsghdr) char buffer[RECEIVE_BUFFER_SIZE] = {};
    // An overrun of the socket's buffer shows here as a failed read; what it cost is not asked for again.
    ssize_t received = read(fd, buffer, sizeof buffer);
    if (received < 0) {
        return;
    }
    auto remaining = static_cast<size_t>(received);
    char *at = buffer;
    while (remaining >= sizeof(nlmsghdr)) {
        auto *message = reinterpret_cast<nlmsghdr *>(at);
        if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > remaining) {
            return;
        }
        bool is_new = message->nlmsg_type == RTM_NEWNEIGH;
        Neighbour found{};
        if ((is_new || message->nlmsg_type == RTM_DELNEIGH) && parse_neighbour(message, found)) {
            send_event(is_new, found);
        }
        size_t step = std::min<size_t>(NLMSG_ALIGN(message->nlmsg_len), remaining);
        at += step;
        remaining -= step;
    }
}

void *ovani_host_neigh_poll(void *)
{
    ifidx_lan = if_nametoindex(OVANI_BR_NAME);
    ovani_log(VELM_LOG_DEBUG, "ifidx_lan = %d\n", static_cast<int>(ifidx_lan));
    UniqueFd fd{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)};
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = MULTICAST_GROUPS;
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        perror("bind");
        return nullptr;
    }
    for (;;) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd.get(), &readable);
        if (select(fd.get() + 1, &readable, nullptr, nullptr, nullptr) >= 0) {
            read_netlink_message(fd.get());
        } else if (errno != EINTR) {
            ovani_log(VELM_LOG_ERR, "select error %s\n", strerror(errno));
            return nullptr;
        }
    }
}
