// What was attached before the daemon started.
#pragma once

// Finds the devices that were attached before the daemon started. Once, before events are subscribed.
void ovani_lanhost_info_init();
