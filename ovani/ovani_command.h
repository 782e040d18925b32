// Commands, run by the C library's popen and system, for what only command-line tools tell or do. None holds
// the daemon up for longer than COMMAND_SECONDS: then it is ended, with all that it started.
#pragma once

#include <cstdio>
#include <ctime>
#include <memory>

inline constexpr int COMMAND_SECONDS = 3;

// Once, before the first command, by the process: it becomes the leader of a process group, so that it can
// end what its commands started. Without it commands are not bounded.
void bound_commands();

// Ends every command that runs now.
void end_commands();

// From here to the end of its scope a command may run.
class CommandDeadline {
public:
    CommandDeadline();
    ~CommandDeadline();
    CommandDeadline(const CommandDeadline &) = delete;
    CommandDeadline &operator=(const CommandDeadline &) = delete;

private:
    timer_t timer_{};
    bool armed_;
};

// A command's output. Closing waits for the command, as pclose does.
class CommandPipe {
public:
    explicit CommandPipe(const char *command) : pipe_(popen(command, "re")) {}

    FILE *get() const { return pipe_.get(); }
    explicit operator bool() const { return pipe_ != nullptr; }

private:
    struct Closer {
        void operator()(FILE *pipe) const { pclose(pipe); }
    };
    CommandDeadline deadline_;
    std::unique_ptr<FILE, Closer> pipe_;
};

// Runs a command whose output nobody wants.
void run_command(const char *command);
