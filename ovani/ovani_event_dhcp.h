// "dhcp_user_event": what the DHCP servers and the IPv6 neighbour watcher report, as one '#'-separated text.
//
// Unless said otherwise the functions of this header return R_OK, or R_ERROR for a null or impossible record;
// a failure is logged and ends the handling of that event.
#pragma once

#include "ovani/ovani_event.h"

// Parses the text of a "dhcp_user_event", cutting it in place, and applies it.
void ovani_dhcpd_user_event_process(char *eventBuf);

// A lease was given: fills in a host already known and writes its object. Leases never create hosts.
int ovani_udhcpd_event_add(ovani_dhcpd_host_event *hostinfo);

// A lease ended: retires the host's object.
int ovani_udhcpd_event_del(ovani_dhcpd_host_event *hostinfo);

// An IPv6 address was seen: adds it to a host's object. Withdrawals are ignored.
int ovani_dhcp6s_event_add6(ovani_dhcpd_host_event *hostinfo);
int ovani_dhcp6s_event_del6(ovani_dhcpd_host_event *hostinfo);
