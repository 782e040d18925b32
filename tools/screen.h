// The terminal while a program draws on all of it, by ncursesw and in the event loop.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#define NCURSES_NOMACROS // its functions as functions: it has macros called "timeout" and "filter"
#include <ncurses.h>

#include "tools/libubox.h"

// At most one a process, and uloop_init comes first. Ctrl-C, SIGTERM and the end of the parent or of the
// terminal end the event loop. Ctrl-Z gives the terminal back until the program is continued. No signal kills
// the program in between, so the destructor always comes.
class Screen {
public:
    Screen();  // ends the command when there is no terminal
    ~Screen(); // leaves the terminal as it was
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    std::function<void(int kind, wint_t key)> on_key;     // as get_wch() tells them
    std::function<void()> on_change;                      // keys were told, or it has another size: draw
    std::function<void(const std::string &line)> on_text; // what this process says on standard error

    int height() const { return getmaxy(stdscr); }
    int width() const { return getmaxx(stdscr); }

    void begin() const { erase(); }
    void show() const; // what was put since begin()
    // Printable text on a row of its own, cut to the width; the attributes are those of the whole row.
    void put(int row, std::string_view text, attr_t attributes = A_NORMAL) const;

    // For what is well, and what is not.
    attr_t good() const { return A_BOLD | (has_colours_ ? static_cast<attr_t>(COLOR_PAIR(1)) : A_NORMAL); }
    attr_t bad() const { return A_BOLD | (has_colours_ ? static_cast<attr_t>(COLOR_PAIR(2)) : A_REVERSE); }

private:
    struct Watch : uloop_fd {
        std::function<void()> ready;
    };

    static void watch(Watch &watch, int descriptor, unsigned flags, std::function<void()> ready);
    void read_keys();
    void read_signals();
    void read_text();
    static void leave();
    void suspend();
    void take_size();

    bool has_colours_ = false;
    SCREEN *terminal_ = nullptr;
    int standard_error_ = -1; // the real one
    std::string text_;        // of a line that has not ended
    Watch keys_{};
    Watch signals_{};
    Watch texts_{};
};
