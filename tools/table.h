// A table on a terminal or in a file.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

// Terminal sequences, empty where they would be noise.
struct Style {
    const char *bold = "";
    const char *dim = "";
    const char *green = "";
    const char *plain = "";
};

Style style_for(int fd);

// Columns of the terminal on standard output; SIZE_MAX when it is none.
size_t terminal_width();

// As many cells as there are titles, any bytes. An empty one is drawn as "-".
struct TableRow {
    std::vector<std::string> cells;
    bool dim = false;

    bool operator==(const TableRow &) const = default;
};

// A line a row below a line of titles. The first column gives way where `width` is too narrow.
std::vector<std::string> table_lines(std::span<const char *const> titles, const std::vector<TableRow> &rows,
                                     const Style &style, size_t width);

// On standard output.
void print_lines(const std::vector<std::string> &lines);
