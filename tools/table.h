// Rows for people, drawn by libsmartcols, and the same rows as JSON for programs.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "tools/json.h"

namespace CLI {
class App;
}

struct Column {
    const char *title;  // null: in JSON alone
    const char *member; // its name in JSON; null: in tables alone
    int leaves = 0;     // where it is too narrow for all, columns are left out: 1 first, 0 never
    bool cut = false;   // there, too, its texts are cut, but not to nothing: at most one column of a table
    std::string (*text)(const Json &) = nullptr; // for a table; null: as cell_text()
};

// A cell for each column. A null or an empty text is drawn as "-"; an array takes a line for each element.
struct Row {
    std::vector<Json> cells;
    bool dim = false;
};

// Texts as they are, numbers in decimal, booleans as yes and no, null as nothing.
std::string cell_text(const Json &cell);

// Of a number of seconds; nothing of anything else.
std::string duration_text(const Json &seconds);

struct TableLine {
    std::string text;
    bool dim = false;
};

// A line of titles and those of the rows, in at most `width` columns as far as `leaves` and `cut` allow. Safe
// on a terminal, whatever the cells hold.
std::vector<TableLine> table_lines(std::span<const Column> columns, std::span<const Row> rows, size_t width);

// What somebody asked for on the command line.
struct TableOptions {
    bool json = false;
    std::vector<std::string> titles; // of the columns to show; empty: all
};

// The options --json and -o.
void add_table_options(CLI::App *command, TableOptions &options, std::span<const Column> columns);

// On standard output, cut to its width where it is a terminal. `what` the rows are is the name of the array
// in JSON, and said where there are none.
void print_rows(const char *what, std::span<const Column> columns, std::vector<Row> rows,
                const TableOptions &options);

// The command `what`, which prints these rows, with those options.
CLI::App *add_table_command(CLI::App &app, const char *what, const char *description,
                            std::span<const Column> columns, std::vector<Row> (*rows)());
