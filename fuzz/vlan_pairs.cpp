// The VLAN pairs of a LAN port: by themselves, then bound and taken away again.
#include "fuzz/fuzz.h"
#include "ovani/ovani_commdef.h"
#include "ovani/ovani_lan_port_config.h"
#include "tests/fake/fake_platform.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    start_daemon(1);
    fake::platform().keep_calls = true;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr int port = 1;
    fake::platform().calls.clear();
    fake::platform().log.clear();
    auto text = text_of({data, size});
    int lan[MAX_VLAN_PAIRS] = {};
    int wan[MAX_VLAN_PAIRS] = {};
    int count = parse_lan_vlan_str(text.data(), lan, wan);
    PROMISE(count >= 0 && count <= std::ranges::count(text, '/') && count <= MAX_VLAN_PAIRS);
    for (int i = count; i < MAX_VLAN_PAIRS; ++i) {
        PROMISE(lan[i] == 0 && wan[i] == 0);
    }

    LanEthIntfVlanBind config{.VLAN = {}, .Mode = "1", .MacAddrNum = {}};
    copy_text(config.VLAN, text.data());
    copy_text(config.MacAddrNum, text.data());
    ovani_port_vlan_bind(port, &config);
    int bound = fake::count_calls("bind 1 ");
    PROMISE(bound <= count);
    config = {.VLAN = "NULL", .Mode = "0", .MacAddrNum = {}};
    ovani_port_vlan_bind(port, &config);
    PROMISE(fake::count_calls("unbind 1 ") <= bound);
    PROMISE(std::ranges::all_of(s_vlan_bind_control[port - 1], [](const LanVlanBindControl &left) {
        return left.lan_vlan == 0 && left.wan_vlan == 0;
    }));
    return 0;
}
