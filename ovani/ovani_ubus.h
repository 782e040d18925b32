// The daemon's life on the bus: connection, object, subscriptions, decoding of events, loop.
#pragma once

#include "platform/lib_zk_ubus.h"

// Connects, publishes the object, subscribes, reports ready to the system manager and runs the loop on the
// calling thread. Returns 0 when the loop has ended. No failure on the way is fatal.
int ovani_ubus_init();

// Publishes the object and, when that succeeded, subscribes.
void ovani_ubus_init_main(ubus_context *ctx);

// Finds the hosts that are attached already, then subscribes to the six events.
void ovani_eventmgr_eventway_main(ubus_context *ctx);

// Tells the system manager that the daemon is ready.
void send_ready_msg_2_sysmgr();

// The handler of all six events: decodes and hands over. Other events are ignored.
void ubus_handle_event_msg(ubus_context *ctx, ubus_event_handler *ev, const char *type, blob_attr *msg);

// Another way to run the loop, on a thread of its own. UNUSED
int ovani_eventmgr_ubus_loop();
void *ovani_handle_eventmgr_ubus_loop();
