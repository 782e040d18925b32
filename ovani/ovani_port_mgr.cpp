#include "ovani/ovani_port_mgr.h"

#include "ovani/ovani_log.h"

PON_ETH_PORT_LINK_STATUS_T g_port_link_status[MAX_LAN_PORT + 1];

void ovani_port_up_down_set(unsigned char port_index, unsigned char status)
{
    bool in_range = port_index >= 1 && port_index <= MAX_LAN_PORT;
    if (in_range && status == 1) {
        g_port_link_status[port_index].link_up = 1;
        ovani_log(VELM_LOG_DEBUG, "g_port_link_status port Status change Up\n");
    } else if (in_range && status == 0) {
        g_port_link_status[port_index].link_up = 0;
        ovani_log(VELM_LOG_DEBUG, "g_port_link_status port Status change NoLink\n");
    } else {
        ovani_log(VELM_LOG_DEBUG, "g_port_link_status port Status change\n");
    }
}
