#include "ovani/ovani_shell.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <strings.h>

#include "ovani/ovani_command.h"
#include "ovani/ovani_commdef.h"
#include "ovani/ovani_log.h"
#include "platform/zkcfgif.h"

namespace {

// The first line of a command's output, cut at the buffer's size; false when there is none.
template <size_t N>
bool first_line(const char *command, char (&line)[N])
{
    CommandPipe pipe{command};
    return pipe && fgets(line, N, pipe.get()) != nullptr;
}

constexpr size_t COMMAND_LENGTH = 256;
constexpr size_t LINE_LENGTH = 128;

} // namespace

void get_cmd_res(const char *cmd, char *res_string, size_t size)
{
    CommandPipe pipe{cmd};
    if (!pipe || res_string == nullptr || size == 0) {
        return;
    }
    int c = fgetc(pipe.get());
    while (c != EOF && isspace(c) != 0) {
        c = fgetc(pipe.get());
    }
    if (c == EOF) {
        return;
    }
    size_t length = 0;
    while (c != EOF && isspace(c) == 0 && length + 1 < size) {
        res_string[length++] = static_cast<char>(c);
        c = fgetc(pipe.get());
    }
    res_string[length] = '\0';
}

void get_cmd_res(const char *cmd, char *res_string)
{
    get_cmd_res(cmd, res_string, GET_CMD_RES_LEN);
}

int ovani_get_mac_by_ipv6(const char *v6_addr, char *mac, size_t size)
{
    if (mac == nullptr || size == 0 || !is_address_text(v6_addr)) {
        return -1;
    }
    char command[COMMAND_LENGTH];
    char line[LINE_LENGTH];
    snprintf(command, sizeof command, "ip -6 neigh|grep -i %s|grep lladdr", v6_addr);
    if (!first_line(command, line)) {
        return -1;
    }
    // "<address> dev <device> lladdr <link-layer address> ..."
    char device[LINE_LENGTH];
    char lladdr[NEIGHBOUR_MAC_LEN];
    if (sscanf(line, "%*s%*s%127s%*s%31s", device, lladdr) != 2 || strcmp(device, OVANI_BR_NAME) != 0) {
        return -1;
    }
    snprintf(mac, size, "%s", lladdr);
    return 0;
}

int ovani_get_mac_by_ipv6(const char *v6_addr, char *mac)
{
    return ovani_get_mac_by_ipv6(v6_addr, mac, NEIGHBOUR_MAC_LEN);
}

namespace {

// What the bridge said when the listing in force was made.
const std::string *listing_in_force;

constexpr size_t LONGEST_LISTING = size_t{1} << 20;

// The last three words of the first line in which a MAC stands, as the command below has them.
bool last_words_of_row(const std::string &listing, const char *mac, char (&words)[LINE_LENGTH])
{
    const char *found = strcasestr(listing.c_str(), mac);
    if (found == nullptr) {
        return false;
    }
    size_t at = listing.rfind('\n', static_cast<size_t>(found - listing.c_str())) + 1;
    std::string_view line{listing};
    line = line.substr(at, line.find('\n', at) - at);
    constexpr std::string_view blanks = " \t\r";
    size_t begin = line.size();
    for (int word = 0; word < 3; ++word) {
        size_t end = begin == 0 ? std::string_view::npos : line.find_last_not_of(blanks, begin - 1);
        if (end == std::string_view::npos) {
            return false;
        }
        begin = line.find_last_of(blanks, end) + 1;
    }
    copy_text(words, line.substr(begin));
    return true;
}

bool ask_bridge(const char *mac, char (&words)[LINE_LENGTH])
{
    if (listing_in_force != nullptr) {
        return last_words_of_row(*listing_in_force, mac, words);
    }
    char command[COMMAND_LENGTH];
    snprintf(command, sizeof command, "brctl showmacs br0 |grep -i %s | awk '{print $(NF-2),$(NF-1),$NF}'",
             mac);
    return first_line(command, words);
}

} // namespace

BridgeListing::BridgeListing()
{
    CommandPipe pipe{"brctl showmacs br0"};
    char part[4096];
    size_t length = 0;
    while (pipe && text_.size() < LONGEST_LISTING && (length = fread(part, 1, sizeof part, pipe.get())) > 0) {
        text_.append(part, length);
    }
    std::ranges::replace(text_, '\0', ' ');
    listing_in_force = &text_;
}

BridgeListing::~BridgeListing()
{
    listing_in_force = nullptr;
}

int get_brctl_info_from_mac(const char *macaddr, BRCTL_MACS_INFO *info)
{
    char words[LINE_LENGTH];
    if (is_address_text(macaddr) && ask_bridge(macaddr, words)) {
        static_assert(sizeof info->islocal == 8 && sizeof info->agetime == 16 && sizeof info->intf == 16);
        sscanf(words, "%7s%15s%15s", info->islocal, info->agetime, info->intf);
    }
    if (info->islocal[0] == '\0') {
        ovani_log(VELM_LOG_DEBUG, "can not get brtcl info from mac:%s", text_or_empty(macaddr));
        return -1;
    }
    ovani_log(VELM_LOG_DEBUG, "macaddr:%s, islocal:%s, agetime:%s, interace:%s", macaddr, info->islocal,
              info->agetime, info->intf);
    return 1;
}

namespace {

constexpr int MESH_REPEATERS = 4;
constexpr char OVANI_MESH_REPEATER_PATH[] =
    "InternetGatewayDevice.LANDevice.1.WLANMeshConfiguration.Controller.Repeater.";

int bridged_host_connect_type(const char *host_mac, char *type, size_t size, const char *function)
{
    char main_ifname[GET_CMD_RES_LEN] = {};
    if (is_address_text(host_mac)) {
        char command[COMMAND_LENGTH];
        snprintf(command, sizeof command, "brctl showmacs br0 | grep -i %s | awk '{print $NF}'", host_mac);
        get_cmd_res(command, main_ifname, sizeof main_ifname);
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "%s:%d host_mac=%s main_ifname=%s\n", function, __LINE__, host_mac,
                 main_ifname);
    snprintf(type, size, "%s", strstr(main_ifname, "ra") != nullptr ? "wireless" : "wired");
    return 0;
}

int mesh_repeater_connect_type(const char *host_mac, char *type, size_t size, const char *function)
{
    for (int i = 1; i <= MESH_REPEATERS; ++i) {
        char url[OVANI_URL_LEN];
        instance_path(url, OVANI_MESH_REPEATER_PATH, i);
        char mac_br0[OVANI_VALUE_LEN] = {};
        if (zkcfg_getsingleparamval(url, "mac_br0", mac_br0, OVANI_STORE_WAIT_MS) != 0) {
            ovani_log_as(function, VELM_LOG_DEBUG, "%s:%d zkcfg_getsingleparamval error\n", function,
                         __LINE__);
        }
        if (strcasecmp(mac_br0, host_mac) != 0) {
            continue;
        }
        run_command("meshinfo repeater_update");
        char connect_type[OVANI_VALUE_LEN] = {};
        if (zkcfg_getsingleparamval(url, "connect_type", connect_type, OVANI_STORE_WAIT_MS) != 0) {
            ovani_log_as(function, VELM_LOG_DEBUG, "%s:%d zkapi_singlevalue_get error\n", function, __LINE__);
        }
        snprintf(type, size, "%s", connect_type);
        ovani_log_as(function, VELM_LOG_DEBUG, "%s:%d host_mac=%s connect_type=%s, url=%s\n", function,
                     __LINE__, host_mac, type, url);
        return 0;
    }
    return -1;
}

} // namespace

int ovani_meshhost_connect_type_get(const char *host_mac, char *type, size_t size, int isMeshSlave)
{
    if (host_mac == nullptr || type == nullptr) {
        return -1;
    }
    return isMeshSlave == 0 ? bridged_host_connect_type(host_mac, type, size, __func__)
                            : mesh_repeater_connect_type(host_mac, type, size, __func__);
}

int ovani_meshhost_connect_type_get(const char *host_mac, char *type, int isMeshSlave)
{
    return ovani_meshhost_connect_type_get(host_mac, type, CONNECT_TYPE_LEN, isMeshSlave);
}

int del_item_from_arp(const char *mac_str)
{
    if (!is_address_text(mac_str)) {
        ovani_log(VELM_LOG_ERR, "del_item_from_arp. Invalid param. \n ");
        return R_ERROR;
    }
    char command[COMMAND_LENGTH];
    snprintf(command, sizeof command, "/sbin/arp -d `cat /proc/net/arp | grep -i %s | awk '{ print $1 }'`",
             mac_str);
    ovani_log(VELM_LOG_DEBUG, "del_item_from_arp. CMD is %s .\n ", command);
    run_command(command);
    return R_OK;
}
