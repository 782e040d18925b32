#include "ovani/ovani_start.h"

#include "ovani/ovani_br_mgr.h"
#include "ovani/ovani_host_config.h"
#include "ovani/ovani_host_index.h"
#include "ovani/ovani_host_object.h"
#include "ovani/ovani_lan_port_config.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_mac_table.h"
#include "ovani/ovani_neigh.h"
#include "ovani/ovani_operator.h"
#include "ovani/ovani_port_mgr.h"

void ovani_start(int argc, char **argv, StartThread start_thread)
{
    constexpr char function[] = "main"; // KEPT: the lines are main's
    g_lan_inf_num = 0;
    ovani_mac_table_init();
    ovani_host_object_init();
    ovani_log_init(argc, argv);
    ovani_log_as(function, VELM_LOG_DEBUG, "ovani_log_init finish\n");
    ovani_operator_type_init();
    ovani_log_as(function, VELM_LOG_DEBUG, "ovani_operator_type_init finish\n");
    ovani_areacode_init();
    ovani_log_as(function, VELM_LOG_DEBUG, "ovani_areacode_init finish\n");
    ovani_hostmgr_init();
    ovani_log_as(function, VELM_LOG_DEBUG, "ovani_hostmgr_init finish\n");
    remove_unfinished_hosts();
    vlan_bind_init();
    ovani_log_as(function, VELM_LOG_DEBUG, "vlan_bind_init finish\n");
    ovani_port_mgr_init();
    ovani_log_as(function, VELM_LOG_DEBUG, "ovani_port_mgr_init finish\n");
    if (start_thread(vlan_bind_init_wifi) != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "Create vlan_bind_init thread error\n!");
    }
    if (start_thread(ovani_host_neigh_poll) != 0) {
        ovani_log_as(function, VELM_LOG_ERR, "Create ovani_host_neigh_poll thread error\n!");
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "ovani_host_neigh_poll pthread_create\n");
    ovani_speedlimit_all();
}
