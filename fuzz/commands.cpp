// What command-line tools, the kernel's ARP cache and the list of limited devices tell.
#include <string>

#include "fuzz/daemon.h"
#include "fuzz/fuzz.h"
#include "ovani/ovani_event.h"
#include "ovani/ovani_host_config.h"
#include "ovani/ovani_shell.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr char mac[] = "00:11:22:aa:bb:cc";
    start_daemon(1);
    set_command_output({data, data + size});
    // Every command prints the same: what begins with a line "5" tells the number of the listing's columns,
    // and has a line that passes for its head.
    ovani_lanhost_info_init();
    check_daemon();

    BRCTL_MACS_INFO info{};
    get_brctl_info_from_mac(mac, &info);
    ovani_lanhost_resolve_mac(reinterpret_cast<const unsigned char *>(mac));
    std::vector<char> word(3);
    get_cmd_res("brctl showmacs br0", word.data(), word.size());
    PROMISE(word.back() == '\0');
    std::vector<char> neighbour(NEIGHBOUR_MAC_LEN);
    ovani_get_mac_by_ipv6("fe80::1", neighbour.data());
    std::vector<char> type(CONNECT_TYPE_LEN);
    ovani_meshhost_connect_type_get(mac, type.data(), 0);
    handler_speedlimit_config(mac);
    check_daemon();

    auto text = text_of({data, size}); // no address, in all likelihood
    del_item_from_arp(text.data());
    get_brctl_info_from_mac(text.data(), &info);
    ovani_meshhost_connect_type_get(text.data(), type.data(), 0);
    return 0;
}
