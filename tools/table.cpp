#include "tools/table.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/ioctl.h>
#include <unistd.h>

#include "tools/text.h"

namespace {

constexpr size_t WIDEST_FIRST = 32;
constexpr size_t NARROWEST_FIRST = 8;

std::vector<std::string> drawn_cells(const TableRow &row)
{
    std::vector<std::string> cells;
    for (const std::string &cell : row.cells) {
        cells.push_back(cell.empty() ? "-" : printable(cell));
    }
    return cells;
}

} // namespace

Style style_for(int fd)
{
    const char *term = getenv("TERM");
    if (isatty(fd) == 0 || getenv("NO_COLOR") != nullptr || term == nullptr || strcmp(term, "dumb") == 0) {
        return {};
    }
    return {"\033[1m", "\033[2m", "\033[32m", "\033[0m"};
}

size_t terminal_width()
{
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : SIZE_MAX;
}

std::vector<std::string> table_lines(std::span<const char *const> titles, const std::vector<TableRow> &rows,
                                     const Style &style, size_t width)
{
    std::vector<std::vector<std::string>> drawn;
    std::vector<size_t> widths;
    for (const char *title : titles) {
        widths.push_back(strlen(title));
    }
    for (const TableRow &row : rows) {
        drawn.push_back(drawn_cells(row));
        for (size_t i = 0; i < widths.size(); ++i) {
            widths[i] = std::max(widths[i], columns_of(drawn.back()[i]));
        }
    }
    widths[0] = std::min(widths[0], WIDEST_FIRST);
    size_t total = 0;
    for (const size_t w : widths) {
        total += w + 2;
    }
    if (total > width && widths[0] > NARROWEST_FIRST) {
        widths[0] = std::max(NARROWEST_FIRST, widths[0] - std::min(widths[0], total - width));
    }

    const auto line_of = [&](const auto &cells) {
        std::string line;
        for (size_t i = 0; i < widths.size(); ++i) {
            line += fit(cells[i], widths[i]) + "  ";
        }
        line.erase(line.find_last_not_of(' ') + 1);
        return line;
    };
    std::vector<std::string> lines = {style.bold + line_of(titles) + style.plain};
    for (size_t i = 0; i < rows.size(); ++i) {
        lines.push_back((rows[i].dim ? style.dim : "") + line_of(drawn[i]) + style.plain);
    }
    return lines;
}

void print_lines(const std::vector<std::string> &lines)
{
    for (const std::string &line : lines) {
        puts(line.c_str());
    }
}
