#!/usr/bin/env python3
"""Writes encoding_manager_table.cpp to standard output: the GBK rows of code page 936 as characters, lead byte by
lead byte. The published mapping (Python's gbk codec) plus the code page's private-use assignments.

    ./encoding_manager_table.py > encoding_manager_table.cpp
"""

FIRST, LAST = 0x8140, 0xFEA0
TRAILS = [t for t in range(0x40, 0xFF) if t != 0x7F]


def private_use():
    """Codes that code page 936 assigns in the private use area."""
    codes = {0xA8BC: 0xE7C7, 0xA8BF: 0xE7C8}
    codes.update({0xA989 + i: 0xE7E7 + i for i in range(0xA995 - 0xA989 + 1)})
    fe50 = [0xFE00 + t for t in TRAILS if 0x50 <= t <= 0xA0]
    codes.update({code: 0xE815 + i for i, code in enumerate(fe50)})
    return codes


PRIVATE = private_use()


def decode(code):
    if not FIRST <= code <= LAST:
        return None
    if code in PRIVATE:
        return PRIVATE[code]
    try:
        return ord(code.to_bytes(2, "big").decode("gbk"))
    except UnicodeDecodeError:
        return None


def literal(point):
    if point is None:
        return "\ufffd"
    return f"\\u{point:04X}" if 0xE000 <= point <= 0xF8FF else chr(point)


def main():
    print('''// Written by encoding_manager_table.py; do not edit.
//
// One string a lead byte, from 0x81; in it one character a trail byte, 0x40 to 0xFE without 0x7F. U+FFFD
// stands for a code without a character; a string ends with its last character. The rows searched at run
// time are expanded from these by the compiler.
#include "ovani/encoding_manager_table.h"

#include <string_view>

namespace {

constexpr char16_t UNASSIGNED = u'\\uFFFD';

// clang-format off
constexpr std::u16string_view CHARACTERS_BY_LEAD[] = {''')
    for lead in range(FIRST >> 8, (LAST >> 8) + 1):
        points = [decode(lead << 8 | trail) for trail in TRAILS]
        while points and points[-1] is None:
            points.pop()
        print(f'    /* {lead:02X} */ u"{"".join(literal(p) for p in points)}",')
    print('''};
// clang-format on

constexpr uint8_t FIRST_LEAD = 0x81;
constexpr uint8_t FIRST_TRAIL = 0x40;
constexpr uint8_t MISSING_TRAIL = 0x7F;

constexpr auto expand_rows()
{
    std::array<GbkRow, GBK_ROWS> rows{};
    size_t count = 0;
    uint32_t lead = FIRST_LEAD;
    for (std::u16string_view characters : CHARACTERS_BY_LEAD) {
        uint32_t trail = FIRST_TRAIL;
        for (char16_t character : characters) {
            if (character != UNASSIGNED) {
                rows.at(count++) = {static_cast<uint16_t>(lead << 8 | trail), character};
            }
            trail += trail + 1 == MISSING_TRAIL ? 2 : 1;
        }
        ++lead;
    }
    return rows;
}

} // namespace

constexpr std::array<GbkRow, GBK_ROWS> tab_GBK_to_UCS2 = expand_rows();

static_assert(tab_GBK_to_UCS2.front().gbk == GBK_FIRST && tab_GBK_to_UCS2.front().ucs2 == 0x4E02);
static_assert(tab_GBK_to_UCS2.back().gbk == GBK_LAST && tab_GBK_to_UCS2.back().ucs2 == 0xE864);''')


if __name__ == "__main__":
    main()
