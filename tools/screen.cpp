#include "tools/ovanictl.h"

#include "tools/screen.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <initializer_list>
#include <utility>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include "tools/text.h"

namespace {

constexpr int ESCAPE_MS = 25; // the bytes of one key come together
constexpr size_t LONGEST_COMPLAINT = 4096;

sigset_t set_of(std::initializer_list<int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : signals) {
        sigaddset(&set, number);
    }
    return set;
}

} // namespace

Screen::Screen()
{
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        fail("top needs a terminal; hosts, ports and events tell the same without one");
    }
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const sigset_t taken = set_of({SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP, SIGWINCH});
    sigprocmask(SIG_BLOCK, &taken, nullptr);
    const int signals = signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK);
    int text[2] = {-1, -1};
    if (signals < 0 || pipe2(text, O_CLOEXEC | O_NONBLOCK) != 0) {
        fail("no descriptors left");
    }
    terminal_ = newterm(nullptr, stdout, stdin);
    if (terminal_ == nullptr || tigetstr("cup") == nullptr) {
        const char *term = getenv("TERM");
        fail("TERM=" + printable(term != nullptr ? term : "") +
             ": no screen can be drawn on such a terminal");
    }
    set_escdelay(ESCAPE_MS);
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    curs_set(0);
    has_colours_ = getenv("NO_COLOR") == nullptr && has_colors() && start_color() == OK &&
                   use_default_colors() == OK && init_pair(1, COLOR_GREEN, -1) == OK &&
                   init_pair(2, COLOR_RED, -1) == OK;

    // What anybody writes there would stand across the screen.
    standard_error_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(text[1], STDERR_FILENO);
    close(text[1]);

    // The terminal is its owner's too, and so stays blocking.
    watch(keys_, STDIN_FILENO, ULOOP_BLOCKING, [this] { read_keys(); });
    watch(signals_, signals, 0, [this] { read_signals(); });
    watch(texts_, text[0], 0, [this] { read_text(); });
}

Screen::~Screen()
{
    for (Watch *watch : {&keys_, &signals_, &texts_}) {
        uloop_fd_delete(watch);
    }
    leave();
    delscreen(terminal_);
    dup2(standard_error_, STDERR_FILENO);
    for (const int descriptor : {standard_error_, signals_.fd, texts_.fd}) {
        close(descriptor);
    }
}

void Screen::watch(Watch &watch, int descriptor, unsigned flags, std::function<void()> ready)
{
    watch.ready = std::move(ready);
    watch.fd = descriptor;
    watch.cb = [](uloop_fd *u, unsigned) { static_cast<Watch *>(u)->ready(); };
    uloop_fd_add(&watch, ULOOP_READ | flags);
}

// Whoever drew in the background would draw over its owner's lines: it is stopped here, or ends where nobody
// could continue it.
void Screen::show() const
{
    if (tcdrain(STDOUT_FILENO) != 0 && errno == EIO) {
        return uloop_end();
    }
    refresh();
}

void Screen::put(int row, std::string_view text, attr_t attributes) const
{
    mvaddstr(row, 0, cut(text, static_cast<size_t>(width())).c_str());
    mvchgat(row, 0, -1, attributes & ~A_COLOR, static_cast<short>(PAIR_NUMBER(attributes)), nullptr);
}

void Screen::read_keys()
{
    wint_t key = 0;
    for (int kind = get_wch(&key); kind != ERR; kind = get_wch(&key)) {
        on_key(kind, key);
    }
    if (keys_.eof || keys_.error) {
        return uloop_end();
    }
    on_change();
}

void Screen::read_signals()
{
    signalfd_siginfo signal{};
    while (read(signals_.fd, &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal)) {
        switch (signal.ssi_signo) {
        case SIGWINCH:
            take_size();
            on_change();
            break;
        case SIGTSTP:
            suspend();
            on_change();
            break;
        default:
            uloop_end();
        }
    }
}

// In the background, too, the terminal is put right.
void Screen::leave()
{
    signal(SIGTTOU, SIG_IGN);
    endwin();
    signal(SIGTTOU, SIG_DFL);
}

// The kernel stops us as it would have done, or does not where nobody could continue us.
void Screen::suspend()
{
    const sigset_t stop = set_of({SIGTSTP});
    leave();
    signal(SIGTSTP, SIG_DFL); // ncurses has a handler of its own
    sigprocmask(SIG_UNBLOCK, &stop, nullptr);
    raise(SIGTSTP);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    take_size();
    clearok(curscr, TRUE);
}

void Screen::take_size()
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
        resizeterm(size.ws_row, size.ws_col);
    }
}

void Screen::read_text()
{
    char bytes[1024];
    for (ssize_t n = read(texts_.fd, bytes, sizeof bytes); n > 0; n = read(texts_.fd, bytes, sizeof bytes)) {
        for (const char c : std::string_view(bytes, static_cast<size_t>(n))) {
            if (c != '\n' && text_.size() < LONGEST_COMPLAINT) {
                text_ += c;
                continue;
            }
            on_text(std::exchange(text_, {}));
        }
    }
}
