// What the kernel knows of one LAN bridge and of the access points on it, read whole whenever it has changed.
//
// An access point is simulated by a bridge of its own, named "bss-" and the Wi-Fi interface that uplinks it
// to the LAN bridge. Its forwarding entries are its association list, and nothing else is in them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <libmnl/libmnl.h>
#include <netinet/in.h>

#include "tools/text.h"

struct BridgeState {
    int bridge = 0;                      // its interface index, 0 while there is no such bridge
    std::map<unsigned, bool> carriers;   // of its LAN ports, by their number
    std::map<Mac, std::string> stations; // devices behind its ports, to the port's name
    std::map<in_addr_t, Mac> neighbours; // IPv4 neighbours whose MAC is known
    std::map<Mac, uint8_t> associations; // Wi-Fi stations, to the SSID as "111" counts it

    // Adds the entries that only the older state has.
    void merge(BridgeState older);
};

// Nothing (and errno) when the kernel does not tell, or changed its tables while they were read.
std::optional<BridgeState> read_bridge(const std::string &name);

// Hears that the kernel's tables of links, forwarding entries and neighbours change; not how.
class ChangeListener {
public:
    // `receive_buffer` is the kernel's buffer for the notifications in bytes, 0 to leave it. False (and
    // errno) when the kernel refuses.
    bool open(int receive_buffer);
    int fd() const { return mnl_socket_get_fd(socket_.get()); }

    // Whether anything has changed since the last call. Does not block.
    bool changed();

private:
    struct Deleter {
        void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
    };
    std::unique_ptr<mnl_socket, Deleter> socket_;
};
