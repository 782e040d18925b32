// UTF-8 in bytes nobody vouches for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

struct CodePoint {
    char32_t value;
    size_t length; // bytes taken; 0 when the text does not start with a well-formed sequence
};

// What a text that is not empty begins with. RFC 3629: shortest forms only, no surrogates, nothing beyond
// U+10FFFF.
constexpr CodePoint decode_utf8(std::string_view text)
{
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
    if (byte(0) < 0x80) {
        return {byte(0), 1};
    }
    const size_t length = byte(0) >= 0xf0 ? 4 : byte(0) >= 0xe0 ? 3 : 2;
    if (byte(0) < 0xc2 || byte(0) > 0xf4 || text.size() < length) {
        return {0, 0};
    }
    char32_t value = byte(0) & (0x7fU >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) {
            return {0, 0};
        }
        value = (value << 6) | (byte(i) & 0x3fU);
    }
    constexpr char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < smallest[length] || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) {
        return {0, 0};
    }
    return {value, length};
}
