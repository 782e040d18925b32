#include "platform/host/store_file.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/zk_log.h"
#include "platform/zkcfgif.h"

namespace {

using namespace std::chrono_literals;

constexpr auto STRANGERS_SEEN_WITHIN = 200ms;
constexpr auto OPENING_PATIENCE = 3s;

// The log is brought home to the file when it has so many pages, which syncs and is done beside the calls.
// Only when writing is faster than that, and the log three times as long, a call waits for it and does the
// rest: the log takes no more than 3.4 MB of the disk, mostly 1.1 MB, as long as nobody else reads for long.
constexpr char SETTINGS[] =
    "PRAGMA page_size = 2048; PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; "
    "PRAGMA journal_size_limit = 1130496";
constexpr int CHECKPOINT_PAGES = 540;
constexpr int CHECKPOINT_AT_ONCE_PAGES = 3 * CHECKPOINT_PAGES;
constexpr int CHECKPOINT_PASSES = 4; // each brings home what came while the one before was at it, if any did

constexpr int RESERVED = 128 * 1024; // bytes that the file takes and grows by

constexpr int MAX_ROW = 1'000'000; // bytes; a thousand parameters

// "object" where there is our table, else the name of one from when every object had its own.
constexpr char FORM[] = "SELECT name FROM sqlite_schema WHERE type = 'table' AND (name = 'object' OR "
                        "name LIKE 'InternetGatewayDevice.%') ORDER BY name = 'object' DESC LIMIT 1";
constexpr char CREATE[] =
    "CREATE TABLE IF NOT EXISTS object (path TEXT NOT NULL PRIMARY KEY, parameters TEXT NOT NULL) STRICT";

constexpr std::array<const char *, STORE_STATEMENTS> SQL = {
    "PRAGMA data_version",
    "BEGIN",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    "SELECT key, atom FROM object LEFT JOIN json_each(iif(json_valid(parameters), "
    "iif(json_type(parameters) = 'object', parameters, '[[]]'), '[[]]')) WHERE object.path = ?1",
    "SELECT path FROM object WHERE path > ?1 AND path < ?2",
    "INSERT OR IGNORE INTO object VALUES (?1, '{}')",
    "UPDATE object SET parameters = ?2 WHERE path = ?1",
    "DELETE FROM object WHERE path >= ?1 AND path < ?2",
};

bool s_only_reads = false;

std::string_view text_of(sqlite3_stmt *row, int column)
{
    const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(row, column));
    const auto length = static_cast<size_t>(sqlite3_column_bytes(row, column));
    return bytes == nullptr ? std::string_view{} : std::string_view(bytes, length);
}

struct Unlock {
    void operator()(const int *file) const { flock(*file, LOCK_UN); }
};

void bind(sqlite3_stmt *statement, int place, std::string_view text)
{
    if (!text.empty()) {
        sqlite3_bind_text(statement, place, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    }
}

} // namespace

// --- Executing

void StoreFile::fail(StoreResult result, const std::string &text)
{
    if (text != said_) {
        zk_mod_log_printf("store", VELM_LOG_ERR, "%s: %s\n", file_.c_str(), text.c_str());
        said_ = text;
    }
    throw StoreFailure{result};
}

void StoreFile::check(int code)
{
    switch (code) {
    case SQLITE_OK:
        return;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        throw StoreFailure{STORE_LOCKED};
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        suspect_ = true;
        look_again_ = {};
        fail(STORE_DAMAGED, sqlite3_errstr(code));
    case SQLITE_FULL:
        full_ = true;
        [[fallthrough]];
    default:
        look_again_ = {}; // the next call sees whether the file is still ours
        fail(STORE_FAILED, sqlite3_errstr(code));
    }
}

// A statement that is not reset holds its transaction open.
void StoreFile::execute(StoreStatement statement, std::string_view first, std::string_view second,
                        const Take &take)
{
    const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_reset)> execution(statements_[statement],
                                                                            sqlite3_reset);
    bind(execution.get(), 1, first);
    bind(execution.get(), 2, second);
    int code = SQLITE_OK;
    while ((code = sqlite3_step(execution.get())) == SQLITE_ROW) {
        if (take) {
            take(text_of(execution.get(), 0), text_of(execution.get(), 1));
        }
    }
    check(code == SQLITE_DONE ? SQLITE_OK : code);
}

void StoreFile::roll_back()
{
    if (db_ != nullptr && sqlite3_get_autocommit(db_) == 0) { // some faults have done so by themselves
        sqlite3_step(statements_[STORE_ROLLBACK]);
        sqlite3_reset(statements_[STORE_ROLLBACK]);
    }
}

bool StoreFile::make_room()
{
    return std::exchange(full_, false) && db_ != nullptr && checkpoint();
}

// Of two at the same time SQLite refuses one.
bool StoreFile::checkpoint()
{
    wait_for_checkpoint();
    int pages = 0;
    int home = 0;
    return sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_PASSIVE, &pages, &home) == SQLITE_OK &&
           home == pages;
}

void StoreFile::wait_for_checkpoint()
{
    if (checkpoint_.joinable()) {
        checkpoint_.join();
    }
}

// SQLite asks here, when the store is locked, whether to try again.
int StoreFile::wait_a_little(void *self, int count)
{
    auto *file = static_cast<StoreFile *>(self);
    if (file->wait_ != ALL_BLOCK_LOCK) {
        const auto now = Clock::now();
        if (file->give_up_ == Clock::time_point{}) {
            file->give_up_ = now + std::chrono::milliseconds(file->wait_);
        }
        if (file->wait_ <= 0 || now >= file->give_up_) {
            return 0;
        }
    }
    std::this_thread::sleep_for(100us * (1 << std::min(count, 5)));
    return 1;
}

// --- What others did

// SQLite calls this after every commit of this connection; so many pages are in the log.
int StoreFile::committed(void *self, sqlite3 * /*db*/, const char * /*name*/, int pages)
{
    auto *file = static_cast<StoreFile *>(self);
    const uint32_t before = file->count_->fetch_add(1);
    if (before == file->counted_) { // else somebody else's is yet to be looked at
        file->counted_ = before + 1;
    }
    if (pages >= CHECKPOINT_AT_ONCE_PAGES) {
        file->checkpoint();
    } else if (pages < CHECKPOINT_PAGES) { // it was brought home, and begun anew
        file->checkpoint_at_ = CHECKPOINT_PAGES;
    } else if (pages >= file->checkpoint_at_) {
        file->checkpoint_at_ = pages + CHECKPOINT_PAGES;
        file->begin_checkpoint();
    }
    file->said_.clear();
    return SQLITE_OK;
}

// One at a time, by a connection of its own. No signal is for its thread: the program's loop waits for them.
void StoreFile::begin_checkpoint()
{
    if (checkpointing_.exchange(true)) {
        return;
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        checkpoint_ = std::jthread([this, file = file_] {
            sqlite3 *db = nullptr;
            // Who has not read the file yet knows of no log.
            if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) ==
                    SQLITE_OK &&
                sqlite3_exec(db, FORM, nullptr, nullptr, nullptr) == SQLITE_OK) {
                int last = -1;
                int home = 0;
                for (int pass = 0; pass < CHECKPOINT_PASSES && home != last; ++pass) {
                    last = home;
                    sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, &home);
                }
            }
            sqlite3_close(db);
            checkpointing_ = false;
        });
    } catch (const std::system_error &) { // no thread is to be had; the log grows until a call does it
        checkpointing_ = false;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

uint64_t StoreFile::version() const
{
    uint32_t version = 0;
    sqlite3_file_control(db_, nullptr, SQLITE_FCNTL_DATA_VERSION, &version);
    return uint64_t{openings_} << 32 | version;
}

std::string StoreFile::part(Part which) const
{
    static constexpr std::array<const char *, PARTS> suffixes = {"", "-wal", "-shm", "-count"};
    return file_ + suffixes[which];
}

std::array<StoreFile::Identity, StoreFile::PARTS> StoreFile::identities() const
{
    std::array<Identity, PARTS> found{};
    for (Part which : {MAIN, LOG, INDEX, COUNT}) {
        struct stat status {};
        if (stat(part(which).c_str(), &status) == 0) {
            found[which] = {status.st_dev, status.st_ino};
        }
    }
    return found;
}

// By the clock is found out what a stranger did, or a process that was killed between commit and counting.
void StoreFile::prepare(int wait, bool repairs)
{
    wait_ = wait;
    repairs = repairs && !s_only_reads;
    give_up_ = {};
    if (db_ == nullptr) {
        open_patiently(repairs);
        return;
    }
    const auto now = Clock::now();
    const uint32_t count = *count_;
    if (count == counted_ && now < look_again_) {
        return;
    }
    if (suspect_ || (immutable_ && count != counted_) || identities() != opened_) {
        open_patiently(repairs);
        return;
    }
    execute(STORE_LOOK);
    counted_ = count;
    look_again_ = now + STRANGERS_SEEN_WITHIN;
}

// --- Opening

void StoreFile::open_patiently(bool repairs)
{
    for (int count = 0;; ++count) {
        try {
            open(repairs);
            patience_ = {};
            return;
        } catch (const StoreFailure &failure) {
            if (failure.result != STORE_FAILED) {
                throw;
            }
            close();
            const auto now = Clock::now();
            if (patience_ == Clock::time_point{}) {
                patience_ = now + OPENING_PATIENCE;
            }
            if (now >= patience_ || wait_a_little(this, count) == 0) {
                throw;
            }
        }
    }
}

void StoreFile::open(bool repairs)
{
    // A connection takes pages when it needs them, instead of 47 KB at first: some live but for one look.
    [[maybe_unused]] static const int configured = sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0);
    const char *named = std::getenv("OVANI_STORE");
    file_ = named == nullptr || named[0] == '\0' ? "/var/lib/ovani/store.db" : named;
    if (char *target = realpath(file_.c_str(), nullptr); target != nullptr) {
        file_ = target; // what stands beside the file stands beside a link's target
        free(target);
    }
    for (size_t slash = 1; !s_only_reads && (slash = file_.find('/', slash)) != std::string::npos; ++slash) {
        mkdir(file_.substr(0, slash).c_str(), 0700);
    }

    look_again_ = {};
    close_count(); // it may be another by now
    open_count();
    for (int count = 0; count_file_ >= 0 && flock(count_file_, LOCK_EX | LOCK_NB) != 0; ++count) {
        if (wait_a_little(this, count) == 0) {
            throw StoreFailure{STORE_LOCKED};
        }
    }
    const std::unique_ptr<int, Unlock> lock(&count_file_);

    if (s_only_reads) {
        open_to_read();
        return;
    }
    // The log of a file that another has taken the place of is not that one's. As long as the former is open,
    // no other log can be mistaken for it.
    if (const auto now = identities();
        db_ != nullptr && now[MAIN] != opened_[MAIN] && now[LOG] == opened_[LOG]) {
        unlink(part(LOG).c_str());
        unlink(part(INDEX).c_str());
    }
    try {
        open_database(repairs);
    } catch (const StoreFailure &failure) {
        close_database();
        if (failure.result != STORE_DAMAGED || !repairs) {
            throw;
        }
        put_aside(".damaged", said_);
        open_database(repairs);
    }
}

void StoreFile::open_count()
{
    constexpr size_t size = sizeof *count_;
    static_assert(std::atomic<uint32_t>::is_always_lock_free);
    const int access = s_only_reads ? O_RDONLY : O_RDWR | O_CREAT;
    count_file_ = ::open(part(COUNT).c_str(), access | O_CLOEXEC, 0600);
    struct stat status {};
    if (s_only_reads && (fstat(count_file_, &status) != 0 || status.st_size < off_t{size})) {
        count_ = &no_count_;
        return;
    }
    // Shared memory must have its place on the disk before it is written to.
    int fault = count_file_ < 0 ? errno : s_only_reads ? 0 : posix_fallocate(count_file_, 0, size);
    if (fault == 0) {
        const int protection = s_only_reads ? PROT_READ : PROT_READ | PROT_WRITE;
        void *shared = mmap(nullptr, size, protection, MAP_SHARED, count_file_, 0);
        fault = errno;
        count_ = shared == MAP_FAILED ? nullptr : static_cast<std::atomic<uint32_t> *>(shared);
    }
    if (count_ == nullptr) {
        fail(STORE_FAILED, part(COUNT) + ": " + std::strerror(fault));
    }
}

void StoreFile::open_database(bool repairs)
{
    close_database();
    const int made = ::open(part(MAIN).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (made >= 0) {
        ::close(made);
        unlink(part(LOG).c_str()); // left by a file that is gone
        unlink(part(INDEX).c_str());
    }
    ++openings_;
    counted_ = *count_;
    check(sqlite3_open_v2(file_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr));
    sqlite3_busy_handler(db_, wait_a_little, this);
    sqlite3_wal_hook(db_, committed, this);
    sqlite3_limit(db_, SQLITE_LIMIT_LENGTH, MAX_ROW);
    check(sqlite3_exec(db_, SETTINGS, nullptr, nullptr, nullptr));
    // Room for what the log has to bring home, before the log takes all that the disk has.
    int reserved = RESERVED;
    int64_t size = RESERVED;
    sqlite3_file_control(db_, nullptr, SQLITE_FCNTL_CHUNK_SIZE, &reserved);
    sqlite3_file_control(db_, nullptr, SQLITE_FCNTL_SIZE_HINT, &size);

    if (suspect_ && ask("PRAGMA integrity_check(1)") != "ok") {
        check(SQLITE_CORRUPT);
    }
    const std::string form = ask(FORM);
    if (form.empty()) {
        check(sqlite3_exec(db_, CREATE, nullptr, nullptr, nullptr));
    } else if (form != "object") {
        const std::string what = "a store of an older form, with a table for every object, is not read";
        if (!repairs) {
            fail(STORE_DAMAGED, what);
        }
        put_aside(".old", what);
        open_database(false);
        return;
    }
    prepare_statements();
    seed();
    for (Part which : {MAIN, LOG, INDEX, COUNT}) {
        chmod(part(which).c_str(), 0600);
    }
    opened_ = identities();
    suspect_ = false;
    look_again_ = Clock::now() + STRANGERS_SEEN_WITHIN;
}

void StoreFile::prepare_statements()
{
    for (size_t i = 0; i < SQL.size(); ++i) {
        check(sqlite3_prepare_v3(db_, SQL[i], -1, SQLITE_PREPARE_PERSISTENT, &statements_[i], nullptr));
    }
}

// Without a log nobody has the file open, and SQLite, told that it does not change, makes none of its own.
// Once a log is there, or somebody has committed, the file is opened anew.
void StoreFile::open_to_read()
{
    close_database();
    ++openings_;
    counted_ = *count_;
    opened_ = identities();
    std::string uri = "file:";
    for (const char c : file_) {
        static constexpr char digits[] = "0123456789ABCDEF";
        const auto byte = static_cast<unsigned char>(c);
        c == '%' || c == '?' || c == '#' ? uri.append({'%', digits[byte >> 4], digits[byte & 0xf]})
                                         : uri.append(1, c);
    }
    immutable_ = opened_[LOG] == Identity{};
    uri += immutable_ ? "?immutable=1" : "";
    check(sqlite3_open_v2(uri.c_str(), &db_, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_URI,
                          nullptr));
    sqlite3_busy_handler(db_, wait_a_little, this);
    sqlite3_limit(db_, SQLITE_LIMIT_LENGTH, MAX_ROW);
    if (ask(FORM) != "object") {
        fail(STORE_DAMAGED, "no store, or one of an older form");
    }
    prepare_statements();
    look_again_ = Clock::now() + STRANGERS_SEEN_WITHIN;
}

std::string StoreFile::ask(const char *sql)
{
    std::string text;
    auto take = [](void *to, int /*columns*/, char **row, char ** /*names*/) {
        *static_cast<std::string *>(to) = row[0] == nullptr ? "" : row[0];
        return 0;
    };
    check(sqlite3_exec(db_, sql, take, &text, nullptr));
    return text;
}

// Gives new tables the instances that they begin with. That this was done shows in a row for the table
// itself, whose path has "{i}" where its instances have their numbers.
void StoreFile::seed()
{
    const DataModel &model = data_model();
    for (size_t i = 0; i < model.objects.size(); ++i) {
        const ModelObject &table = model.objects[i];
        bool is_new = table.begins_with > 0;
        if (is_new) {
            execute(STORE_SELECT, table.path, {}, [&](auto, auto) { is_new = false; });
        }
        if (!is_new) {
            continue;
        }
        execute(STORE_BEGIN_WRITING);
        execute(STORE_INSERT, table.path);
        for (int number = 1; number <= table.begins_with; ++number) {
            execute(STORE_INSERT, data_model_path(model, {static_cast<int>(i), {number}}));
        }
        execute(STORE_COMMIT);
    }
}

// The log goes along, under the name that SQLite looks for.
void StoreFile::put_aside(const char *suffix, const std::string &what)
{
    close_database();
    const std::string aside = file_ + suffix;
    struct stat status {};
    if (lstat(file_.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        fail(STORE_DAMAGED, "no regular file");
    }
    unlink(part(INDEX).c_str());
    unlink((aside + "-wal").c_str());
    if (rename(file_.c_str(), aside.c_str()) != 0) {
        fail(STORE_DAMAGED, aside + ": " + std::strerror(errno));
    }
    rename(part(LOG).c_str(), (aside + "-wal").c_str());
    suspect_ = false;
    zk_mod_log_printf("store", VELM_LOG_ERR, "%s: %s; put aside as %s, and a fresh store begun\n",
                      file_.c_str(), what.c_str(), aside.c_str());
}

void StoreFile::close_database()
{
    wait_for_checkpoint();
    for (sqlite3_stmt *&statement : statements_) {
        sqlite3_finalize(statement);
        statement = nullptr;
    }
    sqlite3_close(db_);
    db_ = nullptr;
}

void StoreFile::close_count()
{
    if (count_ != nullptr && count_ != &no_count_) {
        munmap(count_, sizeof *count_);
    }
    count_ = nullptr;
    if (count_file_ >= 0) {
        ::close(count_file_);
        count_file_ = -1;
    }
}

void StoreFile::close()
{
    close_database();
    close_count();
}

void store_only_read()
{
    s_only_reads = true;
}
