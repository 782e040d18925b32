#include "ovani/ovani_command.h"

#include <csignal>
#include <cstdlib>

#include <unistd.h>

#include "ovani/ovani_log.h"

namespace {

// The C library does not tell whom popen and system started. But whoever they start is in the daemon's
// process group, and has this signal's default, which is to end: handlers do not outlive exec.
constexpr int END = SIGUSR2;
constexpr int OVERDUE = SIGUSR1;

volatile sig_atomic_t leads_its_group = 0;
volatile sig_atomic_t overdue = 0;

} // namespace

void bound_commands()
{
    setpgid(0, 0);
    struct sigaction action {};
    action.sa_flags = SA_RESTART;
    action.sa_handler = [](int signal) {
        if (signal == OVERDUE) {
            overdue = 1;
            end_commands();
        }
    };
    sigaction(END, &action, nullptr);
    sigaction(OVERDUE, &action, nullptr);
    leads_its_group = getpgrp() == getpid() ? 1 : 0;
}

void end_commands()
{
    if (leads_its_group != 0) {
        kill(0, END);
    }
}

CommandDeadline::CommandDeadline()
{
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = OVERDUE;
    armed_ = leads_its_group != 0 && timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0;
    if (armed_) {
        itimerspec time{};
        time.it_value.tv_sec = COMMAND_SECONDS;
        time.it_interval.tv_sec = 1; // what starts in that very moment
        timer_settime(timer_, 0, &time, nullptr);
    }
}

CommandDeadline::~CommandDeadline()
{
    if (!armed_) {
        return;
    }
    timer_delete(timer_);
    if (overdue != 0) {
        overdue = 0;
        ovani_log(VELM_LOG_ERR, "a command took longer than %d s and was ended\n", COMMAND_SECONDS);
    }
}

void run_command(const char *command)
{
    CommandDeadline deadline;
    [[maybe_unused]] int status = system(command);
}
