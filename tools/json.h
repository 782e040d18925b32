// JSON as ovanictl prints it: members in the order they were added, and U+FFFD for bytes that are not UTF-8.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

// On one line, or with each member on its own, indented.
inline std::string json_text(const Json &json, int indent = -1)
{
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

// An array on standard output, an element a line.
inline void print_json_rows(const std::vector<Json> &rows)
{
    const char *separator = "[\n ";
    for (const Json &row : rows) {
        printf("%s%s", separator, json_text(row).c_str());
        separator = ",\n ";
    }
    puts(rows.empty() ? "[]" : "\n]");
}
