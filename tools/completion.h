// What a shell can offer for a word of a tool's command line. The program knows its own commands and options;
// the shells' scripts (packaging/completions) ask it: `PROGRAM --complete WORD...`, the words as they stand,
// the last being the one to complete.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

// Completes an argument called PATH: all it may go on as, those of the store that begin with `typed` among
// them.
using PathCompleter = std::function<std::vector<std::string>(std::string_view typed)>;

// Prints what may stand for the last word, one a line, a tab and what it means behind it; ":files" stands for
// the names of files. The shell picks what begins as the word does.
void print_completions(const CLI::App &app, std::span<const char *const> words,
                       const PathCompleter &complete_path);
