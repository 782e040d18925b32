#include "tools/ovanictl.h"

#include "tools/table.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sstream>

#include <libsmartcols/libsmartcols.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "tools/text.h"

namespace {

constexpr char SEPARATOR[] = "  ";
constexpr size_t LEAST_CUT = 16; // columns that a text is left, before another column leaves

struct Unref {
    void operator()(libscols_table *table) const { scols_unref_table(table); }
};
using Table = std::unique_ptr<libscols_table, Unref>;

struct Shown {
    const Column *column;
    size_t cell; // of a row
    libscols_column *drawn;

    size_t width() const { return scols_column_get_width(drawn); }
    size_t least() const { return column->cut ? std::min(width(), LEAST_CUT) : width(); }
    int leaves() const { return column->leaves == 0 ? INT_MAX : column->leaves; }
};

// An array's elements have a line each.
size_t height_of(const Json &cell)
{
    return cell.is_array() ? cell.size() : 1;
}

std::string drawn_text(const Column &column, const Json &cell, size_t line)
{
    if (line >= height_of(cell)) {
        return line == 0 ? "-" : "";
    }
    const Json &value = cell.is_array() ? cell[line] : cell;
    const std::string text = printable(column.text != nullptr ? column.text(value) : cell_text(value));
    return text.empty() ? "-" : text;
}

std::string draw(libscols_table *table)
{
    char *text = nullptr;
    if (scols_print_table_to_string(table, &text) != 0) {
        throw std::bad_alloc();
    }
    std::string drawn(text);
    free(text);
    return drawn;
}

size_t total(const std::vector<Shown> &shown, size_t (Shown::*width)() const)
{
    size_t sum = 0;
    for (const Shown &one : shown) {
        sum += (one.*width)() + (sum == 0 ? 0 : strlen(SEPARATOR));
    }
    return sum;
}

// Columns that leave, and then a column whose texts are cut: libsmartcols would cut them without a word.
void fit(libscols_table *table, std::vector<Shown> shown, size_t width)
{
    while (total(shown, &Shown::least) > width) {
        const auto next = std::ranges::min_element(shown, {}, &Shown::leaves);
        if (next->column->leaves == 0) {
            break;
        }
        scols_column_set_flags(next->drawn, scols_column_get_flags(next->drawn) | SCOLS_FL_HIDDEN);
        shown.erase(next);
    }
    const size_t taken = total(shown, &Shown::width);
    const auto one = std::ranges::find_if(shown, [](const Shown &s) { return s.column->cut; });
    if (taken <= width || one == shown.end()) {
        return;
    }
    const size_t room = std::max(one->least(), one->width() - std::min(one->width(), taken - width));
    for (size_t i = 0; i < scols_table_get_nlines(table); ++i) {
        libscols_cell *cell = scols_line_get_column_cell(scols_table_get_line(table, i), one->drawn);
        scols_cell_set_data(cell, cut(scols_cell_get_data(cell), room).c_str());
    }
}

// Those of these titles, in their order.
void choose(std::vector<Column> &columns, std::vector<Row> &rows, const std::vector<std::string> &titles)
{
    std::vector<Column> chosen;
    chosen.reserve(titles.size());
    std::vector<std::vector<Json>> cells(rows.size());
    for (const std::string &title : titles) {
        const auto found = std::ranges::find_if(
            columns, [&](const Column &column) { return column.title != nullptr && column.title == title; });
        chosen.push_back(*found);
        chosen.back().leaves = 0;
        for (size_t i = 0; i < rows.size(); ++i) {
            cells[i].push_back(rows[i].cells[static_cast<size_t>(found - columns.begin())]);
        }
    }
    for (size_t i = 0; i < rows.size(); ++i) {
        rows[i].cells = std::move(cells[i]);
    }
    columns = std::move(chosen);
}

Json row_json(std::span<const Column> columns, const Row &row)
{
    Json json = Json::object();
    for (size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].member != nullptr) {
            json[columns[i].member] = row.cells[i];
        }
    }
    return json;
}

void print_lines(const std::vector<TableLine> &lines, bool on_terminal, size_t width)
{
    const char *term = getenv("TERM");
    const bool styled =
        on_terminal && getenv("NO_COLOR") == nullptr && term != nullptr && strcmp(term, "dumb") != 0;
    for (const TableLine &line : lines) {
        const char *style = !styled ? "" : &line == &lines.front() ? "\033[1m" : line.dim ? "\033[2m" : "";
        printf("%s%s%s\n", style, cut(line.text, width).c_str(), *style == '\0' ? "" : "\033[0m");
    }
}

} // namespace

std::string cell_text(const Json &cell)
{
    switch (cell.type()) {
    case Json::value_t::string:
        return cell.get<std::string>();
    case Json::value_t::boolean:
        return cell.get<bool>() ? "yes" : "no";
    case Json::value_t::null:
        return "";
    default:
        return json_text(cell);
    }
}

std::string duration_text(const Json &seconds)
{
    return seconds.is_number() ? format_duration(seconds.get<long>()) : "";
}

std::vector<TableLine> table_lines(std::span<const Column> columns, std::span<const Row> rows, size_t width)
{
    const Table table(scols_new_table());
    scols_table_enable_noencoding(table.get(), 1); // printable() has done it
    scols_table_set_column_separator(table.get(), SEPARATOR);
    scols_table_set_termforce(table.get(), SCOLS_TERMFORCE_NEVER);
    std::vector<Shown> shown;
    for (size_t i = 0; i < columns.size(); ++i) {
        const auto is_number = [i](const Row &row) { return row.cells[i].is_number(); };
        if (columns[i].title != nullptr) {
            const int flags = std::ranges::any_of(rows, is_number) ? SCOLS_FL_RIGHT : 0;
            shown.push_back(
                {&columns[i], i, scols_table_new_column(table.get(), columns[i].title, 0, flags)});
        }
    }
    std::vector<TableLine> lines(1); // the titles
    for (const Row &row : rows) {
        size_t height = 1;
        for (const Shown &one : shown) {
            height = std::max(height, height_of(row.cells[one.cell]));
        }
        lines.insert(lines.end(), height, {.text = "", .dim = row.dim});
        for (size_t k = 0; k < height; ++k) {
            libscols_line *line = scols_table_new_line(table.get(), nullptr);
            for (const Shown &one : shown) {
                scols_line_set_column_data(line, one.drawn,
                                           drawn_text(*one.column, row.cells[one.cell], k).c_str());
            }
        }
    }
    draw(table.get()); // tells the widths
    fit(table.get(), shown, width);
    std::istringstream drawn(draw(table.get()));
    for (TableLine &line : lines) {
        std::getline(drawn, line.text);
        line.text.erase(line.text.find_last_not_of(' ') + 1);
    }
    return lines;
}

void add_table_options(CLI::App *command, TableOptions &options, std::span<const Column> columns)
{
    std::vector<std::string> titles;
    for (const Column &column : columns) {
        if (column.title != nullptr) {
            titles.emplace_back(column.title);
        }
    }
    command->add_flag("--json", options.json,
                      "for programs: an object with the number of its schema and the rows");
    command->add_option("-o,--output", options.titles, "the columns to show, with commas between them")
        ->delimiter(',')
        ->transform(CLI::IsMember(titles, CLI::ignore_case)); // to the title itself
}

void print_rows(const char *what, std::span<const Column> columns, std::vector<Row> rows,
                const TableOptions &options)
{
    std::vector<Column> shown(columns.begin(), columns.end());
    if (!options.titles.empty()) {
        choose(shown, rows, options.titles);
    }
    if (options.json) {
        std::vector<Json> objects;
        objects.reserve(rows.size());
        for (const Row &row : rows) {
            objects.push_back(row_json(shown, row));
        }
        return print_json_rows(what, objects);
    }
    if (rows.empty()) {
        printf("(no %s)\n", what);
        return;
    }
    winsize size{};
    const bool on_terminal = isatty(STDOUT_FILENO) != 0;
    const bool known = on_terminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    const size_t width = known ? size.ws_col : SIZE_MAX;
    print_lines(table_lines(shown, rows, width), on_terminal, width);
}

CLI::App *add_table_command(CLI::App &app, const char *what, const char *description,
                            std::span<const Column> columns, std::vector<Row> (*rows)())
{
    auto options = std::make_shared<TableOptions>();
    CLI::App *command = app.add_subcommand(what, description);
    add_table_options(command, *options, columns);
    command->callback([=] { print_rows(what, columns, rows(), *options); });
    return command;
}
