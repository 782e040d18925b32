// "110": an IPv4 neighbour entry of the bridge appeared or went.
//
// Unless said otherwise the functions of this header return R_OK, or R_ERROR for a null or impossible record;
// a failure is logged and ends the handling of that event.
#pragma once

#include "ovani/ovani_event.h"

// Entry for an event. Removals do not remove hosts: those leave when their MAC ages or their lease ends.
int ovani_arp_event_process(const ovani_arp_event *event);

// An IPv4 address was seen: finds or creates its host, which is static unless its lease is for this very
// address, and writes its object. R_ERROR also when the object cannot be written.
int ovani_arp_event_add(const ovani_arp_event *event);

// Retires and forgets the host of an address. UNUSED
int ovani_arp_event_del(const ovani_arp_event *event);
