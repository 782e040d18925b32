// "106": a LAN Ethernet port's link changed.
//
// Unless said otherwise the functions of this header return R_OK, or R_ERROR for a null or impossible record;
// a failure is logged and ends the handling of that event.
#pragma once

#include "ovani/ovani_event.h"

// Entry for a link change: dispatches on its status. R_ERROR also for an unknown status and a port above
// MAX_LAN_PORT; port 0 is that of hosts behind an interface that is no port.
int ovani_port_status_event_process(const ovani_port_status_event *event);

// The port's link state goes to the port manager; a link that went down retires the port's wired hosts.
int ovani_port_status_event_up(unsigned char port);
int ovani_port_status_event_down(unsigned char port);
