// Devices attached before the daemon started produce no events: they are found in the kernel's ARP cache and
// the bridge's forwarding table, and take the ordinary road from there.
#include "ovani/ovani_event_discovery.h"

#include <cstdio>
#include <cstring>

#include "ovani/ovani_command.h"
#include "ovani/ovani_event_arp.h"
#include "ovani/ovani_event_mac.h"
#include "ovani/ovani_event_port.h"
#include "ovani/ovani_fd.h"
#include "ovani/ovani_host_index.h"
#include "ovani/ovani_interface.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_shell.h"

namespace {

constexpr char ARP_CACHE[] = "/proc/net/arp";

// Reads a line, cut at the buffer's size: what is longer is read over, so that it cannot pass for a line of
// its own.
template <size_t N>
bool read_line(FILE *file, char (&line)[N])
{
    if (fgets(line, N, file) == nullptr) {
        return false;
    }
    if (strchr(line, '\n') == nullptr) {
        int c = fgetc(file);
        while (c != EOF && c != '\n') {
            c = fgetc(file);
        }
    }
    return true;
}

// A MAC as the kernel prints it.
bool parse_colon_mac(const char *text, uint8_t (&mac)[OVANI_MAC_LEN])
{
    constexpr size_t length = 17;
    return is_address_text(text) && strlen(text) == length &&
           ovani_str2mac(text, reinterpret_cast<char *>(mac)) == 1;
}

void handle_arp_line(const char *line, const char *function)
{
    char ip[64] = {};
    char flags[64] = {};
    char hardware_address[64] = {};
    char device[64] = {};
    sscanf(line, "%63s%*s%63s%63s%*s%63s", ip, flags, hardware_address, device);
    if (device[0] == '\0' || hardware_address[0] == '\0' ||
        strcmp(hardware_address, "00:00:00:00:00:00") == 0 || strcmp(device, OVANI_BR_NAME) != 0) {
        return;
    }
    ovani_arp_event event{};
    if (!parse_colon_mac(hardware_address, event.mac)) {
        return;
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "[ovani_lanhost_info_init] ==> get a mac %s\n", hardware_address);
    event.event_id = 1;
    event.action = 1;
    event.ipv4 = static_cast<uint32_t>(ovani_ipv4_strtol(ip));
    copy_text(event.brname, OVANI_BR_NAME);
    ovani_log_as(function, VELM_LOG_DEBUG, "[ovani_lanhost_info_init]-- DEALING arp starts \n");
    ovani_arp_event_add(&event);
    ovani_log_as(function, VELM_LOG_DEBUG, "[ovani_lanhost_info_init]-- DEALING arp ends \n");
}

void read_arp_cache(const char *function = __builtin_FUNCTION())
{
    UniqueFile file{fopen(ARP_CACHE, "re")};
    if (file == nullptr) {
        ovani_log_as(function, VELM_LOG_ERR, "[ovani_lanhost_info_init] fopen /proc/net/arp failed \n");
        return;
    }
    BridgeListing listing; // not asked for anew for each address
    char line[512];
    read_line(file.get(), line); // the column headers
    while (read_line(file.get(), line)) {
        ovani_log_as(function, VELM_LOG_DEBUG, "[ovani_lanhost_info_init] fgets line is %s\n", line);
        handle_arp_line(line, function);
    }
}

struct BridgeRow {
    char mac[64];
    char islocal[64];
    char interface[64];
};

// Takes MAC, is-local and interface out of a line of 5 or 6 columns.
void scan_bridge_line(const char *line, int columns, BridgeRow &row)
{
    if (columns == 5) {
        sscanf(line, "%*s%63s%63s%*s%63s", row.mac, row.islocal, row.interface);
    } else {
        sscanf(line, "%*s%*s%63s%63s%*s%63s", row.mac, row.islocal, row.interface);
    }
}

// Returns whether the row was a device behind an Ethernet port, and was handled.
bool handle_bridge_row(const BridgeRow &row, const char *function)
{
    if (strcmp(row.islocal, "no") != 0 ||
        (strstr(row.interface, "eth") == nullptr && strstr(row.interface, "ra") == nullptr)) {
        return false;
    }
    ovani_mac_event event{};
    if (!parse_colon_mac(row.mac, event.mac)) {
        return false;
    }
    char port_number = 0;
    char port_type = static_cast<char>(255);
    eth_num2lanport_no_type(row.interface, &port_number, &port_type);
    if (port_type != 0) {
        // Wi-Fi stations are found by their association events.
        ovani_log_as(function, VELM_LOG_DEBUG,
                     "[ovani_lanhost_info_init] lanport_type is not 0, we ignore it. ");
        return false;
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "[ovani_lanhost_info_init]-- DEALING port starts. ");
    ovani_port_status_event_up(static_cast<unsigned char>(port_number));
    ovani_log_as(function, VELM_LOG_DEBUG, "[ovani_lanhost_info_init]-- DEALING port ends. ");
    event.event_id = 1;
    event.action = 1;
    copy_text(event.brname, OVANI_BR_NAME);
    copy_text(event.eth_num, row.interface);
    ovani_log_as(function, VELM_LOG_DEBUG, "[ovani_lanhost_info_init]-- DEALING  mac starts. ");
    ovani_mac_event_add(&event);
    ovani_log_as(function, VELM_LOG_DEBUG, "[ovani_lanhost_info_init]-- DEALING  mac ends. ");
    return true;
}

// The number of columns in the bridge's listing, 0 when it has no learned MAC.
int bridge_columns()
{
    char columns[GET_CMD_RES_LEN] = {};
    get_cmd_res("brctl showmacs br0 | sed -n '2p' | grep : | awk '{print NF}'", columns, sizeof columns);
    return decimal_value(columns);
}

void read_bridge_table(const char *function = __builtin_FUNCTION())
{
    ovani_log_as(function, VELM_LOG_DEBUG, "[ovani_lanhost_info_init] ----------mac---------- \n");
    int columns = bridge_columns();
    if (columns == 0) {
        return;
    }
    CommandPipe pipe{"brctl showmacs br0"};
    if (!pipe) {
        ovani_log_as(function, VELM_LOG_ERR, "[ovani_lanhost_info_init] popen brctl showmacs br0 failed \n");
        return;
    }
    char line[512];
    read_line(pipe.get(), line); // the column headers
    int handled = 0;
    while (read_line(pipe.get(), line)) {
        ovani_log_as(function, VELM_LOG_DEBUG, "[ovani_lanhost_info_init] line is: %s.\n", line);
        if (columns != 5 && columns != 6) {
            return;
        }
        BridgeRow row{};
        scan_bridge_line(line, columns, row);
        ovani_log_as(function, VELM_LOG_DEBUG, "[ovani_lanhost_info_init] mac %s, local? %s, interface %s\n",
                     row.mac, row.islocal, row.interface);
        if (handled < OVANI_MAX_HOST_ENTRIES && handle_bridge_row(row, function)) {
            ++handled;
        }
    }
}

} // namespace

void ovani_lanhost_info_init()
{
    read_arp_cache();
    read_bridge_table();
}
