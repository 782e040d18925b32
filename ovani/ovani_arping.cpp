#include "ovani/ovani_arping.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <poll.h>
#include <sys/socket.h>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_fd.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_shell.h"

namespace {

constexpr int64_t BUDGET_MS = 2000;
constexpr uint16_t HARDWARE_ETHERNET = 1;
constexpr uint16_t OPERATION_REQUEST = 1;
constexpr uint16_t OPERATION_REPLY = 2;

int64_t monotonic_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void put_address(uint8_t (&field)[4], uint32_t host_order)
{
    uint32_t network_order = htonl(host_order);
    memcpy(field, &network_order, sizeof field);
}

arpMsg make_request(uint32_t test_ip, uint32_t from_ip, const unsigned char *from_mac)
{
    arpMsg request{};
    memset(request.h_dest, 0xff, sizeof request.h_dest);
    memcpy(request.h_source, from_mac, sizeof request.h_source);
    request.h_proto = htons(ETH_P_ARP);
    request.htype = htons(HARDWARE_ETHERNET);
    request.ptype = htons(ETH_P_IP);
    request.hlen = sizeof request.sHaddr;
    request.plen = sizeof request.sInaddr;
    request.operation = htons(OPERATION_REQUEST);
    memcpy(request.sHaddr, from_mac, sizeof request.sHaddr);
    put_address(request.sInaddr, from_ip);
    put_address(request.tInaddr, test_ip);
    return request;
}

// The old link-level sockets are addressed by interface name, in a generic socket address.
bool send_request(int fd, const arpMsg &request, const char *interface)
{
    sockaddr address{};
    copy_text(address.sa_data, interface);
    return sendto(fd, &request, sizeof request, 0, &address, sizeof address) >= 0;
}

bool is_reply_from(const arpMsg &frame, ssize_t length, uint32_t test_ip)
{
    uint8_t wanted[4];
    put_address(wanted, test_ip);
    return length >= static_cast<ssize_t>(ARP_MSG_SIZE) && frame.operation == htons(OPERATION_REPLY) &&
           memcmp(frame.sInaddr, wanted, sizeof wanted) == 0;
}

// Waits for the reply until the budget is spent; other frames are passed over.
bool await_reply(int fd, uint32_t test_ip, const char *function = __builtin_FUNCTION())
{
    const int64_t deadline = monotonic_ms() + BUDGET_MS;
    for (int64_t left = BUDGET_MS; left > 0; left = deadline - monotonic_ms()) {
        pollfd socket{.fd = fd, .events = POLLIN, .revents = 0};
        int ready = poll(&socket, 1, static_cast<int>(left));
        if (ready < 0) {
            if (errno == EINTR || errno == ENOMEM) {
                continue;
            }
            ovani_log_as(function, VELM_LOG_ERR, "poll");
            return false;
        }
        if (ready == 0) {
            continue;
        }
        arpMsg frame{};
        ssize_t length = read(fd, &frame, sizeof frame);
        if (length < 0) {
            return false;
        }
        if (is_reply_from(frame, length, test_ip)) {
            return true;
        }
    }
    return false;
}

bool enable_broadcast(int fd, const char *function = __builtin_FUNCTION())
{
    int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "cannot enable bcast on raw socket");
        return false;
    }
    return true;
}

bool is_interface_name(const char *name)
{
    return name[0] != '\0' &&
           strspn(name, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") == strlen(name);
}

void forget_station(const char *mac, const char *function)
{
    del_item_from_arp(mac);
    ovani_log_as(function, VELM_LOG_DEBUG, "del_item_from_arp mac_str = %s\r\n", mac);
}

// Whether a silent Wi-Fi host is still associated decides whether it keeps its ARP entry.
void check_association(uint32_t test_ip, const char *function = __builtin_FUNCTION())
{
    char command[256];
    char mac[32] = {};
    snprintf(command, sizeof command, "cat /proc/net/arp | grep %s |awk '{print $4}'",
             ovani_ipv4_ltostr(test_ip));
    get_cmd_res(command, mac, sizeof mac);
    if (!is_address_text(mac)) {
        return;
    }
    char interface[16] = {};
    snprintf(command, sizeof command, "brctl showmacs br0 | grep -i %s | awk '{ print $NF }'", mac);
    ovani_log_as(function, VELM_LOG_DEBUG, "tmp_mac_str = <%s>\r\n", command);
    get_cmd_res(command, interface, sizeof interface);
    if (!is_interface_name(interface)) {
        ovani_log_as(function, VELM_LOG_DEBUG, "vapinfo = NULL\r\n");
        forget_station(mac, function);
        return;
    }
    char association[256] = {};
    snprintf(command, sizeof command, "wl -i %s assoclist| grep -i %s", interface, mac);
    ovani_log_as(function, VELM_LOG_DEBUG, "RET = <%s>\r\n", command);
    get_cmd_res(command, association, sizeof association);
    if (association[0] == '\0') {
        ovani_log_as(function, VELM_LOG_DEBUG, "result = NULL\r\n");
        forget_station(mac, function);
    }
}

} // namespace

int ovani_arp_ping(unsigned int test_ip, unsigned int from_ip, const unsigned char *from_mac,
                   const char *interface, char lanPortType)
{
    ovani_log(VELM_LOG_DEBUG, "test_ip :%s\r\n", ovani_ipv4_ltostr(test_ip));
    ovani_log(VELM_LOG_DEBUG, "from_ip :%s\r\n", ovani_ipv4_ltostr(from_ip));
    ovani_log(VELM_LOG_DEBUG, "mac_str :%s\r\n", mac_colon_text(from_mac).data());
    UniqueFd fd{socket(AF_PACKET, SOCK_PACKET | SOCK_CLOEXEC, htons(ETH_P_ARP))};
    if (!fd) {
        ovani_log(VELM_LOG_ERR, "bb_msg_can_not_create_raw_socket");
        return -1;
    }
    bool asked = enable_broadcast(fd.get()) &&
                 send_request(fd.get(), make_request(test_ip, from_ip, from_mac), interface);
    bool replied = asked && await_reply(fd.get(), test_ip);
    if (asked && !replied && lanPortType == 1) {
        ovani_log(VELM_LOG_DEBUG, "no arp reply and lanPortType is wifi\r\n");
        check_association(test_ip);
    }
    ovani_log(VELM_LOG_DEBUG, "%srp reply received for this address\r\n", replied ? "A" : "No a");
    return replied ? 1 : 0;
}
