// The LAN hosts as rows of a table.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "tools/objects.h"
#include "tools/table.h"

// The cells of a host's row.
enum HostCell : size_t {
    HOST_INSTANCE,
    HOST_NAME,
    HOST_MAC,
    HOST_ADDRESS,
    HOST_SOURCE,
    HOST_IPV6,
    HOST_TYPE,
    HOST_PORT,
    HOST_SINCE,
    HOST_ACTIVE,
    HOST_PARAMETERS, // an object
};
std::span<const Column> host_columns();
std::vector<Row> host_rows();

// What people call a host: by its alias, or else by its name.
std::string host_name(const StoreObject &host);
