#include "ovani/ovani_speed.h"

#include <cstdio>
#include <cstdlib>

#include <unistd.h>

int ovani_speed_proc_init()
{
    char command[128] = {};
    snprintf(command, sizeof command, "%s clean", LANSPEED_BIN_PATH);
    return system(command);
}

int ovani_speed_proc_monitor()
{
    constexpr unsigned period_s = 5;
    for (;;) {
        [[maybe_unused]] int status = system(LANSPEED_BIN_PATH);
        sleep(period_s);
    }
}
