// ovanictl probe: the daemon's ARP probe, by hand.

#include "tools/ovanictl.h"

#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include <arpa/inet.h>

#include "ovani/ovani_arping.h"
#include "ovani/ovani_commdef.h"
#include "ovani/ovani_interface.h"
#include "tools/text.h"

namespace {

struct ProbeCommand {
    std::string address;
    std::string interface = OVANI_BR_NAME;
    bool wifi = false;
};

// Whether the kernel's ARP cache knows a MAC for an address.
bool is_cached(const std::string &address)
{
    std::ifstream cache("/proc/net/arp");
    std::string line;
    while (std::getline(cache, line)) {
        std::istringstream columns(line);
        std::string ip;
        std::string type;
        std::string flags;
        if (columns >> ip >> type >> flags && ip == address) {
            return flags != "0x0";
        }
    }
    return false;
}

void probe(const ProbeCommand &command)
{
    in_addr address{};
    if (inet_pton(AF_INET, command.address.c_str(), &address) != 1) {
        fail(printable(command.address) + " is no IPv4 address");
    }
    std::array<unsigned char, OVANI_MAC_LEN> own_mac{};
    char own_address[INET_ADDRSTRLEN] = "";
    if (ovani_get_mac_by_ifname(command.interface.c_str(), own_mac.data()) != 0 ||
        get_lanif_addr(command.interface.c_str(), own_address) != 0) {
        fail(printable(command.interface) + " has no address to ask from");
    }

    const bool was_cached = is_cached(command.address);
    const int result =
        ovani_arp_ping(ntohl(address.s_addr), static_cast<unsigned>(ovani_ipv4_strtol(own_address)),
                       own_mac.data(), command.interface.c_str(), static_cast<char>(command.wifi ? 1 : 0));
    if (result < 0) {
        fail("cannot open a raw socket");
    }
    if (result == 1) {
        printf("%s answers\n", command.address.c_str());
        return;
    }
    const char *found = "";
    if (command.wifi && was_cached) {
        found = is_cached(command.address) ? ", but its station is associated"
                                           : ", its station has left: ARP entry removed";
    }
    printf("%s does not answer%s\n", command.address.c_str(), found);
    throw CLI::RuntimeError(NO_ANSWER);
}

} // namespace

void add_probe_command(CLI::App &app)
{
    auto command = std::make_shared<ProbeCommand>();
    CLI::App *probe_command = app.add_subcommand("probe", "Ask by ARP whether an address is answered");
    probe_command->add_option("ADDRESS", command->address, "an IPv4 address")->required();
    probe_command->add_option("-i,--interface", command->interface)->capture_default_str();
    probe_command->add_flag(
        "-w,--wifi", command->wifi,
        "it is a Wi-Fi station: when it is silent and its access point does not know it,\n"
        "its entry is removed from the ARP cache");
    probe_command->footer("Exit status: 0 it answers, 3 it does not.");
    probe_command->callback([command] { probe(*command); });
}
