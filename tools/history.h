// Who was on line when, made of the journal's lines.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/journal.h"
#include "tools/text.h"

// One host on line, from its "Online" to its "Offline". Times are microseconds since the boot it lies in.
struct Stay {
    Mac mac{};
    std::string name;
    std::vector<std::string> addresses; // the last one held is the last
    std::vector<std::string> places;    // "LAN2", "SSID 1 (ra0)", "Wi-Fi"; likewise
    size_t boot = 0;
    int64_t from = 0;
    bool exact = true;         // false: it had come before the journal could tell
    std::optional<int64_t> to; // none while it is on line
    std::string why;           // it left, as far as known

    // By name, MAC or one of its addresses.
    bool is_of(std::string_view who) const;
};

// Takes the journal's lines, or what becomes one, in their order. It holds as many hosts and ended stays as
// it may: of the hosts, those go first that were never announced, then those off line, the longest unseen
// before the others.
//
// An "Online" while the host is on line continues its stay: a daemon that lost its broker tells again. A stay
// ends without "Offline" with the daemon and with the boot. The reason of an "Offline" is the first event
// that would bring it about within the minute before it.
class History {
public:
    enum class State { SEEN, ON_LINE, OFF_LINE }; // SEEN: on the LAN, never announced

    struct Host {
        State state = State::SEEN;
        Stay stay; // the last one, unless SEEN
        int64_t seen = 0;
        const char *leaving = nullptr; // why it may be about to leave
        int64_t leaving_since = 0;
    };

    explicit History(size_t most_hosts = SIZE_MAX, size_t most_stays = SIZE_MAX)
        : most_hosts_(most_hosts), most_stays_(most_stays)
    {
    }

    void add(const Json &line);
    void add(const Moment &when, const Json &line);

    const std::map<Mac, Host> &hosts() const { return hosts_; }
    std::vector<Stay> stays() const; // by their beginnings
    Json on_line() const;            // for the journal's line of that name

    // Moments as wall clock. A boot's times go by the clock as it was last seen in it: a gateway may begin
    // in 1970.
    int64_t wall(size_t boot, int64_t us) const;
    int64_t wall_from(const Stay &stay) const { return wall(stay.boot, stay.from); }
    int64_t wall_to(const Stay &stay) const { return wall(stay.boot, end(stay)); }
    int64_t lasted(const Stay &stay) const { return end(stay) - stay.from; } // so far, in microseconds

    // Of the first and the last line; 0 without any.
    int64_t first_wall() const { return boots_.empty() ? 0 : wall(0, boots_.front().first); }
    int64_t last_wall() const { return boots_.empty() ? 0 : boots_.back().last.wall; }
    // Takes it to now, if the last lines are of this boot.
    void catch_up();

private:
    struct Boot {
        std::string id;
        int64_t first = 0;
        Moment last{};
    };

    int64_t end(const Stay &stay) const { return stay.to.value_or(boots_[stay.boot].last.boot); }
    int64_t now() const { return boots_.back().last.boot; }

    void begin_boot(std::string_view id, const Moment &when);
    void take_event(std::string_view event, const Json &line);
    void take_lease(const Json &line);
    void take_announcement(const Json &line);
    void take_on_line(const Json &hosts);
    Host *host_of(const Json &line);
    void make_room();
    void come(Host &host);
    void leave(Host &host, std::string why);
    void leave_all(const char *why);
    void may_leave(Host &host, const char *why);
    void link_down(const Json &line);

    const size_t most_hosts_;
    const size_t most_stays_;
    std::vector<Boot> boots_;
    std::map<Mac, Host> hosts_;
    std::deque<Stay> ended_;
};

// A stay for programs; "to" is null while it lasts.
Json stay_json(const History &history, const Stay &stay);
