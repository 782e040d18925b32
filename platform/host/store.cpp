#include "platform/host/store.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <unordered_map>

#include "platform/host/number.h"
#include "platform/host/store_file.h"
#include "platform/host/utf8.h"

namespace {

// More rows than this are not kept in memory: the 254 host objects and as much again.
constexpr size_t MAX_CACHED_ROWS = 512;

constexpr size_t USUAL_ROW = 1000; // bytes of JSON

// --- Values as JSON strings

void append_hex(std::string &text, std::string_view prefix, char byte)
{
    static constexpr char digits[] = "0123456789abcdef";
    const auto number = static_cast<unsigned char>(byte);
    text.append(prefix).append(1, digits[number >> 4]).append(1, digits[number & 0xf]);
}

// RFC 8259. A byte that is not UTF-8 becomes \xNN, and a backslash is doubled, before JSON doubles both
// again.
void append_json(std::string &text, std::string_view value)
{
    text += '"';
    while (!value.empty()) {
        const size_t length = decode_utf8(value).length;
        if (length == 0) {
            append_hex(text, "\\\\x", value.front());
        } else if (value.front() == '\\') {
            text += "\\\\\\\\";
        } else if (value.front() == '"') {
            text += "\\\"";
        } else if (static_cast<unsigned char>(value.front()) < 0x20) {
            append_hex(text, "\\u00", value.front());
        } else {
            text += value.substr(0, length);
        }
        value.remove_prefix(std::max<size_t>(length, 1));
    }
    text += '"';
}

// A backslash that begins neither \\ nor \xNN stands for itself: strangers write too.
std::string decoded(std::string_view text)
{
    std::string value;
    while (!text.empty()) {
        size_t length = 1;
        char byte = text.front();
        if (text.starts_with("\\\\")) {
            length = 2;
        } else if (text.starts_with("\\x") && text.size() >= 4) {
            if (const auto number = parse_number<unsigned char>(text.substr(2, 2), 16)) {
                byte = static_cast<char>(*number);
                length = 4;
            }
        }
        value += byte;
        text.remove_prefix(length);
    }
    return value;
}

// --- Rows

// Texts in one piece: most of a row's are short, and many empty.
class Texts {
public:
    explicit Texts(size_t count) : ends_(count) {}

    size_t size() const { return ends_.size(); }
    std::string_view operator[](size_t i) const
    {
        return std::string_view(all_).substr(begin(i), ends_[i] - begin(i));
    }

    void set(size_t i, std::string_view text)
    {
        const size_t length = ends_[i] - begin(i);
        all_.replace(begin(i), length, text);
        for (; i < ends_.size(); ++i) {
            ends_[i] = static_cast<uint32_t>(ends_[i] - length + text.size());
        }
    }

private:
    size_t begin(size_t i) const { return i == 0 ? 0 : ends_[i - 1]; }

    std::string all_;
    std::vector<uint32_t> ends_;
};

struct Row {
    std::string path;
    // By the parameter's index in the model: values, whole, though the model may have made them shorter since
    // they were kept; and whether they are in the file, else they are what the model begins with, or a count.
    Texts values;
    std::vector<bool> is_kept;
    std::string unknown; // members that the model does not know, each with a comma before it
};

void append_member(std::string &text, std::string_view name, std::string_view value)
{
    text.append(",\"").append(name).append("\":");
    append_json(text, value);
}

// The text of an item, never read further than the parameter is long.
std::string_view text_of(const StoreItem &item, const ModelObject &model)
{
    return {item.text, strnlen(item.text, model.parameters[item.parameter].max_length)};
}

template <typename Act>
void for_each_object(std::span<const StoreItem> items, Act act)
{
    while (!items.empty()) {
        size_t count = 1;
        while (count < items.size() && items[count].object == items.front().object) {
            ++count;
        }
        act(items.front().object, items.first(count));
        items = items.subspan(count);
    }
}

// What lies right above an object, or MODEL_NONE.
ObjectRef above(const ObjectRef &object)
{
    return {data_model_object(object).parent, object.instance};
}

std::string path_of(const ObjectRef &object)
{
    return data_model_path(data_model(), object);
}

std::string without_number(std::string path)
{
    path.resize(path.rfind('.', path.size() - 2) + 1);
    return path;
}

// Behind all paths that begin with this one.
std::string end_of(std::string path)
{
    ++path.back(); // of the dot
    return path;
}

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

// The store as one thread sees it. What fails throws a StoreFailure.
class Store {
public:
    void prepare(int wait, bool repairs)
    {
        file_.prepare(wait, repairs);
        drop_stale_rows();
        if (rows_.size() > MAX_CACHED_ROWS) {
            forget();
        }
    }

    void close() { file_.close(); }
    bool make_room() { return file_.make_room(); }

    // `act` sees one version of the file, and what it changes is kept wholly or not at all.
    template <typename Act>
    void transact(StoreStatement begin, Act act)
    {
        file_.execute(begin);
        try {
            if (begin == STORE_BEGIN_READING) { // which settles the version with the first look
                file_.execute(STORE_LOOK);
            }
            drop_stale_rows();
            act();
            file_.execute(STORE_COMMIT);
            rows_version_ = file_.version(); // changed by nobody but us
        } catch (...) {
            file_.roll_back();
            forget();
            throw;
        }
    }

    // Whether the objects of a batch are there; if so their rows are in memory, of one version.
    bool find_all(std::span<const StoreItem> items)
    {
        bool known = true;
        for_each_object(items,
                        [&](const ObjectRef &object, auto) { known = known && rows_.contains(object); });
        bool all = true;
        const auto look = [&] {
            for_each_object(items,
                            [&](const ObjectRef &object, auto) { all = all && find(object) != nullptr; });
        };
        known ? look() : transact(STORE_BEGIN_READING, look);
        return all;
    }

    // Whether the rows in memory have the values of a batch already.
    bool have_all(std::span<const StoreItem> items)
    {
        bool all = true;
        for_each_object(items, [&](const ObjectRef &object, std::span<const StoreItem> own) {
            const Row &row = *rows_.find(object)->second;
            const ModelObject &model = data_model_object(object);
            all = all && std::ranges::all_of(own, [&](const StoreItem &item) {
                      return row.values[item.parameter] == text_of(item, model);
                  });
        });
        return all;
    }

    // Of a table's instances, ascending. Inside a transaction, as all that follows.
    const std::vector<int> &numbers_of(const ObjectRef &table)
    {
        const std::string prefix = without_number(path_of(table));
        if (const auto found = numbers_.find(prefix); found != numbers_.end()) {
            return found->second;
        }
        std::vector<int> numbers;
        file_.execute(STORE_SELECT_BETWEEN, prefix, end_of(prefix), [&](std::string_view path, auto) {
            if (path.starts_with(prefix) && path.find('.', prefix.size()) == path.size() - 1) {
                path.remove_prefix(prefix.size());
                path.remove_suffix(1);
                if (const int number = data_model_instance_number(path); number != 0) {
                    numbers.push_back(number);
                }
            }
        });
        std::ranges::sort(numbers);
        return numbers_[prefix] = std::move(numbers);
    }

    // Null when there is no such object. One just made has nothing in the file yet.
    Row *find(const ObjectRef &object, bool is_new = false)
    {
        auto found = rows_.find(object);
        if (found == rows_.end()) {
            found = rows_.emplace(object, load(object, is_new)).first;
        }
        return found->second ? &*found->second : nullptr;
    }

    // A value as the model shows it now.
    std::string_view shown(const ObjectRef &object, Row &row, size_t parameter)
    {
        const ModelParameter &shown_as = data_model_object(object).parameters[parameter];
        if (shown_as.counted != MODEL_NONE) {
            row.values.set(parameter, std::to_string(numbers_of({shown_as.counted, object.instance}).size()));
            return row.values[parameter];
        }
        const std::string_view text = row.values[parameter].substr(0, shown_as.max_length);
        return text.substr(0, text.find('\0'));
    }

    void change(const ObjectRef &object, std::span<const StoreItem> items)
    {
        Row *row = find(object);
        if (row == nullptr) {
            throw StoreFailure{STORE_NO_OBJECT};
        }
        const ModelObject &model = data_model_object(object);
        bool changed = false;
        for (const StoreItem &item : items) {
            if (const std::string_view text = text_of(item, model); row->values[item.parameter] != text) {
                row->values.set(item.parameter, text);
                row->is_kept[item.parameter] = true;
                changed = true;
            }
        }
        if (!changed) {
            return;
        }
        std::string object_text;
        object_text.reserve(USUAL_ROW);
        for (size_t i = 0; i < row->values.size(); ++i) {
            if (row->is_kept[i]) {
                append_member(object_text, model.parameters[i].name, row->values[i]);
            }
        }
        object_text.append(row->unknown).front() = '{'; // for a comma
        object_text += '}';
        file_.execute(STORE_UPDATE, row->path, object_text);
        if (!file_.changed_something()) { // the first that is kept of an object that is no instance
            file_.execute(STORE_INSERT, row->path);
            file_.execute(STORE_UPDATE, row->path, object_text);
        }
    }

    // Makes sure that an object exists, and every instance that it lies in.
    void make(const ObjectRef &object)
    {
        const ModelObject &model = data_model_object(object);
        if (model.parent != MODEL_NONE) {
            make(above(object));
        }
        if (model.is_instance) { // any other comes with what it lies in
            insert(object);
        }
    }

    void insert(const ObjectRef &instance)
    {
        const std::string path = path_of(instance);
        file_.execute(STORE_INSERT, path);
        if (!file_.changed_something()) {
            return; // it is there
        }
        std::erase_if(rows_, [](const auto &row) { return !row.second; }); // what lies in it is there, too
        find(instance, true);                                              // it will be filled
        if (const auto table = numbers_.find(without_number(path)); table != numbers_.end()) {
            const int number = instance.instance[data_model_object(instance).depth - 1];
            table->second.insert(std::ranges::upper_bound(table->second, number), number);
        }
    }

    int add(const ObjectRef &table)
    {
        const ModelObject &model = data_model_object(table);
        if (model.depth > 1 && find(above(table)) == nullptr) {
            throw StoreFailure{STORE_NO_OBJECT};
        }
        int free = 1;
        for (int number : numbers_of(table)) {
            free += number == free ? 1 : 0;
        }
        ObjectRef instance = table;
        instance.instance[model.depth - 1] = free;
        insert(instance);
        return free;
    }

    void remove(const ObjectRef &object)
    {
        const std::string path = path_of(object);
        file_.execute(STORE_DELETE_BETWEEN, path, end_of(path));
        if (!file_.changed_something()) {
            throw StoreFailure{STORE_NO_OBJECT};
        }
        std::erase_if(rows_,
                      [&](const auto &row) { return row.second && row.second->path.starts_with(path); });
        std::erase_if(numbers_, [&](const auto &table) { return table.first.starts_with(path); });
        if (const auto table = numbers_.find(without_number(path)); table != numbers_.end()) {
            std::erase(table->second, object.instance[data_model_object(object).depth - 1]);
        }
    }

    // The objects right below `object` (or at the top), each with all below it, as far as they touch `path`.
    void list_below(const ObjectRef &object, std::string_view path, StoreListing &listing)
    {
        const DataModel &model = data_model();
        for (size_t i = 0; i < model.objects.size(); ++i) {
            ObjectRef below{.object = static_cast<int>(i), .instance = object.instance};
            if (model.objects[i].parent != object.object) {
                continue;
            }
            if (!model.objects[i].is_instance) {
                list(below, path, listing);
                continue;
            }
            for (int number : numbers_of(below)) {
                below.instance[model.objects[i].depth - 1] = number;
                list(below, path, listing);
            }
        }
    }

private:
    void drop_stale_rows()
    {
        if (const uint64_t version = file_.version(); version != rows_version_) {
            forget();
            rows_version_ = version;
        }
    }

    void forget()
    {
        rows_.clear();
        numbers_.clear();
    }

    // Reads an object from the file. Of lengths, defaults and names counts what the model says now.
    std::optional<Row> load(const ObjectRef &object, bool is_new = false)
    {
        const ModelObject &model = data_model_object(object);
        const size_t count = model.parameters.size();
        Row row{.path = path_of(object),
                .values = Texts(count),
                .is_kept = std::vector<bool>(count),
                .unknown = {}};
        bool found = is_new;
        bool sound = true;
        const auto take = [&](std::string_view name, std::string_view value) {
            found = true;
            if (name.data() == nullptr) {
                return; // nothing is kept of it
            }
            sound = sound && data_model_is_name(name) && value.data() != nullptr;
            if (!sound) {
                return;
            }
            if (const int i = data_model_find_parameter(model, name); i != MODEL_NONE) {
                row.values.set(static_cast<size_t>(i), decoded(value));
                row.is_kept[static_cast<size_t>(i)] = true;
            } else {
                append_member(row.unknown, name, decoded(value));
            }
        };
        if (!is_new) {
            file_.execute(STORE_SELECT, row.path, {}, take);
        }
        // An object that is no instance is there with what it lies in.
        if (!found && (model.is_instance || (model.depth > 0 && !load(above(object))))) {
            return std::nullopt;
        }
        if (!sound) {
            file_.fail(STORE_DAMAGED, row.path + ": its parameters are no JSON object of texts");
        }
        for (size_t i = 0; i < count; ++i) {
            if (!row.is_kept[i]) {
                row.values.set(i, model.parameters[i].initial);
            }
            shown(object, row, i); // so that what it counts is known
        }
        return row;
    }

    void list(const ObjectRef &object, std::string_view path, StoreListing &listing)
    {
        const std::string own_path = path_of(object);
        const bool inside = std::string_view(own_path).starts_with(path);
        if (!inside && !path.starts_with(own_path)) {
            return;
        }
        std::optional<Row> row = load(object);
        if (!row) {
            return;
        }
        const ModelObject &model = data_model_object(object);
        for (size_t i = 0; i < row->values.size(); ++i) {
            std::string parameter_path = own_path + model.parameters[i].name;
            if (inside || parameter_path == path) {
                listing.emplace_back(std::move(parameter_path), shown(object, *row, i));
            }
        }
        list_below(object, path, listing);
    }

    StoreFile file_;
    // What is in memory, and the version of the file that all of it is: rows, or that there is none, with the
    // instances that they count; and the instances of tables, by their paths.
    std::unordered_map<ObjectRef, std::optional<Row>, ObjectRefHash> rows_;
    std::map<std::string, std::vector<int>> numbers_;
    uint64_t rows_version_ = 0;
};

// --- Calls

// Opened at the thread's first call, closed with the thread.
thread_local Store store;

template <typename Act>
StoreResult call(int wait, Act act, bool repairs = true)
{
    for (bool again = true;; again = false) {
        try {
            store.prepare(wait, repairs);
            return act();
        } catch (const StoreFailure &failure) {
            if (!again || !store.make_room()) {
                return failure.result;
            }
        }
    }
}

StoreResult write_items(std::span<const StoreItem> items, int wait, bool makes_missing)
{
    const DataModel &model = data_model();
    for (const StoreItem &item : items) {
        const ModelParameter &parameter =
            model.objects[static_cast<size_t>(item.object.object)].parameters[item.parameter];
        if (parameter.counted != MODEL_NONE) {
            return STORE_READ_ONLY;
        }
        if (strnlen(item.text, parameter.max_length + 1) > parameter.max_length) {
            return STORE_TOO_LONG;
        }
    }
    return call(wait, [&] {
        const bool all = store.find_all(items);
        if (!all && !makes_missing) {
            return STORE_NO_OBJECT;
        }
        if (all && store.have_all(items)) {
            return STORE_OK;
        }
        store.transact(STORE_BEGIN_WRITING, [&] {
            for_each_object(items, [&](const ObjectRef &object, std::span<const StoreItem> own) {
                if (makes_missing) {
                    store.make(object);
                }
                store.change(object, own);
            });
        });
        return STORE_OK;
    });
}

} // namespace

StoreResult store_read(std::span<const StoreItem> items, int wait)
{
    return call(wait, [&] {
        if (!store.find_all(items)) {
            return STORE_NO_OBJECT;
        }
        for_each_object(items, [](const ObjectRef &object, std::span<const StoreItem> own) {
            Row &row = *store.find(object);
            for (const StoreItem &item : own) {
                const std::string_view value = store.shown(object, row, item.parameter);
                item.text[value.copy(item.text, MODEL_MAX_VALUE)] = '\0';
            }
        });
        return STORE_OK;
    });
}

StoreResult store_write(std::span<const StoreItem> items, int wait)
{
    return write_items(items, wait, false);
}

StoreResult store_put(std::span<const StoreItem> items, int wait)
{
    return write_items(items, wait, true);
}

StoreResult store_exists(const ObjectRef &object, int wait)
{
    const StoreItem item{.object = object, .parameter = 0, .text = nullptr};
    return call(wait, [&] { return store.find_all({&item, 1}) ? STORE_OK : STORE_NO_OBJECT; });
}

StoreResult store_add(const ObjectRef &table, int &instance, int wait)
{
    return call(wait, [&] {
        int added = 0;
        store.transact(STORE_BEGIN_WRITING, [&] { added = store.add(table); });
        instance = added;
        return STORE_OK;
    });
}

StoreResult store_remove(const ObjectRef &object, int wait)
{
    return call(wait, [&] {
        store.transact(STORE_BEGIN_WRITING, [&] { store.remove(object); });
        return STORE_OK;
    });
}

StoreResult store_instances(const ObjectRef &table, std::vector<int> &numbers, int wait)
{
    numbers.clear();
    return call(wait, [&] {
        store.transact(STORE_BEGIN_READING, [&] { numbers = store.numbers_of(table); });
        return STORE_OK;
    });
}

StoreResult store_list(std::string_view path, StoreListing &listing, int wait)
{
    listing.clear();
    if (!data_model_knows(data_model(), path)) {
        return STORE_UNKNOWN_PATH;
    }
    auto list = [&] {
        const ObjectRef asked = data_model_find_object(data_model(), path.substr(0, path.rfind('.') + 1));
        StoreResult result = STORE_OK;
        store.transact(STORE_BEGIN_READING, [&] {
            if (asked.object != MODEL_NONE && store.find(asked) == nullptr) {
                result = STORE_NO_OBJECT;
            } else {
                store.list_below({}, path, listing);
            }
        });
        return result;
    };
    return call(wait, list, false);
}

void store_close()
{
    store.close();
}

const char *store_strerror(int code)
{
    static constexpr std::array<const char *, STORE_FAILED + 1> texts = {
        "no error",        "bad argument",     "no such path in the data model",
        "no such object",  "value too long",   "parameter is counted and cannot be set",
        "store is locked", "store is damaged", "store cannot be opened, read or written",
    };
    return code >= STORE_OK && code <= STORE_FAILED ? texts[static_cast<size_t>(code)] : "unknown error";
}
