#include "ovani/ovani_announce.h"

#include <algorithm>
#include <array>
#include <vector>

#include "ovani/ovani_host_table.h"
#include "ovani/ovani_log.h"

ubus_context *s_ovani_ctx;

namespace {

// One buffer for both events: the main thread is the only sender.
blob_buf ovani_device_buf;

using MacKey = std::array<uint8_t, OVANI_MAC_LEN>;

// Sorted. Never longer than there are host objects.
std::vector<MacKey> on_line;

} // namespace

void ovani_announce_init()
{
    on_line.clear();
}

// --- The two senders

int ovani_host_status_ubus_send(int objnum)
{
    blob_buf_init(&ovani_device_buf, BLOBMSG_TYPE_TABLE);
    blobmsg_add_u32(&ovani_device_buf, "objnum", static_cast<uint32_t>(objnum));
    lib_zk_ubus_send_event(s_ovani_ctx, UBUS_EVENT_LANHOST_PARAM_CHANGE, ovani_device_buf);
    return R_OK;
}

int ovani_get_lanhost_device_struct(const host_node *pnode, ovani_device_status_event *povani_device_struct)
{
    ovani_device_status_event &status = *povani_device_struct;
    copy_text(status.status, pnode->Active == OVANI_HOST_ONLINE ? "Online" : "Offline");
    copy_text(status.devicetype, pnode->DeviceType);
    copy_text(status.deviceMAC, mac_colon_text(pnode->mac).data());
    copy_text(status.deviceIP, ovani_ipv4_ltostr(pnode->ip));
    copy_text(status.AliasName, pnode->HostName);
    bool wireless = pnode->lanPortType != 0;
    status.attachedtype = wireless ? 1 : 0;
    status.port = wireless ? 0 : pnode->lanPortNo;
    return R_OK;
}

int ovani_device_status_ubus_send(const ovani_device_status_event *povani_device_struct)
{
    const ovani_device_status_event &status = *povani_device_struct;
    ovani_log(VELM_LOG_DEBUG, "******ovani send to smartagent info******");
    ovani_log(VELM_LOG_DEBUG,
              "status:%s,devicetype:%s,deviceMAC:%s,deviceIP:%s,AliasName:%s,attachedtype:%d,port:%d\n",
              status.status, status.devicetype, status.deviceMAC, status.deviceIP, status.AliasName,
              status.attachedtype, status.port);
    ovani_log(VELM_LOG_DEBUG, "******ovani send to smartagent info end******");
    blob_buf_init(&ovani_device_buf, 0);
    lib_zk_blobmsg_add_struct(&ovani_device_buf, "lanhost_struct", &status, sizeof status);
    int ret = lib_zk_ubus_send_event(s_ovani_ctx, UBUS_EVENT_LANHOST_UP_DOWN, ovani_device_buf);
    ovani_log(VELM_LOG_DEBUG, "ovani send to smartagent ret:%d\n", ret);
    return R_OK;
}

// --- Visits

namespace {

MacKey key_of(const host_node &host)
{
    MacKey key;
    std::ranges::copy(host.mac, key.begin());
    return key;
}

void announce_visit(const host_node &host)
{
    ovani_device_status_event status{};
    ovani_get_lanhost_device_struct(&host, &status);
    ovani_device_status_ubus_send(&status);
}

} // namespace

void ovani_presence_online(host_node &host)
{
    host.Active = OVANI_HOST_ONLINE;
    MacKey key = key_of(host);
    auto place = std::ranges::lower_bound(on_line, key);
    if (place == on_line.end() || *place != key) {
        on_line.insert(place, key);
        announce_visit(host);
    }
}

void ovani_presence_offline(host_node &host)
{
    host.Active = OVANI_HOST_OFFLINE;
    MacKey key = key_of(host);
    auto place = std::ranges::lower_bound(on_line, key);
    if (place != on_line.end() && *place == key) {
        on_line.erase(place);
        announce_visit(host);
    }
}
