// The configuration store: the objects of the data model in one SQLite file, named by the environment
// variable OVANI_STORE ("/var/lib/ovani/store.db" without it; missing directories are made). File and
// directories that are made are their owner's alone.
//
// Its one table, object(path, parameters), has a row for every instance, and for any other object of which
// something was set. The parameters are a JSON object of those that were set; in a value "\\" stands for a
// backslash, and "\xNN" for a byte of what is not UTF-8. Everything else the data model says when it is read:
// defaults, lengths, counts, and what there is at all. What it does not know stays in the file, and is not
// shown.
//
// Any number of processes and threads may use the file at once. Each thread has its own connection, opened at
// its first call. What a call changed is there for everybody when it returns, and survives the death of any
// process at any moment. What others than this library write, or a process that is killed just then, is seen
// within 200 ms, and so is a file that was deleted or took the place of ours. A power cut may cost the last
// changes (SQLite's write-ahead log with synchronous=NORMAL), never the store's consistency: it comes up as
// it was after some earlier call.
//
// A damaged file is put aside as "<file>.damaged", one of an older form as "<file>.old", and a fresh store
// begun; the log says so. If damage is met in the middle, the call fails, and the next one does that. A file
// that cannot be opened is tried again for 3 s, as far as the caller waits.
//
// A process that forks must not use the store in the child, exec excepted, when it has used it before.
//
// `wait` is how long to wait for another writer, in milliseconds; ALL_BLOCK_LOCK (-1) waits without limit,
// other negative numbers and 0 do not wait. Reading never waits for a writer, but for whoever is just opening
// the file.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/host/data_model.h"

enum StoreResult {
    STORE_OK = 0,
    STORE_BAD_ARGUMENT, // a null pointer, or an operation the store does not know
    STORE_UNKNOWN_PATH, // not in the data model
    STORE_NO_OBJECT,    // in the data model, but there is no such instance
    STORE_TOO_LONG,     // a value longer than its parameter holds
    STORE_READ_ONLY,    // a parameter that is counted, not kept
    STORE_LOCKED,       // the wait is over
    STORE_DAMAGED,      // the file is not a store, or no longer one; or what is kept of an object is no JSON
    STORE_FAILED,       // the file cannot be opened, read or written; the log says why
};

// What a code of the store, and so of every zkapi_ and zkcfg_ call, means.
const char *store_strerror(int code);

// One parameter of a batch and the caller's text buffer for it: filled when reading (256 bytes), read when
// writing.
struct StoreItem {
    ObjectRef object;
    size_t parameter;
    char *text;
};

// A batch is read from one state of the store, and written in one transaction: wholly or not at all. A write
// of values that are there already writes nothing.
StoreResult store_read(std::span<const StoreItem> items, int wait);
StoreResult store_write(std::span<const StoreItem> items, int wait);

// As store_write, but instances that do not exist are created first, under their own numbers, together with
// those they lie in.
StoreResult store_put(std::span<const StoreItem> items, int wait);

// Creates an instance of `table` under its lowest free number, with all objects that belong to it, and says
// which.
StoreResult store_add(const ObjectRef &table, int &instance, int wait);

// Deletes an instance and everything below it.
StoreResult store_remove(const ObjectRef &object, int wait);

// STORE_OK when the object exists, STORE_NO_OBJECT when not.
StoreResult store_exists(const ObjectRef &object, int wait);

// The numbers of a table's instances, ascending.
StoreResult store_instances(const ObjectRef &table, std::vector<int> &numbers, int wait);

// Every parameter at `path` and below it with its value; the whole store for an empty path. Objects come in
// the data model's order, instances in that of their numbers. Who only lists puts no file aside.
using StoreListing = std::vector<std::pair<std::string, std::string>>;
StoreResult store_list(std::string_view path, StoreListing &listing, int wait);

// From its first call on this process only reads, and nothing is made, changed or put aside for it: what is
// not there or not whole fails. Writing fails too.
void store_only_read();

// Closes the calling thread's connection. The next call opens the store that OVANI_STORE names by then.
void store_close();
