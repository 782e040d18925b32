#include "platform/zk_log.h"

#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing::MatchesRegex;

// What `act` puts on standard error in a process of its own, under OVANI_LOG_LEVEL `level`.
std::string logged(const char *level, const std::function<void()> &act)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_t child = fork();
    if (child == 0) {
        if (level == nullptr) {
            unsetenv("OVANI_LOG_LEVEL");
        } else {
            setenv("OVANI_LOG_LEVEL", level, 1);
        }
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        act();
        _exit(0);
    }
    close(ends[1]);
    std::string output;
    char part[512];
    for (ssize_t n = 0; (n = read(ends[0], part, sizeof part)) > 0;) {
        output.append(part, static_cast<size_t>(n));
    }
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return output;
}

TEST(Log, LetsThroughUpToTheLevelAskedFor)
{
    const std::pair<const char *, const char *> cases[] = {
        {nullptr, "0123"},    {"0", "0"},    {"7", "01234567"}, {"debug", "01234567"},
        {"Warning", "01234"}, {"8", "0123"}, {"xx", "0123"},    {"", "0123"}};
    for (const auto &[level, expected] : cases) {
        std::string output = logged(level, [] {
            for (int each = VELM_LOG_EMERG; each <= VELM_LOG_MAX; each++) {
                zk_mod_log_printf("m", each, "<%d>", each);
            }
        });
        std::string passed;
        for (size_t at = 0; (at = output.find('<', at)) != std::string::npos; at++) {
            passed += output[at + 1];
        }
        EXPECT_EQ(passed, expected) << (level == nullptr ? "unset" : level);
    }
}

TEST(Log, WritesEveryMessageAsOneLine)
{
    std::string output = logged("7", [] {
        zk_mod_log_printf("lanmgr", VELM_LOG_ERR, "[%s][%d]no end", "f", 42);
        zk_mod_log_printf("lanmgr", VELM_LOG_DEBUG, "listing\r\n");
        zk_mod_log_printf(nullptr, VELM_LOG_INFO, "name \x1b[2J\x01\xc2\x9b \xe4\xbd\xa0\nforged");
    });
    EXPECT_THAT(output,
                MatchesRegex("....-..-.. ..:..:..\\.... ERROR lanmgr: \\[f\\]\\[42\\]no end\n"
                             ".*DEBUG lanmgr: listing\n"
                             ".*INFO \\?: name \\\\x1b\\[2J\\\\x01.\\\\x9b \xe4\xbd\xa0\n\tforged\n"));
}

TEST(Log, CutsLongMessages)
{
    for (char filling : {'x', '\x01'}) {
        std::string message(100'000, filling);
        std::string output =
            logged("7", [&] { zk_mod_log_printf("m", VELM_LOG_INFO, "%s", message.c_str()); });
        EXPECT_GT(output.size(), 1000U);
        EXPECT_LE(output.size(), 4096U);
        EXPECT_EQ(output.find('\n'), output.size() - 1);
    }
}

TEST(Log, LinesOfTwoThreadsDoNotMix)
{
    std::string output = logged("7", [] {
        auto write_lines = [](const char *text) {
            for (int i = 0; i < 300; i++) {
                zk_mod_log_printf("m", VELM_LOG_INFO, "%s", text);
            }
        };
        std::thread other(write_lines, "<aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa>");
        write_lines("<bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb>");
        other.join();
    });
    EXPECT_THAT(output, MatchesRegex("(2[^\n]* INFO m: <(a{32}|b{32})>\n){600}"));
}

} // namespace
