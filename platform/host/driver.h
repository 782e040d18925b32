// What the two drivers share: the interfaces of the LAN ports, and the objects in the store that keep what
// was asked of them ("InternetGatewayDevice.X_QV_Driver." and below; data_model.txt says what is in them).
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "platform/host/store.h"

// More ports than a gateway's switch has; 127 and above is what callers keep for "no port".
inline constexpr unsigned int DRIVER_MAX_PORT = 126;

// LAN port n is the interface eth(n-1). Empty for a number that is no port's.
std::string driver_interface_of_port(unsigned int port);

// The other way round; a VLAN interface ("eth0.100") belongs to the port that it stands on. 0 for any other
// name.
unsigned int driver_port_of_interface(std::string_view name);

inline constexpr int DRIVER_WAIT_MS = 5000;
inline constexpr std::string_view DRIVER_DEVICES = "InternetGatewayDevice.X_QV_Driver.Device.";

// The objects of a port and of a VLAN binding of it.
std::string driver_port_path(unsigned int port);
std::string driver_binding_path(unsigned int port, unsigned int lan_vlan);

struct DriverValue {
    std::string_view name;
    std::string text;
};

// Writes parameters of one object, which is made when it is missing. The store's result.
StoreResult driver_keep(std::string_view object_path, std::initializer_list<DriverValue> values);

// Reads one parameter; empty when it cannot be read.
std::string driver_kept(const std::string &object_path, const char *parameter);
