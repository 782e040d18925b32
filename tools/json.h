// JSON as ovanictl prints it: members in the order they were added, and U+FFFD for bytes that are not UTF-8.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

// Counts up when a member of what print_json_rows() prints goes, or changes its type or meaning.
inline constexpr int JSON_SCHEMA = 1;

// On one line, or with each member on its own, indented.
inline std::string json_text(const Json &json, int indent = -1)
{
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

// An object on standard output: its schema, and an array called `what`, an element a line.
inline void print_json_rows(const char *what, const std::vector<Json> &rows)
{
    printf("{\"schema\":%d,\"%s\":[", JSON_SCHEMA, what);
    const char *separator = "\n ";
    for (const Json &row : rows) {
        printf("%s%s", separator, json_text(row).c_str());
        separator = ",\n ";
    }
    puts(rows.empty() ? "]}" : "\n]}");
}
