// What command-line tools, the kernel's ARP cache and the list of limited devices tell. All print the same:
// what begins with a line "5" tells the number of the bridge listing's columns, and has a line that passes
// for its head.
#include "fuzz/fuzz.h"
#include "ovani/ovani_event_discovery.h"
#include "ovani/ovani_event_mac.h"
#include "ovani/ovani_host_config.h"
#include "ovani/ovani_shell.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    start_daemon(1);
    set_command_output({data, size});
    ovani_lanhost_info_init();
    check_daemon();

    constexpr char mac[] = "00:11:22:aa:bb:cc";
    auto no_address = text_of({data, size});
    for (const char *address : {mac, static_cast<const char *>(no_address.data())}) {
        std::vector<char> word(3);
        get_cmd_res("brctl showmacs br0", word.data(), word.size());
        std::vector<char> neighbour(NEIGHBOUR_MAC_LEN);
        ovani_get_mac_by_ipv6(address, neighbour.data());
        std::vector<char> type(CONNECT_TYPE_LEN);
        ovani_meshhost_connect_type_get(address, type.data(), 0);
        PROMISE(word.back() == '\0' && neighbour.back() == '\0' && type.back() == '\0');
        BRCTL_MACS_INFO info{};
        get_brctl_info_from_mac(address, &info);
        del_item_from_arp(address);
        handler_speedlimit_config(address);
    }
    ovani_lanhost_resolve_mac(reinterpret_cast<const unsigned char *>(mac));
    check_daemon();
    return 0;
}
