#include "ovani/ovani_lan_port.h"

#include <algorithm>
#include <cstring>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_log.h"
#include "platform/zk_sys_mgr.h"
#include "platform/zkcfgif.h"

unsigned int g_lan_inf_num;

int ovani_lan_port_count()
{
    return static_cast<int>(g_lan_inf_num);
}

void read_lan_port_count()
{
    devinfo info{};
    if (zk_sys_mgr_get_devinfo(&info) == 0) {
        g_lan_inf_num = std::min<unsigned>(info.port_num, MAX_LAN_PORT);
    }
}

bool parse_lan_param(std::span<const LanParamName> names, const char *key, const char *value, void *param)
{
    for (const LanParamName &name : names) {
        if (key != nullptr && param != nullptr && strcmp(key, name.key) == 0) {
            copy_text(static_cast<LanEthInterfaceParam *>(param)->*name.field, value);
        }
    }
    return true;
}

void read_port_param(const char *path, int port, char (&field)[LAN_PARAM_LEN], int failure_level,
                     const char *function)
{
    const char *name = strrchr(path, '.') + 1;
    char value[OVANI_VALUE_LEN] = {};
    if (zkapi_singlevalue_get(path, value, DEVFUNC_NOCALL_NOFLASH, OVANI_STORE_WAIT_MS) != 0) {
        ovani_log_as(function, failure_level, "get Lan%d %s fail!\n", port, name);
        return;
    }
    copy_text(field, value);
    ovani_log_as(function, VELM_LOG_DEBUG, "get Lan%d %s=%s!\n", port, name, field);
}

int read_lan_binding(const BindProfile &profile, int lan_eth_id, LanEthIntfVlanBind *lanvlanbind,
                     const char *function)
{
    if (lanvlanbind == nullptr) {
        ovani_log_as(function, VELM_LOG_ERR, "Param is NULL!\n");
        return 0;
    }
    bool wireless = profile.wlan != nullptr && lan_eth_id > ovani_lan_port_count();
    const char *table = wireless ? profile.wlan : profile.ethernet;
    int instance = wireless ? lan_eth_id - ovani_lan_port_count() : lan_eth_id;
    auto read = [&](const char *name, char(&field)[LAN_PARAM_LEN]) {
        char path[OVANI_URL_LEN];
        instance_path(path, table, instance, name);
        if (profile.logs_urls) {
            ovani_log_as(function, VELM_LOG_DEBUG, "url:%s!\n", path);
        }
        read_port_param(path, lan_eth_id, field, profile.failure_level, function);
    };
    read(profile.vlan, lanvlanbind->VLAN);
    read(profile.mode, lanvlanbind->Mode);
    if (profile.mac_limit != nullptr && !wireless) {
        read(profile.mac_limit, lanvlanbind->MacAddrNum);
    }
    return 0;
}

bool take_lan_param(char (&stored)[LAN_PARAM_LEN], const char *value)
{
    if (value[0] == '\0' || strcmp(stored, value) == 0) {
        return false;
    }
    copy_text(stored, value);
    return true;
}

int lan_interface_of_path(const char *obj_url, int last_of_device, bool &under_lan_interfaces,
                          const char *function)
{
    if (obj_url == nullptr) {
        ovani_log_as(function, VELM_LOG_ERR, "Get lan_eth_inf_idx Error:Param is NULL.\n");
        return -1;
    }
    InstIdStack ids{};
    zkapi_getobjidbyobjpath(obj_url, &ids);
    under_lan_interfaces = ids.currentDepth < 2;
    if (under_lan_interfaces && strstr(obj_url, "InternetGatewayDevice.LANInterfaces.") == nullptr) {
        ovani_log_as(function, VELM_LOG_ERR, "Get lan_eth_inf_idx Error:%s.\n", obj_url);
        return -1;
    }
    int index = ids.currentDepth == 1 ? ids.instance[0] : ids.instance[1]; // 0 for a path without numbers
    int last = under_lan_interfaces ? MAX_LAN_PORT : last_of_device;
    if (index < 1 || index > last) {
        ovani_log_as(function, VELM_LOG_ERR, "lan_eth_inf_idx Error:%d.\n", index);
        return -1;
    }
    return index;
}
