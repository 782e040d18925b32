#include "ovani/ovani_event_port.h"

#include "ovani/ovani_host_mgr.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_port_mgr.h"

int ovani_port_status_event_process(const ovani_port_status_event *event)
{
    if (event == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_port_status_event_process::pArpEvent NULLP error!!");
        return R_ERROR;
    }
    if (event->port > MAX_LAN_PORT) {
        ovani_log(VELM_LOG_ERR, "ovani_port_status_event_process::port=%d is out of range!!", event->port);
        return R_ERROR;
    }
    switch (event->status) {
    case 0:
        ovani_port_status_event_down(event->port);
        break;
    case 1:
        ovani_port_status_event_up(event->port);
        break;
    default:
        ovani_log(VELM_LOG_ERR, "ovani_port_status_event_process::unkown action error!!");
        return R_ERROR;
    }
    return R_OK;
}

int ovani_port_status_event_up(unsigned char port)
{
    ovani_log(VELM_LOG_DEBUG, "++++++[ovani_port_status_event_up]::entry  port = %d!!+++++++\n", port);
    ovani_port_up_down_set(port, '1'); // KEPT: the character, not the number
    return R_OK;
}

int ovani_port_status_event_down(unsigned char port)
{
    ovani_log(VELM_LOG_DEBUG, "-----[ovani_port_status_event_down]::entry  port = %d!!-------\n", port);
    ovani_port_up_down_set(port, '0');
    ovani_host_info_delete_by_port(&g_host_table_ipv4, port);
    ovani_host_table_show();
    return R_OK;
}
