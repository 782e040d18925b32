#include "ovani/ovani_host_mgr.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "ovani/encoding_manager.h"
#include "ovani/ovani_br_mgr.h"
#include "ovani/ovani_config.h"
#include "ovani/ovani_device_type.h"
#include "ovani/ovani_event.h"
#include "ovani/ovani_fd.h"
#include "ovani/ovani_host_config.h"
#include "ovani/ovani_host_table.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_mac_table.h"
#include "ovani/ovani_presence.h"
#include "ovani/ovani_shell.h"
#include "platform/zkcfgif.h"

HostToIndexMap tmpHostToIndex[OVANI_MAX_HOST_ENTRIES];
unsigned int s_hostnumberofentries;
unsigned int s_hostmaxnumber;
char slaveAPMACs[OVANI_MAX_SLAVE_APS][16];
int g_slaveapnum;
int g_filtermode;
char black_mac[512];
char white_mac[512];

namespace {

struct host_url {
    char text[OVANI_URL_LEN];
};

host_url url_of_instance(int index)
{
    host_url url;
    snprintf(url.text, sizeof url.text, "%s%d.", OVANI_HOST_NODE_PATH, index);
    return url;
}

// The cache row of a host object, or null for an instance the cache cannot describe.
HostToIndexMap *row_of_instance(int index)
{
    return index >= 1 && index <= OVANI_MAX_HOST_ENTRIES ? &tmpHostToIndex[index - 1] : nullptr;
}

// The instance whose row has this MAC text, 0 for none. An empty text, the key of the free rows, matches
// none.
int instance_of_mac(const char *mac)
{
    if (mac == nullptr || *mac == '\0') {
        return 0;
    }
    for (int i = 0; i < OVANI_MAX_HOST_ENTRIES; ++i) {
        if (strcasecmp(tmpHostToIndex[i].hostHash, mac) == 0) {
            return i + 1;
        }
    }
    return 0;
}

void forget_row(HostToIndexMap &row)
{
    row = {};
    row.index = -1;
}

bool is_no_address(const char *ip)
{
    return ip == nullptr || *ip == '\0' || strcasecmp(ip, "NULL") == 0;
}

} // namespace

// --- Index cache

int ovani_get_host_associatedev_info(const char *mac)
{
    int index = instance_of_mac(mac);
    if (index == 0) {
        ovani_log(VELM_LOG_DEBUG, "hostinfo not found, mac=%s.\n", text_or_empty(mac));
    }
    return index;
}

int ovani_del_host_associatedev_info(const char *mac)
{
    int index = instance_of_mac(mac);
    if (index == 0) {
        ovani_log(VELM_LOG_DEBUG, "del Old hostinfo not found,mac=%s.\n", text_or_empty(mac));
        return 0;
    }
    ovani_del_associateddevice_info(index);
    return index;
}

// Dormant: no loader of this daemon puts an associated-device instance into a row. Kept for one that will.
int ovani_del_associateddevice_info(int hostindex)
{
    HostToIndexMap *row = row_of_instance(hostindex);
    if (row == nullptr) {
        return R_ERROR;
    }
    int index = row->index;
    if (index == -2) {
        ovani_log(VELM_LOG_DEBUG, "WLAN Device\n");
        return R_OK;
    }
    if (index < 1) {
        ovani_log(VELM_LOG_DEBUG, "delObject failed,url=%s,index=%d\n", row->path, index);
        return R_ERROR;
    }
    int ret = zkapi_obj_del(row->path, index, DEVFUNC_NOCALL_NOFLASH, ALL_BLOCK_LOCK);
    if (ret != 0) {
        ovani_log(VELM_LOG_ERR, "call delObject failed,url=%s,index=%d,error code = %d\n", row->path, index,
                  ret);
        return R_ERROR;
    }
    ovani_log(VELM_LOG_DEBUG, "delObject success,url=%s,index=%d\n", row->path, index);
    row->index = -1;
    return index;
}

// --- Start-up

namespace {

bool load_hosts_param_from_xml()
{
    char number_of_entries[OVANI_VALUE_LEN] = {};
    char max_number[OVANI_VALUE_LEN] = {};
    tConfigMap map[] = {
        {"HostNumberOfEntries", number_of_entries},
        {"LANHostMaxNumber", max_number},
        {},
    };
    ovani_log(VELM_LOG_DEBUG, "load_hosts_param_from_xml :start  \n");
    int ret = load_multi_config_from_xml_with_devfunc(map, OVANI_HOSTS_NODE_PATH);
    ovani_log(VELM_LOG_DEBUG, "end \n");
    if (ret != 0) {
        return false;
    }
    s_hostnumberofentries = static_cast<unsigned>(std::max(decimal_value(number_of_entries), 0));
    s_hostmaxnumber = static_cast<unsigned>(std::max(decimal_value(max_number), 0));
    return true;
}

// Fills the cache row of host object `index`. 0, -1 for a missing or unusable object, or the store's code.
int load_host_info_from_xml(int index)
{
    HostToIndexMap *row = row_of_instance(index);
    if (row == nullptr) {
        ovani_log(VELM_LOG_ERR, "param error:index is %d\n", index);
        return -1;
    }
    host_url url = url_of_instance(index);
    if (zkapi_obj_checkexist(url.text, OVANI_STORE_WAIT_MS) != 1) {
        return -1;
    }
    char mac[OVANI_VALUE_LEN] = {};
    char layer2_interface[OVANI_VALUE_LEN] = {};
    tConfigMap map[] = {
        {"MACAddress", mac},
        {"Layer2Interface", layer2_interface},
        {},
    };
    int ret = load_multi_config_from_xml(map, url.text);
    if (ret != 0) {
        ovani_log(VELM_LOG_ERR, "load %s error: %d\n", url.text, ret);
        return ret;
    }
    char key[OVANI_MAX_HOSTINFO_HASH_LEN] = {};
    if (mac_form_translate(mac, MAC_FORM_BARE_UPPER, key) == -1) {
        ovani_log(VELM_LOG_ERR, "load_host_info_from_xml mac_form_translate error");
        return -1;
    }
    copy_text(row->hostHash, key);
    copy_text(row->path, layer2_interface);
    row->index = -1;
    return 0;
}

} // namespace

int ovani_hostmgr_init()
{
    ovani_host_table_init();
    for (HostToIndexMap &row : tmpHostToIndex) {
        row = {};
    }
    if (!load_hosts_param_from_xml()) {
        return R_OK;
    }
    int last = static_cast<int>(std::min<unsigned>(s_hostmaxnumber, OVANI_MAX_HOST_ENTRIES));
    unsigned loaded = 0;
    for (int i = 1; i <= last; ++i) {
        if (load_host_info_from_xml(i) == 0 && ++loaded >= s_hostnumberofentries) {
            break;
        }
    }
    return R_OK;
}

// --- Creation and update

namespace {

// Texts of one add or update, computed from the event and the object's previous state. The capacities decide
// where a value is cut.
struct host_texts {
    char HostName[HOST_NAME_LEN];
    char InterfaceType[16];
    char ConnectionType[4];
    char Port[4];
    char DevType[4];
    char MACAddress[OVANI_MAC_STR_LEN]; // lower-case colon form
    char LatestActiveTime[32];
};

struct previous_state {
    bool known;
    char Active[8];
    char IPAddress[32];
    char MACAddress[32];
    char LatestActiveTime[32];

    bool active() const { return decimal_value(Active) != 0; }
};

constexpr char add_function[] = "ovani_add_host_info";

void convert_host_name(const char *name, char (&host_name)[HOST_NAME_LEN])
{
    copy_text(host_name, name);
    size_t length = strlen(name);
    if (length == 0) {
        return;
    }
    if (is_text_utf_eight(name, static_cast<long>(length)) != 0) {
        ovani_log_as(add_function, VELM_LOG_DEBUG, "***is_utf8 != 0\t is  utf8*****\r\n");
        return;
    }
    unsigned char converted[64] = {};
    unsigned int converted_length = sizeof converted;
    if (gbk_to_utf_eight(reinterpret_cast<const unsigned char *>(name), static_cast<unsigned int>(length),
                         converted, &converted_length) == 0) {
        ovani_log_as(add_function, VELM_LOG_DEBUG, "***ret_convert = 0 \tconvert succ*****");
        copy_text(host_name, reinterpret_cast<const char *>(converted));
    } else {
        ovani_log_as(add_function, VELM_LOG_DEBUG, "***ret_convert != 0\t convert fail*****");
    }
}

bool is_filtered_out(const char *mac)
{
    switch (g_filtermode) {
    case 1:
        return strcasestr(black_mac, mac) != nullptr;
    case 2:
        return strcasestr(white_mac, mac) == nullptr;
    default:
        return false;
    }
}

void apply_mac_filter(ovani_dhcpd_host_event &hostinfo)
{
    if (hostinfo.Active != nullptr && is_filtered_out(text_or_empty(hostinfo.MACAddress))) {
        hostinfo.Active[0] = '0';
        hostinfo.Active[1] = '\0';
    }
}

// Whether a cached instance still has its object in the store.
bool object_exists(int index)
{
    if (index < 1) {
        return false;
    }
    int exists = zkapi_obj_checkexist(url_of_instance(index).text, OVANI_STORE_WAIT_MS);
    ovani_log_as(add_function, VELM_LOG_DEBUG, "ret1=%d\n", exists);
    return exists != 0;
}

// Creates an object for a host; `index` is its stale cached instance, or 0. Returns the new instance, or -1.
int create_host_object(const ovani_dhcpd_host_event &hostinfo, int index)
{
    if (s_hostnumberofentries >= s_hostmaxnumber) {
        // The first text announces an eviction; there is none.
        ovani_log_as(add_function, VELM_LOG_ERR, "ovani_add_host_info ovani_del_inactive_host");
        ovani_log_as(add_function, VELM_LOG_ERR, "Error: hostNumberOfEntries %d, hostMaxNumber %d\n",
                     static_cast<int>(s_hostnumberofentries), static_cast<int>(s_hostmaxnumber));
        return -1;
    }
    if (is_no_address(hostinfo.IPAddress)) {
        ovani_log_as(add_function, VELM_LOG_DEBUG, "Error: Do not add No IP host mac = %s\n",
                     text_or_empty(hostinfo.MACAddress));
        return -1;
    }
    if (HostToIndexMap *row = row_of_instance(index)) {
        forget_row(*row);
    }
    int ret = zkapi_obj_add(OVANI_HOST_NODE_PATH, &index, DEVFUNC_NOCALL_NOINFORM, ALL_BLOCK_LOCK);
    if (ret != 0 || index < 1) {
        ovani_log_as(add_function, VELM_LOG_ERR, "Create Host Node Error: %s,%d\n", OVANI_HOST_NODE_PATH,
                     ret);
        return -1;
    }
    ++s_hostnumberofentries;
    ovani_log_as(add_function, VELM_LOG_DEBUG,
                 "Create Host Node Success: s_hostnumberofentries =%d,url=%s,index=%d\n",
                 static_cast<int>(s_hostnumberofentries), OVANI_HOST_NODE_PATH, index);
    return index;
}

previous_state read_previous_state(const char *url)
{
    char active[OVANI_VALUE_LEN] = {};
    char ip[OVANI_VALUE_LEN] = {};
    char mac[OVANI_VALUE_LEN] = {};
    char latest_active_time[OVANI_VALUE_LEN] = {};
    tConfigMap map[] = {
        {"Active", active},
        {"IPAddress", ip},
        {"MACAddress", mac},
        {"LatestActiveTime", latest_active_time},
        {},
    };
    previous_state previous{};
    previous.known = load_multi_config_from_xml(map, url) == 0;
    copy_text(previous.Active, active);
    copy_text(previous.IPAddress, ip);
    copy_text(previous.MACAddress, mac);
    copy_text(previous.LatestActiveTime, latest_active_time);
    return previous;
}

// A host seen again where it was keeps the time it became active; any change makes it active now.
void compute_latest_active_time(const ovani_dhcpd_host_event &hostinfo, const previous_state &previous,
                                host_texts &texts)
{
    bool unchanged = previous.known && previous.active() && hostinfo.IPAddress != nullptr &&
                     strcmp(hostinfo.IPAddress, previous.IPAddress) == 0 &&
                     strcasecmp(previous.MACAddress, texts.MACAddress) == 0;
    if (unchanged) {
        copy_text(texts.LatestActiveTime, previous.LatestActiveTime);
    } else {
        snprintf(texts.LatestActiveTime, sizeof texts.LatestActiveTime, "%ld", ovani_get_system_uptime());
    }
    ovani_log_as(add_function, VELM_LOG_DEBUG, "sacktime:%s\n", texts.LatestActiveTime);
}

template <size_t N>
void ovani_get_connection_type_from_ifacetype(const char *iface_type, char (&connection_type)[N])
{
    if (iface_type == nullptr) {
        ovani_log(VELM_LOG_DEBUG, "Param Error: %s,%d\n", __func__, __LINE__);
        connection_type[0] = '\0';
        return;
    }
    copy_text(connection_type, strcasecmp(iface_type, "Ethernet") == 0 ? "0" : "1");
}

template <size_t N>
void get_port_from_layer2interface(const char *layer2_interface, char (&port)[N])
{
    int number = 0;
    for (const char *table : {"LANEthernetInterfaceConfig.", "WLANConfiguration."}) {
        const char *found = strstr(text_or_empty(layer2_interface), table);
        if (found != nullptr) {
            number = decimal_value(found + strlen(table));
            break;
        }
    }
    if (number == 0) {
        ovani_log(VELM_LOG_DEBUG, "change port num from 0 to 255\n");
        number = 255;
    }
    char text[16];
    snprintf(text, sizeof text, "%d", number);
    copy_text(port, text);
}

// Whether a host is a mesh satellite: remembered as one, or named like one, which makes it remembered.
bool is_mesh_slave(const char *mac, const char *host_name)
{
    for (int i = 0; i < g_slaveapnum; ++i) {
        if (strcmp(mac, slaveAPMACs[i]) == 0) {
            return true;
        }
    }
    if (strstr(host_name, "SlaveAP") == nullptr && strstr(host_name, "Gleifala") == nullptr) {
        return false;
    }
    if (g_slaveapnum < OVANI_MAX_SLAVE_APS) {
        copy_text(slaveAPMACs[g_slaveapnum], mac);
        ++g_slaveapnum;
    }
    return true;
}

bool is_mesh_master()
{
    char mesh_mode[OVANI_VALUE_LEN] = {};
    return zkapi_singlevalue_get("InternetGatewayDevice.LANDevice.1.WLANMeshConfiguration.MeshMode",
                                 mesh_mode, DEVFUNC_NOCALL, OVANI_STORE_WAIT_MS) == 0 &&
           strstr(mesh_mode, "Master") != nullptr;
}

// In a mesh the controller knows better than the bridge how a host is connected.
void apply_mesh(ovani_dhcpd_host_event &hostinfo, const previous_state &previous, host_texts &texts)
{
    if (!is_mesh_master()) {
        return;
    }
    const char *mac = text_or_empty(hostinfo.MACAddress);
    char upper_mac[OVANI_MAC_STR_LEN] = {};
    mac_form_translate(mac, MAC_FORM_COLON_UPPER, upper_mac);
    bool slave = is_mesh_slave(mac, texts.HostName);
    if (slave && previous.active() && strcmp(text_or_empty(hostinfo.AddressSource), "STATIC") == 0 &&
        previous.IPAddress[0] != '\0' && hostinfo.IPAddress != nullptr &&
        strcmp(hostinfo.IPAddress, previous.IPAddress) != 0) {
        hostinfo.IPAddress = nullptr;
    }
    char type[CONNECT_TYPE_LEN] = {};
    ovani_meshhost_connect_type_get(upper_mac, type, sizeof type, slave ? 1 : 0);
    if (strcmp(type, "wireless") == 0) {
        copy_text(texts.ConnectionType, "1");
        copy_text(texts.InterfaceType, "802.11");
    } else if (strcmp(type, "wired") == 0) {
        copy_text(texts.ConnectionType, "0");
        copy_text(texts.InterfaceType, "Ethernet");
    }
    ovani_log_as(add_function, VELM_LOG_DEBUG,
                 "ovani_add_host_info isMeshSlave = %d mesh: mac = %s, type = %s, option60 = %s\n",
                 slave ? 1 : 0, upper_mac, type, text_or_empty(hostinfo.X_QV_Option60));
}

// The store's write calls take a plain pointer; they only read through it.
void *value(const char *text)
{
    return const_cast<char *>(text);
}

// A null value ends a map: what stands behind it is not written.
int write_host_object(const ovani_dhcpd_host_event &event, host_texts &texts, const char *url)
{
    tConfigMap hostparamvaluemap[] = {
        {"IPAddress", value(event.IPAddress)},
        {"AddressSource", value(event.AddressSource)},
        {"AckTime", value(event.AckTime)},
        {"LeaseTimeRemaining", value(event.LeaseTimeRemaining)},
        {"LatestActiveTime", texts.LatestActiveTime},
        {"HostName", texts.HostName},
        {"DeviceType", value(event.AssociatedDeviceType)},
        {"X_QV_DeviceType", texts.DevType},
        {"MACAddress", texts.MACAddress},
        {"Layer2Interface", value(event.Layer2Interface)},
        {"InterfaceType", texts.InterfaceType},
        {"Port", texts.Port},
        {"ConnectionType", texts.ConnectionType},
        {"Active", event.Active},
        {},
    };
    tConfigMap hostparamvaluemap_nohostname[] = {
        {"IPAddress", value(event.IPAddress)},
        {"AddressSource", value(event.AddressSource)},
        {"AckTime", value(event.AckTime)},
        {"LeaseTimeRemaining", value(event.LeaseTimeRemaining)},
        {"LatestActiveTime", texts.LatestActiveTime},
        {"DeviceType", value(event.AssociatedDeviceType)},
        {"MACAddress", texts.MACAddress},
        {"Layer2Interface", value(event.Layer2Interface)},
        {"InterfaceType", texts.InterfaceType},
        {"Port", texts.Port},
        {"ConnectionType", texts.ConnectionType},
        {"Active", event.Active},
        {},
    };
    tConfigMap hostparamvaluemap_noip[] = {
        {"AckTime", value(event.AckTime)},
        {"LatestActiveTime", texts.LatestActiveTime},
        {"MACAddress", texts.MACAddress},
        {"Layer2Interface", value(event.Layer2Interface)},
        {"InterfaceType", texts.InterfaceType},
        {"Port", texts.Port},
        {"ConnectionType", texts.ConnectionType},
        {"Active", event.Active},
        {},
    };
    if (event.IPAddress == nullptr) {
        ovani_log_as(add_function, VELM_LOG_DEBUG, "map is hostparamvaluemap_noip\n");
        return write_multi_config_to_xml_for_host_add(hostparamvaluemap_noip, url);
    }
    if (strcmp(text_or_empty(event.AddressSource), "STATIC") == 0 && texts.HostName[0] == '\0') {
        ovani_log_as(add_function, VELM_LOG_DEBUG, "map is hostparamvaluemap_nohostname\n");
        return write_multi_config_to_xml_for_host_add(hostparamvaluemap_nohostname, url);
    }
    ovani_log_as(add_function, VELM_LOG_DEBUG, "map is hostparamvaluemap\n");
    return write_multi_config_to_xml_for_host_add(hostparamvaluemap, url);
}

// The host name decides first, the vendor class only where the name says nothing.
void compute_device_type(const ovani_dhcpd_host_event &hostinfo, host_texts &texts)
{
    trans_hostnametodevtype(texts.HostName, texts.DevType, sizeof texts.DevType);
    if (strcmp(texts.DevType, "0") == 0) {
        trans_opt60todevtype(text_or_empty(hostinfo.X_QV_Option60), texts.DevType, sizeof texts.DevType);
    }
}

} // namespace

int ovani_add_host_info(ovani_dhcpd_host_event *hostinfo)
{
    ovani_log(VELM_LOG_DEBUG, "ovani_add_host_info::entry!!! \n");
    if (hostinfo == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_add_host_info::hostinfo nullp err!!\r\n");
        return 0;
    }
    host_texts texts{};
    copy_text(texts.InterfaceType, hostinfo->InterfaceType);
    convert_host_name(text_or_empty(hostinfo->HostName), texts.HostName);
    if (mac_form_translate(hostinfo->MACAddress, MAC_FORM_COLON_LOWER, texts.MACAddress) == -1) {
        ovani_log(VELM_LOG_ERR, "ovani_del_host_info mac_form_translate error");
        return -1;
    }
    if (access(SPEEDLIMIT_MACLIST_FILE, F_OK) == 0) {
        handler_speedlimit_config(texts.MACAddress);
    }
    apply_mac_filter(*hostinfo);

    int index = ovani_del_host_associatedev_info(hostinfo->MACAddress);
    ovani_log(VELM_LOG_DEBUG, "temp_url=%s index=%d\n", url_of_instance(index).text, index);
    if (!object_exists(index)) {
        index = create_host_object(*hostinfo, index);
        if (index == -1) {
            return -1;
        }
    }

    host_url url = url_of_instance(index);
    previous_state previous = read_previous_state(url.text);
    compute_latest_active_time(*hostinfo, previous, texts);
    ovani_get_connection_type_from_ifacetype(hostinfo->InterfaceType, texts.ConnectionType);
    get_port_from_layer2interface(hostinfo->Layer2Interface, texts.Port);
    apply_mesh(*hostinfo, previous, texts);
    compute_device_type(*hostinfo, texts);

    int ret = write_host_object(*hostinfo, texts, url.text);
    if (ret != 0) {
        ovani_log(VELM_LOG_ERR, "Error:write_multi_config_to_xml:Set HostInfo url=%s,ret=%d\n", url.text,
                  ret);
        return -1;
    }
    HostToIndexMap *row = row_of_instance(index);
    if (row == nullptr) {
        ovani_log(VELM_LOG_ERR, "More Than Max Host Entries Error: index is %d,max entries is %d\n", index,
                  OVANI_MAX_HOST_ENTRIES);
        return index;
    }
    copy_text(row->hostHash, hostinfo->MACAddress);
    ovani_log(VELM_LOG_DEBUG, "before add_associateddevice_info: index is %d,Temp Info is %s\n", index,
              row->hostHash);
    return index;
}

namespace {

// The store's answer whether the object of a cached host is there to be changed, 0 when not; logs as its
// caller.
int known_object(const char *function, const char *mac, int index, const host_url &url)
{
    ovani_log_as(function, VELM_LOG_DEBUG, "temp_url=%s index=%d\n", url.text, index);
    int ret = 0;
    if (index >= 1) {
        ret = zkapi_obj_checkexist(url.text, OVANI_STORE_WAIT_MS);
        ovani_log_as(function, VELM_LOG_DEBUG, "ret=%d\n", ret);
    }
    if (ret == 0) {
        ovani_log_as(function, VELM_LOG_ERR, "index not exist!! mac=%s\r\n", text_or_empty(mac));
    }
    return ret;
}

// Announces a changed object, or logs that the store refused; logs as its caller.
int announce_change(const char *function, const host_url &url, int index, int ret)
{
    if (ret != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "Error:write_multi_config_to_xml:Set HostInfo url=%s,ret=%d\n",
                     url.text, ret);
        return -1;
    }
    ovani_host_status_ubus_send(index);
    ovani_log_as(function, VELM_LOG_DEBUG, "ovani_host_status_ubus_send param change  index is %d\n", index);
    return index;
}

} // namespace

int ovani_add_host_ipv6_info(const ovani_dhcpd_host_event *hostinfo)
{
    ovani_log(VELM_LOG_DEBUG, "ovani_add_host_info::entry!!! \n");
    if (hostinfo == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_add_host_info::hostinfo nullp err!!\r\n");
        return 0;
    }
    int index = ovani_del_host_associatedev_info(hostinfo->MACAddress);
    host_url url = url_of_instance(index);
    // With neither address this stays the result, and reads as a failure.
    int ret = known_object(__func__, hostinfo->MACAddress, index, url);
    if (ret == 0) {
        return 0;
    }
    if (hostinfo->IPv6Address != nullptr) {
        ret = zkcfg_setsingleparamval(url.text, "IPv6Address", hostinfo->IPv6Address, OVANI_STORE_WAIT_MS);
    }
    if (hostinfo->IPv6LLAddress != nullptr) {
        ret =
            zkcfg_setsingleparamval(url.text, "IPv6LLAddress", hostinfo->IPv6LLAddress, OVANI_STORE_WAIT_MS);
    }
    return announce_change(__func__, url, index, ret);
}

// --- Removal and port updates

namespace {

bool delete_host_object(int index)
{
    constexpr char function[] = "ovani_del_host_info";
    if (zkapi_obj_del(OVANI_HOST_NODE_PATH, index, DEVFUNC_NOCALL_NOFLASH, ALL_BLOCK_LOCK) != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "ZKAPI_Obj_Del fail!\n");
        return false;
    }
    forget_row(*row_of_instance(index));
    if (s_hostnumberofentries > 0) {
        --s_hostnumberofentries;
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "ZKAPI_Obj_Del succeed! s_hostnumberofentries is %d\n",
                 static_cast<int>(s_hostnumberofentries));
    return true;
}

int mark_host_object_inactive(int index)
{
    constexpr char function[] = "ovani_del_host_info";
    char uptime[32];
    snprintf(uptime, sizeof uptime, "%ld", ovani_get_system_uptime());
    tConfigMap map[] = {
        {"LatestInactiveTime", uptime},
        {"Active", value("0")},
        {"LeaseTimeRemaining", value("0")},
        {},
    };
    host_url url = url_of_instance(index);
    int ret = write_multi_config_to_xml(map, url.text);
    if (ret != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "Set Del Host Node Info Error: %s,%d\n", url.text, ret);
    } else {
        ovani_log_as(function, VELM_LOG_DEBUG, "set success,url=%s,index=%d\n", url.text, index);
    }
    return ret;
}

} // namespace

int ovani_del_host_info(const ovani_dhcpd_host_event *hostinfo)
{
    bool retired = false;
    return ovani_del_host_info(hostinfo, retired);
}

int ovani_del_host_info(const ovani_dhcpd_host_event *hostinfo, bool &retired)
{
    retired = false;
    if (hostinfo == nullptr) {
        return 0;
    }
    int index = instance_of_mac(hostinfo->MACAddress);
    if (index == 0) {
        char mac[OVANI_MAC_STR_LEN] = {};
        if (mac_form_translate(hostinfo->MACAddress, MAC_FORM_COLON_UPPER, mac) == -1) {
            ovani_log(VELM_LOG_ERR, "ovani_del_host_info mac_form_translate error");
        } else if (mac[0] == '\0') {
            ovani_log(VELM_LOG_ERR, "ovani_del_host_info tmp_macStr is null");
        } else {
            ovani_log(VELM_LOG_DEBUG, "delObject not found,mac=%s\n", hostinfo->MACAddress);
        }
        return 0;
    }
    ovani_del_associateddevice_info(index);
    if (ovani_operator_type_code_get() == OPTYPE_CT) {
        retired = delete_host_object(index);
    } else if (mark_host_object_inactive(index) == 0) {
        retired = true;
    } else {
        return -1;
    }
    ovani_log(VELM_LOG_DEBUG, "hostNumberOfEntries is %d\n", static_cast<int>(s_hostnumberofentries));
    return index;
}

int ovani_del_host_info_by_node(host_node *pNodeInfo)
{
    if (pNodeInfo == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_del_host_info_by_node::pNodeInfo NULLP error!!");
        return R_ERROR;
    }
    char ip[32];
    char empty[] = "";
    char inactive[] = "0";
    mac_text mac = mac_bare_text(pNodeInfo->mac);
    copy_text(ip, ovani_ipv4_ltostr(pNodeInfo->ip));
    ovani_dhcpd_host_event hostinfo{
        .action = "DEL",
        .IPAddress = ip,
        .AddressSource = address_source_text(*pNodeInfo),
        .AckTime = empty,
        .LeaseTimeRemaining = empty,
        .HostName = empty,
        .AssociatedDeviceType = empty,
        .MACAddress = mac.data(),
        .Layer2Interface = ovani_layer2_interface_get_by_mac(pNodeInfo->mac),
        .InterfaceType = ovani_port_type_get_by_mac(pNodeInfo->mac),
        .Active = inactive,
    };
    bool retired = false;
    int index = ovani_del_host_info(&hostinfo, retired);
    if (index > 0) {
        ovani_host_status_ubus_send(index);
    }
    if (retired) {
        ovani_presence_offline(*pNodeInfo);
    }
    return R_OK;
}

int ovani_update_host_lanport(const ovani_dhcpd_host_event *hostinfo, int portno)
{
    ovani_log(VELM_LOG_DEBUG, "ovani_add_host_info::entry!!! \n");
    if (hostinfo == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_add_host_info::hostinfo nullp err!!\r\n");
        return 0;
    }
    int index = ovani_get_host_associatedev_info(hostinfo->MACAddress);
    host_url url = url_of_instance(index);
    if (known_object(__func__, hostinfo->MACAddress, index, url) == 0) {
        return 0;
    }
    char port[16];
    snprintf(port, sizeof port, "%d", portno);
    int ret = zkcfg_setsingleparamval(url.text, "Port", port, OVANI_STORE_WAIT_MS);
    return announce_change(__func__, url, index, ret);
}

// --- Interface address

int get_lanif_addr(const char *ifname, char *ifaddr)
{
    if (ifname == nullptr || ifaddr == nullptr) {
        return -1;
    }
    UniqueFd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    ifreq request{};
    copy_text(request.ifr_name, ifname);
    if (!fd || ioctl(fd.get(), SIOCGIFADDR, &request) != 0) {
        return -1;
    }
    sockaddr_in address{};
    static_assert(sizeof address <= sizeof request.ifr_addr);
    memcpy(&address, &request.ifr_addr, sizeof address);
    return inet_ntop(AF_INET, &address.sin_addr, ifaddr, INET_ADDRSTRLEN) != nullptr ? 0 : -1;
}
