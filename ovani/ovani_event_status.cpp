// Announcements to the bus.
#include "ovani/ovani_event.h"
#include "ovani/ovani_host_table.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_ubus.h"

// One buffer for both events: the main thread is the only sender.
static blob_buf ovani_device_buf;

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

int ovani_host_status_ubus_send(int objnum)
{
    blob_buf_init(&ovani_device_buf, BLOBMSG_TYPE_TABLE);
    blobmsg_add_u32(&ovani_device_buf, "objnum", static_cast<uint32_t>(objnum));
    lib_zk_ubus_send_event(s_ovani_ctx, UBUS_EVENT_LANHOST_PARAM_CHANGE, ovani_device_buf);
    return R_OK;
}
