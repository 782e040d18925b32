// What the kernel knows of one LAN bridge and of the access points on it, followed notification by
// notification.
//
// An access point is simulated by a bridge of its own, named "bss-" and the Wi-Fi interface that uplinks it
// to the LAN bridge. Its forwarding entries are its association list, and nothing else is in them.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "tools/netlink.h"

// A VLAN-aware bridge may hold a MAC once per VLAN.
struct FdbKey {
    Mac mac;
    uint16_t vlan;
    bool operator<(const FdbKey &other) const
    {
        return std::tie(mac, vlan) < std::tie(other.mac, other.vlan);
    }
};

struct BridgePort {
    std::string name;
    bool carrier = false;
};

struct BridgeState {
    int bridge = 0;                  // its interface index, 0 while there is no such bridge
    std::map<int, BridgePort> ports; // by interface index
    std::map<FdbKey, std::string>
        fdb; // devices behind ports (not the bridge's own addresses), to the port's name
    std::map<in_addr_t, Mac> neighbours;      // IPv4 neighbours whose MAC is known
    std::map<int, std::string> access_points; // by index of their bridge, to the Wi-Fi interface
    std::map<Mac, std::string> associations;  // Wi-Fi stations, to the interface; a station has at most one
};

class BridgeTracker {
public:
    explicit BridgeTracker(std::string bridge) : name_(std::move(bridge)) {}

    // Begins to listen. False (and errno) when the kernel refuses.
    bool listen(int receive_buffer);
    int fd() const { return kernel_->fd(); }

    // Takes in what the kernel has sent. When that cannot be followed (messages were lost, the bridge came or
    // went) the state is out of step until it has been read anew.
    void follow();
    // The whole state from the kernel. False when it cannot be had now.
    bool read_anew();

    bool in_step() const { return in_step_; }
    const BridgeState &state() const { return state_; }

private:
    void take(const nlmsghdr *message);
    void take_link(const Link &link, bool deleted);
    void take_fdb(const Neighbour &entry, bool deleted);
    void take_neighbour(const Neighbour &entry, bool deleted);
    void take_association(const Neighbour &entry, bool deleted);

    const std::string name_;
    std::unique_ptr<NetlinkListener> kernel_;
    BridgeState state_;
    bool in_step_ = false;
};
