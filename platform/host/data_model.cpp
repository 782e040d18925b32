#include "platform/host/data_model.h"

#include <algorithm>
#include <optional>

#include "platform/host/number.h"
#include "platform/zk_log.h"

namespace {

constexpr std::string_view INSTANCE = "{i}";
constexpr std::string_view DIGITS = "0123456789";
constexpr std::string_view NAME_CHARACTERS =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";

bool is_made_of(std::string_view text, std::string_view characters)
{
    return !text.empty() && text.find_first_not_of(characters) == std::string_view::npos;
}

// Cuts the first component, without its dot, off a path; nothing when no dot is left.
std::optional<std::string_view> cut_component(std::string_view &path)
{
    const size_t dot = path.find('.');
    if (dot == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view component = path.substr(0, dot);
    path.remove_prefix(dot + 1);
    return component;
}

// Where a path that ends in a dot, or an empty one, leads; null when the model has nothing there.
const ModelNode *walk(const DataModel &model, std::string_view path, InstanceNumbers &numbers)
{
    const ModelNode *node = model.nodes.data();
    size_t depth = 0;
    while (auto component = cut_component(path)) {
        size_t next = 0;
        if (auto found = node->below.find(*component); found != node->below.end()) {
            next = found->second;
        } else if (node->instance != 0) {
            numbers[depth] = data_model_instance_number(*component);
            next = numbers[depth++] != 0 ? node->instance : 0;
        }
        if (next == 0) {
            return nullptr;
        }
        node = &model.nodes[next];
    }
    return path.empty() ? node : nullptr;
}

// --- Values

// Takes the first of "A|B|C" off; nothing of an empty text is left.
std::string_view cut_choice(std::string_view &values)
{
    const std::string_view choice = values.substr(0, values.find('|'));
    values.remove_prefix(std::min(choice.size() + 1, values.size()));
    return choice;
}

struct Range {
    int64_t least;
    int64_t most;
};

// Of "LEAST..MOST"; nothing for a word.
std::optional<Range> range_of(std::string_view choice)
{
    const size_t dots = choice.find("..");
    if (dots == std::string_view::npos) {
        return std::nullopt;
    }
    const auto least = parse_number<int64_t>(choice.substr(0, dots));
    const auto most = parse_number<int64_t>(choice.substr(dots + 2));
    return Range{least.value_or(0), least && most ? *most : -1}; // an empty one for what is none
}

bool are_values(std::string_view values)
{
    while (!values.empty()) {
        const std::string_view choice = cut_choice(values);
        const auto range = range_of(choice);
        if (choice.empty() || (range && range->least > range->most)) {
            return false;
        }
    }
    return true;
}

// --- The parser

constexpr std::string_view BLANKS = " \t\r";

std::string_view trim(std::string_view text)
{
    const size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

std::string_view cut_word(std::string_view &text)
{
    const std::string_view word = text.substr(0, text.find_first_of(BLANKS));
    text = trim(text.substr(word.size()));
    return word;
}

// Null when there is a node for the component below `node`, which then is that one; else what is wrong with
// it.
const char *add_component(DataModel &model, std::string_view component, size_t &node)
{
    if (component != INSTANCE && !data_model_is_name(component)) {
        return "a component of the path is neither a name nor a number nor {i}";
    }
    ModelNode &above = model.nodes[node];
    size_t &place = component == INSTANCE ? above.instance : above.below[std::string(component)];
    node = place;
    if (node != 0) {
        return nullptr;
    }
    node = place = model.nodes.size();
    auto is_number = [](const auto &entry) { return is_made_of(entry.first, DIGITS); };
    if (above.instance != 0 && std::ranges::any_of(above.below, is_number)) {
        return "its numbers cannot be told from another's {i}";
    }
    model.nodes.emplace_back();
    return nullptr;
}

// Null when the object was taken in, else what is wrong with its line.
const char *add_object(DataModel &model, std::string_view line)
{
    ModelObject object;
    object.path = cut_word(line);
    std::string_view rest = object.path;
    size_t node = 0;
    while (auto component = cut_component(rest)) {
        if (object.is_instance && model.nodes[node].object == MODEL_NONE) {
            return "the table above it is not listed";
        }
        if (const char *fault = add_component(model, *component, node); fault != nullptr) {
            return fault;
        }
        object.is_instance = *component == INSTANCE;
        object.depth += object.is_instance ? 1 : 0;
        if (!rest.empty() && model.nodes[node].object != MODEL_NONE) {
            object.parent = model.nodes[node].object;
        }
    }
    if (!rest.empty()) {
        return "an object's path ends in a dot";
    }
    if (object.depth > MODEL_MAX_DEPTH) {
        return "the path holds more than 8 instance numbers";
    }
    if (model.nodes[node].object != MODEL_NONE) {
        return "the object is listed twice";
    }
    if (!line.empty()) {
        object.begins_with = parse_number<int>(line).value_or(0);
        if (object.begins_with < 1 || object.begins_with > MODEL_MAX_BEGIN || !object.is_instance ||
            object.depth != 1) {
            return "only a table that lies in no other begins with instances, 1 to 255 of them";
        }
    }
    model.nodes[node].object = static_cast<int>(model.objects.size());
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
    if (!data_model_is_name(parameter.name)) {
        return "a parameter's name is made of letters, digits, '_' and '-'";
    }
    if (data_model_find_parameter(object, parameter.name) != MODEL_NONE) {
        return "the object has a parameter of this name already";
    }

    const std::string_view length = cut_word(line);
    if (length == "count") {
        if (line.empty()) {
            return "the table to count is missing";
        }
        counted_table = object.path + std::string(line);
    } else {
        parameter.max_length = parse_number<size_t>(length).value_or(0);
        if (parameter.max_length < 1 || parameter.max_length > MODEL_MAX_VALUE) {
            return "the length is not a number from 1 to 255";
        }
        if (line.starts_with('[')) {
            const std::string_view values = cut_word(line);
            parameter.values = values.substr(1, values.size() - 2);
            if (!values.ends_with(']') || parameter.values.empty() || !are_values(parameter.values)) {
                return "its values are words and ranges LEAST..MOST, with | between them, in [ ]";
            }
        }
        if (line.size() > parameter.max_length) {
            return "the default is longer than the parameter may be";
        }
        parameter.initial = line;
    }
    object.parameters.push_back(std::move(parameter));
    return nullptr;
}

const char *resolve_count(DataModel &model, const PendingCount &pending)
{
    const auto table = std::ranges::find(model.objects, pending.table, &ModelObject::path);
    if (table == model.objects.end()) {
        return "the table it counts is not listed";
    }
    // Deeper than one level, the instances of several tables would be added up.
    ModelObject &object = model.objects[pending.object];
    if (!table->is_instance || table->depth != object.depth + 1) {
        return "what it counts is not a table of this object";
    }
    object.parameters[pending.parameter].counted = static_cast<int>(table - model.objects.begin());
    return nullptr;
}

} // namespace

bool data_model_parse(std::string_view text, DataModel &model, std::string &error)
{
    model = {.objects = {}, .nodes = std::vector<ModelNode>(1)};
    std::vector<PendingCount> counts;
    const char *fault = nullptr;
    size_t line_number = 0;

    while (!text.empty() && fault == nullptr) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(line.size() == text.size() ? line.size() : line.size() + 1);
        ++line_number;

        const std::string_view content = trim(line);
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
    for (size_t i = 0; i < counts.size() && fault == nullptr; ++i) {
        line_number = counts[i].line;
        fault = resolve_count(model, counts[i]);
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
        if (!data_model_parse(DATA_MODEL_TEXT, built_in, error)) {
            zk_mod_log_printf("store", VELM_LOG_EMERG, "built-in data model: %s\n", error.c_str());
            data_model_parse("", built_in, error); // knows nothing: every path is refused
        }
        return built_in;
    }();
    return model;
}

ObjectRef data_model_find_object(const DataModel &model, std::string_view path)
{
    ObjectRef ref;
    const ModelNode *node = walk(model, path, ref.instance);
    ref.object = node == nullptr ? MODEL_NONE : node->object;
    return ref.object == MODEL_NONE ? ObjectRef{} : ref;
}

ObjectRef data_model_find_table(const DataModel &model, std::string_view path)
{
    ObjectRef ref;
    const ModelNode *node = walk(model, path, ref.instance);
    if (node == nullptr || node->instance == 0) {
        return {};
    }
    ref.object = model.nodes[node->instance].object;
    return ref;
}

bool data_model_is_name(std::string_view text)
{
    return is_made_of(text, NAME_CHARACTERS);
}

int data_model_instance_number(std::string_view component)
{
    return component.starts_with('0') ? 0 : parse_number<int>(component).value_or(0);
}

int data_model_find_parameter(const ModelObject &object, std::string_view name)
{
    for (size_t i = 0; i < object.parameters.size(); ++i) {
        if (object.parameters[i].name == name) {
            return static_cast<int>(i);
        }
    }
    return MODEL_NONE;
}

bool data_model_allows(const ModelParameter &parameter, std::string_view value)
{
    std::string_view values = parameter.values;
    bool allowed = values.empty() || value == parameter.initial;
    while (!values.empty() && !allowed) {
        const std::string_view choice = cut_choice(values);
        const auto range = range_of(choice);
        const auto number = parse_number<int64_t>(value);
        allowed = range ? number && *number >= range->least && *number <= range->most : value == choice;
    }
    return allowed;
}

bool data_model_knows(const DataModel &model, std::string_view path)
{
    const size_t name = path.rfind('.') + 1; // 0 without a dot
    InstanceNumbers numbers{};
    const ModelNode *node = walk(model, path.substr(0, name), numbers);
    if (node == nullptr || name == path.size()) {
        return node != nullptr;
    }
    return node->object != MODEL_NONE &&
           data_model_find_parameter(model.objects[static_cast<size_t>(node->object)], path.substr(name)) !=
               MODEL_NONE;
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
