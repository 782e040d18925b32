#include "ovani/ovani_neigh.h"

#include <cstring>

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "ovani/ovani_fd.h"
#include "tests/unit/daemon_test.h"

namespace {

constexpr int BR0 = 7;

// One neighbour message, byte by byte.
struct Neighbour {
    int type = RTM_NEWNEIGH;
    int interface = BR0;
    int family = AF_INET6;
    int state = NUD_REACHABLE;
    std::string address = std::string("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\1", 16);
    std::string link_address = std::string("\0\x11\x22\xaa\xbb\xcc", 6);

    std::string bytes() const
    {
        std::string attributes = attribute(NDA_DST, address) + attribute(NDA_LLADDR, link_address);
        nlmsghdr header{};
        header.nlmsg_len = static_cast<uint32_t>(sizeof header + sizeof(ndmsg) + attributes.size());
        header.nlmsg_type = static_cast<uint16_t>(type);
        ndmsg neighbour{};
        neighbour.ndm_family = static_cast<uint8_t>(family);
        neighbour.ndm_ifindex = interface;
        neighbour.ndm_state = static_cast<uint16_t>(state);
        return raw(header) + raw(neighbour) + attributes;
    }

    static std::string attribute(int type, const std::string &data)
    {
        rtattr header{};
        header.rta_len = static_cast<uint16_t>(sizeof header + data.size());
        header.rta_type = static_cast<uint16_t>(type);
        std::string padding((4 - data.size() % 4) % 4, '\0');
        return raw(header) + data + padding;
    }

    static std::string raw(const auto &value)
    {
        return {reinterpret_cast<const char *>(&value), sizeof value};
    }
};

class NeighbourTest : public DaemonTest {
protected:
    NeighbourTest()
    {
        ifidx_lan = BR0;
        path.answer("ubus", "echo \"$*\" >>" + path.trace_file());
    }
    // What the batch sends on the bus.
    std::string sent(const std::string &batch)
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
        UniqueFd in(ends[0]);
        UniqueFd out(ends[1]);
        EXPECT_EQ(send(in.get(), batch.data(), batch.size(), 0), static_cast<ssize_t>(batch.size()));
        std::string before = path.trace();
        read_netlink_message(out.get());
        return path.trace().substr(before.size());
    }
    CommandPath path;
};

} // namespace

TEST_F(NeighbourTest, ReachableAndRemovedNeighboursOfTheBridgeAreTold)
{
    EXPECT_EQ(sent(Neighbour{}.bytes()),
              "send dhcp_user_event {\"dhcp_user_string\":\"#NB6ADD#GUA#2001:db8::1#00:11:22:aa:bb:cc\"}\n");
    const Neighbour local{.state = NUD_PERMANENT,
                          .address = std::string("\xfe\x80\0\0\0\0\0\0\0\0\0\0\0\0\0\2", 16)};
    const Neighbour gone{.type = RTM_DELNEIGH, .state = NUD_FAILED};
    EXPECT_EQ(sent(local.bytes() + gone.bytes()),
              "send dhcp_user_event {\"dhcp_user_string\":\"#NB6ADD#LLA#fe80::2#00:11:22:aa:bb:cc\"}\n"
              "send dhcp_user_event {\"dhcp_user_string\":\"#NB6DEL#GUA#2001:db8::1#00:11:22:aa:bb:cc\"}\n");
}

TEST_F(NeighbourTest, OtherMessagesArePassedOver)
{
    const Neighbour others[] = {{.state = NUD_STALE},
                                {.interface = BR0 + 1},
                                {.family = AF_INET},
                                {.type = RTM_NEWLINK},
                                {.address = "\xff" + std::string(15, '\1')},
                                {.address = "four"},
                                {.link_address = ""},
                                {.link_address = std::string(11, 'x')},
                                {.link_address = std::string(3000, 'x')}};
    for (const Neighbour &other : others) {
        EXPECT_EQ(sent(other.bytes()), "");
    }
    const Neighbour longest{.link_address = std::string(10, '\xab')};
    EXPECT_THAT(sent(longest.bytes()), testing::HasSubstr("ab:ab:ab:ab:ab:ab:ab:ab:ab:ab\""));
    read_netlink_message(-1);
}

TEST(NeighbourAttributes, TheFirstOfEachTypeWithinBoundsIsKept)
{
    std::string bytes = Neighbour::attribute(1, "first") + Neighbour::attribute(1, "second") +
                        Neighbour::attribute(11, "beyond") + Neighbour::attribute(2, "cut short");
    alignas(rtattr) char buffer[128];
    memcpy(buffer, bytes.data(), bytes.size());
    rtattr *table[11];
    neigh_parse_rattr(table, 10, reinterpret_cast<rtattr *>(buffer), static_cast<int>(bytes.size()) - 8);
    EXPECT_EQ(table[1], reinterpret_cast<rtattr *>(buffer));
    EXPECT_EQ(table[2], nullptr);
}
