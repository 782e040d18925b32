#include "platform/host/store.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "platform/host/number.h"
#include "platform/host/store_file.h"

namespace {

using nlohmann::json;

// More rows than this are not kept in memory: the 254 host objects and as much again.
constexpr size_t MAX_CACHED_ROWS = 512;

constexpr size_t USUAL_ROW = 1000; // bytes of JSON

// --- Values as JSON strings

// Stands between values that are made JSON together.
constexpr char BETWEEN = '\x7f';

void escape(std::string_view value, bool is_utf8, std::string &text)
{
    static constexpr char digits[] = "0123456789abcdef";
    for (char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == BETWEEN || (byte >= 0x80 && !is_utf8)) {
            text.append("\\x").append(1, digits[byte >> 4]).append(1, digits[byte & 0xf]);
            continue;
        }
        if (c == '\\') {
            text += c;
        }
        text += c;
    }
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

// Texts as JSON strings, all at once: to begin takes longer than to go through a short one.
std::vector<std::string> encoded(std::span<const std::string_view> texts, bool are_utf8 = true)
{
    std::string joined;
    joined.reserve(USUAL_ROW);
    for (std::string_view text : texts) {
        escape(text, are_utf8, joined);
        joined += BETWEEN;
    }
    try {
        joined = json(std::move(joined)).dump();
    } catch (const json::type_error &) { // one of them is not UTF-8
        return encoded(texts, false);
    }
    std::vector<std::string> result;
    result.reserve(texts.size());
    std::string_view rest = std::string_view(joined).substr(1); // without the quotation mark
    for (size_t i = 0; i < texts.size(); ++i) {
        const size_t length = rest.find(BETWEEN);
        result.emplace_back("\"").append(rest.substr(0, length)).append("\"");
        rest.remove_prefix(length + 1);
    }
    return result;
}

// --- Rows

struct Row {
    std::string path;
    // By the parameter's index in the model: values as they are shown, and as JSON where one is kept.
    std::vector<std::string> values;
    std::vector<std::string> kept;
    std::string unknown; // members that the model does not know, each with a comma before it
};

void append_member(std::string &text, std::string_view name, std::string_view value)
{
    text.append(",\"").append(name).append("\":").append(value);
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
            rows_.clear();
        }
    }

    void close() { file_.close(); }

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
            rows_.clear();
            throw;
        }
    }

    // Whether the objects of a batch are there; if so their rows are in memory, of one version.
    bool find_all(std::span<const StoreItem> items)
    {
        bool all = true;
        for_each_object(items, [&](const ObjectRef &object, auto) { all = all && rows_.contains(object); });
        if (!all) {
            transact(STORE_BEGIN_READING, [&] {
                all = true;
                for_each_object(items,
                                [&](const ObjectRef &object, auto) { all = all && find(object) != nullptr; });
            });
        }
        return all;
    }

    // Whether the rows in memory have the values of a batch already.
    bool have_all(std::span<const StoreItem> items)
    {
        bool all = true;
        for_each_object(items, [&](const ObjectRef &object, std::span<const StoreItem> own) {
            const Row &row = rows_.find(object)->second;
            const ModelObject &model = data_model_object(object);
            all = all && std::ranges::all_of(own, [&](const StoreItem &item) {
                      return row.values[item.parameter] == text_of(item, model);
                  });
        });
        return all;
    }

    // Of a table's instances, ascending
    std::vector<int> numbers_of(const ObjectRef &table)
    {
        std::vector<int> numbers;
        std::string prefix = path_of(table);
        prefix.resize(prefix.rfind('.', prefix.size() - 2) + 1); // without a number
        file_.execute(STORE_SELECT_BETWEEN, prefix, end_of(prefix), [&](std::string_view path) {
            if (path.starts_with(prefix) && path.find('.', prefix.size()) == path.size() - 1) {
                path.remove_prefix(prefix.size());
                path.remove_suffix(1);
                if (const int number = data_model_instance_number(path); number != 0) {
                    numbers.push_back(number);
                }
            }
        });
        std::ranges::sort(numbers);
        return numbers;
    }

    // Null when there is no such object. Inside a transaction, as all that follows.
    Row *find(const ObjectRef &object)
    {
        auto found = rows_.find(object);
        if (found == rows_.end()) {
            std::optional<Row> row = load(object);
            if (!row) {
                return nullptr;
            }
            found = rows_.emplace(object, std::move(*row)).first;
        }
        return &found->second;
    }

    void change(const ObjectRef &object, std::span<const StoreItem> items)
    {
        Row *row = find(object);
        if (row == nullptr) {
            throw StoreFailure{STORE_NO_OBJECT};
        }
        const ModelObject &model = data_model_object(object);
        std::vector<size_t> changed;
        std::vector<std::string_view> texts;
        changed.reserve(items.size());
        texts.reserve(items.size());
        for (const StoreItem &item : items) {
            if (const std::string_view text = text_of(item, model); row->values[item.parameter] != text) {
                row->values[item.parameter] = text;
                changed.push_back(item.parameter);
                texts.push_back(text);
            }
        }
        if (changed.empty()) {
            return;
        }
        std::vector<std::string> tokens = encoded(texts);
        for (size_t i = 0; i < changed.size(); ++i) {
            row->kept[changed[i]] = std::move(tokens[i]);
        }
        std::string object_text;
        object_text.reserve(USUAL_ROW);
        for (size_t i = 0; i < row->kept.size(); ++i) {
            if (!row->kept[i].empty()) {
                append_member(object_text, model.parameters[i].name, row->kept[i]);
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
        if (!model.is_instance) {
            return; // comes with what it lies in
        }
        file_.execute(STORE_INSERT, path_of(object));
        if (file_.changed_something()) {
            rows_.clear(); // of the counts in them
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
        make(instance);
        return free;
    }

    void remove(const ObjectRef &object)
    {
        const std::string path = path_of(object);
        file_.execute(STORE_DELETE_BETWEEN, path, end_of(path));
        if (!file_.changed_something()) {
            throw StoreFailure{STORE_NO_OBJECT};
        }
        rows_.clear(); // of the counts in them
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
            rows_.clear();
            rows_version_ = version;
        }
    }

    // Reads an object from the file. Of lengths, defaults and names counts what the model says now.
    std::optional<Row> load(const ObjectRef &object)
    {
        const ModelObject &model = data_model_object(object);
        Row row{.path = path_of(object), .values = {}, .kept = {}, .unknown = {}};
        std::optional<json> parameters;
        file_.execute(STORE_SELECT, row.path, {},
                      [&](std::string_view text) { parameters = json::parse(text, nullptr, false); });
        if (!parameters) { // an object that is no instance is there with what it lies in
            if (model.is_instance || (model.depth > 0 && !load(above(object)))) {
                return std::nullopt;
            }
            parameters = json::object();
        }
        bool sound = parameters->is_object();
        for (auto kept = parameters->begin(); sound && kept != parameters->end(); ++kept) {
            sound = kept->is_primitive() && data_model_is_name(kept.key());
            if (sound && data_model_find_parameter(model, kept.key()) == MODEL_NONE) {
                append_member(row.unknown, kept.key(), kept->dump());
            }
        }
        if (!sound) {
            file_.fail(STORE_DAMAGED, row.path + ": its parameters are no JSON object of texts");
        }
        row.values.reserve(model.parameters.size());
        row.kept.resize(model.parameters.size());
        for (const ModelParameter &parameter : model.parameters) {
            std::string &value = row.values.emplace_back(parameter.initial);
            if (parameter.counted != MODEL_NONE) {
                value = std::to_string(numbers_of({parameter.counted, object.instance}).size());
            } else if (auto kept = parameters->find(parameter.name); kept != parameters->end()) {
                row.kept[row.values.size() - 1] = kept->dump();
                value = kept->is_string() ? decoded(kept->get_ref<const std::string &>()) : kept->dump();
                value.resize(strnlen(value.c_str(), parameter.max_length));
            }
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
                listing.emplace_back(std::move(parameter_path), std::move(row->values[i]));
            }
        }
        list_below(object, path, listing);
    }

    StoreFile file_;
    // Rows in memory, and the version of the file that all of them are.
    std::unordered_map<ObjectRef, Row, ObjectRefHash> rows_;
    uint64_t rows_version_ = 0;
};

// --- Calls

// Opened at the thread's first call, closed with the thread.
thread_local Store store;

template <typename Act>
StoreResult call(int wait, Act act, bool repairs = true)
{
    try {
        store.prepare(wait, repairs);
        return act();
    } catch (const StoreFailure &failure) {
        return failure.result;
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
            const Row &row = *store.find(object);
            for (const StoreItem &item : own) {
                const std::string &value = row.values[item.parameter];
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
        numbers = store.numbers_of(table);
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
