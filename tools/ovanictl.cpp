// ovanictl: looks at the LAN hosts, the configuration store and the bus of a gateway, and pokes them.

#include "tools/ovanictl.h"

#include <clocale>
#include <csignal>
#include <cstdio>
#include <stdexcept>

#include "tools/bus.h"
#include "tools/command_line.h"
#include "tools/objects.h"

void fail(const std::string &reason)
{
    throw std::runtime_error(reason);
}

int main(int argc, char **argv)
try {
    setlocale(LC_CTYPE, "C.UTF-8"); // widths of characters, whatever the caller's locale
    signal(SIGPIPE, SIG_IGN);

    CLI::App app{"Looks at the LAN hosts, the configuration store and the bus of a gateway, and pokes them"};
    app.name("ovanictl");
    app.require_subcommand(1);
    app.footer("The environment variable OVANI_STORE names the configuration store's file.\n"
               "Exit status: 0 done, 1 failed, 2 a wrong command line, 3 no answer.");
    CtlOptions options;
    app.add_option("-s,--socket", options.socket, "the bus's socket")->default_str(BUS_DEFAULT_SOCKET);
    add_doctor_command(app, options);
    add_host_commands(app, options);
    add_hosts_command(app);
    add_top_command(app, options);
    add_port_commands(app);
    add_store_commands(app, options);
    add_history_commands(app);
    add_events_command(app, options);
    add_emit_command(app, options);
    add_metrics_command(app, options);
    add_report_command(app, options);
    add_probe_command(app);
    add_sysmgr_command(app, options);
    add_record_command(app, options);
    // Who only looks makes no store.
    for (CLI::App *reader :
         {app.get_subcommand("hosts"), app.get_subcommand("ports"), app.get_subcommand("limits"),
          app.get_subcommand("get"), app.get_subcommand("store")->get_subcommand("export")}) {
        reader->parse_complete_callback(require_store);
    }
#ifdef OVANI_EXTERNAL // these are about a simulated gateway
    for (const char *simulated : {"limits", "sysmgr"}) {
        app.remove_subcommand(app.get_subcommand(simulated));
    }
#else
    add_replay_command(app);
#endif
    return parse_command_line(app, argc, argv, complete_store_path).value_or(0);
} catch (const std::exception &e) {
    fprintf(stderr, "ovanictl: %s\n", e.what());
    return 1;
}
