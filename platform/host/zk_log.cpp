// Log printer: OVANI_LOG_LEVEL (0 to 7, or a level's name) says up to which level messages are let through,
// errors (3) unless set; OVANI_LOG ("stderr", "syslog") where they go, standard error unless set. Both are
// read once.
#include "platform/zk_log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include <strings.h>
#include <syslog.h>
#include <unistd.h>

namespace {

struct LevelName {
    const char *name;
    int level;
};

constexpr LevelName LEVEL_NAMES[] = {
    {"emerg", VELM_LOG_EMERG},  {"alert", VELM_LOG_ALERT},   {"crit", VELM_LOG_CRIT},
    {"err", VELM_LOG_ERR},      {"error", VELM_LOG_ERR},     {"warning", VELM_LOG_WARNING},
    {"warn", VELM_LOG_WARNING}, {"notice", VELM_LOG_NOTICE}, {"info", VELM_LOG_INFO},
    {"debug", VELM_LOG_DEBUG},
};

constexpr const char *LEVEL_TAGS[VELM_LOG_MAX] = {"EMERG", "ALERT",  "CRIT", "ERROR",
                                                  "WARN",  "NOTICE", "INFO", "DEBUG"};

struct LogConfig {
    int level = VELM_LOG_ERR;
    bool to_syslog = false;
};

LogConfig read_config()
{
    LogConfig config;
    const char *level = std::getenv("OVANI_LOG_LEVEL");
    if (level != nullptr && level[0] >= '0' && level[0] <= '7' && level[1] == '\0') {
        config.level = level[0] - '0';
    }
    for (const LevelName &known : LEVEL_NAMES) {
        if (level != nullptr && strcasecmp(level, known.name) == 0) {
            config.level = known.level;
        }
    }
    const char *target = std::getenv("OVANI_LOG");
    config.to_syslog = target != nullptr && std::strcmp(target, "syslog") == 0;
    return config;
}

// A message is formatted into TEXT_SIZE bytes, and cut there; LINE_SIZE is what one write to a pipe puts down
// undivided (PIPE_BUF), so that lines of several threads and processes do not mix.
constexpr size_t TEXT_SIZE = 2048;
constexpr size_t LINE_SIZE = 4096;

class Line {
public:
    void put(char c)
    {
        if (length_ < text_.size() - 1) { // the newline has its place
            text_[length_++] = c;
        }
    }

    void put(std::string_view text)
    {
        for (char c : text) {
            put(c);
        }
    }

    // Control characters in what clients call themselves must neither move the cursor of whoever reads the
    // log nor pass for a line of ours: they are shown as \xNN, and a line that goes on begins with a tab.
    void put_message(std::string_view text)
    {
        static constexpr char DIGITS[] = "0123456789abcdef";
        for (size_t i = 0; i < text.size(); i++) {
            auto byte = static_cast<unsigned char>(text[i]);
            if (byte == '\r' && i + 1 < text.size() && text[i + 1] == '\n') {
                continue;
            }
            bool c1_control = byte >= 0x80 && byte < 0xa0 && i > 0 && text[i - 1] == '\xc2'; // in UTF-8
            if (byte == '\n') {
                put("\n\t");
            } else if ((byte < 0x20 && byte != '\t') || byte == 0x7f || c1_control) {
                put("\\x");
                put(DIGITS[byte >> 4]);
                put(DIGITS[byte & 0xf]);
            } else {
                put(text[i]);
            }
        }
    }

    std::string_view finish()
    {
        text_[length_] = '\n';
        return {text_.data(), length_ + 1};
    }

private:
    std::array<char, LINE_SIZE> text_;
    size_t length_ = 0;
};

void put_time(Line &line)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[48];
    size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    line.put({text, length});
    int fraction = std::snprintf(text, sizeof text, ".%03d ", static_cast<int>(now.tv_nsec / 1'000'000));
    line.put({text, static_cast<size_t>(std::max(fraction, 0))});
}

void write_whole(std::string_view text)
{
    while (!text.empty()) {
        ssize_t written = write(STDERR_FILENO, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return; // nobody is left to tell
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
}

} // namespace

void zk_mod_log_printf(const char *module, int level, const char *fmt, ...)
{
    static const LogConfig config = read_config();
    if (level > config.level) {
        return;
    }

    int saved_errno = errno;
    char text[TEXT_SIZE];
    va_list arguments;
    va_start(arguments, fmt);
    int length = std::vsnprintf(text, sizeof text, fmt, arguments);
    va_end(arguments);

    std::string_view message(text, std::min(static_cast<size_t>(std::max(length, 0)), sizeof text - 1));
    size_t end = message.find_last_not_of("\r\n");
    message = message.substr(0, end == std::string_view::npos ? 0 : end + 1);

    const char *tag = LEVEL_TAGS[std::clamp<int>(level, VELM_LOG_EMERG, VELM_LOG_DEBUG)];
    Line line;
    if (config.to_syslog) {
        line.put(module == nullptr ? "?" : module);
        line.put(": ");
        line.put_message(message);
        std::string_view whole = line.finish();
        syslog(std::clamp<int>(level, LOG_EMERG, LOG_DEBUG), "%.*s", static_cast<int>(whole.size()),
               whole.data());
    } else {
        put_time(line);
        line.put(tag);
        line.put(' ');
        line.put(module == nullptr ? "?" : module);
        line.put(": ");
        line.put_message(message);
        write_whole(line.finish());
    }
    errno = saved_errno;
}
