// The PON driver. Enable and link state are those of the port's interface; a work mode is asked of it, and
// what was asked is kept whether it can do that or not.
#include "platform/qvdrv_pon_api.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <string>
#include <system_error>

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/host/driver.h"
#include "platform/zk_log.h"

namespace {

// An interface's flags and link settings are read and then written.
std::mutex ports_mutex;

// The interface of a port. Its calls return 0 or an error number.
class Interface {
public:
    explicit Interface(unsigned int port)
        : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) // any socket answers for interfaces
    {
        driver_interface_of_port(port).copy(request_.ifr_name, sizeof request_.ifr_name - 1);
    }
    Interface(const Interface &) = delete;
    Interface &operator=(const Interface &) = delete;
    ~Interface()
    {
        if (socket_ >= 0) {
            close(socket_);
        }
    }

    int get_flags(unsigned int &flags)
    {
        int fault = control(SIOCGIFFLAGS);
        flags = static_cast<unsigned short>(request_.ifr_flags);
        return fault;
    }

    int set_up(bool up)
    {
        unsigned int flags = 0;
        if (int fault = get_flags(flags); fault != 0) {
            return fault;
        }
        flags = up ? flags | IFF_UP : flags & ~static_cast<unsigned int>(IFF_UP);
        request_.ifr_flags = static_cast<short>(flags);
        return control(SIOCSIFFLAGS);
    }

    int ethtool(ethtool_link_settings &settings)
    {
        request_.ifr_data = reinterpret_cast<char *>(&settings);
        const int fault = control(SIOCETHTOOL);
        request_.ifr_data = nullptr;
        return fault;
    }

private:
    int control(unsigned long request)
    {
        if (request_.ifr_name[0] == '\0') {
            return ENODEV;
        }
        return ioctl(socket_, request, &request_) == 0 ? 0 : errno;
    }

    int socket_;
    ifreq request_{};
};

// Asks the interface for a speed and duplex. With auto-negotiation all it can do is offered, and the two ends
// settle what rate and duplex name otherwise; what is 0 there stays as it is.
int negotiate(Interface &interface, const PON_ETH_PORT_WORK_MODE_T &mode)
{
    // Behind the record stand three bit maps of link modes, of as many words each as the kernel says:
    // supported, advertised and the partner's.
    constexpr int max_words = 127;
    constexpr size_t size = sizeof(ethtool_link_settings) + sizeof(uint32_t) * 3 * max_words;
    alignas(ethtool_link_settings) char memory[size] = {};
    auto &settings = *reinterpret_cast<ethtool_link_settings *>(memory);

    settings.cmd = ETHTOOL_GLINKSETTINGS;
    if (int fault = interface.ethtool(settings); fault != 0) {
        return fault;
    }
    const int words = -settings.link_mode_masks_nwords; // asked with 0, it only says how many, negative
    if (words < 1 || words > max_words) {
        return EPROTO;
    }
    settings.cmd = ETHTOOL_GLINKSETTINGS;
    settings.link_mode_masks_nwords = static_cast<int8_t>(words);
    if (int fault = interface.ethtool(settings); fault != 0) {
        return fault;
    }
    if (settings.link_mode_masks_nwords != words) {
        return EPROTO;
    }

    settings.cmd = ETHTOOL_SLINKSETTINGS;
    if (mode.auto_neg_enable != 0) {
        settings.autoneg = AUTONEG_ENABLE;
        uint32_t *supported = settings.link_mode_masks;
        std::copy_n(supported, words, supported + words);
    } else {
        settings.autoneg = AUTONEG_DISABLE;
        if (mode.rate != 0) {
            settings.speed = mode.rate;
        }
        if (mode.duplex_mode != 0) {
            settings.duplex = mode.duplex_mode == PON_PORT_DUPLEX_FULL ? DUPLEX_FULL : DUPLEX_HALF;
        }
    }
    return interface.ethtool(settings);
}

void log_fault(int level, const char *what, unsigned int port, int fault)
{
    const std::string name = driver_interface_of_port(port);
    zk_mod_log_printf("driver", level, "%s of port %u (%s): %s\n", what, port,
                      name.empty() ? "no interface" : name.c_str(),
                      std::system_category().message(fault).c_str());
}

} // namespace

int qvdrv_pon_set_eth_port_work_mode(const PON_ETH_PORT_WORK_MODE_T *mode)
{
    if (mode == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    std::lock_guard lock(ports_mutex);
    Interface interface(mode->port_index);
    unsigned int flags = 0;
    if (int fault = interface.get_flags(flags); fault != 0) {
        log_fault(VELM_LOG_ERR, "work mode", mode->port_index, fault);
        return STORE_FAILED;
    }
    // Virtual interfaces mostly refuse; that is nothing to worry about.
    if (int fault = negotiate(interface, *mode); fault != 0) {
        log_fault(VELM_LOG_WARNING, "work mode", mode->port_index, fault);
    }
    const char *duplex = "None";
    if (mode->duplex_mode != 0) {
        duplex = mode->duplex_mode == PON_PORT_DUPLEX_FULL ? "Full" : "Half";
    }
    return driver_keep(driver_port_path(mode->port_index),
                       {{"AutoNegotiation", mode->auto_neg_enable != 0 ? "1" : "0"},
                        {"Rate", std::to_string(mode->rate)},
                        {"Duplex", duplex}});
}

int qvdrv_pon_set_eth_port_state(const PON_ETH_PORT_STATE_T *state)
{
    if (state == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    const bool enable = state->enable != 0;
    std::lock_guard lock(ports_mutex);
    if (int fault = Interface(state->port_index).set_up(enable); fault != 0) {
        log_fault(VELM_LOG_ERR, enable ? "enabling" : "disabling", state->port_index, fault);
        return STORE_FAILED;
    }
    return driver_keep(driver_port_path(state->port_index), {{"Enable", enable ? "1" : "0"}});
}

int qvdrv_pon_get_eth_port_link_status(PON_ETH_PORT_LINK_STATUS_T *status)
{
    if (status == nullptr) {
        return STORE_BAD_ARGUMENT;
    }
    status->link_up = 0;
    unsigned int flags = 0;
    if (int fault = Interface(status->port_index).get_flags(flags); fault != 0) {
        log_fault(VELM_LOG_ERR, "link status", status->port_index, fault);
        return STORE_FAILED;
    }
    status->link_up = (flags & IFF_RUNNING) != 0 ? 1 : 0; // up, and with a carrier
    return 0;
}
