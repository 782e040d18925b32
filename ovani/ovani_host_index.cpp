#include "ovani/ovani_host_index.h"

#include <algorithm>
#include <cstring>
#include <strings.h>

#include "ovani/ovani_announce.h"
#include "ovani/ovani_config.h"
#include "ovani/ovani_host_table.h"
#include "ovani/ovani_log.h"
#include "platform/zkcfgif.h"

HostToIndexMap tmpHostToIndex[OVANI_MAX_HOST_ENTRIES];
unsigned int s_hostnumberofentries;
unsigned int s_hostmaxnumber;

HostUrl url_of_instance(int index)
{
    HostUrl url;
    instance_path(url.text, OVANI_HOST_NODE_PATH, index);
    return url;
}

HostToIndexMap *row_of_instance(int index)
{
    return index >= 1 && index <= OVANI_MAX_HOST_ENTRIES ? &tmpHostToIndex[index - 1] : nullptr;
}

namespace {

// The last eight of a bare MAC's twelve digits, letters in one case: a LAN's devices share makers, so that
// they differ there, and hardly any is compared whole.
uint64_t folded_end(const char (&text)[OVANI_MAX_HOSTINFO_HASH_LEN])
{
    uint64_t end = 0;
    memcpy(&end, text + 4, sizeof end);
    return end | 0x2020202020202020;
}

} // namespace

int instance_of_mac(const char *mac)
{
    if (mac == nullptr || *mac == '\0') {
        return 0;
    }
    char key[OVANI_MAX_HOSTINFO_HASH_LEN] = {};
    copy_text(key, mac);
    uint64_t end = folded_end(key);
    auto *row = std::ranges::find_if(tmpHostToIndex, [=](const HostToIndexMap &candidate) {
        return folded_end(candidate.hostHash) == end && strcasecmp(candidate.hostHash, mac) == 0;
    });
    return row == std::end(tmpHostToIndex) ? 0 : static_cast<int>(row - tmpHostToIndex) + 1;
}

void forget_row(HostToIndexMap &row)
{
    row = {};
    row.index = -1;
}

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

// KEPT: no loader of this daemon puts an associated-device instance into a row; this is for one that will.
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
    // Negative numbers are large ones: -1 is no ceiling.
    s_hostnumberofentries = static_cast<unsigned>(decimal_value(number_of_entries));
    s_hostmaxnumber = static_cast<unsigned>(decimal_value(max_number));
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
    HostUrl url = url_of_instance(index);
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
    ovani_announce_init();
    std::ranges::fill(tmpHostToIndex, HostToIndexMap{});
    s_hostnumberofentries = 0;
    s_hostmaxnumber = 0;
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

void remove_unfinished_hosts()
{
    auto known = std::ranges::count_if(tmpHostToIndex,
                                       [](const HostToIndexMap &row) { return row.hostHash[0] != '\0'; });
    for (int i = 1; i <= OVANI_MAX_HOST_ENTRIES && static_cast<unsigned>(known) < s_hostnumberofentries;
         ++i) {
        HostUrl url = url_of_instance(i);
        if (tmpHostToIndex[i - 1].hostHash[0] != '\0' ||
            zkapi_obj_checkexist(url.text, OVANI_STORE_WAIT_MS) != 1) {
            continue;
        }
        char mac[OVANI_VALUE_LEN] = {};
        if (zkcfg_getsingleparamval(url.text, "MACAddress", mac, OVANI_STORE_WAIT_MS) == 0 &&
            mac[0] == '\0' &&
            zkapi_obj_del(OVANI_HOST_NODE_PATH, i, DEVFUNC_NOCALL_NOFLASH, ALL_BLOCK_LOCK) == 0) {
            --s_hostnumberofentries;
            ovani_log(VELM_LOG_WARNING, "host object %d was never filled: removed\n", i);
        }
    }
}
