#include "fuzz/daemon.h"

#include <cstring>
#include <string_view>

#include "fuzz/fuzz.h"
#include "ovani/ovani_br_mgr.h"
#include "ovani/ovani_host_config.h"
#include "ovani/ovani_host_mgr.h"
#include "ovani/ovani_host_table.h"
#include "ovani/ovani_lan_port_config.h"
#include "ovani/ovani_mac_table.h"
#include "ovani/ovani_memory.h"
#include "ovani/ovani_port_mgr.h"
#include "ovani/ovani_presence.h"

namespace {

constexpr int most_hosts = 8; // few, so that inputs get there
std::string command_output;

void empty_tables()
{
    while (g_host_table_ipv4.top != nullptr) {
        ovani_host_node_delete(&g_host_table_ipv4, g_host_table_ipv4.top);
    }
    while (g_mac_table.top != nullptr) {
        ovani_mac_node_delete_top(&g_mac_table);
    }
    PROMISE(MemAllocCount[MTYPE_HOST_NODE] == 0 && MemAllocCount[MTYPE_MAC_NODE] == 0);
}

// An enabled WAN connection under every operator's names.
void store_wan_connection()
{
    std::string device = "InternetGatewayDevice.WANDevice.1.WANConnectionDevice.1.";
    std::string connection = device + "WANIPConnection.1.";
    fake::platform().objects = {device, connection};
    for (const char *name : {"X_CMCC_VLANIDMark", "X_TRUE_VlanID"}) {
        fake::platform().values[connection + name] = "100";
    }
    for (const char *name : {"X_CMCC_ServiceList", "X_CU_ServiceList", "X_TRUE_ServiceList"}) {
        fake::platform().values[connection + name] = "INTERNET";
    }
    fake::platform().values[connection + "Enable"] = "1";
    fake::platform().values[connection + "X_CMCC_VLANMode"] = "2";
    fake::platform().values[device + "X_CU_VLANEnabled"] = "1";
    fake::platform().values[device + "X_CU_VLAN"] = "100";
}

// Reading every port takes longer than most inputs: it is done anew for another operator only.
void start_ports(int carrier)
{
    static int started = -1;
    if (carrier != started) {
        vlan_bind_init();
        ovani_port_mgr_init();
        started = carrier;
    }
    std::ranges::fill(s_lan_vlan_bind, LanEthIntfVlanBind{});
    for (auto &port : s_vlan_bind_control) {
        std::ranges::fill(port, LanVlanBindControl{});
    }
    std::ranges::fill(s_vlanbind_wan_param, qv_wan_param{});
    std::ranges::fill(g_LanWorkMode, LanEthIntfWorkMode{});
}

void store_mesh()
{
    std::string mesh = "InternetGatewayDevice.LANDevice.1.WLANMeshConfiguration.";
    fake::platform().values[mesh + "MeshMode"] = "Master";
    fake::platform().values[mesh + "Controller.Repeater.1.mac_br0"] = "00:11:22:aa:bb:cc";
    fake::platform().values[mesh + "Controller.Repeater.1.connect_type"] = "wireless";
}

} // namespace

void start_daemon(uint8_t profile)
{
    int carrier = profile % 4;
    empty_tables();
    fake::reset();
    fake::platform().carrier = carrier;
    if ((profile & 4) != 0) {
        store_mesh();
    }
    std::string hosts = OVANI_HOSTS_NODE_PATH;
    fake::platform().values[hosts + "HostNumberOfEntries"] = "0";
    fake::platform().values[hosts + "LANHostMaxNumber"] = std::to_string(most_hosts);
    store_wan_connection();
    command_output.clear();
    s_hostnumberofentries = 0;
    s_hostmaxnumber = 0;
    g_slaveapnum = 0;
    g_filtermode = 0;
    ovani_operator_type_init();
    ovani_areacode_init();
    ovani_mac_table_init();
    ovani_presence_init();
    ovani_hostmgr_init();
    start_ports(carrier);
    fake::platform().log.clear();
    fake::platform().calls.clear();
}

void check_daemon()
{
    int hosts = 0;
    for (const host_node *node = g_host_table_ipv4.top; node != nullptr; node = node->next) {
        ++hosts;
        PROMISE(node->next == nullptr || node->next->prev == node);
        PROMISE(memchr(node->HostName, '\0', sizeof node->HostName) != nullptr);
        PROMISE(memchr(node->DeviceType, '\0', sizeof node->DeviceType) != nullptr);
        PROMISE(memchr(node->option60, '\0', sizeof node->option60) != nullptr);
    }
    PROMISE(hosts == g_host_table_ipv4.host_node_num && hosts == MemAllocCount[MTYPE_HOST_NODE]);
    int stations = 0;
    for (const mac_node *node = g_mac_table.top; node != nullptr; node = node->next) {
        ++stations;
        PROMISE(node->next == nullptr || node->next->prev == node);
    }
    PROMISE(s_hostnumberofentries <= most_hosts);
    PROMISE(stations == g_mac_table.mac_node_num && stations <= OVANI_MAC_MAX_NUM);
    for (const HostToIndexMap &row : tmpHostToIndex) {
        PROMISE(memchr(row.hostHash, '\0', sizeof row.hostHash) != nullptr);
    }
    for (const LanEthIntfVlanBind &config : s_lan_vlan_bind) {
        PROMISE(config.VLAN[LAN_PARAM_LEN - 1] == '\0' && config.Mode[LAN_PARAM_LEN - 1] == '\0');
    }
}

// --- No shell

void set_command_output(std::string text)
{
    command_output = std::move(text);
}

namespace {

// The commands the daemon has, without the letters that an address may have.
constexpr const char *commands[] = {
    "brctl showmacs br0 |grep -i  | awk '{print $(NF-2),$(NF-1),$NF}'",
    "brctl showmacs br0 | grep -i  | awk '{print $NF}'",
    "brctl showmacs br0 | sed -n '2p' | grep : | awk '{print NF}'",
    "brctl showmacs br0",
    "ip -6 neigh|grep -i |grep lladdr",
    "cat /qvconf/speedlimit_maclist | awk '{print NF}'",
    "meshinfo repeater_update",
    "/sbin/arp -d `cat /proc/net/arp | grep -i  | awk '{ print $1 }'`",
    "ubus send dhcp_user_event '{\"dhcp_user_string\":\"#NB6ADD#GUA##\"}'",
    "ubus send dhcp_user_event '{\"dhcp_user_string\":\"#NB6DEL#GUA##\"}'",
    "ubus send dhcp_user_event '{\"dhcp_user_string\":\"#NB6ADD#LLA##\"}'",
    "ubus send dhcp_user_event '{\"dhcp_user_string\":\"#NB6DEL#LLA##\"}'",
};

std::string without_address_letters(std::string text)
{
    std::erase_if(text, [](unsigned char c) { return isxdigit(c) != 0 || c == ':' || c == '.'; });
    return text;
}

bool is_command(const char *command)
{
    return std::ranges::any_of(commands, [bare = without_address_letters(command)](const char *known) {
        return without_address_letters(known) == bare;
    });
}

FILE *open_output()
{
    // An empty buffer cannot be opened.
    return command_output.empty() ? fopen("/dev/null", "re")
                                  : fmemopen(command_output.data(), command_output.size(), "r");
}

} // namespace

extern "C" {

int __wrap_system(const char *command)
{
    PROMISE(is_command(command));
    return 0;
}

FILE *__wrap_popen(const char *command, const char *)
{
    PROMISE(is_command(command));
    return open_output();
}

int __wrap_pclose(FILE *pipe)
{
    return fclose(pipe);
}

FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode)
{
    constexpr std::string_view answered[] = {"/proc/net/arp", SPEEDLIMIT_MACLIST_FILE};
    bool is_answered = std::ranges::find(answered, path) != std::end(answered);
    return is_answered ? open_output() : __real_fopen(path, mode);
}

} // extern "C"
