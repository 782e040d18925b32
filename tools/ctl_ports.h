// The LAN ports as rows of a table, and what ports are called.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "tools/table.h"

// The cells of a port's row that others read.
enum PortCell : size_t {
    PORT_NAME = 0,
    PORT_LINK = 2,
    PORT_BINDINGS = 8,
};
std::span<const Column> port_columns();
std::vector<Row> port_rows();

// LAN2.
std::string lan_port_name(int number);
// By its instance in the data model, with its interface: SSID 5 (rai0).
std::string ssid_name(int instance);
