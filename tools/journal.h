// The journal of a gateway's LAN: its lines, and the bounded set of files they lie in.
//
// A directory holds "journal.jsonl" and, older, "journal.1.jsonl" and so on. A line is one JSON object, valid
// whatever a host calls itself: U+FFFD stands for bytes that are not UTF-8. Each begins with
//
//     "time"     the wall clock, ISO 8601 with microseconds and zone
//     "us"       microseconds since boot (CLOCK_BOOTTIME); durations go by these
//
// and then says one of:
//
//     "journal"  1, with "boot", the kernel's boot id: the lines from here on are of that boot. First in
//                every file, and again wherever a file was opened anew.
//     "event"    the name of a bus event, its fields as `ovanictl events --json` has them, and "raw": the
//                message's attributes as they travelled, in base64 (RFC 4648). Texts are cut at 512 bytes; of
//                a message of more than 1024 the first 1024 are there, and "length" says how many it has.
//     "on_line"  exactly who is on line: an array of objects with "mac", "name", "addresses", "places",
//                "since" (as "us") and "exact" (false when it was no later than that). In every file that the
//                journal begins, and after losses, so that no reader depends on lines that are gone.
//     "mark"     what befell the journal: "started", "stopped", "connected" and "disconnected" (the broker),
//                "daemon came" and "daemon went", "lost" ("count" lines could not be written, and "why"),
//                "late" (it did not run for so many "seconds"; the broker drops what waits too long).
//
// A line that was cut off by a power cut is passed over by readers, and the next writer begins a new one.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

#include "ovani/ovani_fd.h"
#include "tools/json.h"

inline constexpr size_t JOURNAL_FILES = 2;
inline constexpr size_t JOURNAL_BYTES = 2 << 20; // of each

// What OVANI_JOURNAL names, "/var/log/ovani" without it.
std::string journal_directory();

// Microseconds on both clocks.
struct Moment {
    int64_t wall; // since 1970
    int64_t boot; // since boot
};
Moment moment_now();
std::string boot_id();

std::string iso_time(int64_t wall); // in the local zone
std::optional<int64_t> parse_iso_time(const std::string &text);

// The beginning of a line.
Json journal_line(const Moment &when);

// Bytes as they stand in "raw".
std::string base64(std::string_view bytes);

// Writes the files of one directory, which is made (0700) if it is not there; the files are root's alone
// (0600). Nothing here waits for anybody. A line that cannot be written is lost: it is counted, and the next
// one that can be is preceded by a "lost" line. A file that was removed, replaced or cut by somebody else is
// begun anew.
class JournalFile {
public:
    // `on_line` gives the array of that line at any moment.
    JournalFile(std::string directory, size_t files, size_t bytes, std::function<Json()> on_line);

    // A line of that moment.
    bool write(const Moment &when, const Json &line);

    // Closes the file; what is written next goes to what the name stands for then.
    void reopen() { fd_ = UniqueFd(); }

    size_t lost() const { return lost_; }
    // Why the last line could not be written; empty when it was.
    const std::string &failure() const { return failure_; }

private:
    bool is_in_place() const;
    bool open();
    bool prepare_file();
    bool rotate();
    bool tell_losses();
    void put_on_line();
    bool put(const Json &line) { return put_text(json_text(line) + '\n'); }
    bool put_text(std::string_view text);
    bool failed(const char *why);
    std::string path(size_t age) const;

    const std::string directory_;
    const size_t files_;
    const size_t bytes_;
    const std::function<Json()> on_line_;
    Moment when_{}; // of the line being written, and so of what is put before it
    UniqueFd fd_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    size_t size_ = 0;
    size_t lost_ = 0;
    size_t untold_ = 0; // of these
    std::string failure_;
};

struct JournalReading {
    size_t files = 0;
    size_t damaged = 0;   // lines that are no JSON object
    bool written = false; // a journal is at work there
};

// Hands over every line of a directory's files, oldest first.
JournalReading read_journal(const std::string &directory, const std::function<void(const Json &)> &take);
