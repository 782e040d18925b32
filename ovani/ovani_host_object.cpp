#include "ovani/ovani_host_object.h"

#include <cstring>
#include <strings.h>

#include "ovani/encoding_manager.h"
#include "ovani/ovani_config.h"
#include "ovani/ovani_device_type.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_shell.h"
#include "platform/zkcfgif.h"

char slaveAPMACs[OVANI_MAX_SLAVE_APS][16];
int g_slaveapnum;
int g_filtermode;
char black_mac[512];
char white_mac[512];

void ovani_host_object_init()
{
    g_slaveapnum = 0;
    g_filtermode = 0;
}

// --- Names

void convert_host_name(char *name, char (&host_name)[HOST_NAME_LEN], const NameLines &lines,
                       const char *function)
{
    copy_text(host_name, name);
    if (host_name[0] == '\0') {
        return;
    }
    size_t length = strlen(name);
    if (is_text_utf_eight(name, static_cast<long>(length)) != 0) {
        ovani_log_as(function, VELM_LOG_DEBUG, "%s", lines.is_utf8);
        return;
    }
    auto *gbk = reinterpret_cast<unsigned char *>(name);
    if (lines.is_not_utf8 != nullptr) {
        ovani_log_as(function, VELM_LOG_DEBUG, "%s", lines.is_not_utf8);
        ovani_convert_gbk_host_endian(gbk);
    }
    unsigned char converted[64] = {};
    unsigned int converted_length = sizeof converted;
    bool fits = gbk_to_utf_eight(gbk, static_cast<unsigned int>(length), converted, &converted_length) == 0;
    ovani_log_as(function, VELM_LOG_DEBUG, "%s", fits ? lines.converted : lines.failed);
    copy_text(host_name, fits ? reinterpret_cast<const char *>(converted) : name);
}

// --- Filter

namespace {

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

} // namespace

void apply_mac_filter(ovani_dhcpd_host_event &hostinfo)
{
    if (hostinfo.Active != nullptr && is_filtered_out(text_or_empty(hostinfo.MACAddress))) {
        hostinfo.Active[0] = '0';
        hostinfo.Active[1] = '\0';
    }
}

// --- What depends on the object's previous state

namespace {

struct PreviousState {
    bool known;
    char Active[8];
    char IPAddress[32];
    char MACAddress[32];
    char LatestActiveTime[32];

    bool active() const { return decimal_value(Active) != 0; }
};

PreviousState read_previous_state(const char *url)
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
    PreviousState previous{};
    previous.known = load_multi_config_from_xml(map, url) == 0;
    copy_text(previous.Active, active);
    copy_text(previous.IPAddress, ip);
    copy_text(previous.MACAddress, mac);
    copy_text(previous.LatestActiveTime, latest_active_time);
    return previous;
}

// A host seen again where it was keeps the time it became active; any change makes it active now.
void compute_latest_active_time(const ovani_dhcpd_host_event &hostinfo, const PreviousState &previous,
                                HostTexts &texts, const char *function)
{
    bool unchanged = previous.known && previous.active() && hostinfo.IPAddress != nullptr &&
                     strcmp(hostinfo.IPAddress, previous.IPAddress) == 0 &&
                     strcasecmp(previous.MACAddress, texts.MACAddress) == 0;
    if (unchanged) {
        copy_text(texts.LatestActiveTime, previous.LatestActiveTime);
    } else {
        copy_text(texts.LatestActiveTime, decimal_text(ovani_get_system_uptime()).data());
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "sacktime:%s\n", texts.LatestActiveTime);
}

// --- Where it is attached

void ovani_get_connection_type_from_ifacetype(const char *iface_type, HostTexts &texts)
{
    if (iface_type == nullptr) {
        ovani_log(VELM_LOG_DEBUG, "Param Error: %s,%d\n", __func__, __LINE__);
        return;
    }
    copy_text(texts.ConnectionType, strcasecmp(iface_type, "Ethernet") == 0 ? "0" : "1");
}

void get_port_from_layer2interface(const char *layer2_interface, HostTexts &texts)
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
    copy_text(texts.Port, decimal_text(number).data());
}

// --- Mesh

bool is_mesh_master()
{
    char mesh_mode[OVANI_VALUE_LEN] = {};
    return zkapi_singlevalue_get("InternetGatewayDevice.LANDevice.1.WLANMeshConfiguration.MeshMode",
                                 mesh_mode, DEVFUNC_NOCALL, OVANI_STORE_WAIT_MS) == 0 &&
           strstr(mesh_mode, "Master") != nullptr;
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

// In a mesh the controller knows better than the bridge how a host is connected.
void apply_mesh(ovani_dhcpd_host_event &hostinfo, const PreviousState &previous, HostTexts &texts,
                const char *function)
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
    ovani_log_as(function, VELM_LOG_DEBUG,
                 "ovani_add_host_info isMeshSlave = %d mesh: mac = %s, type = %s, option60 = %s\n",
                 slave ? 1 : 0, upper_mac, type, text_or_empty(hostinfo.X_QV_Option60));
}

// The host name decides first, the vendor class only where the name says nothing.
void compute_device_type(const ovani_dhcpd_host_event &hostinfo, HostTexts &texts)
{
    trans_hostnametodevtype(texts.HostName, texts.DevType, sizeof texts.DevType);
    if (strcmp(texts.DevType, "0") == 0) {
        trans_opt60todevtype(hostinfo.X_QV_Option60, texts.DevType, sizeof texts.DevType);
    }
}

// --- The batch

// What is known of a host chooses the parameters; they are written in the order of the table.
enum ParameterMap : unsigned { ALL = 1, NO_HOSTNAME = 2, NO_IP = 4 };

struct HostParameter {
    const char *name;
    unsigned maps; // those it belongs to
    const char *value;
};

ParameterMap choose_map(const ovani_dhcpd_host_event &event, const HostTexts &texts, const char *function)
{
    if (event.IPAddress == nullptr) {
        ovani_log_as(function, VELM_LOG_DEBUG, "map is hostparamvaluemap_noip\n");
        return NO_IP;
    }
    if (strcmp(text_or_empty(event.AddressSource), "STATIC") == 0 && texts.HostName[0] == '\0') {
        ovani_log_as(function, VELM_LOG_DEBUG, "map is hostparamvaluemap_nohostname\n");
        return NO_HOSTNAME;
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "map is hostparamvaluemap\n");
    return ALL;
}

} // namespace

int write_host_object(ovani_dhcpd_host_event &hostinfo, HostTexts &texts, const HostUrl &url,
                      const char *function)
{
    PreviousState previous = read_previous_state(url.text);
    compute_latest_active_time(hostinfo, previous, texts, function);
    ovani_get_connection_type_from_ifacetype(hostinfo.InterfaceType, texts);
    get_port_from_layer2interface(hostinfo.Layer2Interface, texts);
    apply_mesh(hostinfo, previous, texts, function);
    compute_device_type(hostinfo, texts);

    constexpr unsigned always = ALL | NO_HOSTNAME | NO_IP;
    const HostParameter parameters[] = {
        {"IPAddress", ALL | NO_HOSTNAME, hostinfo.IPAddress},
        {"AddressSource", ALL | NO_HOSTNAME, hostinfo.AddressSource},
        {"AckTime", always, hostinfo.AckTime},
        {"LeaseTimeRemaining", ALL | NO_HOSTNAME, hostinfo.LeaseTimeRemaining},
        {"LatestActiveTime", always, texts.LatestActiveTime},
        {"HostName", ALL, texts.HostName},
        {"DeviceType", ALL | NO_HOSTNAME, hostinfo.AssociatedDeviceType},
        {"X_QV_DeviceType", ALL, texts.DevType},
        {"MACAddress", always, texts.MACAddress},
        {"Layer2Interface", always, hostinfo.Layer2Interface},
        {"InterfaceType", always, texts.InterfaceType},
        {"Port", always, texts.Port},
        {"ConnectionType", always, texts.ConnectionType},
        {"Active", always, hostinfo.Active},
    };
    unsigned chosen = choose_map(hostinfo, texts, function);
    tConfigMap map[std::size(parameters) + 1] = {};
    tConfigMap *row = map;
    for (const HostParameter &parameter : parameters) {
        if ((parameter.maps & chosen) != 0) {
            // The store's write calls take a plain pointer; they only read through it.
            *row++ = {parameter.name, const_cast<char *>(parameter.value)};
        }
    }
    return write_multi_config_to_xml_for_host_add(map, url.text);
}
