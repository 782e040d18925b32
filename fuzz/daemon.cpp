#include <cstring>
#include <string_view>

#include "fuzz/fuzz.h"
#include "ovani/ovani_host_config.h"
#include "ovani/ovani_host_index.h"
#include "ovani/ovani_host_table.h"
#include "ovani/ovani_mac_table.h"
#include "ovani/ovani_memory.h"
#include "ovani/ovani_start.h"
#include "tests/fake/fake_platform.h"

namespace {

#define GATEWAY "InternetGatewayDevice."
#define WAN GATEWAY "WANDevice.1.WANConnectionDevice.1."
#define WAN_IP WAN "WANIPConnection.1."
#define MESH GATEWAY "LANDevice.1.WLANMeshConfiguration."

constexpr int MOST_HOSTS = 8; // few, so that inputs get there

constexpr const char *STORED[][2] = {
    {GATEWAY "LANDevice.1.Hosts.HostNumberOfEntries", "0"},
    {GATEWAY "LANDevice.1.Hosts.LANHostMaxNumber", "8"},
    {WAN_IP "Enable", "1"},
    {WAN_IP "X_CMCC_ServiceList", "INTERNET"},
    {WAN_IP "X_TRUE_ServiceList", "INTERNET"},
    {WAN_IP "X_CU_ServiceList", "INTERNET"},
    {WAN_IP "X_CMCC_VLANMode", "2"},
    {WAN_IP "X_CMCC_VLANIDMark", "100"},
    {WAN_IP "X_TRUE_VlanID", "100"},
    {WAN "X_CU_VLANEnabled", "1"},
    {WAN "X_CU_VLAN", "100"},
    {MESH "MeshMode", "Slave"},
    {MESH "Controller.Repeater.1.mac_br0", "00:11:22:aa:bb:cc"},
    {MESH "Controller.Repeater.1.connect_type", "wireless"},
};

} // namespace

void start_daemon(uint8_t profile)
{
    fake::reset();
    fake::platform().log_level = 3;
    fake::platform().keep_calls = false;
    fake::platform().carrier = profile % 4;
    fake::platform().objects = {WAN, WAN_IP};
    for (const auto &[path, value] : STORED) {
        fake::platform().values[path] = value;
    }
    if ((profile & 4) != 0) {
        fake::platform().values[MESH "MeshMode"] = "Master";
    }
    set_command_output({});
    ovani_start(0, nullptr, [](void *(*)(void *)) { return 0; });
}

namespace {

// The nodes of a table, each linked both ways.
template <typename Node>
int count_nodes(const Node *top)
{
    int count = 0;
    for (const Node *node = top; node != nullptr; node = node->next) {
        PROMISE(node->next == nullptr || node->next->prev == node);
        ++count;
    }
    return count;
}

} // namespace

void check_daemon()
{
    int hosts = count_nodes(g_host_table_ipv4.top);
    int stations = count_nodes(g_mac_table.top);
    PROMISE(hosts == g_host_table_ipv4.host_node_num && hosts == MemAllocCount[MTYPE_HOST_NODE]);
    PROMISE(stations == g_mac_table.mac_node_num && stations == MemAllocCount[MTYPE_MAC_NODE]);
    PROMISE(stations <= OVANI_MAC_MAX_NUM && s_hostnumberofentries <= MOST_HOSTS);
}

// --- No shell

namespace {

std::vector<char> command_output;

constexpr const char *COMMANDS[] = {
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
    return std::ranges::any_of(COMMANDS, [bare = without_address_letters(command)](const char *known) {
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

void set_command_output(Bytes output)
{
    command_output = copy_of(output);
}

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
    std::string_view file{path};
    bool answered = file == "/proc/net/arp" || file == SPEEDLIMIT_MACLIST_FILE;
    return answered ? open_output() : __real_fopen(path, mode);
}

} // extern "C"
