// Start-up, in its fixed order: the tables and facts are in place before the first event can arrive.
#include <csignal>
#include <cstdlib>

#include <pthread.h>

#include "ovani/ovani_br_mgr.h"
#include "ovani/ovani_host_config.h"
#include "ovani/ovani_host_mgr.h"
#include "ovani/ovani_lan_port_config.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_mac_table.h"
#include "ovani/ovani_neigh.h"
#include "ovani/ovani_port_mgr.h"
#include "ovani/ovani_ubus.h"

int main(int argc, char **argv)
{
    // Ignoring SIGCHLD leaves the children of system() and popen() to the kernel.
    for (int ignored : {SIGCHLD, SIGPIPE, SIGHUP}) {
        signal(ignored, SIG_IGN);
    }
    ovani_log_init(argc, argv);
    ovani_log(VELM_LOG_DEBUG, "ovani_log_init finish\n");
    ovani_operator_type_init();
    ovani_log(VELM_LOG_DEBUG, "ovani_operator_type_init finish\n");
    ovani_areacode_init();
    ovani_log(VELM_LOG_DEBUG, "ovani_areacode_init finish\n");
    ovani_mac_table_init();
    ovani_hostmgr_init();
    ovani_log(VELM_LOG_DEBUG, "ovani_hostmgr_init finish\n");
    vlan_bind_init();
    ovani_log(VELM_LOG_DEBUG, "vlan_bind_init finish\n");
    ovani_port_mgr_init();
    ovani_log(VELM_LOG_DEBUG, "ovani_port_mgr_init finish\n");
    // Neither joined nor detached: the threads live as long as the process.
    pthread_t wifi_binder;
    if (pthread_create(&wifi_binder, nullptr, vlan_bind_init_wifi, nullptr) != 0) {
        ovani_log(VELM_LOG_ERR, "Create vlan_bind_init thread error\n!");
    }
    pthread_t neighbour_watcher;
    if (pthread_create(&neighbour_watcher, nullptr, ovani_host_neigh_poll, nullptr) != 0) {
        ovani_log(VELM_LOG_ERR, "Create ovani_host_neigh_poll thread error\n!");
    }
    ovani_log(VELM_LOG_DEBUG, "ovani_host_neigh_poll pthread_create\n");
    ovani_speedlimit_all();
    int status = ovani_ubus_init();
    if (status != 0) {
        ovani_log(VELM_LOG_ERR, "ovani_ubus_init() fail!\n");
        return status;
    }
    ovani_log(VELM_LOG_DEBUG, "ovani_ubus_init() succ!\n");
    ovani_log(VELM_LOG_DEBUG, "ovani main() exit!\n");
    exit(0);
}
