#include <libubox/uloop.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

bool uloop_cancelled = false;
bool uloop_handle_sigchld = true;

namespace {

constexpr int MAX_EVENTS = 32;

list_head timeouts = LIST_HEAD_INIT(timeouts); // by time

int poll_fd = -1;
int run_depth = 0;

// Set by signal handlers, on whichever thread the signal came to.
std::atomic<int> ended_by{0};

// What epoll reported and has not been handed out yet, and the callbacks that are running (one, but for
// nested loops). Deleting a descriptor takes it out of both, so that no record is touched that may no longer
// exist.
struct Running {
    uloop_fd *u;
    Running *outer;
};
epoll_event events[MAX_EVENTS];
int events_next = 0;
int events_end = 0;
Running *running = nullptr;

// A pipe that signal handlers write to: a signal that comes just before epoll_wait still ends the wait.
int waker_write = -1;
void drain(uloop_fd *u, unsigned int /*events*/)
{
    char bytes[64];
    while (read(u->fd, bytes, sizeof(bytes)) > 0) {
    }
}
uloop_fd waker = {.cb = drain, .fd = -1, .eof = false, .error = false, .registered = false, .flags = 0};

void on_end_signal(int signo)
{
    const int saved = errno;
    ended_by = signo;
    uloop_cancelled = true;
    [[maybe_unused]] const ssize_t n = write(waker_write, "", 1); // a full pipe wakes as well
    errno = saved;
}

struct TakenSignal {
    void (*handler)(int);
    int signo;
    bool taken;
};
TakenSignal signals[] = {
    {on_end_signal, SIGINT, false},
    {on_end_signal, SIGTERM, false},
    {SIG_IGN, SIGPIPE, false},
};

// Only default dispositions are taken, so what the program chose for itself stays.
void take_signals()
{
    for (TakenSignal &s : signals) {
        struct sigaction action = {};
        sigaction(s.signo, nullptr, &action);
        if (action.sa_handler != SIG_DFL) {
            continue;
        }
        action = {};
        action.sa_handler = s.handler;
        sigemptyset(&action.sa_mask);
        s.taken = sigaction(s.signo, &action, nullptr) == 0;
    }
}

void give_back_signals()
{
    for (TakenSignal &s : signals) {
        struct sigaction action = {};
        sigaction(s.signo, nullptr, &action);
        if (s.taken && action.sa_handler == s.handler) {
            action = {};
            action.sa_handler = SIG_DFL;
            sigaction(s.signo, &action, nullptr);
        }
        s.taken = false;
    }
}

timeval now()
{
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return {ts.tv_sec, ts.tv_nsec / 1000};
}

int64_t ms_between(const timeval &from, const timeval &to)
{
    return (static_cast<int64_t>(to.tv_sec) - from.tv_sec) * 1000 + (to.tv_usec - from.tv_usec) / 1000;
}

void run_due_timeouts()
{
    if (list_empty(&timeouts)) {
        return;
    }
    const timeval at = now();
    while (!list_empty(&timeouts)) {
        uloop_timeout *t = list_first_entry(&timeouts, uloop_timeout, list);
        if (ms_between(at, t->time) > 0) {
            return;
        }
        uloop_timeout_cancel(t);
        if (t->cb != nullptr) {
            t->cb(t);
        }
    }
}

void dispatch(const epoll_event &event)
{
    auto *u = static_cast<uloop_fd *>(event.data.ptr);
    if (u == nullptr) {
        return;
    }
    if ((event.events & EPOLLRDHUP) != 0) {
        u->eof = true;
    }
    if ((event.events & (EPOLLERR | EPOLLHUP)) != 0) {
        u->error = true;
    }
    unsigned what = 0;
    if ((event.events & (EPOLLIN | EPOLLRDHUP | EPOLLERR | EPOLLHUP)) != 0) {
        what |= ULOOP_READ;
    }
    if ((event.events & EPOLLOUT) != 0) {
        what |= ULOOP_WRITE;
    }

    Running self = {u, running};
    running = &self;
    if (u->cb != nullptr) {
        u->cb(u, what);
    }
    running = self.outer;
    if (self.u != nullptr && u->error) { // still there, and not added anew
        uloop_fd_delete(u);
    }
}

// Hands out one event, so that timers and the end of the loop are looked at in between.
void run_one_event(int timeout)
{
    if (events_next == events_end) {
        events_next = 0;
        events_end = 0;
        const int n = epoll_wait(poll_fd, events, MAX_EVENTS, timeout);
        if (n <= 0) {
            return;
        }
        events_end = n;
    }
    dispatch(events[events_next++]);
}

int clamp_to_int(int64_t ms)
{
    if (ms > INT_MAX) {
        return INT_MAX;
    }
    return ms < INT_MIN ? INT_MIN : static_cast<int>(ms);
}

} // namespace

int uloop_init(void)
{
    if (poll_fd < 0) {
        int fds[2];
        poll_fd = epoll_create1(EPOLL_CLOEXEC);
        if (poll_fd < 0) {
            return -1;
        }
        if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) < 0) {
            close(poll_fd);
            poll_fd = -1;
            return -1;
        }
        waker.fd = fds[0];
        waker_write = fds[1];
        uloop_fd_add(&waker, ULOOP_READ);
    }
    take_signals();
    return 0;
}

void uloop_done(void)
{
    give_back_signals();
    if (poll_fd >= 0) {
        uloop_fd_delete(&waker);
        close(waker.fd);
        close(waker_write);
        close(poll_fd);
        waker.fd = -1;
        waker_write = -1;
        poll_fd = -1;
    }
    events_next = 0;
    events_end = 0;
    while (!list_empty(&timeouts)) {
        uloop_timeout_cancel(list_first_entry(&timeouts, uloop_timeout, list));
    }
}

int uloop_run_timeout(int timeout)
{
    ++run_depth;
    uloop_cancelled = false;
    do {
        run_due_timeouts();
        if (uloop_cancelling()) {
            break;
        }
        int wait = uloop_get_next_timeout();
        if (timeout >= 0 && (wait < 0 || timeout < wait)) {
            wait = timeout;
        }
        run_one_event(wait);
    } while (!uloop_cancelling() && timeout < 0);
    --run_depth;
    return run_depth > 0 ? ended_by.load() : ended_by.exchange(0);
}

bool uloop_cancelling(void)
{
    return run_depth > 0 && (uloop_cancelled || ended_by != 0);
}

int uloop_fd_add(uloop_fd *sock, unsigned int flags)
{
    if ((flags & (ULOOP_READ | ULOOP_WRITE)) == 0) {
        return uloop_fd_delete(sock);
    }
    if (!sock->registered && (flags & ULOOP_BLOCKING) == 0) {
        fcntl(sock->fd, F_SETFL, fcntl(sock->fd, F_GETFL) | O_NONBLOCK);
    }

    epoll_event event = {};
    event.data.ptr = sock;
    if ((flags & ULOOP_READ) != 0) {
        event.events |= EPOLLIN | EPOLLRDHUP;
    }
    if ((flags & ULOOP_WRITE) != 0) {
        event.events |= EPOLLOUT;
    }
    if ((flags & ULOOP_EDGE_TRIGGER) != 0) {
        event.events |= EPOLLET;
    }
    if (epoll_ctl(poll_fd, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, sock->fd, &event) < 0) {
        return -1;
    }
    sock->flags = static_cast<uint8_t>(flags);
    sock->registered = true;
    sock->eof = false;
    sock->error = false;
    return 0;
}

int uloop_fd_delete(uloop_fd *sock)
{
    for (int i = events_next; i < events_end; ++i) {
        if (events[i].data.ptr == sock) {
            events[i].data.ptr = nullptr;
        }
    }
    for (Running *r = running; r != nullptr; r = r->outer) {
        if (r->u == sock) {
            r->u = nullptr;
        }
    }
    if (!sock->registered) {
        return 0;
    }
    sock->registered = false;
    sock->flags = 0;
    return epoll_ctl(poll_fd, EPOLL_CTL_DEL, sock->fd, nullptr);
}

int uloop_timeout_add(uloop_timeout *timeout)
{
    if (timeout->pending) {
        return -1;
    }
    list_head *position = &timeouts;
    uloop_timeout *t = nullptr;
    list_for_each_entry(t, &timeouts, list)
    {
        if (ms_between(timeout->time, t->time) > 0) {
            position = &t->list;
            break;
        }
    }
    list_add_tail(&timeout->list, position);
    timeout->pending = true;
    return 0;
}

int uloop_timeout_set(uloop_timeout *timeout, int msecs)
{
    uloop_timeout_cancel(timeout);
    timeout->time = now();
    timeout->time.tv_sec += msecs / 1000;
    timeout->time.tv_usec += msecs % 1000 * 1000L;
    if (timeout->time.tv_usec >= 1000000) {
        ++timeout->time.tv_sec;
        timeout->time.tv_usec -= 1000000;
    }
    return uloop_timeout_add(timeout);
}

int uloop_timeout_cancel(uloop_timeout *timeout)
{
    if (!timeout->pending) {
        return -1;
    }
    list_del(&timeout->list);
    timeout->pending = false;
    return 0;
}

int64_t uloop_timeout_remaining64(uloop_timeout *timeout)
{
    return timeout->pending ? ms_between(now(), timeout->time) : -1;
}

int uloop_timeout_remaining(uloop_timeout *timeout)
{
    return clamp_to_int(uloop_timeout_remaining64(timeout));
}

int uloop_get_next_timeout(void)
{
    if (list_empty(&timeouts)) {
        return -1;
    }
    const int64_t left = ms_between(now(), list_first_entry(&timeouts, uloop_timeout, list)->time);
    return left < 0 ? 0 : clamp_to_int(left);
}
