// The network driver. There is no switch here that could carry out what is asked; it is kept for all to see.
#include "platform/qvdrv_net_api.h"

#include <array>
#include <cctype>
#include <charconv>
#include <map>
#include <mutex>
#include <vector>

#include "platform/host/driver.h"
#include "platform/host/number.h"
#include "platform/zk_log.h"

namespace {

// Finding and changing are two steps.
std::mutex bindings_mutex;

// What a VLAN tag can carry (IEEE 802.1Q, 9.6).
constexpr unsigned int MAX_VLAN = 4094;

// By the number of the enumerator.
constexpr std::array TYPES = {"ROUTE", "BRIDGE"};
constexpr std::array ADDRESS_TYPES = {"DHCP", "STATIC", "PPPOE", "NONE"};
constexpr std::array SERVICES = {"INTERNET",
                                 "TR069",
                                 "VOIP",
                                 "OTHER",
                                 "INTERNET_TR069",
                                 "INTERNET_VOIP",
                                 "TR069_VOIP",
                                 "INTERNET_TR069_VOIP",
                                 "IPTV",
                                 "AWIFI",
                                 "SPECIAL_SERVICE_1",
                                 "SPECIAL_SERVICE_2",
                                 "SPECIAL_SERVICE_3",
                                 "SPECIAL_SERVICE_4"};
static_assert(SERVICES.size() == SPECIAL_SERVICE_4 + 1);

template <size_t N>
std::string name_of(const std::array<const char *, N> &names, unsigned int number)
{
    return number < N ? names[number] : std::to_string(number);
}

std::string hexadecimal(uint64_t number)
{
    std::array<char, 16> text{};
    auto [end, fault] = std::to_chars(text.data(), text.data() + text.size(), number, 16);
    return {text.data(), end};
}

int refuse(const std::string &what)
{
    zk_mod_log_printf("driver", VELM_LOG_ERR, "%s: refused\n", what.c_str());
    return STORE_BAD_ARGUMENT;
}

bool is_port(unsigned int port)
{
    return port >= 1 && port <= DRIVER_MAX_PORT;
}

bool is_vlan(unsigned int vlan)
{
    return vlan >= 1 && vlan <= MAX_VLAN;
}

// --- Devices

// Colon form, in lower case; empty for what is no MAC address.
std::string canonical_mac(const char *text)
{
    constexpr size_t length = 17;
    std::string mac(text == nullptr ? "" : text);
    if (mac.size() != length) {
        return {};
    }
    for (size_t i = 0; i < length; ++i) {
        auto c = static_cast<unsigned char>(mac[i]);
        if (i % 3 == 2 ? c != ':' : std::isxdigit(c) == 0) {
            return {};
        }
        mac[i] = static_cast<char>(std::tolower(c));
    }
    return mac;
}

// The object of a device: its own, or the one that it would get.
StoreResult find_device(const std::string &mac, std::string &path)
{
    static std::map<std::string, size_t, std::less<>> last_found; // it may be somebody else's by now
    if (auto found = last_found.find(std::string_view(mac)); found != last_found.end()) {
        path = std::string(DRIVER_DEVICES) + std::to_string(found->second) + ".";
        if (driver_kept(path, "MACAddress") == mac) {
            return STORE_OK;
        }
    }
    std::vector<int> numbers;
    ObjectRef table = data_model_find_table(data_model(), DRIVER_DEVICES);
    if (StoreResult result = store_instances(table, numbers, DRIVER_WAIT_MS); result != STORE_OK) {
        return result;
    }
    int free = 1;
    for (int number : numbers) {
        path = std::string(DRIVER_DEVICES) + std::to_string(number) + ".";
        if (driver_kept(path, "MACAddress") == mac) {
            last_found[std::string(mac)] = static_cast<size_t>(number);
            return STORE_OK;
        }
        if (number == free) {
            ++free;
        }
    }
    path = std::string(DRIVER_DEVICES) + std::to_string(free) + ".";
    return STORE_NO_OBJECT;
}

int keep_of_device(const char *mac, const char *up_name, unsigned int up, const char *down_name,
                   unsigned int down)
{
    const std::string canonical = canonical_mac(mac);
    if (canonical.empty()) {
        return STORE_BAD_ARGUMENT;
    }
    std::lock_guard lock(bindings_mutex);
    std::string path;
    StoreResult result = find_device(canonical, path);
    if (result != STORE_OK && result != STORE_NO_OBJECT) {
        return result;
    }
    return driver_keep(
        path, {{"MACAddress", canonical}, {up_name, std::to_string(up)}, {down_name, std::to_string(down)}});
}

} // namespace

int qvdrv_net_set_port_mac_limit(unsigned int port, unsigned int limit)
{
    if (!is_port(port)) {
        return refuse("MAC limit of port " + std::to_string(port));
    }
    return driver_keep(driver_port_path(port), {{"MACLimit", std::to_string(limit)}});
}

int qvdrv_net_set_vlan_bind(unsigned int port, unsigned short lan_vlan, const qv_wan_param *wan)
{
    if (wan == nullptr || !is_port(port) || !is_vlan(lan_vlan)) {
        return refuse("binding of VLAN " + std::to_string(lan_vlan) + " on port " + std::to_string(port));
    }
    std::lock_guard lock(bindings_mutex);
    return driver_keep(driver_binding_path(port, lan_vlan),
                       {{"VLAN", std::to_string(wan->vid)},
                        {"Priority", std::to_string(wan->pbit)},
                        {"Service", name_of(SERVICES, wan->wanmode)},
                        {"Type", name_of(TYPES, wan->brflag)},
                        {"AddressType", name_of(ADDRESS_TYPES, wan->addrtype)},
                        {"IPMode", std::to_string(wan->iptype)},
                        {"LANDHCP", std::to_string(wan->landhcp)},
                        {"LANPorts", hexadecimal(wan->lanBindPort)}});
}

int qvdrv_net_del_vlan_bind(unsigned int port, unsigned short lan_vlan, const qv_wan_param *wan)
{
    if (wan == nullptr || !is_port(port) || !is_vlan(lan_vlan)) {
        return STORE_BAD_ARGUMENT;
    }
    const std::string path = driver_binding_path(port, lan_vlan);
    std::lock_guard lock(bindings_mutex);
    // The LAN VLAN may have been bound to another connection since.
    if (driver_kept(path, "VLAN") != std::to_string(wan->vid)) {
        return STORE_NO_OBJECT;
    }
    return store_remove(data_model_find_object(data_model(), path), DRIVER_WAIT_MS);
}

int qvdrv_net_get_dev_maxbandwidth(const char *mac, unsigned int *maxus, unsigned int *maxds)
{
    const std::string canonical = canonical_mac(mac);
    if (canonical.empty() || maxus == nullptr || maxds == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    std::lock_guard lock(bindings_mutex);
    std::string path;
    if (StoreResult result = find_device(canonical, path); result != STORE_OK) {
        return result;
    }
    const auto up = parse_number<unsigned int>(driver_kept(path, "MaxUpstream"));
    const auto down = parse_number<unsigned int>(driver_kept(path, "MaxDownstream"));
    if (!up || !down) {
        return STORE_NO_OBJECT; // only totals have been set
    }
    *maxus = *up;
    *maxds = *down;
    return 0;
}

int qvdrv_net_set_dev_maxbandwidth(const char *mac, unsigned int maxus, unsigned int maxds)
{
    return keep_of_device(mac, "MaxUpstream", maxus, "MaxDownstream", maxds);
}

int qvdrv_net_set_dev_total_bandwidth(const char *mac, unsigned int up, unsigned int down)
{
    return keep_of_device(mac, "TotalUpstream", up, "TotalDownstream", down);
}

int qvdrv_eth_get_port_id(const char *ifname, unsigned short *port_id)
{
    unsigned int port = ifname == nullptr ? 0 : driver_port_of_interface(ifname);
    if (port == 0 || port_id == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    *port_id = static_cast<unsigned short>(port);
    return 0;
}
