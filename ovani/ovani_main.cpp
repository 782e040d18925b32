// The process: its signals, its threads, its end.
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include <libubox/uloop.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ovani/ovani_command.h"
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

// Holds the daemon's name in this network namespace until the process ends. False when another process has
// it: two daemons would both bind the ports. A command that a killed daemon was about to start may hold it
// for a moment; a second is waited for that.
bool take_the_name()
{
    constexpr char name[] = "\0ovani"; // abstract: it is no file
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name, sizeof name - 1);
    const socklen_t length = offsetof(sockaddr_un, sun_path) + sizeof name - 1;
    const int held = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    for (int tries = 0; tries < 20; ++tries) {
        if (held < 0 || bind(held, reinterpret_cast<sockaddr *>(&address), length) == 0 ||
            errno != EADDRINUSE) {
            return true;
        }
        usleep(50'000);
    }
    return false;
}

constexpr char USAGE[] =
    R"(usage: ovani

The LAN host manager daemon of a PON home gateway. It stays in the foreground and ends on SIGTERM.
Other arguments than these are ignored:
  -h, --help     print this
  -V, --version  print the version

Built with platform/host, it reads from the environment:
  OVANI_STORE      file of the configuration store (/var/lib/ovani/store.db)
  OVANI_LOG        where messages go: stderr (the default) or syslog
  OVANI_LOG_LEVEL  up to which level: emerg, alert, crit, err (the default), warning, notice, info, debug, or
                   0 to 7
)";

// Whether the first argument asks for an answer and no daemon; gives it.
bool answers_at_once(int argc, char **argv)
{
    const std::string_view asked = argc > 1 ? argv[1] : "";
    if (asked == "-h" || asked == "--help") {
        fputs(USAGE, stdout);
    } else if (asked == "-V" || asked == "--version") {
        puts("ovani " OVANI_VERSION);
    } else {
        return false;
    }
    return true;
}

// SIGTERM ends the loop. What the loop may be waiting for (the store, a command, a reader of the log) is
// given two seconds, then the process ends without it: the store is whole at every moment.
void end_soon(int signal)
{
    constexpr unsigned patience_s = 2;
    if (signal == SIGALRM) {
        end_commands();
        _exit(EXIT_SUCCESS);
    }
    if (!uloop_cancelled) {
        uloop_end();
        alarm(patience_s);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (answers_at_once(argc, argv)) {
        return EXIT_SUCCESS;
    }
#ifdef M_ARENA_MAX
    // By default each thread that ever asked for memory, however briefly, leaves 132 KiB behind.
    mallopt(M_ARENA_MAX, 1);
#endif
    // Ignoring SIGCHLD leaves the children of system() and popen() to the kernel.
    for (int ignored : {SIGCHLD, SIGPIPE, SIGHUP}) {
        signal(ignored, SIG_IGN);
    }
    struct sigaction action {};
    action.sa_handler = end_soon;
    for (int ending : {SIGTERM, SIGINT, SIGALRM}) {
        sigaction(ending, &action, nullptr);
    }
    if (!take_the_name()) {
        ovani_log(VELM_LOG_ERR, "another ovani runs here\n");
        fputs("ovani: another one runs in this network namespace\n", stderr);
        return EXIT_FAILURE;
    }
    if (argc > 1) {
        ovani_log(VELM_LOG_WARNING, "%d arguments ignored, the first is %.64s\n", argc - 1, argv[1]);
    }
    bound_commands();
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
