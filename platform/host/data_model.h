// The data model: which objects and parameters the store knows, how long a value may be and what it starts
// as. data_model.txt tells the format.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// A path holds this many instance numbers at most (InstIdStack's capacity), a value this many bytes.
inline constexpr size_t MODEL_MAX_DEPTH = 8;
inline constexpr size_t MODEL_MAX_VALUE = 255;
inline constexpr int MODEL_MAX_BEGIN = 255; // instances that a table may begin with

inline constexpr int MODEL_NONE = -1;

struct ModelParameter {
    std::string name;
    size_t max_length = 0; // bytes
    std::string values;    // those that make sense, as the model has them; empty: any
    std::string initial;   // default value
    int counted =
        MODEL_NONE; // the table (index in DataModel::objects) whose instances it counts; none: it is kept
};

struct ModelObject {
    std::string path;         // "InternetGatewayDevice.LANDevice.1.Hosts.Host.{i}."
    size_t depth = 0;         // how many {i} it holds
    bool is_instance = false; // ends in "{i}.": one row of a table
    int begins_with = 0;      // how many instances the table has in a fresh store, numbered from 1
    int parent = MODEL_NONE;  // nearest object above it that the model lists
    std::vector<ModelParameter> parameters;
};

// What paths lead to, component by component.
struct ModelNode {
    std::map<std::string, size_t, std::less<>> below; // index in DataModel::nodes
    size_t instance = 0;                              // the same of {i}; 0 without
    int object = MODEL_NONE;                          // index in DataModel::objects
};

struct DataModel {
    std::vector<ModelObject> objects;
    std::vector<ModelNode> nodes; // the first is the root
};

using InstanceNumbers = std::array<int, MODEL_MAX_DEPTH>;

// One object of the tree, or, where a table is asked for, the table it belongs to: its last number is then 0.
struct ObjectRef {
    int object = MODEL_NONE; // index in DataModel::objects
    InstanceNumbers instance{};

    bool operator==(const ObjectRef &) const = default;
};

// Reads a data model. On failure `error` says what is wrong in which line, and the model is not to be used.
bool data_model_parse(std::string_view text, DataModel &model, std::string &error);

// The data model of this library, and its text.
const DataModel &data_model();
extern const char DATA_MODEL_TEXT[];

// What the model of this library says of an object that was found in it.
inline const ModelObject &data_model_object(const ObjectRef &ref)
{
    return data_model().objects[static_cast<size_t>(ref.object)];
}

// The object that `path` (ending in ".") names, or the table; `object` is MODEL_NONE when the model has none.
ObjectRef data_model_find_object(const DataModel &model, std::string_view path);
ObjectRef data_model_find_table(const DataModel &model, std::string_view path);

// Names are made of letters, digits, '_' and '-'.
bool data_model_is_name(std::string_view text);

// An instance number in its only form, decimal, from 1, without leading zeros; 0 for any other text.
int data_model_instance_number(std::string_view component);

// Index of a parameter in its object, or MODEL_NONE.
int data_model_find_parameter(const ModelObject &object, std::string_view name);

// Whether it makes sense to give the parameter this value. The store keeps any that is not too long: this is
// for those who ask people for values.
bool data_model_allows(const ModelParameter &parameter, std::string_view value);

// Whether the model lists anything at `path` or, when it ends in "." or is empty, below it.
bool data_model_knows(const DataModel &model, std::string_view path);

// The path of an object, its instance numbers filled in.
std::string data_model_path(const DataModel &model, const ObjectRef &ref);
