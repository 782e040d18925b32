// The network driver. eth0 is the switch's port 1, eth1 its port 2, and so on.
#include "platform/qvdrv_net_api.h"

#include <charconv>
#include <string_view>

namespace {

constexpr std::string_view PREFIX = "eth";

// More ports than a gateway's switch has; 127 and above is what callers keep for "no port".
constexpr unsigned int MAX_ETHERNET_INDEX = 125;

} // namespace

int qvdrv_eth_get_port_id(const char *ifname, unsigned short *port_id)
{
    if (ifname == nullptr || port_id == nullptr) {
        return -1;
    }
    std::string_view name(ifname);
    if (!name.starts_with(PREFIX)) {
        return -1;
    }
    // A VLAN interface ("eth0.100") belongs to the port that it stands on.
    unsigned int index = 0;
    auto [end, fault] = std::from_chars(name.data() + PREFIX.size(), name.data() + name.size(), index);
    if (fault != std::errc{} || index > MAX_ETHERNET_INDEX) {
        return -1;
    }
    *port_id = static_cast<unsigned short>(index + 1);
    return 0;
}
