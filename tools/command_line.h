// The command line of a tool: --help, --version, what shells ask (completion.h), and exit status 2 with one
// line for a wrong one.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <CLI/CLI.hpp>

#include "tools/completion.h"

// Nothing when the command line was taken and its command has run, else the program's exit status.
inline std::optional<int> parse_command_line(CLI::App &app, int argc, char **argv,
                                             const PathCompleter &complete_path = {})
{
    app.set_version_flag("-V,--version", app.get_name() + " " OVANI_VERSION, "Print the version and exit");
    if (argc > 1 && std::string_view(argv[1]) == "--complete") {
        print_completions(app, std::span<const char *const>(argv, static_cast<size_t>(argc)).subspan(2),
                          complete_path);
        return 0;
    }
    app.failure_message([](const CLI::App *program, const CLI::Error &wrong) {
        const auto unknown = program->remaining(true); // says more than that a command is missing
        return program->get_name() + ": " + (unknown.empty() ? wrong.what() : "what is " + unknown[0] + "?") +
               " (see " + program->get_name() + " --help)\n";
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::RuntimeError &end) { // a command's own exit status
        return end.get_exit_code();
    } catch (const CLI::ParseError &end) {
        return app.exit(end) == 0 ? 0 : 2;
    }
    return std::nullopt;
}
