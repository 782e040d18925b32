// How the tree lies in the store's file, as SQL.
//
// Every object of the data model is a table of that name, with a column for each parameter that is kept and a
// key of its instance numbers: _1, _2, ..., or _0 = 0 for the one row of an object whose path holds none.
// Values are text. One row holds a whole object, so that a batch on one object, the common case, is one seek
// and at most one page written.
//
// In every statement the parameters ?1, ?2, ... are instance numbers.
#pragma once

#include <string>

#include "platform/host/data_model.h"

std::string sql_create_table(const ModelObject &object);
std::string sql_column_names(const ModelObject &object);
std::string sql_add_column(const ModelObject &object, const ModelParameter &parameter);

// Makes sure of an object that is no instance, with its defaults, in every instance that it lies in.
std::string sql_seed(const DataModel &model, const ModelObject &object);

// Creates one row with the defaults.
std::string sql_insert_row(const ModelObject &object);

// Reads a row: the parameters, counted ones too, in the data model's order.
std::string sql_select_row(const DataModel &model, const ModelObject &object);

// Writes all parameters of a row; parameter i (from 0) is ?(depth + i + 1). Empty when there is nothing to
// write.
std::string sql_update_row(const ModelObject &object);

// Deletes the rows whose first `depth` instance numbers are the given ones.
std::string sql_delete_rows(const ModelObject &object, size_t depth);

// The last numbers of a table's instances, ascending; all numbers but the last are given.
std::string sql_instance_numbers(const ModelObject &table);
