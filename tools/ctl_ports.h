// The LAN ports as rows of a table.
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
