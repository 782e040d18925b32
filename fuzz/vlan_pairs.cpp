// The VLAN pairs of a LAN port: by themselves, then bound and taken away again.
#include <cstring>
#include <sstream>

#include "fuzz/daemon.h"
#include "fuzz/fuzz.h"
#include "ovani/ovani_commdef.h"
#include "ovani/ovani_lan_port_config.h"

namespace {

int pairs_in(const char *text)
{
    int count = 0;
    std::istringstream units{text};
    for (std::string unit; std::getline(units, unit, ',');) {
        count += unit.substr(0, LAN_PARAM_LEN - 1).find('/') != std::string::npos ? 1 : 0;
    }
    return std::min(count, MAX_VLAN_PAIRS);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr int port = 1;
    start_daemon(1);
    auto text = text_of({data, size});
    int lan[MAX_VLAN_PAIRS] = {};
    int wan[MAX_VLAN_PAIRS] = {};
    int count = parse_lan_vlan_str(text.data(), lan, wan);
    PROMISE(count == pairs_in(text.data()));
    for (int i = count; i < MAX_VLAN_PAIRS; ++i) {
        PROMISE(lan[i] == 0 && wan[i] == 0);
    }

    LanEthIntfVlanBind config{.VLAN = {}, .Mode = "1", .MacAddrNum = {}};
    copy_text(config.VLAN, text.data());
    copy_text(config.MacAddrNum, text.data());
    ovani_port_vlan_bind(port, &config);
    PROMISE(fake::count_calls("bind 1 ") <= count);
    config = {.VLAN = "NULL", .Mode = {}, .MacAddrNum = {}};
    ovani_port_vlan_bind(port, &config);
    for (const LanVlanBindControl &left : s_vlan_bind_control[port - 1]) {
        PROMISE(left.lan_vlan == 0 && left.wan_vlan == 0);
    }
    return 0;
}
