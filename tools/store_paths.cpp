#include "tools/ovanictl.h"

#include "platform/host/store.h"
#include "tools/objects.h"
#include "tools/store_paths.h"

namespace {

constexpr int NO_WAIT = 0;

// Where there is no store yet, looking makes none.
std::vector<int> instances_of(const std::string &table)
{
    std::vector<int> numbers;
    if (why_no_store().empty()) {
        store_instances(data_model_find_table(data_model(), table), numbers, NO_WAIT);
    }
    return numbers;
}

} // namespace

const ModelNode *find_node(std::string_view path)
{
    const DataModel &model = data_model();
    const ModelNode *node = model.nodes.data();
    for (; !path.empty(); path.remove_prefix(path.find('.') + 1)) {
        const std::string_view component = path.substr(0, path.find('.'));
        const auto named = node->below.find(component);
        const size_t numbered = data_model_instance_number(component) != 0 ? node->instance : 0;
        const size_t next = named != node->below.end() ? named->second : numbered;
        if (next == 0) {
            return nullptr;
        }
        node = &model.nodes[next];
    }
    return node;
}

std::vector<std::string> complete_store_path(std::string_view typed)
{
    const DataModel &model = data_model();
    const std::string parent(typed.substr(0, typed.rfind('.') + 1)); // empty without a dot
    const ModelNode *node = find_node(parent);
    if (node == nullptr) {
        return {};
    }
    std::vector<std::string> paths;
    for (const auto &[name, below] : node->below) {
        paths.push_back(parent + name + '.');
    }
    if (node->instance != 0) {
        for (const int number : instances_of(parent)) {
            paths.push_back(parent + std::to_string(number) + '.');
        }
    }
    if (node->object != MODEL_NONE) {
        for (const ModelParameter &parameter : model.objects[static_cast<size_t>(node->object)].parameters) {
            paths.push_back(parent + parameter.name);
        }
    }
    return paths;
}
