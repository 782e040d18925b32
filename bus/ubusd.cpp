// The broker's program.
#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <libubox/uloop.h>
#include <ubusmsg.h>

#include "broker.h"

namespace {

constexpr option LONG_OPTIONS[] = {
    {"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'V'}, {}};

int usage(const char *program, FILE *out)
{
    fprintf(out,
            "Usage: %s [-s SOCKET]\n"
            "The broker of the message bus; runs until it is terminated.\n"
            "  -s SOCKET      listen there instead of at " UBUS_UNIX_SOCKET "\n"
            "  -h, --help     print this\n"
            "  -V, --version  print the version\n",
            program);
    return out == stdout ? 0 : 1;
}

// Each client is a descriptor.
void raise_descriptor_limit()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const char *path = nullptr;
    int option = 0;
    while ((option = getopt_long(argc, argv, "s:hV", LONG_OPTIONS, nullptr)) != -1) {
        switch (option) {
        case 's':
            path = optarg;
            break;
        case 'h':
            return usage(argv[0], stdout);
        case 'V':
            puts("ubusd " OVANI_VERSION);
            return 0;
        default:
            return usage(argv[0], stderr);
        }
    }
    if (optind < argc) {
        return usage(argv[0], stderr);
    }
    if (path == nullptr) {
        path = UBUS_UNIX_SOCKET;
        mkdir("/var/run/ubus", 0755);
    }

    signal(SIGHUP, SIG_IGN);
    raise_descriptor_limit();
    uloop_init();
    bus::Broker *broker = bus::broker_start(path);
    if (broker == nullptr) {
        perror(path);
        return 1;
    }
    uloop_run();
    bus::broker_stop(broker);
    uloop_done();
    return 0;
}
