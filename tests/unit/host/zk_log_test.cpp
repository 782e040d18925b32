#include "platform/zk_log.h"

#include <cstdlib>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using testing::ExitedWithCode;
using testing::MatchesRegex;

// The environment is read once a process, so each case has one of its own.
[[noreturn]] void leave()
{
    _exit(0);
}

TEST(LogDeathTest, LetsThroughUpToTheLevelAskedFor)
{
    const std::pair<const char *, const char *> cases[] = {
        {nullptr, "0123"},    {"0", "0"},    {"7", "01234567"}, {"debug", "01234567"},
        {"Warning", "01234"}, {"8", "0123"}, {"xx", "0123"},    {"", "0123"}};
    for (const auto &[level, passed] : cases) {
        auto log_all = [level = level] {
            level == nullptr ? unsetenv("OVANI_LOG_LEVEL") : setenv("OVANI_LOG_LEVEL", level, 1);
            for (int each = VELM_LOG_EMERG; each <= VELM_LOG_MAX; ++each) {
                zk_mod_log_printf("m", each, "<%d>", each);
            }
            leave();
        };
        std::string lines;
        for (const char *digit = passed; *digit != '\0'; ++digit) {
            lines += "[^\n]* m: <" + std::string(1, *digit) + ">\n";
        }
        EXPECT_EXIT(log_all(), ExitedWithCode(0), MatchesRegex(lines))
            << (level == nullptr ? "unset" : level);
    }
}

TEST(LogDeathTest, WritesEveryMessageAsOneLine)
{
    setenv("OVANI_LOG_LEVEL", "7", 1);
    auto log_odd = [] {
        zk_mod_log_printf("lanmgr", VELM_LOG_ERR, "[%s][%d]no end", "f", 42);
        zk_mod_log_printf("lanmgr", VELM_LOG_DEBUG, "listing\r\n");
        zk_mod_log_printf(nullptr, VELM_LOG_INFO, "name \x1b[2J\x01\xc2\x9b \xe4\xbd\xa0\nforged");
        leave();
    };
    EXPECT_EXIT(log_odd(), ExitedWithCode(0),
                MatchesRegex("....-..-.. ..:..:..\\.... ERROR lanmgr: \\[f\\]\\[42\\]no end\n"
                             ".*DEBUG lanmgr: listing\n"
                             ".*INFO \\?: name \\\\x1b\\[2J\\\\x01.\\\\x9b \xe4\xbd\xa0\n\tforged\n"));
    for (char filling : {'x', '\x01'}) {
        auto log_long = [filling] {
            zk_mod_log_printf("m", VELM_LOG_INFO, "%s", std::string(100'000, filling).c_str());
            leave();
        };
        EXPECT_EXIT(log_long(), ExitedWithCode(0),
                    testing::SizeIs(testing::AllOf(testing::Gt(1000), testing::Le(4096))));
        EXPECT_EXIT(log_long(), ExitedWithCode(0), MatchesRegex("[^\n]*\n"));
    }
    auto log_from_two = [] {
        auto write_lines = [](const char *text) {
            for (int i = 0; i < 300; ++i) {
                zk_mod_log_printf("m", VELM_LOG_DEBUG, "%s", text);
            }
        };
        std::thread other(write_lines, "<aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa>");
        write_lines("<bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb>");
        other.join();
        leave();
    };
    EXPECT_EXIT(log_from_two(), ExitedWithCode(0), MatchesRegex("(2[^\n]* DEBUG m: <(a{32}|b{32})>\n){600}"));
}

TEST(LogDeathTest, NeverFloods)
{
    auto flood = [] {
        for (int i = 0; i < 1000; ++i) {
            zk_mod_log_printf("m", VELM_LOG_ERR, "table full!! %d\n", i);
        }
        sleep(1);
        zk_mod_log_printf("m", VELM_LOG_ERR, "calm");
        leave();
    };
    EXPECT_EXIT(flood(), ExitedWithCode(0),
                MatchesRegex("([^\n]*m: table full!! [0-9]+\n){50,100}"
                             "[^\n]*m: 9[0-9]+ suppressed: table full!! %d\n[^\n]* m: calm\n"));
}

TEST(LogDeathTest, NeverWaitsForItsReader)
{
    setenv("OVANI_LOG_LEVEL", "7", 1);
    auto write_into_a_full_pipe = [] {
        int ends[2];
        char lines[1 << 17];
        if (pipe(ends) != 0 || dup2(ends[1], STDERR_FILENO) < 0) {
            _exit(1);
        }
        for (int i = 0; i < 3000; ++i) {
            zk_mod_log_printf("m", VELM_LOG_DEBUG, "%s", std::string(100, 'x').c_str());
        }
        std::string_view read_now(lines, static_cast<size_t>(read(ends[0], lines, sizeof lines)));
        bool full = read_now.size() > 30'000 && read_now.ends_with("x\n"); // whole lines
        zk_mod_log_printf("m", VELM_LOG_DEBUG, "there is room again");
        std::string_view after(lines, static_cast<size_t>(read(ends[0], lines, sizeof lines)));
        _exit(full && after.find(" lines lost") != std::string_view::npos && after.ends_with("room again\n")
                  ? 0
                  : 1);
    };
    EXPECT_EXIT(write_into_a_full_pipe(), ExitedWithCode(0), "");
}

} // namespace
