#include "ovani/ovani_commdef.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>

#include "ovani/ovani_fd.h"
#include "ovani/ovani_log.h"
#include "platform/qvdrv_net_api.h"

int decimal_value(const char *text)
{
    if (text == nullptr) {
        return 0;
    }
    long value = strtol(text, nullptr, 10);
    return static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
}

void ovani_strToLower(char *string)
{
    if (string == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_strToLower, string NULLP error.\r\n");
        return;
    }
    for (char *c = string; *c != '\0'; ++c) {
        *c = static_cast<char>(tolower(static_cast<unsigned char>(*c)));
    }
}

void ovani_strToUpper(char *string)
{
    if (string == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_strToUpper, string NULLP error.\r\n");
        return;
    }
    for (char *c = string; *c != '\0'; ++c) {
        *c = static_cast<char>(toupper(static_cast<unsigned char>(*c)));
    }
}

void ovani_get_curr_time(char *szTime, unsigned int szTimeBuffLen)
{
    if (szTime == nullptr) {
        return;
    }
    if (szTimeBuffLen < OVANI_TIME_BUFF_LEN) {
        ovani_log(VELM_LOG_ERR, "szTimeBuffLen=%d,overrun error", static_cast<int>(szTimeBuffLen));
    }
    time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    snprintf(szTime, szTimeBuffLen, "%4.4d-%2.2d-%2.2d#%2.2d:%2.2d:%2.2d", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}

long ovani_get_system_uptime()
{
    struct sysinfo info {};
    return sysinfo(&info) == 0 ? info.uptime : 0;
}

char *ovani_ipv4_ltostr(unsigned long ip)
{
    return inet_ntoa(in_addr{htonl(static_cast<uint32_t>(ip))});
}

unsigned long ovani_ipv4_strtol(const char *ipStr)
{
    return ntohl(ipStr == nullptr ? INADDR_NONE : inet_addr(ipStr));
}

namespace {

mac_text format_mac(const unsigned char *mac, std::string_view separator)
{
    constexpr char digits[] = "0123456789ABCDEF";
    mac_text text{};
    char *out = text.data();
    for (size_t i = 0; i < OVANI_MAC_LEN; ++i) {
        if (i > 0) {
            out = std::copy(separator.begin(), separator.end(), out);
        }
        *out++ = digits[mac[i] >> 4];
        *out++ = digits[mac[i] & 0xf];
    }
    return text;
}

} // namespace

mac_text mac_colon_text(const unsigned char *mac)
{
    return format_mac(mac, ":");
}

mac_text mac_bare_text(const unsigned char *mac)
{
    return format_mac(mac, "");
}

int ovani_mac_to_str(const unsigned char *mac_in, unsigned char *mac_str)
{
    std::ranges::copy(mac_colon_text(mac_in), mac_str);
    return R_OK;
}

int ovani_mac_to_upstr(const unsigned char *mac_in, unsigned char *mac_str)
{
    std::ranges::copy(mac_bare_text(mac_in), mac_str);
    return R_OK;
}

// Deliberately takes the whole alphabet: letters beyond F give 16 to 35.
static int ovani_hex2num(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'Z') {
        return c - 'A' + 10;
    }
    ovani_log(VELM_LOG_DEBUG, "unexpected char: %c", c);
    return 0;
}

int ovani_str2mac(const char *szMac, char *pMac)
{
    if (szMac == nullptr || pMac == nullptr) {
        return 0;
    }
    constexpr size_t last_index = 16;
    size_t o = 0;
    for (size_t i = 0; i <= last_index && szMac[i] != '\0'; ++i) {
        if (szMac[i] == ':') {
            continue;
        }
        if (szMac[i + 1] == '\0') {
            return 0;
        }
        pMac[o++] = static_cast<char>(16 * ovani_hex2num(szMac[i]) + ovani_hex2num(szMac[i + 1]));
        if (o == OVANI_MAC_LEN) {
            return 1;
        }
        ++i;
    }
    return 0;
}

int ovani_str2mac2(const char *szMac, char *pMac)
{
    std::string_view text{text_or_empty(szMac)};
    for (size_t i = 0; i < OVANI_MAC_LEN; ++i) {
        char pair[3] = {};
        if (2 * i < text.size()) {
            copy_text(pair, text.substr(2 * i, 2));
        }
        pMac[i] = static_cast<char>(strtoul(pair, nullptr, 16));
    }
    return 0;
}

namespace {

constexpr size_t bare_mac_length = 12;
constexpr size_t colon_mac_length = 17;

char *insert_colons(std::string_view bare, int (*change_case)(int), char *out)
{
    size_t written = 0;
    for (char c : bare) {
        if (written == colon_mac_length) {
            break;
        }
        if ((written + 1) % 3 == 0) {
            *out++ = ':';
            ++written;
        }
        *out++ = static_cast<char>(change_case(static_cast<unsigned char>(c)));
        ++written;
    }
    return out;
}

} // namespace

int mac_form_translate(const char *frommac, int type, char *tomac)
{
    std::string_view from{text_or_empty(frommac)};
    if (from.size() < bare_mac_length || from.size() > colon_mac_length) {
        return -1;
    }
    bool has_colons = from.find(':') != std::string_view::npos;
    char *end = tomac;
    if (has_colons && type == MAC_FORM_BARE_UPPER) {
        for (char c : from) {
            if (c != ':') {
                *end++ = static_cast<char>(toupper(static_cast<unsigned char>(c)));
            }
        }
    } else if (has_colons) {
        end = std::ranges::copy(from, tomac).out;
    } else if (type == MAC_FORM_COLON_UPPER) {
        end = insert_colons(from, toupper, tomac);
    } else if (type == MAC_FORM_COLON_LOWER) {
        end = insert_colons(from, tolower, tomac);
    } else {
        end = std::ranges::copy(from.substr(0, bare_mac_length), tomac).out;
    }
    *end = '\0';
    return 0;
}

bool is_bare_mac(const char *text)
{
    std::string_view mac{text_or_empty(text)};
    return mac.size() == bare_mac_length &&
           std::ranges::all_of(mac, [](unsigned char c) { return isxdigit(c) != 0; });
}

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

// Wi-Fi SSIDs as interface names: the first four of a radio are numbered from `first`, further ones from
// `further`, which leaves the other radio's four in between. "rai" stands before "ra", which it contains.
struct wifi_radio {
    std::string_view name;
    int first;
    int further;
};
constexpr wifi_radio wifi_radios[] = {
    {"rai", 5, 9},
    {"ra", 1, 5},
};
constexpr int ssids_in_first_block = 4;

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

int wifi_port_number(const wifi_radio &radio, std::string_view rest)
{
    char number[16];
    copy_text(number, rest);
    int ssid = decimal_value(number);
    if (ssid < 0 || ssid >= OVANI_INVALID_VALUE) {
        return 0;
    }
    return ssid + (ssid < ssids_in_first_block ? radio.first : radio.further);
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
        for (const wifi_radio &radio : wifi_radios) {
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
