// ovani-dhcp-hook: tells the bus about DHCP leases. dnsmasq runs it for every change of a lease.
//
// dnsmasq knows a client's vendor class, and its name as the client spelt it, only while it answers the
// request that made the lease; at a renewal it has neither. So that a renewal does not blank them they are
// remembered, one small file a MAC, from the lease's beginning to its end.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/bus.h"
#include "tools/events.h"

namespace {

constexpr char USAGE[] =
    R"(usage: ovani-dhcp-hook add|old|del MAC ADDRESS [NAME]
       ovani-dhcp-hook -h|--help|-V|--version

Sends a DHCP lease as the bus event "dhcp_user_event": a new one (add), one that was renewed (old), one that ended
(del). Made for dnsmasq's --dhcp-script, together with --script-on-renewal; other actions of dnsmasq's are ignored.

Read from the environment, as dnsmasq sets it:
  DNSMASQ_SUPPLIED_HOSTNAME  the client's name, in the client's own bytes; NAME without it
  DNSMASQ_VENDOR_CLASS       the client's option 60
  DNSMASQ_TIME_REMAINING     seconds the lease still runs; without end (-1) when missing
And also:
  OVANI_DHCP_STATE           directory where names and vendor classes are remembered (/var/run/ovani-dhcp)
)";

constexpr unsigned PATIENCE_S = 5; // dnsmasq waits for this program before it reports the next lease

struct Client {
    std::string name;
    std::string vendor_class;
};

std::string environment(const char *name)
{
    const char *value = getenv(name);
    return value != nullptr ? value : "";
}

std::string state_file(const Mac &mac)
{
    std::string directory = environment("OVANI_DHCP_STATE");
    if (directory.empty()) {
        directory = "/var/run/ovani-dhcp";
    }
    if (mkdir(directory.c_str(), 0700) < 0 && errno != EEXIST) {
        fprintf(stderr, "ovani-dhcp-hook: %s: %s\n", directory.c_str(), strerror(errno));
    }
    return directory + '/' + format_mac(mac);
}

// The two texts, each ended by a NUL: the one byte that neither can hold.
Client recall(const std::string &file)
{
    std::ifstream in(file, std::ios::binary);
    Client client;
    std::getline(in, client.name, '\0');
    std::getline(in, client.vendor_class, '\0');
    return client;
}

void remember(const std::string &file, const Client &client)
{
    const std::string fresh = file + ".new";
    std::ofstream out(fresh, std::ios::binary | std::ios::trunc);
    out << client.name << '\0' << client.vendor_class << '\0';
    out.close();
    if (!out || rename(fresh.c_str(), file.c_str()) < 0) {
        fprintf(stderr, "ovani-dhcp-hook: cannot remember %s: %s\n", file.c_str(), strerror(errno));
    }
}

// What dnsmasq says this time goes before what was remembered, and that before the name dnsmasq gave the
// lease.
Client identify(bool is_new, const std::string &file, const char *lease_name)
{
    const Client known = is_new ? Client{} : recall(file);
    Client client{environment("DNSMASQ_SUPPLIED_HOSTNAME"), environment("DNSMASQ_VENDOR_CLASS")};
    if (client.name.empty()) {
        client.name = known.name.empty() ? lease_name : known.name;
    }
    if (client.vendor_class.empty()) {
        client.vendor_class = known.vendor_class;
    }
    return client;
}

const char *device_type_of(const std::string &vendor_class)
{
    static constexpr struct {
        const char *part;
        const char *type;
    } known[] = {{"MSFT", "Computer"}, {"android-dhcp", "Phone"}};
    for (const auto &vendor : known) {
        if (vendor_class.find(vendor.part) != std::string::npos) {
            return vendor.type;
        }
    }
    return "";
}

} // namespace

int main(int argc, char **argv)
{
    const std::string_view action = argc > 1 ? argv[1] : "-";
    if (action == "-V" || action == "--version") {
        puts("ovani-dhcp-hook " OVANI_VERSION);
        return 0;
    }
    if (action.starts_with('-')) {
        const bool asked = action == "-h" || action == "--help";
        fputs(USAGE, asked ? stdout : stderr);
        return asked ? 0 : 2;
    }
    const bool is_new = action == "add";
    const bool is_gone = action == "del";
    if ((!is_new && !is_gone && action != "old") || getenv("DNSMASQ_IAID") != nullptr) {
        return 0; // TFTP, ARP, DHCPv6: no IPv4 lease
    }
    const auto mac = parse_mac(argc > 2 ? argv[2] : "");
    in_addr address{};
    if (argc < 4 || !mac || inet_pton(AF_INET, argv[3], &address) != 1) {
        fprintf(stderr, "ovani-dhcp-hook: a MAC and an IPv4 address are needed\n");
        return 2;
    }

    const std::string file = state_file(*mac);
    const Client client = identify(is_new, file, argc > 4 ? argv[4] : "");
    if (is_gone) {
        unlink(file.c_str());
    } else {
        remember(file, client);
    }

    Lease lease;
    lease.gone = is_gone;
    lease.address = argv[3];
    lease.acknowledged = date_text();
    lease.seconds =
        is_gone ? 0 : parse_number(environment("DNSMASQ_TIME_REMAINING"), 0, INT32_MAX).value_or(-1);
    lease.name = client.name;
    lease.device_type = device_type_of(client.vendor_class);
    lease.vendor_class = client.vendor_class;
    lease.mac = format_mac(*mac);

    alarm(PATIENCE_S);
    const BusConnection bus = connect_bus(nullptr);
    if (!bus || !make_dhcp_event(lease_text(lease)).send(bus.get())) {
        fprintf(stderr, "ovani-dhcp-hook: the bus does not take the lease of %s\n", argv[2]);
        return 1;
    }
    return 0;
}
