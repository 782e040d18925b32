// Log printer: OVANI_LOG_LEVEL (0 to 7, or a level's name) says up to which level messages are let through,
// errors (3) unless set; OVANI_LOG ("stderr", "syslog") where they go, standard error unless set. Both are
// read once.
//
// Nobody waits for the log: a line that its reader has no room for is lost, and the next one that fits tells
// how many were. Nor does it flood: of one message MOST_A_SECOND are written in a second, then how many were
// suppressed. Traces (level 7) are written whole: who asks for them wants them all.
#include "platform/zk_log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include <paths.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/un.h>
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
        static constexpr char digits[] = "0123456789abcdef";
        for (size_t i = 0; i < text.size(); ++i) {
            auto byte = static_cast<unsigned char>(text[i]);
            if (byte == '\r' && i + 1 < text.size() && text[i + 1] == '\n') {
                continue;
            }
            bool c1_control = byte >= 0x80 && byte < 0xa0 && i > 0 && text[i - 1] == '\xc2'; // in UTF-8
            if (byte == '\n') {
                put("\n\t");
            } else if ((byte < 0x20 && byte != '\t') || byte == 0x7f || c1_control) {
                put("\\x");
                put(digits[byte >> 4]);
                put(digits[byte & 0xf]);
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

// --- Where lines go. False when there is no room.

bool write_to_stderr(std::string_view line)
{
    // A pipe with any room has it for a whole line.
    pollfd reader{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
    if (poll(&reader, 1, 0) <= 0) {
        return false;
    }
    while (!line.empty()) {
        ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
        if (written <= 0 && errno != EINTR) {
            break; // nobody is left to tell
        }
        line.remove_prefix(static_cast<size_t>(std::max<ssize_t>(written, 0)));
    }
    return true;
}

// As syslog(3) does (RFC 3164), which would wait for a daemon that does not read.
bool write_to_syslog(int level, std::string_view line)
{
    static int log_socket = -1;
    if (log_socket < 0) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        constexpr std::string_view path = _PATH_LOG;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        log_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (log_socket < 0 ||
            connect(log_socket, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
            close(log_socket);
            log_socket = -1;
            return false;
        }
    }
    std::string message = "<" + std::to_string(LOG_DAEMON | level) + ">ovani: ";
    message.append(line.substr(0, line.size() - 1));
    if (send(log_socket, message.data(), message.size(), MSG_NOSIGNAL) >= 0) {
        return true;
    }
    if (errno != EAGAIN) { // the daemon has gone: another time its next one
        close(log_socket);
        log_socket = -1;
    }
    return false;
}

// Everything below is under this lock: there are two threads.
std::mutex in_use;
unsigned lost_lines;

void print(const LogConfig &config, const char *module, int level, std::string_view message)
{
    int known_level = std::clamp<int>(level, VELM_LOG_EMERG, VELM_LOG_DEBUG);
    Line line;
    if (!config.to_syslog) {
        put_time(line);
        line.put(LEVEL_TAGS[known_level]);
        line.put(' ');
    }
    line.put(module == nullptr ? "?" : module);
    line.put(": ");
    line.put_message(message);
    std::string_view whole = line.finish();
    if (!(config.to_syslog ? write_to_syslog(known_level, whole) : write_to_stderr(whole))) {
        ++lost_lines;
    }
}

void print_number(const LogConfig &config, const char *module, int level, unsigned number, const char *what)
{
    char text[TEXT_SIZE];
    snprintf(text, sizeof text, "%u %s", number, what);
    print(config, module, level, text);
}

// --- Floods

constexpr unsigned MOST_A_SECOND = 50;

// A message, known by its format's address, and how often it came in this second. What falls on another's
// place begins anew: then neither is a flood.
struct Message {
    const char *format;
    const char *module;
    int level;
    unsigned times;
};

Message messages[64];

void tell_suppressed(const LogConfig &config, Message &message)
{
    if (message.times > MOST_A_SECOND) {
        std::string what = "suppressed: ";
        what += message.format;
        what.resize(what.find_last_not_of("\r\n") + 1);
        print_number(config, message.module, message.level, message.times - MOST_A_SECOND, what.c_str());
    }
    message = {};
}

bool is_too_often(const LogConfig &config, const char *module, int level, const char *format)
{
    static time_t second;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec != second) {
        second = now.tv_sec;
        for (Message &message : messages) {
            tell_suppressed(config, message);
        }
    }
    Message &message = messages[reinterpret_cast<uintptr_t>(format) / 8 % std::size(messages)];
    if (message.format != format) {
        tell_suppressed(config, message);
        message = {.format = format, .module = module, .level = level, .times = 0};
    }
    return ++message.times > MOST_A_SECOND;
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

    std::scoped_lock lock(in_use);
    if (level == VELM_LOG_DEBUG || !is_too_often(config, module, level, fmt)) {
        if (unsigned lost = std::exchange(lost_lines, 0); lost > 0) {
            print_number(config, "log", VELM_LOG_WARNING, lost, "lines lost: nobody read them in time");
            lost_lines += lost_lines > 0 ? lost - 1 : 0; // not even that
        }
        print(config, module, level, message);
    }
    errno = saved_errno;
}
