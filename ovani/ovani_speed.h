// The external LAN speed tool. UNUSED: whoever starts it gives the monitor a thread of its own.
#pragma once

inline constexpr char LANSPEED_BIN_PATH[] = "/qvrom/bin/lanspeed";
inline constexpr char LANSPEED_BIN[] = "lanspeed";

// Runs the tool's "clean" command; returns what system() returns.
int ovani_speed_proc_init();

// Runs the tool every 5 seconds, for ever.
[[noreturn]] int ovani_speed_proc_monitor();
