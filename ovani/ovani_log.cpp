#include "ovani/ovani_log.h"

int ovani_log_init(int, char **)
{
    return 0;
}
