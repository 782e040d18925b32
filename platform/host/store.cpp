// Rows that were read stay in memory, and are good for as long as nobody has committed anything. That shows
// in memory shared by all users of the file, so that finding out takes no system call.
#include "platform/host/store.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>
#include <unordered_map>

#include <sqlite3.h>

#include "platform/host/store_sql.h"
#include "platform/zk_log.h"
#include "platform/zkcfgif.h"

namespace {

const char *store_file()
{
    const char *file = std::getenv("OVANI_STORE");
    return file == nullptr || file[0] == '\0' ? "/var/lib/ovani/store.db" : file;
}

// More rows than this are not kept in memory: the 254 host objects and as much again.
constexpr size_t MAX_CACHED_ROWS = 512;

class Statement {
public:
    Statement() = default;
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;
    ~Statement() { sqlite3_finalize(statement_); }

    bool is_prepared() const { return statement_ != nullptr; }

    int prepare(sqlite3 *db, const std::string &sql)
    {
        return sqlite3_prepare_v3(db, sql.c_str(), static_cast<int>(sql.size()) + 1,
                                  SQLITE_PREPARE_PERSISTENT, &statement_, nullptr);
    }

    sqlite3_stmt *get() const { return statement_; }

private:
    sqlite3_stmt *statement_ = nullptr;
};

// One execution: while a statement is not reset, it holds its transaction open.
class Execution {
public:
    Execution(const Statement &statement, size_t depth, const InstanceNumbers &numbers)
        : statement_(statement.get())
    {
        for (size_t i = 0; i < depth; i++) {
            sqlite3_bind_int(statement_, static_cast<int>(i) + 1, numbers[i]);
        }
    }
    explicit Execution(const Statement &statement) : Execution(statement, 0, {}) {}
    Execution(const Execution &) = delete;
    Execution &operator=(const Execution &) = delete;
    ~Execution() { sqlite3_reset(statement_); }

    int step() { return sqlite3_step(statement_); }
    int number(int column) { return sqlite3_column_int(statement_, column); }

    std::string_view text(int column)
    {
        const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(statement_, column));
        return bytes == nullptr
                   ? std::string_view{}
                   : std::string_view(bytes, static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
    }

    // The text must outlive the execution's steps.
    void bind(size_t parameter, const std::string &text)
    {
        sqlite3_bind_text(statement_, static_cast<int>(parameter), text.data(), static_cast<int>(text.size()),
                          SQLITE_STATIC);
    }

private:
    sqlite3_stmt *statement_;
};

// --- The state of the file ---------------------------------------------------------------------------------

// What the write-ahead log's index, which its users share in memory, begins with: two equal copies of a
// header of 12 words, the third of which goes up by one with every commit (https://sqlite.org/walformat.html,
// "The WAL-Index Header"). Two equal states mean that nothing was committed between them.
class FileState {
public:
    FileState() = default;

    explicit FileState(const volatile void *index)
    {
        if (index == nullptr) {
            return;
        }
        const auto *shared = static_cast<const volatile uint32_t *>(index);
        for (size_t i = 0; i < words_.size(); i++) {
            words_[i] = __atomic_load_n(&shared[i], __ATOMIC_ACQUIRE);
        }
    }

    // False for the unknown state, and for one that was being written while it was looked at.
    bool known() const
    {
        return words_[0] != 0 && std::equal(words_.begin(), words_.begin() + 12, words_.begin() + 12);
    }

    bool same_as(const FileState &other) const { return known() && words_ == other.words_; }

    // Whether at most one commit lies between `earlier` and this state.
    bool follows(const FileState &earlier) const
    {
        return known() && earlier.known() && words_[COMMITS] - earlier.words_[COMMITS] <= 1;
    }

private:
    static constexpr size_t COMMITS = 2;
    std::array<uint32_t, 24> words_{};
};

// --- The connection of one thread --------------------------------------------------------------------------

using Row = std::vector<std::string>; // a value for each parameter of the object

struct ObjectRefHash {
    size_t operator()(const ObjectRef &ref) const
    {
        auto hash = static_cast<size_t>(ref.object);
        for (int number : ref.instance) {
            hash = hash * 31 + static_cast<size_t>(number);
        }
        return hash;
    }
};

// Prepared together when the first is needed, and kept.
struct ObjectStatements {
    Statement select;
    Statement update;
    Statement numbers;
};

struct DatabaseCloser {
    void operator()(sqlite3 *db) const { sqlite3_close(db); }
};

class Connection {
public:
    StoreResult read(std::span<const StoreItem> items, int wait);
    StoreResult write(std::span<const StoreItem> items, int wait, bool make_missing);
    StoreResult add(const ObjectRef &table, int &instance, int wait);
    StoreResult remove(const ObjectRef &object, int wait);
    StoreResult exists(const ObjectRef &object, int wait);
    StoreResult instances(const ObjectRef &table, std::vector<int> &numbers, int wait);
    StoreResult list(std::string_view path, StoreListing &listing, int wait);
    void close();

private:
    // Opening
    StoreResult prepare(int wait);
    int open_file(const char *file);
    int use_write_ahead_log();
    int apply_model();
    int column_names(const ModelObject &object, std::vector<std::string> &columns);
    int create(const ModelObject &object);
    int extend(const ModelObject &object, const std::vector<std::string> &columns);
    int create_or_extend(const ModelObject &object);
    int model_version(int64_t &version);

    // Executing
    static int busy(void *self, int count);
    int execute(const std::string &sql, size_t depth = 0, const InstanceNumbers &numbers = {});
    int statements_of(const ObjectRef &object, ObjectStatements *&statements);
    StoreResult begin(const char *how);
    StoreResult end(StoreResult result);
    StoreResult result_of(int code);

    // Rows
    FileState state() const { return FileState(log_index_); }
    void drop_stale_rows();
    void forget_rows();
    StoreResult load(const ObjectRef &object, Row &row);
    StoreResult find_row(const ObjectRef &object, Row *&row);
    StoreResult find_rows(std::span<const StoreItem> items);
    bool changes_something(std::span<const StoreItem> items) const;
    StoreResult change_rows(std::span<const StoreItem> items);
    StoreResult write_row(const ObjectRef &object, const Row &row);
    StoreResult make(const ObjectRef &object, bool &made);

    StoreResult add_instance(const ObjectRef &table, int &instance);
    StoreResult insert_instance(const ObjectRef &object);
    StoreResult remove_instance(const ObjectRef &object);
    StoreResult numbers_of(const ObjectRef &table, std::vector<int> &numbers);
    StoreResult list_object(const ObjectRef &object, std::string_view path, StoreListing &listing);
    StoreResult list_below(const ObjectRef &above, std::string_view path, StoreListing &listing);

    const ModelObject &model_of(const ObjectRef &ref) const
    {
        return model_.objects[static_cast<size_t>(ref.object)];
    }

    const DataModel &model_ = data_model();
    std::unique_ptr<sqlite3, DatabaseCloser> db_; // before the statements, so that it is closed after them
    std::unordered_map<std::string, Statement> statements_; // by their text
    std::vector<ObjectStatements> object_statements_;       // by the object's index
    const volatile void *log_index_ = nullptr;

    // Rows in memory, and the state of the file that all of them belong to.
    std::unordered_map<ObjectRef, Row, ObjectRefHash> rows_;
    FileState rows_state_;

    int wait_ = NO_BLOCK_LOCK;
    bool waiting_ = false;
    std::chrono::steady_clock::time_point give_up_{}; // while waiting
    int logged_code_ = SQLITE_OK;
};

// --- Opening -----------------------------------------------------------------------------------------------

StoreResult Connection::prepare(int wait)
{
    wait_ = wait;
    waiting_ = false;
    if (db_ != nullptr) {
        return STORE_OK;
    }

    int code = open_file(store_file());
    if (code == SQLITE_OK) {
        code = use_write_ahead_log();
    }
    if (code == SQLITE_OK) {
        code = apply_model();
    }
    if (code == SQLITE_OK) {
        return STORE_OK;
    }
    StoreResult result = result_of(code);
    close();
    return result;
}

int Connection::open_file(const char *file)
{
    std::error_code ignored; // a directory that cannot be made shows in the opening
    std::filesystem::create_directories(std::filesystem::path(file).parent_path(), ignored);

    sqlite3 *db = nullptr;
    int code =
        sqlite3_open_v2(file, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    db_.reset(db); // there is one to be closed even on failure
    if (code == SQLITE_OK) {
        sqlite3_busy_handler(db, busy, this);
    }
    return code;
}

int Connection::use_write_ahead_log()
{
    // Two that switch a new file over at the same moment can both be refused at once, without a wait.
    int code = SQLITE_OK;
    for (int count = 0; count == 0 || (code == SQLITE_BUSY && busy(this, count)); count++) {
        code = sqlite3_exec(db_.get(), "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr);
    }
    if (code != SQLITE_OK) {
        return code;
    }
    return sqlite3_exec(db_.get(), "PRAGMA synchronous = NORMAL", nullptr, nullptr, nullptr);
}

int Connection::model_version(int64_t &version)
{
    Statement statement;
    int code = statement.prepare(db_.get(), "PRAGMA user_version");
    if (code != SQLITE_OK) {
        return code;
    }
    Execution execution(statement);
    code = execution.step();
    version = execution.number(0);
    return code == SQLITE_ROW ? SQLITE_OK : code;
}

// Brings the file up to the data model. Which model it has seen stands in its user_version.
int Connection::apply_model()
{
    uint32_t hash = 2166136261; // FNV-1a
    for (const char *c = data_model_text; *c != '\0'; c++) {
        hash = (hash ^ static_cast<unsigned char>(*c)) * 16777619;
    }
    const int64_t wanted = hash >> 1; // positive in the file's signed 32 bits

    int64_t version = 0;
    int code = model_version(version);
    if (code == SQLITE_OK && version != wanted) {
        code = execute("BEGIN IMMEDIATE");
        for (const ModelObject &object : model_.objects) {
            if (code == SQLITE_OK) { // what another process has made meanwhile stays
                code = create_or_extend(object);
            }
        }
        if (code == SQLITE_OK) {
            code = execute("PRAGMA user_version = " + std::to_string(wanted));
        }
        if (code == SQLITE_OK) {
            code = execute("COMMIT");
        }
    }
    if (code != SQLITE_OK) {
        return code;
    }

    // The shared memory is there from the first reading on, and stays where it is while the file is open.
    sqlite3_file *file = nullptr;
    volatile void *index = nullptr;
    sqlite3_file_control(db_.get(), "main", SQLITE_FCNTL_FILE_POINTER, &file);
    constexpr int INDEX_PAGE = 32768;
    if (file != nullptr && file->pMethods != nullptr && file->pMethods->iVersion >= 2 &&
        file->pMethods->xShmMap(file, 0, INDEX_PAGE, 0, &index) == SQLITE_OK) {
        log_index_ = index;
    }
    object_statements_ = std::vector<ObjectStatements>(model_.objects.size());
    return SQLITE_OK;
}

int Connection::column_names(const ModelObject &object, std::vector<std::string> &columns)
{
    Statement statement;
    int code = statement.prepare(db_.get(), sql_column_names(object));
    if (code != SQLITE_OK) {
        return code;
    }
    Execution execution(statement);
    while ((code = execution.step()) == SQLITE_ROW) {
        columns.emplace_back(execution.text(0));
    }
    return code == SQLITE_DONE ? SQLITE_OK : code;
}

int Connection::create(const ModelObject &object)
{
    int code = execute(sql_create_table(object));
    for (int number = 1; number <= object.begins_with && code == SQLITE_OK; number++) {
        code = execute(sql_insert_row(object), object.depth, {number});
    }
    return code;
}

int Connection::extend(const ModelObject &object, const std::vector<std::string> &columns)
{
    int code = SQLITE_OK;
    for (const ModelParameter &parameter : object.parameters) {
        bool kept = parameter.counted == MODEL_NONE;
        if (code == SQLITE_OK && kept &&
            std::find(columns.begin(), columns.end(), parameter.name) == columns.end()) {
            code = execute(sql_add_column(object, parameter));
        }
    }
    return code;
}

int Connection::create_or_extend(const ModelObject &object)
{
    std::vector<std::string> columns;
    int code = column_names(object, columns);
    if (code == SQLITE_OK) {
        code = columns.empty() ? create(object) : extend(object, columns);
    }
    if (code == SQLITE_OK && !object.is_instance) {
        code = execute(sql_seed(model_, object));
    }
    return code;
}

void Connection::close()
{
    forget_rows();
    log_index_ = nullptr;
    object_statements_.clear();
    statements_.clear();
    db_.reset();
}

// --- Executing ---------------------------------------------------------------------------------------------

// SQLite asks here, when the store is locked, whether to try again.
int Connection::busy(void *self, int count)
{
    using namespace std::chrono;
    auto *connection = static_cast<Connection *>(self);
    auto pause = microseconds(100) * (1 << std::min(count, 5));
    if (connection->wait_ != ALL_BLOCK_LOCK) {
        if (connection->wait_ <= 0) {
            return 0;
        }
        auto now = steady_clock::now();
        if (!connection->waiting_) {
            connection->give_up_ = now + milliseconds(connection->wait_);
        }
        connection->waiting_ = true;
        if (now >= connection->give_up_) {
            return 0;
        }
    }
    std::this_thread::sleep_for(pause);
    return 1;
}

StoreResult Connection::result_of(int code)
{
    if (code == SQLITE_OK || code == SQLITE_DONE || code == SQLITE_ROW) {
        return STORE_OK;
    }
    if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
        return STORE_LOCKED;
    }
    if (code != logged_code_) { // once, not with every event
        zk_mod_log_printf("store", VELM_LOG_ERR, "%s: %s\n", store_file(), sqlite3_errstr(code));
    }
    logged_code_ = code;
    return code == SQLITE_NOTADB || code == SQLITE_CORRUPT ? STORE_DAMAGED : STORE_FAILED;
}

// Executes a statement that gives nothing back; its first parameters are instance numbers.
int Connection::execute(const std::string &sql, size_t depth, const InstanceNumbers &numbers)
{
    Statement &statement = statements_[sql];
    int code = statement.is_prepared() ? SQLITE_OK : statement.prepare(db_.get(), sql);
    if (code != SQLITE_OK) {
        return code;
    }
    Execution execution(statement, depth, numbers);
    do {
        code = execution.step();
    } while (code == SQLITE_ROW);
    return code == SQLITE_DONE ? SQLITE_OK : code;
}

int Connection::statements_of(const ObjectRef &object, ObjectStatements *&statements)
{
    statements = &object_statements_[static_cast<size_t>(object.object)];
    if (statements->select.is_prepared()) {
        return SQLITE_OK;
    }
    const ModelObject &model = model_of(object);
    int code = SQLITE_OK;
    if (std::string update = sql_update_row(model); !update.empty()) {
        code = statements->update.prepare(db_.get(), update);
    }
    if (code == SQLITE_OK && model.is_instance) {
        code = statements->numbers.prepare(db_.get(), sql_instance_numbers(model));
    }
    if (code == SQLITE_OK) {
        code = statements->select.prepare(db_.get(), sql_select_row(model_, model));
    }
    return code;
}

StoreResult Connection::begin(const char *how)
{
    return result_of(execute(how));
}

// Ends a transaction: keeps what was done when `result` is good and it can be kept, and takes it back
// otherwise.
StoreResult Connection::end(StoreResult result)
{
    if (result == STORE_OK) {
        result = result_of(execute("COMMIT"));
        if (result == STORE_OK) {
            logged_code_ = SQLITE_OK;
            return STORE_OK;
        }
    }
    if (sqlite3_get_autocommit(db_.get()) == 0) { // some faults have rolled back by themselves
        execute("ROLLBACK");
    }
    forget_rows();
    return result;
}

// --- Rows in memory ----------------------------------------------------------------------------------------

void Connection::forget_rows()
{
    rows_.clear();
    rows_state_ = {};
}

void Connection::drop_stale_rows()
{
    FileState now = state();
    if (now.same_as(rows_state_) && rows_.size() <= MAX_CACHED_ROWS) {
        return;
    }
    rows_.clear();
    rows_state_ = now;
}

// Reads a row from the file.
StoreResult Connection::load(const ObjectRef &object, Row &row)
{
    const ModelObject &model = model_of(object);
    ObjectStatements *statements = nullptr;
    int code = statements_of(object, statements);
    if (code != SQLITE_OK) {
        return result_of(code);
    }
    Execution execution(statements->select, model.depth, object.instance);
    code = execution.step();
    if (code == SQLITE_DONE) {
        return STORE_NO_OBJECT;
    }
    if (code != SQLITE_ROW) {
        return result_of(code);
    }
    row.resize(model.parameters.size());
    for (size_t i = 0; i < row.size(); i++) {
        row[i] = execution.text(static_cast<int>(i));
    }
    return STORE_OK;
}

// Finds a row in memory, or brings it there.
StoreResult Connection::find_row(const ObjectRef &object, Row *&row)
{
    if (auto found = rows_.find(object); found != rows_.end()) {
        row = &found->second;
        return STORE_OK;
    }
    Row loaded;
    StoreResult result = load(object, loaded);
    if (result == STORE_OK) {
        row = &rows_.emplace(object, std::move(loaded)).first->second;
    }
    return result;
}

// Brings all rows of a batch into memory, as they are in one state of the file.
StoreResult Connection::find_rows(std::span<const StoreItem> items)
{
    drop_stale_rows();
    bool one_object = true;
    bool missing = false;
    for (size_t i = 0; i < items.size(); i++) {
        if (i > 0 && items[i].object == items[i - 1].object) {
            continue;
        }
        one_object = i == 0;
        missing = missing || !rows_.contains(items[i].object);
    }
    if (!missing) {
        return STORE_OK;
    }

    StoreResult result = STORE_OK;
    Row *row = nullptr;
    if (one_object) {
        result = find_row(items[0].object, row);
    } else {
        rows_.clear(); // what is there may be older than what the transaction will see
        result = begin("BEGIN");
        if (result != STORE_OK) {
            return result;
        }
        for (const StoreItem &item : items) {
            if (result == STORE_OK) {
                result = find_row(item.object, row);
            }
        }
        result = end(result);
    }
    return result; // if somebody wrote meanwhile, the state has changed, and the rows are dropped next time
}

bool Connection::changes_something(std::span<const StoreItem> items) const
{
    return std::any_of(items.begin(), items.end(), [this](const StoreItem &item) {
        return rows_.find(item.object)->second[item.parameter] != item.text;
    });
}

// Inside a writing transaction.
StoreResult Connection::change_rows(std::span<const StoreItem> items)
{
    StoreResult result = STORE_OK;
    while (!items.empty() && result == STORE_OK) {
        const ObjectRef &object = items.front().object;
        Row *row = nullptr;
        result = find_row(object, row);
        bool changed = false;
        for (; !items.empty() && items.front().object == object; items = items.subspan(1)) {
            if (result != STORE_OK) {
                return result;
            }
            std::string &value = (*row)[items.front().parameter];
            if (value == items.front().text) {
                continue;
            }
            value = items.front().text;
            changed = true;
        }
        if (changed) {
            result = write_row(object, *row);
        }
    }
    return result;
}

// Makes sure that an object exists, and every instance that it lies in.
StoreResult Connection::make(const ObjectRef &object, bool &made)
{
    Row ignored;
    StoreResult result = load(object, ignored);
    if (result != STORE_NO_OBJECT) {
        return result;
    }
    const ModelObject &model = model_of(object);
    if (model.parent != MODEL_NONE) {
        ObjectRef above{.object = model.parent, .instance = object.instance};
        if (result = make(above, made); result != STORE_OK) {
            return result;
        }
    }
    made = true;
    return model.is_instance ? insert_instance(object) : STORE_OK; // others come with what they lie in
}

StoreResult Connection::write_row(const ObjectRef &object, const Row &row)
{
    const ModelObject &model = model_of(object);
    ObjectStatements *statements = nullptr;
    int code = statements_of(object, statements);
    if (code != SQLITE_OK) {
        return result_of(code);
    }
    Execution execution(statements->update, model.depth, object.instance);
    for (size_t i = 0; i < row.size(); i++) {
        if (model.parameters[i].counted == MODEL_NONE) {
            execution.bind(model.depth + i + 1, row[i]);
        }
    }
    return result_of(execution.step());
}

// --- Operations --------------------------------------------------------------------------------------------

StoreResult Connection::read(std::span<const StoreItem> items, int wait)
{
    StoreResult result = prepare(wait);
    if (result == STORE_OK) {
        result = find_rows(items);
    }
    if (result != STORE_OK) {
        return result;
    }
    for (const StoreItem &item : items) {
        const std::string &value = rows_.find(item.object)->second[item.parameter];
        size_t length = value.copy(item.text, MODEL_MAX_VALUE);
        item.text[length] = '\0';
    }
    return STORE_OK;
}

StoreResult Connection::write(std::span<const StoreItem> items, int wait, bool make_missing)
{
    for (const StoreItem &item : items) {
        const ModelParameter &parameter = model_of(item.object).parameters[item.parameter];
        if (parameter.counted != MODEL_NONE) {
            return STORE_READ_ONLY;
        }
        if (strnlen(item.text, parameter.max_length + 1) > parameter.max_length) {
            return STORE_TOO_LONG;
        }
    }
    StoreResult result = prepare(wait);
    if (result == STORE_OK) {
        result = find_rows(items);
    }
    if (result == STORE_OK && !changes_something(items)) {
        return STORE_OK;
    }
    if (result != STORE_OK && !(result == STORE_NO_OBJECT && make_missing)) {
        return result;
    }

    result = begin("BEGIN IMMEDIATE");
    if (result != STORE_OK) {
        return result;
    }
    drop_stale_rows(); // from here on nobody else can commit
    FileState before = rows_state_;
    bool made = false;
    for (const StoreItem &item : items) {
        if (make_missing && result == STORE_OK) {
            result = make(item.object, made);
        }
    }
    if (result == STORE_OK) {
        result = change_rows(items);
    }
    result = end(result);
    if (result != STORE_OK) {
        return result;
    }
    // The rows in memory are what was written, unless somebody else has written since; but a new instance has
    // changed the counts in some of them.
    FileState after = state();
    if (after.follows(before) && !made) {
        rows_state_ = after;
    } else {
        forget_rows();
    }
    return STORE_OK;
}

StoreResult Connection::exists(const ObjectRef &object, int wait)
{
    StoreItem item{.object = object, .parameter = 0, .text = nullptr};
    StoreResult result = prepare(wait);
    return result == STORE_OK ? find_rows({&item, 1}) : result;
}

StoreResult Connection::add(const ObjectRef &table, int &instance, int wait)
{
    StoreResult result = prepare(wait);
    if (result == STORE_OK) {
        result = begin("BEGIN IMMEDIATE");
    }
    if (result != STORE_OK) {
        return result;
    }
    int created = 0;
    result = end(add_instance(table, created));
    if (result == STORE_OK) {
        instance = created;
    }
    return result;
}

StoreResult Connection::add_instance(const ObjectRef &table, int &instance)
{
    const ModelObject &model = model_of(table);
    if (model.parent != MODEL_NONE) {
        ObjectRef above{.object = model.parent, .instance = table.instance};
        Row ignored;
        if (StoreResult result = load(above, ignored); result != STORE_OK) {
            return result;
        }
    }
    std::vector<int> taken;
    if (StoreResult result = numbers_of(table, taken); result != STORE_OK) {
        return result;
    }
    instance = 1;
    for (int number : taken) {
        if (number == instance) {
            instance++;
        }
    }

    ObjectRef created = table;
    created.instance[model.depth - 1] = instance;
    return insert_instance(created);
}

// Inserts an instance with all objects that belong to it, but no instances of tables in it.
StoreResult Connection::insert_instance(const ObjectRef &object)
{
    const ModelObject &model = model_of(object);
    for (const ModelObject &part : model_.objects) {
        if (!part.path.starts_with(model.path) || part.depth != model.depth) {
            continue;
        }
        if (int code = execute(sql_insert_row(part), model.depth, object.instance); code != SQLITE_OK) {
            return result_of(code);
        }
    }
    return STORE_OK;
}

StoreResult Connection::remove(const ObjectRef &object, int wait)
{
    StoreResult result = prepare(wait);
    if (result == STORE_OK) {
        result = begin("BEGIN IMMEDIATE");
    }
    if (result != STORE_OK) {
        return result;
    }
    return end(remove_instance(object));
}

StoreResult Connection::remove_instance(const ObjectRef &object)
{
    const ModelObject &model = model_of(object);
    Row ignored;
    if (StoreResult result = load(object, ignored); result != STORE_OK) {
        return result;
    }
    for (const ModelObject &part : model_.objects) {
        if (!part.path.starts_with(model.path)) {
            continue;
        }
        int code = execute(sql_delete_rows(part, model.depth), model.depth, object.instance);
        if (code != SQLITE_OK) {
            return result_of(code);
        }
    }
    return STORE_OK;
}

StoreResult Connection::numbers_of(const ObjectRef &table, std::vector<int> &numbers)
{
    const ModelObject &model = model_of(table);
    ObjectStatements *statements = nullptr;
    int code = statements_of(table, statements);
    if (code != SQLITE_OK) {
        return result_of(code);
    }
    Execution execution(statements->numbers, model.depth - 1, table.instance);
    while ((code = execution.step()) == SQLITE_ROW) {
        numbers.push_back(execution.number(0));
    }
    return result_of(code);
}

StoreResult Connection::instances(const ObjectRef &table, std::vector<int> &numbers, int wait)
{
    numbers.clear();
    StoreResult result = prepare(wait);
    return result == STORE_OK ? numbers_of(table, numbers) : result;
}

StoreResult Connection::list(std::string_view path, StoreListing &listing, int wait)
{
    listing.clear();
    if (!data_model_knows(model_, path)) {
        return STORE_UNKNOWN_PATH;
    }
    StoreResult result = prepare(wait);
    if (result == STORE_OK) {
        result = begin("BEGIN");
    }
    if (result != STORE_OK) {
        return result;
    }
    ObjectRef asked = data_model_find_object(model_, path.substr(0, path.rfind('.') + 1));
    Row ignored;
    if (asked.object != MODEL_NONE) {
        result = load(asked, ignored);
    }
    if (result == STORE_OK) {
        result = list_below({}, path, listing);
    }
    return end(result);
}

// The objects right below `above` (or at the top), each with all below it, as far as they touch `path`.
StoreResult Connection::list_below(const ObjectRef &above, std::string_view path, StoreListing &listing)
{
    StoreResult result = STORE_OK;
    for (size_t i = 0; i < model_.objects.size() && result == STORE_OK; i++) {
        const ModelObject &model = model_.objects[i];
        if (model.parent != above.object) {
            continue;
        }
        ObjectRef object{.object = static_cast<int>(i), .instance = above.instance};
        if (!model.is_instance) {
            result = list_object(object, path, listing);
            continue;
        }
        std::vector<int> numbers;
        result = numbers_of(object, numbers);
        for (int number : numbers) {
            object.instance[model.depth - 1] = number;
            if (result == STORE_OK) {
                result = list_object(object, path, listing);
            }
        }
    }
    return result;
}

StoreResult Connection::list_object(const ObjectRef &object, std::string_view path, StoreListing &listing)
{
    const std::string own_path = data_model_path(model_, object);
    bool inside = std::string_view(own_path).starts_with(path);
    if (!inside && !path.starts_with(own_path)) {
        return STORE_OK;
    }
    Row row;
    if (StoreResult result = load(object, row); result != STORE_OK) {
        return result;
    }
    const ModelObject &model = model_of(object);
    for (size_t i = 0; i < row.size(); i++) {
        std::string parameter_path = own_path + model.parameters[i].name;
        if (inside || parameter_path == path) {
            listing.emplace_back(std::move(parameter_path), std::move(row[i]));
        }
    }
    return list_below(object, path, listing);
}

// Opened at the thread's first call, closed with the thread.
thread_local Connection connection;

} // namespace

StoreResult store_read(std::span<const StoreItem> items, int wait)
{
    return connection.read(items, wait);
}

StoreResult store_write(std::span<const StoreItem> items, int wait)
{
    return connection.write(items, wait, false);
}

StoreResult store_put(std::span<const StoreItem> items, int wait)
{
    return connection.write(items, wait, true);
}

StoreResult store_add(const ObjectRef &table, int &instance, int wait)
{
    return connection.add(table, instance, wait);
}

StoreResult store_remove(const ObjectRef &object, int wait)
{
    return connection.remove(object, wait);
}

StoreResult store_exists(const ObjectRef &object, int wait)
{
    return connection.exists(object, wait);
}

StoreResult store_instances(const ObjectRef &table, std::vector<int> &numbers, int wait)
{
    return connection.instances(table, numbers, wait);
}

StoreResult store_list(std::string_view path, StoreListing &listing, int wait)
{
    return connection.list(path, listing, wait);
}

void store_close()
{
    connection.close();
}

const char *store_strerror(int code)
{
    switch (code) {
    case STORE_OK:
        return "no error";
    case STORE_BAD_ARGUMENT:
        return "bad argument";
    case STORE_UNKNOWN_PATH:
        return "no such path in the data model";
    case STORE_NO_OBJECT:
        return "no such object";
    case STORE_TOO_LONG:
        return "value too long";
    case STORE_READ_ONLY:
        return "parameter is counted and cannot be set";
    case STORE_LOCKED:
        return "store is locked";
    case STORE_DAMAGED:
        return "store is damaged";
    case STORE_FAILED:
        return "store cannot be opened, read or written";
    default:
        return "unknown error";
    }
}
