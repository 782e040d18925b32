#include "platform/host/store_sql.h"

#include <string_view>

namespace {

std::string quoted(std::string_view text, char quote)
{
    std::string result(1, quote);
    for (char c : text) {
        if (c == quote) {
            result += quote;
        }
        result += c;
    }
    return result += quote;
}

std::string name(std::string_view text)
{
    return quoted(text, '"');
}

std::string literal(std::string_view text)
{
    return quoted(text, '\'');
}

bool is_kept(const ModelParameter &parameter)
{
    return parameter.counted == MODEL_NONE;
}

// "_1, _2" or, with "?" for the prefix, "?1, ?2".
std::string numbered(const char *prefix, size_t depth)
{
    std::string list;
    for (size_t level = 1; level <= depth; level++) {
        list.append(level == 1 ? "" : ", ").append(prefix).append(std::to_string(level));
    }
    return list;
}

std::string key_columns(size_t depth)
{
    return depth == 0 ? "_0" : numbered("_", depth);
}

std::string where(size_t depth)
{
    std::string condition;
    for (size_t level = 1; level <= depth; level++) {
        std::string number = std::to_string(level);
        condition.append(level == 1 ? " WHERE _" : " AND _").append(number).append(" = ?").append(number);
    }
    return condition;
}

std::string column(const ModelParameter &parameter)
{
    return name(parameter.name) + " TEXT NOT NULL DEFAULT " + literal(parameter.initial);
}

// "INSERT ... SELECT 'a', 'b', ": what is missing is the key.
std::string insert_defaults(const ModelObject &object)
{
    std::string columns;
    std::string values;
    for (const ModelParameter &parameter : object.parameters) {
        if (!is_kept(parameter)) {
            continue;
        }
        columns += name(parameter.name) + ", ";
        values += literal(parameter.initial) + ", ";
    }
    return "INSERT OR IGNORE INTO " + name(object.path) + " (" + columns + key_columns(object.depth) +
           ") SELECT " + values;
}

} // namespace

std::string sql_create_table(const ModelObject &object)
{
    std::string sql = "CREATE TABLE IF NOT EXISTS " + name(object.path) + " (";
    for (const ModelParameter &parameter : object.parameters) {
        if (is_kept(parameter)) {
            sql += column(parameter) + ", ";
        }
    }
    // A single number is the row's own number in the file; several need an index, which then holds the rows.
    if (object.depth <= 1) {
        return sql + key_columns(object.depth) + " INTEGER PRIMARY KEY) STRICT";
    }
    for (size_t level = 1; level <= object.depth; level++) {
        sql.append("_").append(std::to_string(level)).append(" INTEGER NOT NULL, ");
    }
    return sql + "PRIMARY KEY (" + key_columns(object.depth) + ")) STRICT, WITHOUT ROWID";
}

std::string sql_column_names(const ModelObject &object)
{
    return "SELECT name FROM pragma_table_info(" + literal(object.path) + ")";
}

std::string sql_add_column(const ModelObject &object, const ModelParameter &parameter)
{
    return "ALTER TABLE " + name(object.path) + " ADD COLUMN " + column(parameter);
}

std::string sql_seed(const DataModel &model, const ModelObject &object)
{
    const ModelObject *above = &object;
    while (!above->is_instance && above->parent != MODEL_NONE) {
        above = &model.objects[static_cast<size_t>(above->parent)];
    }
    if (!above->is_instance) {
        return insert_defaults(object) + "0";
    }
    return insert_defaults(object) + key_columns(object.depth) + " FROM " + name(above->path);
}

std::string sql_insert_row(const ModelObject &object)
{
    return insert_defaults(object) + numbered("?", object.depth);
}

std::string sql_select_row(const DataModel &model, const ModelObject &object)
{
    std::string columns;
    for (const ModelParameter &parameter : object.parameters) {
        if (!columns.empty()) {
            columns += ", ";
        }
        if (is_kept(parameter)) {
            columns += name(parameter.name);
        } else {
            const ModelObject &table = model.objects[static_cast<size_t>(parameter.counted)];
            columns += "(SELECT count(*) FROM " + name(table.path) + where(object.depth) + ")";
        }
    }
    return "SELECT " + (columns.empty() ? "0" : columns) + " FROM " + name(object.path) + where(object.depth);
}

std::string sql_update_row(const ModelObject &object)
{
    std::string assignments;
    for (size_t i = 0; i < object.parameters.size(); i++) {
        if (!is_kept(object.parameters[i])) {
            continue;
        }
        if (!assignments.empty()) {
            assignments += ", ";
        }
        assignments += name(object.parameters[i].name) + " = ?" + std::to_string(object.depth + i + 1);
    }
    if (assignments.empty()) {
        return {};
    }
    return "UPDATE " + name(object.path) + " SET " + assignments + where(object.depth);
}

std::string sql_delete_rows(const ModelObject &object, size_t depth)
{
    return "DELETE FROM " + name(object.path) + where(depth);
}

std::string sql_instance_numbers(const ModelObject &table)
{
    return "SELECT _" + std::to_string(table.depth) + " FROM " + name(table.path) + where(table.depth - 1) +
           " ORDER BY 1";
}
