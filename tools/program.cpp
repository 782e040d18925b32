#include "tools/program.h"

#include <algorithm>
#include <array>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ovani/ovani_fd.h"

std::vector<char *> exec_arguments(const std::vector<std::string> &command)
{
    std::vector<char *> arguments(command.size() + 1); // null at the end
    std::ranges::transform(command, arguments.begin(), [](const std::string &argument) {
        return const_cast<char *>(argument.c_str()); // exec only reads them
    });
    return arguments;
}

std::optional<std::string> output_of(const std::vector<std::string> &command)
{
    static constexpr size_t most = 16 << 20;
    static constexpr int patience_ms = 10000;
    const std::vector<char *> arguments = exec_arguments(command);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    const UniqueFd from(ends[0]);
    UniqueFd to(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        setpgid(0, 0); // what a terminal sends to its foreground is not for it
        dup2(to.get(), STDOUT_FILENO);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    to = UniqueFd();

    std::string output;
    char part[16384];
    ssize_t length = child < 0 ? -1 : 1;
    for (pollfd readable{.fd = from.get(), .events = POLLIN, .revents = 0};
         length > 0 && output.size() < most && poll(&readable, 1, patience_ms) > 0;) {
        length = read(from.get(), part, sizeof part);
        output.append(part, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    }
    int status = -1;
    if (child > 0) {
        if (length != 0) {
            kill(-child, SIGKILL);
            kill(child, SIGKILL);
        }
        waitpid(child, &status, 0);
    }
    return length == 0 && status == 0 ? std::optional(output) : std::nullopt;
}

std::string own_path()
{
    std::array<char, 4096> path{};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    return {path.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

std::string own_directory()
{
    const std::string path = own_path();
    return path.substr(0, path.rfind('/'));
}
