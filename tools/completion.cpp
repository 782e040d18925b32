#include "tools/completion.h"

#include <cstdio>

namespace {

void offer(const std::string &word, const std::string &meaning = "")
{
    printf("%s\t%s\n", word.c_str(), meaning.substr(0, meaning.find('\n')).c_str());
}

// One of several values ("TEXT:{add,del}"), a path of the store, a file; nothing is known of others.
void offer_values(const CLI::Option &option, std::string_view typed, const PathCompleter &complete_path)
{
    const std::string type = option.get_type_name();
    const std::string name = option.get_name(true);
    if (const size_t open = type.find('{'); open != std::string::npos) {
        std::string_view choices = std::string_view(type).substr(open + 1);
        choices = choices.substr(0, choices.find('}'));
        for (const std::string &choice : CLI::detail::split(std::string(choices), ',')) {
            offer(choice);
        }
    } else if (name == "PATH" && complete_path) {
        for (const std::string &path : complete_path(typed)) {
            offer(path);
        }
    } else if (name.find("FILE") != std::string::npos || type.find("FILE") != std::string::npos ||
               type.find("DIR") != std::string::npos || name.find("directory") != std::string::npos) {
        offer(":files");
    }
}

// Those of a name, or all.
std::vector<const CLI::App *> commands_of(const CLI::App &app, const std::string &name = "")
{
    return app.get_subcommands(
        [&name](const CLI::App *command) { return name.empty() || command->check_name(name); });
}

bool takes_value(const CLI::Option &option)
{
    return option.get_items_expected_max() > 0;
}

// The positional argument at a place; the last one may stand for many.
const CLI::Option *positional_at(const CLI::App &app, size_t place)
{
    const auto positionals =
        app.get_options([](const CLI::Option *option) { return option->get_positional(); });
    if (place < positionals.size()) {
        return positionals[place];
    }
    const bool many = !positionals.empty() && positionals.back()->get_items_expected_max() > 1;
    return many ? positionals.back() : nullptr;
}

void offer_options(const CLI::App &app)
{
    for (const CLI::Option *option : app.get_options()) {
        for (const std::string &name : option->get_lnames()) {
            offer("--" + name, option->get_description());
        }
        for (const std::string &name : option->get_snames()) {
            offer("-" + name, option->get_description());
        }
    }
}

} // namespace

void print_completions(const CLI::App &app, std::span<const char *const> words,
                       const PathCompleter &complete_path)
{
    const CLI::App *command = &app;
    const CLI::Option *awaiting = nullptr; // its value
    size_t place = 0;
    for (const std::string word : words.first(words.empty() ? 0 : words.size() - 1)) {
        if (awaiting != nullptr) {
            awaiting = nullptr;
        } else if (word.starts_with('-') && word != "-") {
            const CLI::Option *option = command->get_option_no_throw(word);
            awaiting = option != nullptr && takes_value(*option) ? option : nullptr;
        } else if (const auto below = commands_of(*command, word); !below.empty()) {
            command = below.front();
            place = 0;
        } else {
            ++place;
        }
    }
    const std::string_view typed = words.empty() ? "" : words.back();
    if (awaiting == nullptr && typed.starts_with('-')) {
        offer_options(*command);
        return;
    }
    if (awaiting == nullptr) {
        for (const CLI::App *below : commands_of(*command)) {
            offer(below->get_name(), below->get_description());
        }
        awaiting = positional_at(*command, place);
    }
    if (awaiting != nullptr) {
        offer_values(*awaiting, typed, complete_path);
    }
}
