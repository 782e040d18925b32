#include "platform/qvdrv_net_api.h"

#include <gtest/gtest.h>

namespace {

TEST(NetworkDriver, NumbersPortsByInterface)
{
    const struct {
        const char *name;
        int port; // 0: refused
    } cases[] = {
        {"eth0", 1}, {"eth3", 4}, {"eth0.100", 1}, {"eth12", 13},        {"eth125", 126},
        {"eth", 0},  {"ethx", 0}, {"veth0", 0},    {"eth-1", 0},         {"eth126", 0},
        {"", 0},     {"ra0", 0},  {"eth 1", 0},    {"eth4294967296", 0}, {nullptr, 0},
    };
    for (const auto &c : cases) {
        unsigned short port = 999;
        int result = qvdrv_eth_get_port_id(c.name, &port);
        EXPECT_EQ(result == 0, c.port != 0) << (c.name == nullptr ? "null" : c.name);
        EXPECT_EQ(port, c.port == 0 ? 999 : c.port);
    }
}

} // namespace
