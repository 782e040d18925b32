#include "platform/host/driver.h"

#include <array>
#include <vector>

#include "platform/host/number.h"
#include "platform/zkcfgif.h"

namespace {

constexpr std::string_view INTERFACE_PREFIX = "eth";
constexpr std::string_view PORTS = "InternetGatewayDevice.X_QV_Driver.LANPort.";

} // namespace

std::string driver_interface_of_port(unsigned int port)
{
    if (port < 1 || port > DRIVER_MAX_PORT) {
        return {};
    }
    return std::string(INTERFACE_PREFIX) + std::to_string(port - 1);
}

unsigned int driver_port_of_interface(std::string_view name)
{
    if (!name.starts_with(INTERFACE_PREFIX)) {
        return 0;
    }
    name.remove_prefix(INTERFACE_PREFIX.size());
    const auto index = parse_number<unsigned int>(name.substr(0, name.find('.')));
    return index && *index < DRIVER_MAX_PORT ? *index + 1 : 0;
}

std::string driver_port_path(unsigned int port)
{
    return std::string(PORTS) + std::to_string(port) + ".";
}

std::string driver_binding_path(unsigned int port, unsigned int lan_vlan)
{
    return driver_port_path(port) + "VLANBinding." + std::to_string(lan_vlan) + ".";
}

StoreResult driver_keep(std::string_view object_path, std::initializer_list<DriverValue> values)
{
    ObjectRef object = data_model_find_object(data_model(), object_path);
    if (object.object == MODEL_NONE) {
        return STORE_UNKNOWN_PATH;
    }
    const ModelObject &model = data_model_object(object);
    std::vector<StoreItem> items;
    for (const DriverValue &value : values) {
        int parameter = data_model_find_parameter(model, value.name);
        if (parameter == MODEL_NONE) {
            return STORE_UNKNOWN_PATH;
        }
        items.push_back({.object = object,
                         .parameter = static_cast<size_t>(parameter),
                         .text = const_cast<char *>(value.text.c_str())}); // a write only reads it
    }
    return store_put(items, DRIVER_WAIT_MS);
}

std::string driver_kept(const std::string &object_path, const char *parameter)
{
    std::array<char, MODEL_MAX_VALUE + 1> text{};
    zkcfg_getsingleparamval(object_path.c_str(), parameter, text.data(), DRIVER_WAIT_MS);
    return text.data();
}
