#include "tools/netlink.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include <linux/if.h>
#include <linux/neighbour.h>

namespace {

constexpr size_t BUFFER_SIZE = size_t{32} * 1024; // the kernel sends no longer piece of a dump
constexpr int DUMP_TRIES = 20;

using Attributes = std::vector<const nlattr *>;

int take_attribute(const nlattr *attr, void *priv)
{
    auto &table = *static_cast<Attributes *>(priv);
    if (mnl_attr_get_type(attr) < table.size()) {
        table[mnl_attr_get_type(attr)] = attr;
    }
    return MNL_CB_OK;
}

Attributes attributes_of(const nlmsghdr *message, size_t header, size_t count)
{
    Attributes table(count);
    mnl_attr_parse(message, static_cast<unsigned>(header), take_attribute, &table);
    return table;
}

Attributes attributes_of(const nlattr *nest, size_t count)
{
    Attributes table(count);
    if (nest) {
        mnl_attr_parse_nested(nest, take_attribute, &table);
    }
    return table;
}

// The attribute's value, when it is as long as a T (the kernel's attributes are aligned to four bytes only).
template <typename T>
std::optional<T> value_of(const nlattr *attr)
{
    if (!attr || mnl_attr_get_payload_len(attr) < sizeof(T)) {
        return std::nullopt;
    }
    T value;
    memcpy(&value, mnl_attr_get_payload(attr), sizeof value);
    return value;
}

std::string text_of(const nlattr *attr)
{
    if (!attr) {
        return {};
    }
    const char *text = static_cast<const char *>(mnl_attr_get_payload(attr));
    return {text, strnlen(text, mnl_attr_get_payload_len(attr))};
}

int call_handler(const nlmsghdr *message, void *priv)
{
    (*static_cast<const NetlinkHandler *>(priv))(message);
    return MNL_CB_OK;
}

int keep_message(const nlmsghdr *message, void *priv)
{
    auto &kept = *static_cast<std::vector<char> *>(priv);
    const char *bytes = reinterpret_cast<const char *>(message);
    kept.insert(kept.end(), bytes, bytes + NLMSG_ALIGN(message->nlmsg_len));
    return MNL_CB_OK;
}

// One whole answer, or EINTR when it was disturbed.
std::optional<std::vector<char>> try_dump(uint16_t type, uint8_t family)
{
    const std::unique_ptr<mnl_socket, int (*)(mnl_socket *)> socket(
        mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC), mnl_socket_close);
    if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        return std::nullopt;
    }

    alignas(nlmsghdr) char buffer[BUFFER_SIZE];
    nlmsghdr *request = mnl_nlmsg_put_header(buffer);
    request->nlmsg_type = type;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    // Both kinds of request begin with the family; the longer header serves either.
    static_assert(sizeof(ifinfomsg) >= sizeof(ndmsg));
    static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)))->ifi_family = family;
    if (mnl_socket_sendto(socket.get(), request, request->nlmsg_len) < 0) {
        return std::nullopt;
    }

    std::vector<char> kept;
    const unsigned portid = mnl_socket_get_portid(socket.get());
    while (true) {
        const ssize_t length = mnl_socket_recvfrom(socket.get(), buffer, sizeof buffer);
        if (length < 0) {
            return std::nullopt;
        }
        const int result = mnl_cb_run(buffer, static_cast<size_t>(length), 0, portid, keep_message, &kept);
        if (result < 0) {
            return std::nullopt;
        }
        if (result == MNL_CB_STOP) {
            return kept;
        }
    }
}

} // namespace

std::unique_ptr<NetlinkListener> NetlinkListener::open(unsigned groups, int receive_buffer)
{
    auto listener = std::make_unique<NetlinkListener>();
    listener->socket_.reset(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    if (!listener->socket_) {
        return nullptr;
    }
    if (receive_buffer > 0 &&
        setsockopt(listener->fd(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer) < 0) {
        return nullptr;
    }
    if (mnl_socket_bind(listener->socket_.get(), groups, MNL_SOCKET_AUTOPID) < 0) {
        return nullptr;
    }
    return listener;
}

bool NetlinkListener::receive(const NetlinkHandler &handler)
{
    alignas(nlmsghdr) char buffer[BUFFER_SIZE];
    while (true) {
        const ssize_t length = recv(fd(), buffer, sizeof buffer, MSG_DONTWAIT | MSG_TRUNC);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            return errno == EAGAIN;
        }
        if (length > static_cast<ssize_t>(sizeof buffer)) {
            return false;
        }
        if (mnl_cb_run(buffer, static_cast<size_t>(length), 0, 0, call_handler,
                       const_cast<NetlinkHandler *>(&handler)) < 0) {
            return false;
        }
    }
}

bool netlink_dump(uint16_t type, uint8_t family, const NetlinkHandler &handler)
{
    for (int attempt = 0; attempt < DUMP_TRIES; attempt++) {
        auto messages = try_dump(type, family);
        if (messages) {
            mnl_cb_run(messages->data(), messages->size(), 0, 0, call_handler,
                       const_cast<NetlinkHandler *>(&handler));
            return true;
        }
        if (errno != EINTR) {
            return false;
        }
    }
    return false;
}

std::optional<Link> parse_link(const nlmsghdr *message)
{
    if (mnl_nlmsg_get_payload_len(message) < sizeof(ifinfomsg)) {
        return std::nullopt;
    }
    const auto *header = static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(message));
    if (header->ifi_family != AF_UNSPEC) {
        return std::nullopt;
    }
    const auto table = attributes_of(message, sizeof(ifinfomsg), IFLA_LINKINFO + 1);
    const auto info = attributes_of(table[IFLA_LINKINFO], IFLA_INFO_SLAVE_DATA + 1);
    const auto port = attributes_of(info[IFLA_INFO_SLAVE_DATA], IFLA_BRPORT_NO + 1);

    Link link;
    link.index = header->ifi_index;
    link.carrier = (header->ifi_flags & IFF_LOWER_UP) != 0;
    link.name = text_of(table[IFLA_IFNAME]);
    link.is_bridge = text_of(info[IFLA_INFO_KIND]) == "bridge";
    if (text_of(info[IFLA_INFO_SLAVE_KIND]) == "bridge") {
        link.bridge = value_of<int>(table[IFLA_MASTER]).value_or(0);
        link.bridge_port = value_of<uint16_t>(port[IFLA_BRPORT_NO]).value_or(0);
    }
    return link;
}

std::optional<Neighbour> parse_neighbour(const nlmsghdr *message)
{
    if (mnl_nlmsg_get_payload_len(message) < sizeof(ndmsg)) {
        return std::nullopt;
    }
    const auto *header = static_cast<const ndmsg *>(mnl_nlmsg_get_payload(message));
    const auto table = attributes_of(message, sizeof(ndmsg), NDA_MASTER + 1);

    Neighbour neighbour;
    neighbour.family = header->ndm_family;
    neighbour.ifindex = header->ndm_ifindex;
    neighbour.state = header->ndm_state;
    neighbour.own = (header->ndm_flags & NTF_SELF) != 0;
    neighbour.bridge = value_of<int>(table[NDA_MASTER]).value_or(0);
    neighbour.vlan = value_of<uint16_t>(table[NDA_VLAN]).value_or(0);
    neighbour.mac = value_of<Mac>(table[NDA_LLADDR]);
    if (header->ndm_family == AF_INET) {
        neighbour.address = value_of<in_addr>(table[NDA_DST]);
    }
    if (const auto cache = value_of<nda_cacheinfo>(table[NDA_CACHEINFO])) {
        neighbour.age = cache->ndm_updated;
    }
    return neighbour;
}
