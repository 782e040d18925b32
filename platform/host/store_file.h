// The store's file below its rows: opened and shared, locked, put aside, its statements executed.
//
// Beside the file stand SQLite's "-wal" and "-shm", and "-count": the commits of all who use this library,
// counted in memory that they share, so that nobody has to ask SQLite whether there was one. Whoever opens
// the file, or puts it aside, locks "-count" meanwhile (flock).
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include <sqlite3.h>
#include <sys/types.h>

#include "platform/host/store.h"

// Ends a call of the store.
struct StoreFailure {
    StoreResult result;
};

// ?1 and ?2 are paths; of UPDATE, a path and parameters.
enum StoreStatement : size_t {
    STORE_LOOK, // reads next to nothing: afterwards version() is that of the file
    STORE_BEGIN_READING,
    STORE_BEGIN_WRITING,
    STORE_COMMIT,
    STORE_ROLLBACK,
    STORE_SELECT,         // names and values of an object's parameters, a null value for what is none; a null
                          // name when it has none
    STORE_SELECT_BETWEEN, // the paths between ?1 and ?2
    STORE_INSERT,         // an object without parameters; one that is there stays
    STORE_UPDATE,
    STORE_DELETE_BETWEEN, // ?1 as well
    STORE_STATEMENTS
};

// What fails throws a StoreFailure.
class StoreFile {
public:
    StoreFile() = default;
    StoreFile(const StoreFile &) = delete;
    StoreFile &operator=(const StoreFile &) = delete;
    ~StoreFile() { close(); }

    // Sees to it that the file is open, is still the one of its name, and that version() is no older than any
    // commit of this library, and than those of strangers by STRANGERS_SEEN_WITHIN. A file that is damaged,
    // or of an older form, is put aside when `repairs` is set, and STORE_DAMAGED otherwise.
    // Neither happens to a process that only reads.
    void prepare(int wait, bool repairs);
    void close();

    // Two equal versions: nothing was committed between them, by anybody.
    uint64_t version() const;

    // Takes the first two columns of every row; one that is null, or not there, has no data.
    using Take = std::function<void(std::string_view first, std::string_view second)>;
    void execute(StoreStatement statement, std::string_view first = {}, std::string_view second = {},
                 const Take &take = {});
    bool changed_something() const { return sqlite3_changes(db_) > 0; } // the last insertion or deletion
    void roll_back();

    // Whether, after the disk was full, the log could be brought home: it begins anew in its own place.
    bool make_room();

    // Logs what is wrong, once until a write succeeds.
    [[noreturn]] void fail(StoreResult result, const std::string &text);

private:
    using Clock = std::chrono::steady_clock;
    enum Part { MAIN, LOG, INDEX, COUNT, PARTS };

    struct Identity {
        dev_t device = 0;
        ino_t inode = 0;
        bool operator==(const Identity &) const = default;
    };

    std::string part(Part which) const;
    std::array<Identity, PARTS> identities() const;

    void check(int code);
    void open_patiently(bool repairs);
    void open(bool repairs);
    void open_count();
    void open_database(bool repairs);
    void open_to_read();
    void prepare_statements();
    std::string ask(const char *sql);
    void seed();
    void put_aside(const char *suffix, const std::string &what);
    void close_database();
    void close_count();

    static int wait_a_little(void *self, int count);
    static int committed(void *self, sqlite3 *db, const char *name, int pages);
    void begin_checkpoint();
    void wait_for_checkpoint();
    bool checkpoint();

    std::string file_;
    std::array<Identity, PARTS> opened_{};
    sqlite3 *db_ = nullptr;
    std::array<sqlite3_stmt *, STORE_STATEMENTS> statements_{};
    uint32_t openings_ = 0;
    bool immutable_ = false; // SQLite was told that the file does not change
    bool suspect_ = false;   // damage was met since the file was opened
    bool full_ = false;      // the disk was, since make_room() was asked
    int checkpoint_at_ = 0;  // pages of the log
    std::atomic<bool> checkpointing_ = false;
    std::jthread checkpoint_;

    int count_file_ = -1;
    std::atomic<uint32_t> *count_ = nullptr; // of commits, by all processes
    std::atomic<uint32_t> no_count_{0};      // stands in for it while there is none, for who only reads
    uint32_t counted_ = 0;                   // when the file was last looked at
    Clock::time_point look_again_{};

    int wait_ = 0;
    Clock::time_point give_up_{};  // once something was waited for
    Clock::time_point patience_{}; // until then a file that cannot be opened is tried again
    std::string said_;             // the last fault logged
};
