#include "ovani/ovani_presence.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "ovani/ovani_event.h"
#include "ovani/ovani_host_table.h"

namespace {

using mac_key = std::array<uint8_t, OVANI_MAC_LEN>;

// Sorted. Never longer than there are host objects.
std::vector<mac_key> on_line;

mac_key key_of(const host_node &host)
{
    mac_key key;
    std::ranges::copy(host.mac, key.begin());
    return key;
}

void announce(const host_node &host)
{
    ovani_device_status_event status{};
    ovani_get_lanhost_device_struct(&host, &status);
    ovani_device_status_ubus_send(&status);
}

} // namespace

void ovani_presence_online(host_node &host)
{
    host.Active = OVANI_HOST_ONLINE;
    mac_key key = key_of(host);
    auto place = std::ranges::lower_bound(on_line, key);
    if (place != on_line.end() && *place == key) {
        return;
    }
    on_line.insert(place, key);
    announce(host);
}

void ovani_presence_offline(host_node &host)
{
    host.Active = OVANI_HOST_OFFLINE;
    mac_key key = key_of(host);
    auto place = std::ranges::lower_bound(on_line, key);
    if (place == on_line.end() || *place != key) {
        return;
    }
    on_line.erase(place);
    announce(host);
}

void ovani_presence_init()
{
    on_line.clear();
}
