#include "ovani/ovani_host_config.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <strings.h>

#include "ovani/ovani_announce.h"
#include "ovani/ovani_commdef.h"
#include "ovani/ovani_config.h"
#include "ovani/ovani_fd.h"
#include "ovani/ovani_host_index.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_shell.h"
#include "platform/qvdrv_net_api.h"
#include "platform/zkcfgif.h"

// --- Bandwidth ceilings

namespace {

// The MAC, in upper-case colon form, of the host whose object path is given; false when the cache does not
// know it.
bool mac_of_host_object(const char *url, char (&mac)[OVANI_MAC_STR_LEN])
{
    InstIdStack ids{};
    zkapi_getobjidbyobjpath(url, &ids);
    const HostToIndexMap *row = ids.currentDepth == 2 ? row_of_instance(ids.instance[1]) : nullptr;
    return row != nullptr && mac_form_translate(row->hostHash, MAC_FORM_COLON_UPPER, mac) == 0;
}

unsigned bandwidth(const char *value)
{
    return static_cast<unsigned>(decimal_value(value));
}

} // namespace

// KEPT: this step logs less than its downstream twin.
void set_maxusbandwidth_process(const char *value, const char *tempurl)
{
    unsigned maxuswidth = bandwidth(value);
    ovani_log(VELM_LOG_DEBUG, "set_maxusbandwidth_process start,maxuswidth is %u\n", maxuswidth);
    char mac[OVANI_MAC_STR_LEN];
    if (!mac_of_host_object(tempurl, mac)) {
        return;
    }
    unsigned maxus = 0;
    unsigned maxds = 0;
    qvdrv_net_get_dev_maxbandwidth(mac, &maxus, &maxds);
    qvdrv_net_set_dev_maxbandwidth(mac, maxuswidth, maxds);
}

void set_maxdsbandwidth_process(const char *value, const char *tempurl)
{
    unsigned maxdswidth = bandwidth(value);
    ovani_log(VELM_LOG_DEBUG, "set_maxdsbandwidth_process start,maxdswidth is %u\n", maxdswidth);
    char mac[OVANI_MAC_STR_LEN];
    if (!mac_of_host_object(tempurl, mac)) {
        return;
    }
    unsigned maxus = 0;
    unsigned maxds = 0;
    int got = qvdrv_net_get_dev_maxbandwidth(mac, &maxus, &maxds);
    ovani_log(VELM_LOG_DEBUG, "set_maxdsbandwidth_process mac is %s\nmaxus is %u\nmaxds is %u\n", mac, maxus,
              maxds);
    int set = qvdrv_net_set_dev_maxbandwidth(mac, maxus, maxdswidth);
    ovani_log(VELM_LOG_DEBUG, "set_maxdsbandwidth_process mac is %s\nmaxus is %u\nmaxdswidth is %u\n", mac,
              maxus, maxdswidth);
    ovani_log(VELM_LOG_DEBUG, "set_maxdsbandwidth_process get %d set %d\n\n\n", got, set);
}

// --- Alias

namespace {

constexpr int ALIAS_OBJECTS_SEARCHED = 64;
constexpr size_t ALIAS_MAC_LENGTH = 32;

// The alias object of a MAC among the first 64, or 0.
int find_alias_object(const char *mac)
{
    for (int i = 1; i <= ALIAS_OBJECTS_SEARCHED; ++i) {
        char path[OVANI_URL_LEN];
        instance_path(path, OVANI_HOSTALIAS_OBJ_URL, i);
        if (zkapi_obj_checkexist(path, OVANI_STORE_WAIT_MS) != 1) {
            continue;
        }
        instance_path(path, OVANI_HOSTALIAS_OBJ_URL, i, "MACAddress");
        char alias_mac[OVANI_VALUE_LEN] = {};
        zkapi_singlevalue_get(path, alias_mac, DEVFUNC_NOCALL_NOFLASH, OVANI_STORE_WAIT_MS);
        if (strcasecmp(alias_mac, mac) == 0) {
            return i;
        }
    }
    return 0;
}

} // namespace

int set_hostalias_process(const char *hostalias, const char *tmpurl)
{
    char alias[OVANI_VALUE_LEN]; // what the store has room for, whichever way it goes there
    copy_text(alias, hostalias);
    ovani_log(VELM_LOG_DEBUG, "set_hostalias_process start,hostalias is %s\n", alias);
    char value[OVANI_VALUE_LEN] = {};
    zkcfg_getsingleparamval(tmpurl, "MACAddress", value, OVANI_STORE_WAIT_MS);
    char mac[ALIAS_MAC_LENGTH];
    copy_text(mac, value);

    int index = find_alias_object(mac);
    char url[OVANI_URL_LEN];
    if (index > 0) {
        instance_path(url, OVANI_HOSTALIAS_OBJ_URL, index, "HostAlias");
        zkapi_singlevalue_set(url, alias, DEVFUNC_NOCALL, OVANI_STORE_WAIT_MS);
        return R_OK;
    }
    index = -1;
    int ret = zkapi_obj_add(OVANI_HOSTALIAS_OBJ_URL, &index, DEVFUNC_NOCALL_NOINFORM, ALL_BLOCK_LOCK);
    if (ret != 0 || index < 0) {
        ovani_log(VELM_LOG_ERR, "Create Host Node Error: %s,%d\n", OVANI_HOSTALIAS_OBJ_URL, ret);
        return -1;
    }
    tConfigMap map[] = {
        {"MACAddress", mac},
        {"HostAlias", alias},
        {},
    };
    instance_path(url, OVANI_HOSTALIAS_OBJ_URL, index);
    ret = write_multi_config_to_xml_for_host_add(map, url);
    if (ret != 0) {
        ovani_log(VELM_LOG_ERR, "Error:set_hostalias_process:url=%s,ret=%d\n", url, ret);
        return -1;
    }
    return R_OK;
}

// --- Parameters from the bus

namespace {

// The instance in a host object's path, 0 for any other path.
int host_number(const char *url, const char *function = __builtin_FUNCTION())
{
    if (strstr(url, OVANI_HOST_NODE_PATH) == nullptr) {
        ovani_log_as(function, VELM_LOG_DEBUG, "obj_p=null\n");
        return 0;
    }
    // The path is taken to begin with the prefix.
    constexpr size_t prefix_length = sizeof OVANI_HOST_NODE_PATH - 1;
    int number = strlen(url) > prefix_length ? decimal_value(url + prefix_length) : 0;
    ovani_log_as(function, VELM_LOG_DEBUG, "obj_num=%d\n", number);
    return number;
}

void apply_alias(const char *value, const char *url)
{
    set_hostalias_process(value, url);
}

struct HostParam {
    const char *key;
    void (*apply)(const char *value, const char *url); // null: known, but nothing is done with it here
};

// KEPT: the last key is spelt as management spells it.
constexpr HostParam HOST_PARAMS[] = {
    {"MaxUSBandwidth", set_maxusbandwidth_process},
    {"MaxDSBandwidth", set_maxdsbandwidth_process},
    {"HostAlias", apply_alias},
    {"DevName", nullptr},
    {"DevType", nullptr},
    {"Brand", nullptr},
    {"Model", nullptr},
    {"OS", nullptr},
    {"DeviceOnlineNofication", nullptr},
};

bool apply_host_param(const char *key, const char *value, const char *url,
                      const char *function = __builtin_FUNCTION())
{
    for (const HostParam &param : HOST_PARAMS) {
        if (strcmp(key, param.key) != 0) {
            continue;
        }
        if (param.apply == nullptr) {
            ovani_log_as(function, VELM_LOG_DEBUG, "%s need update\n", key);
            return false;
        }
        param.apply(value, url);
        return true;
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "%s is not param\n", key);
    return false;
}

} // namespace

bool system_set_lanhost_config_param(const char *keystr, const char *value, void *tempurl)
{
    if (keystr == nullptr || value == nullptr || tempurl == nullptr) {
        ovani_log(VELM_LOG_ERR, "param is Null\n");
        return true;
    }
    const char *url = static_cast<const char *>(tempurl);
    ovani_log(VELM_LOG_DEBUG, "%s param:%s,value:%s\n", url, keystr, value);
    int obj_num = host_number(url);
    bool applied = apply_host_param(keystr, value, url);
    if (obj_num > 0) {
        ovani_host_status_ubus_send(obj_num);
    }
    return applied;
}

// --- Speed limits

namespace {

constexpr int WORDS_BEFORE_MACS = 2;
constexpr int MOST_WORDS = 12;

struct SpeedlimitList {
    char words[MOST_WORDS][32];
};

// Words that are too long are cut, each by itself.
bool read_list(SpeedlimitList &list)
{
    UniqueFile file{fopen(SPEEDLIMIT_MACLIST_FILE, "re")};
    if (file == nullptr) {
        return false;
    }
    for (char(&word)[32] : list.words) {
        if (fscanf(file.get(), "%31s%*[^ \t\r\n\v\f]", word) != 1) {
            break;
        }
    }
    return true;
}

} // namespace

void handler_speedlimit_config(const char *new_mac)
{
    ovani_log(VELM_LOG_DEBUG, "handler speedlimit config begin, new mac:%s", text_or_empty(new_mac));
    char command[128];
    snprintf(command, sizeof command, "cat %s | awk '{print NF}'", SPEEDLIMIT_MACLIST_FILE);
    char words[GET_CMD_RES_LEN] = {};
    get_cmd_res(command, words, sizeof words);
    int count = std::max(decimal_value(words), 0);
    if (count <= WORDS_BEFORE_MACS || count > MOST_WORDS) {
        ovani_log(VELM_LOG_ERR, "mac count:%d error !!!", count - WORDS_BEFORE_MACS);
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "count=%d", count);
    SpeedlimitList list{};
    if (!read_list(list)) {
        return;
    }
    int txlimit = decimal_value(list.words[0]);
    int rxlimit = decimal_value(list.words[1]);
    auto mac = [&](int slot) { return list.words[WORDS_BEFORE_MACS + slot]; };
    ovani_log(VELM_LOG_DEBUG,
              "txlimit%d, rxlimit:%d, maclist (1)%s (2)%s (3)%s (4)%s (5)%s (6)%s (7)%s (8)%s (9)%s (10)%s",
              txlimit, rxlimit, mac(0), mac(1), mac(2), mac(3), mac(4), mac(5), mac(6), mac(7), mac(8),
              mac(9));
    for (int slot = 0; slot < count - WORDS_BEFORE_MACS; ++slot) {
        if (mac(slot)[0] != '\0' && strcasecmp(mac(slot), text_or_empty(new_mac)) == 0) {
            int ret = qvdrv_net_set_dev_maxbandwidth(mac(slot), static_cast<unsigned>(txlimit),
                                                     static_cast<unsigned>(rxlimit));
            ovani_log(VELM_LOG_DEBUG, "set speedlimit mac=%s, ret=%d", mac(slot), ret);
        }
    }
}

namespace {

struct tSpecialMac {
    char mac[32];
};

constexpr tSpecialMac SpecialMac[] = {
    {"b8:27:eb:25:cf:85"}, {"b8:27:eb:ec:cc:e3"}, {"b8:27:eb:33:ee:ad"}, {"b8:27:eb:aa:cc:af"},
    {"b8:27:eb:59:d6:55"}, {"b8:27:eb:85:9d:6c"}, {"b8:27:eb:a9:cc:b8"}, {"b8:27:eb:26:87:89"},
    {"b8:27:eb:df:01:31"}, {"b8:27:eb:0d:fd:05"}, {"b8:27:eb:cd:55:ca"}, {"b8:27:eb:a3:56:ef"},
    {"b8:27:eb:66:9c:15"}, {"b8:27:eb:a6:95:a5"}, {"b8:27:eb:e0:3f:15"}, {"b8:27:eb:fc:d5:66"},
    {"b8:27:eb:7a:9a:77"}, {"b8:27:eb:dc:95:91"}, {"b8:27:eb:50:b4:5e"},
};
static_assert(sizeof SpecialMac / sizeof SpecialMac[0] == 19);

constexpr unsigned DEFAULT_UP = 70000;
constexpr unsigned DEFAULT_DOWN = 360000;

// A limit from the store; empty or "NULL" stands for the default.
unsigned speed_limit(const char *text, unsigned by_default)
{
    bool missing = text[0] == '\0' || strcasecmp(text, "NULL") == 0;
    return missing ? by_default : bandwidth(text);
}

bool read_value(const char *path, char (&text)[32])
{
    char value[OVANI_VALUE_LEN] = {};
    bool read = zkapi_singlevalue_get(path, value, DEVFUNC_NOCALL_NOFLASH, OVANI_STORE_WAIT_MS) == 0;
    copy_text(text, value);
    return read;
}

} // namespace

void ovani_speedlimit_all()
{
    ovani_log(VELM_LOG_DEBUG, "ovani_speedlimit_all start\n");
    char enabled[32];
    if (!read_value(OVANI_SPEEDLIMIT_PATH, enabled) || decimal_value(enabled) != 1) {
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "ovani_speedlimit_all config mac \n");
    char up[32];
    char down[32];
    read_value(OVANI_UP_SPEEDLIMIT_PATH, up);
    read_value(OVANI_DOWN_SPEEDLIMIT_PATH, down);
    ovani_log(VELM_LOG_DEBUG, "ovani_speedlimit_all config up_speed_str:%s down_speed_str:%s\n", up, down);
    for (const tSpecialMac &device : SpecialMac) {
        qvdrv_net_set_dev_total_bandwidth(device.mac, speed_limit(up, DEFAULT_UP),
                                          speed_limit(down, DEFAULT_DOWN));
    }
}
