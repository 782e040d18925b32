// Paths of the data model, walked component by component.
#pragma once

#include <string_view>

#include "platform/host/data_model.h"

// What the model has at `path`, which is empty or ends in a dot; null when nothing. Numbers stand for any
// instance.
const ModelNode *find_node(std::string_view path);
