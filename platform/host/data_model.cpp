#include "platform/host/data_model.h"

#include <charconv>
#include <optional>

#include <strings.h>

#include "platform/zk_log.h"

namespace {

constexpr std::string_view INSTANCE = "{i}";
constexpr std::string_view INSTANCE_DOT = "{i}.";

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Parameter and object names become names of columns and tables in the store, so they keep to this alphabet.
bool is_name(std::string_view text)
{
    if (text.empty() || !is_letter(text.front())) {
        return false;
    }
    for (char c : text) {
        if (!is_letter(c) && !is_digit(c) && c != '_' && c != '-') {
            return false;
        }
    }
    return true;
}

bool is_number(std::string_view text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// A decimal number in its only form: without sign, blanks or leading zeros. 0 stands for anything else.
int parse_number(std::string_view text)
{
    int number = 0;
    auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (!is_number(text) || text.front() == '0' || fault != std::errc{} || end != text.data() + text.size()) {
        return 0;
    }
    return number;
}

// Cuts the first component, without its dot, off a path; nothing when no dot is left.
std::optional<std::string_view> cut_component(std::string_view &path)
{
    size_t dot = path.find('.');
    if (dot == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view component = path.substr(0, dot);
    path.remove_prefix(dot + 1);
    return component;
}

// Paths that differ only in instance numbers have the same shape.
std::string shape_of(std::string_view path)
{
    std::string shape;
    shape.reserve(path.size() + 2);
    while (auto component = cut_component(path)) {
        shape += is_number(*component) || *component == INSTANCE ? "#" : *component;
        shape += '.';
    }
    return shape += path;
}

// Walks `path` along `model_path` until `path` ends; what is left of `model_path` then is no matter.
bool match(std::string_view model_path, std::string_view path, InstanceNumbers &numbers)
{
    size_t depth = 0;
    while (auto component = cut_component(path)) {
        auto expected = cut_component(model_path);
        if (!expected) {
            return false;
        }
        if (*expected != INSTANCE) {
            if (*component != *expected) {
                return false;
            }
            continue;
        }
        int number = parse_number(*component);
        if (number == 0) {
            return false;
        }
        numbers[depth++] = number;
    }
    return path.empty();
}

ObjectRef find(const DataModel &model, const std::string &shape, std::string_view path)
{
    auto found = model.by_shape.find(shape);
    if (found == model.by_shape.end()) {
        return {};
    }
    ObjectRef ref{.object = found->second};
    if (!match(model.objects[static_cast<size_t>(ref.object)].path, path, ref.instance)) {
        return {};
    }
    return ref;
}

// --- The parser --------------------------------------------------------------------------------------------
// ---------------------------------------------------------------------------------------------

constexpr std::string_view BLANKS = " \t\r";

std::string_view trim(std::string_view text)
{
    size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

std::string_view cut_word(std::string_view &text)
{
    std::string_view word = text.substr(0, text.find_first_of(BLANKS));
    text = trim(text.substr(word.size()));
    return word;
}

// Null when the object was taken in, else what is wrong with its line.
const char *add_object(DataModel &model, std::string_view line)
{
    ModelObject object;
    std::string_view path = cut_word(line);
    object.path = path;
    std::string_view rest = path;
    while (auto component = cut_component(rest)) {
        object.is_instance = *component == INSTANCE;
        if (object.is_instance) {
            object.depth++;
        } else if (!is_name(*component) && parse_number(*component) == 0) {
            return "a component of the path is neither a name nor a number nor {i}";
        }
    }
    if (!rest.empty()) {
        return "an object's path ends in a dot";
    }
    if (object.depth > MODEL_MAX_DEPTH) {
        return "the path holds more than 8 instance numbers";
    }
    if (!line.empty()) {
        object.begins_with = parse_number(line);
        if (object.begins_with < 1 || object.begins_with > MODEL_MAX_BEGIN || !object.is_instance ||
            object.depth != 1) {
            return "only a table that lies in no other begins with instances, 1 to 255 of them";
        }
    }

    size_t parent_length = 0;
    for (size_t i = 0; i < model.objects.size(); i++) {
        const std::string &above = model.objects[i].path;
        if (path.starts_with(above) && above.size() > parent_length) {
            parent_length = above.size();
            object.parent = static_cast<int>(i);
        }
    }
    std::string_view own_part = path.substr(parent_length);
    if (object.is_instance) {
        own_part.remove_suffix(INSTANCE_DOT.size());
    }
    if (own_part.find(INSTANCE) != std::string_view::npos) {
        return "the table above it is not listed";
    }

    if (!model.by_shape.emplace(shape_of(path), static_cast<int>(model.objects.size())).second) {
        return "the object is listed twice, or its numbers cannot be told from another's {i}";
    }
    model.objects.push_back(std::move(object));
    return nullptr;
}

// A table that a parameter counts, by line, until the table itself has been read.
struct PendingCount {
    size_t line;
    size_t object;
    size_t parameter;
    std::string table;
};

const char *add_parameter(ModelObject &object, std::string_view line, std::string &counted_table)
{
    ModelParameter parameter;
    parameter.name = cut_word(line);
    if (!is_name(parameter.name)) {
        return "a parameter's name is made of letters, digits, '_' and '-', and begins with a letter";
    }
    for (const ModelParameter &other : object.parameters) {
        if (strcasecmp(other.name.c_str(), parameter.name.c_str()) == 0) {
            return "the object has a parameter of this name already";
        }
    }

    std::string_view length = cut_word(line);
    if (length == "count") {
        if (line.empty()) {
            return "the table to count is missing";
        }
        counted_table = object.path + std::string(line);
    } else {
        parameter.max_length = static_cast<size_t>(parse_number(length));
        if (parameter.max_length < 1 || parameter.max_length > MODEL_MAX_VALUE) {
            return "the length is not a number from 1 to 255";
        }
        if (line.size() > parameter.max_length) {
            return "the default is longer than the parameter may be";
        }
        parameter.initial = std::string(line);
    }
    object.parameters.push_back(std::move(parameter));
    return nullptr;
}

const char *resolve_count(DataModel &model, const PendingCount &pending)
{
    for (size_t i = 0; i < model.objects.size(); i++) {
        const ModelObject &table = model.objects[i];
        if (table.path != pending.table) {
            continue;
        }
        // Deeper than one level, the instances of several tables would be added up.
        if (!table.is_instance || table.depth != model.objects[pending.object].depth + 1) {
            return "what it counts is not a table of this object";
        }
        model.objects[pending.object].parameters[pending.parameter].counted = static_cast<int>(i);
        return nullptr;
    }
    return "the table it counts is not listed";
}

} // namespace

bool data_model_parse(std::string_view text, DataModel &model, std::string &error)
{
    model = {};
    std::vector<PendingCount> counts;
    const char *fault = nullptr;
    size_t line_number = 0;

    while (!text.empty() && fault == nullptr) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(line.size() == text.size() ? line.size() : line.size() + 1);
        line_number++;

        std::string_view content = trim(line);
        if (content.empty() || content.front() == '#') {
            continue;
        }
        if (line.front() != ' ' && line.front() != '\t') {
            fault = add_object(model, content);
            continue;
        }
        if (model.objects.empty()) {
            fault = "a parameter stands before the first object";
            continue;
        }
        ModelObject &object = model.objects.back();
        std::string counted_table;
        fault = add_parameter(object, content, counted_table);
        if (!counted_table.empty()) {
            counts.push_back(
                {line_number, model.objects.size() - 1, object.parameters.size() - 1, counted_table});
        }
    }
    for (const PendingCount &pending : counts) {
        if (fault != nullptr) {
            break;
        }
        line_number = pending.line;
        fault = resolve_count(model, pending);
    }
    if (fault == nullptr) {
        return true;
    }
    error = "line " + std::to_string(line_number) + ": " + fault;
    return false;
}

const DataModel &data_model()
{
    static const DataModel model = [] {
        DataModel built_in;
        std::string error;
        if (!data_model_parse(data_model_text, built_in, error)) {
            zk_mod_log_printf("store", VELM_LOG_EMERG, "built-in data model: %s\n", error.c_str());
            built_in = {}; // knows nothing: every path is refused
        }
        return built_in;
    }();
    return model;
}

ObjectRef data_model_find_object(const DataModel &model, std::string_view path)
{
    return find(model, shape_of(path), path);
}

ObjectRef data_model_find_table(const DataModel &model, std::string_view path)
{
    return find(model, shape_of(path) + "#.", path);
}

int data_model_find_parameter(const ModelObject &object, std::string_view name)
{
    for (size_t i = 0; i < object.parameters.size(); i++) {
        if (object.parameters[i].name == name) {
            return static_cast<int>(i);
        }
    }
    return MODEL_NONE;
}

bool data_model_knows(const DataModel &model, std::string_view path)
{
    if (!path.empty() && path.back() != '.') {
        size_t name = path.rfind('.') + 1;
        ObjectRef ref = data_model_find_object(model, path.substr(0, name));
        return ref.object != MODEL_NONE &&
               data_model_find_parameter(model.objects[static_cast<size_t>(ref.object)], path.substr(name)) !=
                   MODEL_NONE;
    }
    for (const ModelObject &object : model.objects) {
        InstanceNumbers numbers{};
        if (match(object.path, path, numbers)) {
            return true;
        }
    }
    return false;
}

std::string data_model_path(const DataModel &model, const ObjectRef &ref)
{
    std::string path;
    size_t depth = 0;
    std::string_view rest = model.objects[static_cast<size_t>(ref.object)].path;
    while (auto component = cut_component(rest)) {
        path += *component == INSTANCE ? std::to_string(ref.instance[depth++]) : *component;
        path += '.';
    }
    return path;
}
