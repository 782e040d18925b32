// What the bus is told: "lanhost_param_change" of every change of a host object, "lanhost_event" of every
// visit of a host, one "Online" and one "Offline" in turn. Which hosts were told to be on line is held in
// memory only. Main thread only.
#pragma once

#include "ovani/ovani_event.h"
#include "platform/lib_zk_ubus.h"

struct host_node;

// The one bus connection, null while there is none.
extern ubus_context *s_ovani_ctx;

// Forgets who was told to be on line.
void ovani_announce_init();

// Sends "lanhost_param_change" for a host object's instance. Returns R_OK whatever the bus says.
int ovani_host_status_ubus_send(int objnum);

// Fills a zeroed device status record from a host; brand and os stay as they are. R_OK.
int ovani_get_lanhost_device_struct(const host_node *pnode, ovani_device_status_event *povani_device_struct);

// Sends "lanhost_event". Returns R_OK whatever the bus says.
int ovani_device_status_ubus_send(const ovani_device_status_event *povani_device_struct);

// A host's object was made or updated, or is no longer active: marks the host, and announces it unless the
// bus knows.
void ovani_presence_online(host_node &host);
void ovani_presence_offline(host_node &host);
