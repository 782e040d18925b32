// The system manager's facts, kept as a device object in the store.
#include "platform/zk_sys_mgr.h"

#include <array>

#include "platform/host/number.h"
#include "platform/host/store.h"
#include "platform/zkcfgif.h"

namespace {

constexpr char DEVICE[] = "InternetGatewayDevice.DeviceInfo.";
constexpr int WAIT_MS = 5000;
constexpr unsigned int MAX_PORTS = 128;

int read_number(const char *parameter, unsigned int limit, unsigned int &number)
{
    std::array<char, MODEL_MAX_VALUE + 1> text{};
    if (int result = zkcfg_getsingleparamval(DEVICE, parameter, text.data(), WAIT_MS); result != 0) {
        return result;
    }
    const auto value = parse_number<unsigned int>(text.data());
    if (!value || *value >= limit) {
        return STORE_DAMAGED;
    }
    number = *value;
    return 0;
}

} // namespace

int zk_sys_mgr_get_carrier(zk_carr_type *carrier)
{
    if (carrier == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    unsigned int code = 0;
    if (int result = read_number("X_QV_Carrier", CARR_MAX, code); result != 0) {
        return result;
    }
    *carrier = static_cast<zk_carr_type>(code);
    return 0;
}

int zk_sys_mgr_get_areacode(char *areacode)
{
    return zkcfg_getsingleparamval(DEVICE, "X_QV_AreaCode", areacode, WAIT_MS);
}

int zk_sys_mgr_get_brmac(char *mac)
{
    return zkcfg_getsingleparamval(DEVICE, "X_QV_BridgeMACAddress", mac, WAIT_MS);
}

int zk_sys_mgr_get_devinfo(devinfo *info)
{
    if (info == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    return read_number("X_QV_LANPortNumber", MAX_PORTS, info->port_num);
}
