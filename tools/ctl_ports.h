// The LAN ports as lines of a table, for those who show them beside something else.
#pragma once

#include <string>
#include <vector>

#include "tools/table.h"

std::vector<std::string> port_lines(const Style &style, size_t width);
