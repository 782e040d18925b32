// The process: its signals, its threads, its end.
#include <csignal>
#include <cstdlib>
#include <initializer_list>

#include <pthread.h>

#include "ovani/ovani_log.h"
#include "ovani/ovani_start.h"
#include "ovani/ovani_ubus.h"

namespace {

// Neither joined nor detached: the threads live as long as the process.
int start_thread(void *(*body)(void *))
{
    pthread_t thread;
    return pthread_create(&thread, nullptr, body, nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    // Ignoring SIGCHLD leaves the children of system() and popen() to the kernel.
    for (int ignored : {SIGCHLD, SIGPIPE, SIGHUP}) {
        signal(ignored, SIG_IGN);
    }
    ovani_start(argc, argv, start_thread);
    int status = ovani_ubus_init();
    if (status != 0) {
        ovani_log(VELM_LOG_ERR, "ovani_ubus_init() fail!\n");
        return status;
    }
    ovani_log(VELM_LOG_DEBUG, "ovani_ubus_init() succ!\n");
    ovani_log(VELM_LOG_DEBUG, "ovani main() exit!\n");
    exit(0);
}
