// Tables of the configuration store, read an instance at a time.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

inline constexpr int STORE_WAIT_MS = 5000;
inline constexpr std::string_view HOSTS_PATH = "InternetGatewayDevice.LANDevice.1.Hosts.Host.";

// Why the store cannot be read: there is none, or no right. Empty when it can be.
std::string why_no_store();
// For who does not make a store: ends the command when there is none to read. require_store() is for readers,
// and from then on this process only reads.
void require_store();
void require_store_to_write();

struct StoreObject {
    int instance = 0;
    std::map<std::string, std::string, std::less<>> parameters; // those of objects below it as "Name.1.Name"

    // Empty for a parameter it has not.
    std::string_view get(std::string_view name) const
    {
        const auto found = parameters.find(name);
        return found == parameters.end() ? std::string_view() : found->second;
    }
};

// The instances of a table, whose path ends in a dot, in the order of their numbers. Ends the command when
// the store cannot be read.
std::vector<StoreObject> read_objects(std::string_view table);

// One parameter by its path; ends the command in the same way.
std::string read_parameter(std::string_view path);
