// The text of a "dhcp_user_event" behind a profile, for a daemon that knows the device 00:11:22:AA:BB:CC on
// LAN2.
#include <string_view>

#include "fuzz/fuzz.h"
#include "ovani/ovani_event_dhcp.h"
#include "ovani/ovani_event_mac.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input{{data, size}};
    start_daemon(input.byte());
    constexpr std::string_view neighbours = "fe80::1 dev br0 lladdr 00:11:22:aa:bb:cc REACHABLE\n";
    set_command_output({reinterpret_cast<const uint8_t *>(neighbours.data()), neighbours.size()});
    constexpr ovani_mac_event learned{
        .eth_num = "eth1", .brname = "br0", .mac = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc}, .action = 1};
    ovani_mac_event_process(&learned);
    for (int i = 0; i < 2; ++i) { // the second time the object is there
        auto text = text_of(input.rest);
        ovani_dhcpd_user_event_process(text.data());
        check_daemon();
    }
    return 0;
}
