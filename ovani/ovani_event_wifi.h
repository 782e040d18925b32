// "111": a Wi-Fi station joined or left.
//
// Unless said otherwise the functions of this header return R_OK, or R_ERROR for a null or impossible record;
// a failure is logged and ends the handling of that event.
#pragma once

#include "ovani/ovani_event.h"

// Entry for a station's event: dispatches on its action. R_ERROR also for an unknown one.
int ovani_wifi_user_event_process(const ovani_wifi_event *event);

// A station joined: moves the object of one that is known already, else learns it from the bridge's table.
int ovani_wifi_user_event_add(const ovani_wifi_event *event);

// A station left: retires its host's object and drops its node, whichever SSID it left. Returns the
// deletion's result when there was a node.
int ovani_wifi_user_event_del(const ovani_wifi_event *event);
