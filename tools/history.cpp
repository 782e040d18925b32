#include "tools/history.h"

#include <algorithm>
#include <tuple>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_event.h"

namespace {

constexpr int64_t LEAVING_MAX = 60'000'000;         // from an event to the daemon's "Offline"
constexpr size_t REMEMBERED = 4;                    // addresses and places of a stay
constexpr size_t LONGEST_NAME = 127;                // of a host object
constexpr size_t LONGEST_WORD = 45;                 // an address's, which is longer than a place's
constexpr int64_t LATEST = 100'000'000'000'000'000; // of any boot: no sum of moments overflows

std::string_view text_of(const Json &line, const char *key)
{
    const auto found = line.find(key);
    return found != line.end() && found->is_string() ? found->get_ref<const std::string &>()
                                                     : std::string_view();
}

int64_t number_of(const Json &line, const char *key)
{
    const auto found = line.find(key);
    return found != line.end() && found->is_number_integer() ? found->get<int64_t>() : -1;
}

// Puts a text last, the first gives way.
void remember(std::vector<std::string> &texts, std::string_view text)
{
    if (text.empty() || (!texts.empty() && texts.back() == text)) {
        return;
    }
    std::erase(texts, text);
    if (texts.size() == REMEMBERED) {
        texts.erase(texts.begin());
    }
    texts.emplace_back(text.substr(0, LONGEST_WORD));
}

std::string lan_place(int64_t port)
{
    return port > 0 && port < OVANI_INVALID_VALUE ? lan_port_name(port) : "";
}

std::string wifi_place(int64_t ssid)
{
    return ssid >= 0 && ssid < OVANI_INVALID_VALUE ? ssid_name(ssid + 1) : "Wi-Fi";
}

void take_texts(const Json &line, const char *key, std::vector<std::string> &texts)
{
    if (const auto found = line.find(key); found != line.end() && found->is_array()) {
        for (const Json &text : *found) {
            remember(texts, text.is_string() ? text.get_ref<const std::string &>() : std::string_view());
        }
    }
}

} // namespace

bool Stay::is_of(std::string_view who) const
{
    const auto address = parse_mac(who);
    return who == name || (address && *address == mac) ||
           std::ranges::find(addresses, who) != addresses.end();
}

// --- Lines

void History::add(const Json &line)
{
    const auto wall = parse_iso_time(std::string(text_of(line, "time")));
    const int64_t us = number_of(line, "us");
    if (wall && us >= 0 && us < LATEST) {
        add({*wall, us}, line);
    }
}

void History::add(const Moment &when, const Json &line)
{
    const bool begins = number_of(line, "journal") == 1;
    if (begins || boots_.empty()) {
        begin_boot(begins ? text_of(line, "boot") : "", when);
    }
    boots_.back().last = when;

    if (const std::string_view event = text_of(line, "event"); !event.empty()) {
        take_event(event, line);
    } else if (const auto hosts = line.find("on_line"); hosts != line.end()) {
        take_on_line(*hosts);
    } else if (text_of(line, "mark") == "daemon went") {
        leave_all("daemon ended");
    }
}

void History::begin_boot(std::string_view id, const Moment &when)
{
    if (!boots_.empty() && boots_.back().id.empty()) { // the head of its lines is gone
        boots_.back().id = id;
    }
    if (boots_.empty() || boots_.back().id != id) {
        leave_all("gateway restarted");
        boots_.push_back({std::string(id), when.boot, when});
    }
}

void History::catch_up()
{
    if (!boots_.empty() && boots_.back().id == boot_id()) {
        boots_.back().last = moment_now();
    }
}

// --- Events

void History::take_event(std::string_view event, const Json &line)
{
    if (event == UBUS_EVENT_LANHOST_UP_DOWN) {
        return take_announcement(line);
    }
    if (event == UBUS_EVENT_DHCP_USER_CONN) {
        return take_lease(line);
    }
    if (event == UBUS_EVENT_UNI_PORT_LINK_STATE) {
        return link_down(line);
    }
    const std::string_view action = text_of(line, "action");
    if (event == UBUS_EVENT_MAC_ADDR_INFO) {
        if (Host *host = host_of(line); host != nullptr && action == "deleted") {
            may_leave(*host, "MAC aged");
        } else if (host != nullptr) {
            remember(host->stay.places, lan_place(lan_port_of(text_of(line, "interface"))));
        }
    } else if (event == UBUS_EVENT_WIFI_ON_OFF) {
        if (Host *host = host_of(line); host != nullptr && action == "left") {
            may_leave(*host, "Wi-Fi leave");
        } else if (host != nullptr) {
            remember(host->stay.places, wifi_place(number_of(line, "ssid")));
        }
    } else if (event == UBUS_EVENT_ARP_INFO && action == "added") {
        if (Host *host = host_of(line); host != nullptr) {
            remember(host->stay.addresses, text_of(line, "address"));
        }
    }
}

void History::link_down(const Json &line)
{
    if (text_of(line, "action") != "down") {
        return;
    }
    const std::string place = lan_place(number_of(line, "port"));
    for (auto &[mac, host] : hosts_) {
        if (!host.stay.places.empty() && host.stay.places.back() == place) {
            may_leave(host, "link down");
        }
    }
}

void History::take_lease(const Json &line)
{
    const std::string_view action = text_of(line, "action");
    Host *host = action == "ADD" || action == "DEL" ? host_of(line) : nullptr;
    if (host == nullptr) {
        return;
    }
    if (action == "DEL") {
        return may_leave(*host, "lease released");
    }
    remember(host->stay.addresses, text_of(line, "address"));
    if (const std::string_view name = text_of(line, "name"); !name.empty()) {
        host->stay.name = name.substr(0, LONGEST_NAME);
    }
}

void History::take_announcement(const Json &line)
{
    Host *host = host_of(line);
    if (host == nullptr) {
        return;
    }
    const bool on_line = text_of(line, "action") == "Online";
    const bool was_on_line = host->state == State::ON_LINE;
    if (on_line && !was_on_line) {
        come(*host);
    }
    if (!on_line && host->state == State::OFF_LINE) {
        return;
    }
    Stay &stay = host->stay;
    if (const std::string_view name = text_of(line, "name"); !name.empty()) {
        stay.name = name.substr(0, LONGEST_NAME);
    }
    remember(stay.addresses, text_of(line, "address"));
    if (text_of(line, "attached") == "wired") {
        remember(stay.places, lan_place(number_of(line, "port")));
    } else if (stay.places.empty()) {
        remember(stay.places, wifi_place(-1));
    }
    if (!on_line) {
        if (!was_on_line) { // it had come before
            stay.boot = boots_.size() - 1;
            stay.from = boots_.back().first;
            stay.exact = false;
        }
        leave(*host,
              host->leaving != nullptr && now() - host->leaving_since <= LEAVING_MAX ? host->leaving : "");
    }
}

// --- Hosts

History::Host *History::host_of(const Json &line)
{
    const auto mac = parse_mac(text_of(line, "mac"));
    if (!mac) {
        return nullptr;
    }
    if (!hosts_.contains(*mac)) {
        make_room();
    }
    Host &host = hosts_[*mac];
    host.stay.mac = *mac;
    host.seen = now();
    return &host;
}

void History::make_room()
{
    if (hosts_.size() < most_hosts_) {
        return;
    }
    const auto expendable = [](const auto &entry) {
        const State state = entry.second.state;
        return std::tuple(state == State::ON_LINE, state == State::OFF_LINE, entry.second.seen);
    };
    hosts_.erase(std::ranges::min_element(hosts_, {}, expendable));
}

// What was heard of a host since it left tells where it is.
void History::come(Host &host)
{
    Stay &stay = host.stay;
    if (stay.places.size() > 1) {
        stay.places.erase(stay.places.begin(), stay.places.end() - 1);
    }
    stay.addresses.clear();
    stay.boot = boots_.size() - 1;
    stay.from = now();
    stay.exact = true;
    stay.to.reset();
    stay.why.clear();
    host.state = State::ON_LINE;
    host.leaving = nullptr;
}

void History::leave(Host &host, std::string why)
{
    host.state = State::OFF_LINE;
    host.leaving = nullptr;
    host.stay.to = now();
    host.stay.why = std::move(why);
    ended_.push_back(host.stay);
    if (ended_.size() > most_stays_) {
        ended_.pop_front();
    }
}

void History::leave_all(const char *why)
{
    for (auto &[mac, host] : hosts_) {
        if (host.state == State::ON_LINE) {
            leave(host, why);
        }
    }
}

void History::may_leave(Host &host, const char *why)
{
    if (host.leaving == nullptr || now() - host.leaving_since > LEAVING_MAX) {
        host.leaving = why;
        host.leaving_since = now();
    }
}

// --- Who is on line

Json History::on_line() const
{
    Json hosts = Json::array();
    for (const auto &[mac, host] : hosts_) {
        if (host.state == State::ON_LINE) {
            hosts.push_back({{"mac", format_mac(mac)},
                             {"name", host.stay.name},
                             {"addresses", host.stay.addresses},
                             {"places", host.stay.places},
                             {"since", host.stay.from},
                             {"exact", host.stay.exact}});
        }
    }
    return hosts;
}

void History::take_on_line(const Json &hosts)
{
    std::vector<Mac> there;
    for (const Json &line : hosts) {
        Host *host = line.is_object() ? host_of(line) : nullptr;
        if (host == nullptr) {
            continue;
        }
        there.push_back(host->stay.mac);
        if (host->state == State::ON_LINE) {
            continue;
        }
        come(*host);
        host->stay.name = text_of(line, "name").substr(0, LONGEST_NAME);
        take_texts(line, "addresses", host->stay.addresses);
        take_texts(line, "places", host->stay.places);
        host->stay.from = std::clamp(number_of(line, "since"), int64_t{0}, now());
        host->stay.exact = line.value("exact", Json()) == true;
    }
    for (auto &[mac, host] : hosts_) {
        if (host.state == State::ON_LINE && std::ranges::find(there, mac) == there.end()) {
            leave(host, "");
        }
    }
}

// --- Looking

int64_t History::wall(size_t boot, int64_t us) const
{
    const Moment &last = boots_[boot].last;
    return last.wall - (last.boot - us);
}

std::vector<Stay> History::stays() const
{
    std::vector<Stay> stays(ended_.begin(), ended_.end());
    for (const auto &[mac, host] : hosts_) {
        if (host.state == State::ON_LINE) {
            stays.push_back(host.stay);
        }
    }
    std::ranges::stable_sort(stays, {}, [](const Stay &stay) { return std::pair(stay.boot, stay.from); });
    return stays;
}

Json stay_json(const History &history, const Stay &stay)
{
    return {{"name", stay.name},
            {"mac", format_mac(stay.mac)},
            {"addresses", stay.addresses},
            {"places", stay.places},
            {"from", iso_time(history.wall_from(stay))},
            {"exact", stay.exact},
            {"to", stay.to ? Json(iso_time(history.wall_to(stay))) : Json()},
            {"seconds", history.lasted(stay) / 1'000'000},
            {"why", stay.why}};
}
