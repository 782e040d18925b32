#include "ovani/ovani_interface.h"

#include <cstring>
#include <iterator>
#include <string_view>

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_fd.h"
#include "ovani/ovani_log.h"
#include "platform/qvdrv_net_api.h"

namespace {

ifreq interface_request(const char *ifname)
{
    ifreq request{};
    copy_text(request.ifr_name, ifname);
    return request;
}

} // namespace

int ovani_get_ifc_status(const char *ifname)
{
    UniqueFd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    ifreq request = interface_request(ifname);
    if (!fd || ioctl(fd.get(), SIOCGIFFLAGS, &request) != 0) {
        return -1;
    }
    return (request.ifr_flags & IFF_RUNNING) != 0 ? 1 : 0;
}

int ovani_get_mac_by_ifname(const char *ifname, unsigned char *macAddr)
{
    UniqueFd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    return ovani_get_mac_by_ifname(fd.get(), ifname, macAddr);
}

int ovani_get_mac_by_ifname(int sockfd, const char *ifname, unsigned char *macAddr)
{
    if (ifname == nullptr || macAddr == nullptr || strlen(ifname) > IFNAMSIZ) {
        ovani_log(VELM_LOG_ERR, "ovani_get_mac_by_ifname param error");
        return -1;
    }
    if (sockfd < 0) {
        ovani_log(VELM_LOG_ERR, "ovani_get_mac_by_ifname socket returns error. sockfd=%d", sockfd);
        return -1;
    }
    ifreq request = interface_request(ifname);
    if (ioctl(sockfd, SIOCGIFHWADDR, &request) != 0) {
        ovani_log(VELM_LOG_ERR, "SIOCGIFHWADDR returns error.");
        return -1;
    }
    memcpy(macAddr, request.ifr_hwaddr.sa_data, OVANI_MAC_LEN);
    return 0;
}

namespace {

bool is_lan_port_number(int number)
{
    return number > 0 && number < OVANI_INVALID_VALUE;
}

// The port number, or 0 when the driver or the name does not give one.
int wired_port_number(const char *eth_num)
{
    char name[16];
    copy_text(name, eth_num);
    unsigned short port_id = 0;
    return qvdrv_eth_get_port_id(name, &port_id) == 0 ? port_id : 0;
}

int wifi_port_number(const WifiRadio &radio, std::string_view rest)
{
    char number[16];
    copy_text(number, rest);
    int ssid = decimal_value(number);
    if (ssid < 0 || ssid >= OVANI_INVALID_VALUE) {
        return 0;
    }
    return radio.port_number(ssid);
}

} // namespace

int eth_num2lanport_no_type(const char *eth_num, char *lanport_no, char *lanport_type)
{
    std::string_view name{text_or_empty(eth_num)};
    int number = 0;
    char type = 0;
    if (name.find("eth") != std::string_view::npos) {
        number = wired_port_number(eth_num);
    } else {
        for (const WifiRadio &radio : WIFI_RADIOS) {
            size_t at = name.find(radio.name);
            if (at != std::string_view::npos) {
                number = wifi_port_number(radio, name.substr(at + radio.name.size()));
                type = 1;
                break;
            }
        }
    }
    if (!is_lan_port_number(number)) {
        ovani_log(VELM_LOG_DEBUG, "eth_num2lanport_no_type : lanport_type ERR\n");
        return 0;
    }
    *lanport_no = static_cast<char>(number);
    *lanport_type = type;
    ovani_log(VELM_LOG_DEBUG, "eth_num:%s, lanport_no:%d !\n", text_or_empty(eth_num), number);
    return R_OK;
}

int ovani_wanstr2index(const char *wan_ifc)
{
    constexpr std::string_view names[] = {"eth0", "eth1", "eth2", "eth3"};
    std::string_view text{text_or_empty(wan_ifc)};
    for (size_t i = 0; i < std::size(names); ++i) {
        if (text.find(names[i]) != std::string_view::npos) {
            return static_cast<int>(i) + 1;
        }
    }
    return -1;
}

int get_lanif_addr(const char *ifname, char *ifaddr)
{
    if (ifname == nullptr || ifaddr == nullptr) {
        return -1;
    }
    UniqueFd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    ifreq request = interface_request(ifname);
    if (!fd || ioctl(fd.get(), SIOCGIFADDR, &request) != 0) {
        return -1;
    }
    sockaddr_in address{};
    static_assert(sizeof address <= sizeof request.ifr_addr);
    memcpy(&address, &request.ifr_addr, sizeof address);
    return inet_ntop(AF_INET, &address.sin_addr, ifaddr, INET_ADDRSTRLEN) != nullptr ? 0 : -1;
}
