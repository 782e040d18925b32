#include "platform/zk_log.h"

#include <cerrno>
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
        if (level == nullptr)
            unsetenv("OVANI_LOG_LEVEL");
        else
            setenv("OVANI_LOG_LEVEL", level, 1);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        act();
        _exit(0);
    }
    close(ends[1]);
    std::string output;
    char part[512];
    for (ssize_t n = 0; (n = read(ends[0], part, sizeof part)) > 0;)
        output.append(part, static_cast<size_t>(n));
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return output;
}

void log_every_level()
{
    for (int level = VELM_LOG_EMERG; level <= VELM_LOG_MAX; level++)
        zk_mod_log_printf("m", level, "<%d>", level);
}

TEST(Log, LetsThroughUpToTheLevelAskedFor)
{
    const struct {
        const char *level;
        int last;
    } cases[] = {{nullptr, 3},   {"0", 0},        {"7", 7}, {"debug", 7},
                 {"Warning", 4}, {"nonsense", 3}, {"8", 3}, {"", 3}};
    for (const auto &c : cases) {
        std::string output = logged(c.level, log_every_level);
        for (int level = VELM_LOG_EMERG; level <= VELM_LOG_MAX; level++)
            EXPECT_EQ(output.find("<" + std::to_string(level) + ">") != std::string::npos, level <= c.last)
                << (c.level == nullptr ? "unset" : c.level) << ", level " << level;
    }
}

TEST(Log, WritesEveryMessageAsOneLine)
{
    std::string output = logged("7", [] {
        errno = ENOENT;
        zk_mod_log_printf("lanmgr", VELM_LOG_ERR, "[%s][%d]no end", "f", 42);
        zk_mod_log_printf("lanmgr", VELM_LOG_DEBUG, "listing\r\n");
        zk_mod_log_printf(nullptr, VELM_LOG_INFO, "name \x1b[2J\x01\xc2\x9b \xe4\xbd\xa0\nforged");
        zk_mod_log_printf("m", VELM_LOG_INFO, "errno %d", errno);
    });
    EXPECT_THAT(output, MatchesRegex("....-..-.. ..:..:..\\.... ERROR lanmgr: \\[f\\]\\[42\\]no end\n"
                                     ".*DEBUG lanmgr: listing\n"
                                     ".*INFO \\?: name \\\\x1b\\[2J\\\\x01.\\\\x9b \xe4\xbd\xa0\n\tforged\n"
                                     ".*INFO m: errno 2\n"));
}

TEST(Log, CutsLongMessages)
{
    for (const char *filling : {"x", "\x01"}) {
        std::string message;
        for (int i = 0; i < 100'000; i++)
            message += filling;
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
        auto write_lines = [](const std::string &text) {
            for (int i = 0; i < 300; i++)
                zk_mod_log_printf("m", VELM_LOG_INFO, "%s", text.c_str());
        };
        std::thread other(write_lines, std::string(200, 'a'));
        write_lines(std::string(200, 'b'));
        other.join();
    });
    size_t whole_lines = 0;
    for (size_t begin = 0; begin < output.size(); whole_lines++) {
        size_t end = output.find('\n', begin);
        std::string text = output.substr(begin, end - begin);
        text = text.substr(text.rfind(' ') + 1);
        EXPECT_TRUE(text == std::string(200, 'a') || text == std::string(200, 'b')) << text;
        begin = end + 1;
    }
    EXPECT_EQ(whole_lines, 600U);
}

} // namespace
