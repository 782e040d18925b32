// The text of a "dhcp_user_event", for a daemon that knows the device 00:11:22:AA:BB:CC on LAN2. The
// operator's code comes first.
#include <cstring>

#include "fuzz/daemon.h"
#include "fuzz/fuzz.h"
#include "ovani/ovani_event.h"

namespace {

constexpr uint8_t known_mac[] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};

void learn_device()
{
    ovani_mac_event learned{.eth_num = "eth1", .brname = "br0", .action = 1};
    std::ranges::copy(known_mac, learned.mac);
    ovani_mac_event_process(&learned);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input{data, size};
    start_daemon(input.byte());
    set_command_output("fe80::1 dev br0 lladdr 00:11:22:aa:bb:cc REACHABLE\n");
    learn_device();
    auto text = text_of(input.rest());
    auto same_text = text;
    ovani_dhcpd_user_event_process(text.data());
    ovani_dhcpd_user_event_process(same_text.data()); // the second time the object is there
    check_daemon();
    return 0;
}
