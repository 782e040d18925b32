// Numbers in texts that nobody vouches for.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>

// A number that fills the whole text, without sign, prefix or blanks; nothing for any other text, and for a
// number that the type cannot hold.
template <typename Number>
std::optional<Number> parse_number(std::string_view text, int base = 10)
{
    Number number = 0;
    const char *end = text.data() + text.size();
    const auto [last, fault] = std::from_chars(text.data(), end, number, base);
    if (fault != std::errc{} || last != end || text.front() == '-') {
        return std::nullopt;
    }
    return number;
}
