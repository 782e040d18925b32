// What becomes of the journal's lines: stays.

#include "tools/history.h"

#include <gtest/gtest.h>

namespace {

constexpr int64_t SECOND = 1'000'000;
constexpr int64_t CLOCK_SET = 1'700'000'000 * SECOND; // between the wall clock and the time since boot
constexpr char ONE[] = "02:00:00:00:00:01";
constexpr char TWO[] = "02:00:00:00:00:02";

class HistoryTest : public testing::Test {
protected:
    void add(int64_t second, const Json &line, int64_t ahead = CLOCK_SET)
    {
        history_.add({ahead + second * SECOND, second * SECOND}, line);
    }
    void boot(int64_t second, const char *id, int64_t ahead = CLOCK_SET)
    {
        add(second, {{"journal", 1}, {"boot", id}}, ahead);
    }
    void tell(int64_t second, const char *action, const char *mac = ONE)
    {
        add(second, {{"event", "lanhost_event"},
                     {"action", action},
                     {"mac", mac},
                     {"attached", "wired"},
                     {"port", 1}});
    }

    // "1 10-20 why", of the MAC's end, in seconds since 1970 less CLOCK_SET.
    std::vector<std::string> stays() const
    {
        std::vector<std::string> texts;
        for (const Stay &stay : history_.stays()) {
            const auto second = [](int64_t wall) { return std::to_string((wall - CLOCK_SET) / SECOND); };
            texts.push_back(format_mac(stay.mac).substr(16) + (stay.exact ? " " : " before ") +
                            second(history_.wall_from(stay)) + "-" +
                            (stay.to ? second(history_.wall_to(stay)) + " " + stay.why : ""));
        }
        return texts;
    }

    History history_{2, 3};
};

using Texts = std::vector<std::string>;

TEST_F(HistoryTest, TheFirstEventWithinTheMinuteSaysWhy)
{
    boot(0, "a");
    const Json aged = {{"event", "109"}, {"action", "deleted"}, {"mac", ONE}};
    tell(10, "Online");
    tell(11, "Online"); // a daemon that lost its broker
    add(20, {{"event", "106"}, {"action", "down"}, {"port", 1}});
    add(21, aged);
    tell(22, "Offline");
    tell(23, "Offline");
    tell(30, "Online");
    add(40, aged);
    tell(101, "Offline");
    tell(110, "Offline", TWO); // it had come before the journal could tell
    EXPECT_EQ(stays(), (Texts{"2 before 0-110 ", "1 10-22 link down", "1 30-101 "}));
}

TEST_F(HistoryTest, BootsEndStaysAndEachGoesByItsOwnClock)
{
    boot(5, "a", 0); // the clock is set later
    add(10, {{"event", "lanhost_event"}, {"action", "Online"}, {"mac", ONE}}, 0);
    add(50, {{"mark", "late"}});
    boot(60, "a");
    boot(3, "b", CLOCK_SET + 100 * SECOND);
    EXPECT_EQ(stays(), (Texts{"1 10-60 gateway restarted"}));
}

TEST_F(HistoryTest, ALineOfWhoIsOnLineIsTheWholeTruth)
{
    boot(0, "a");
    tell(10, "Online");
    add(20, {{"on_line", {{{"mac", TWO}, {"name", "pc"}, {"since", 12 * SECOND}, {"exact", false}}}}});
    EXPECT_EQ(stays(), (Texts{"1 10-20 ", "2 before 12-"}));
    History again;
    again.add({CLOCK_SET, 20 * SECOND}, {{"on_line", history_.on_line()}});
    EXPECT_EQ(again.on_line(), history_.on_line());
}

TEST_F(HistoryTest, ForgetsTheLeastAndTakesNothingForTrue)
{
    boot(0, "a");
    for (const Json &line :
         {Json{{"event", "lanhost_event"}}, Json{{"event", 7}}, Json{{"on_line", 7}},
          Json{{"on_line", {7, {{"mac", "x"}}}}}, Json{{"journal", "1"}},
          Json{{"event", "dhcp_user_event"}, {"action", "ADD"}, {"mac", ONE}, {"name", {}}}}) {
        add(1, line);
    }
    history_.add(Json{{"time", "yesterday"}, {"us", 1}, {"mark", "daemon went"}});
    history_.add(Json{{"time", iso_time(CLOCK_SET)}, {"us", -1}, {"mark", "daemon went"}});
    EXPECT_EQ(stays(), Texts());
    tell(10, "Online", TWO);
    tell(11, "Online", "02:00:00:00:00:03"); // ONE was but seen
    tell(12, "Offline", TWO);
    tell(13, "Online", "02:00:00:00:00:04"); // TWO was off line
    EXPECT_EQ(stays(), (Texts{"2 10-12 ", "3 11-", "4 13-"}));
    EXPECT_EQ(history_.hosts().size(), 2U);
}

} // namespace
