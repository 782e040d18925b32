// One string a lead byte, from 0x81; in it one character a trail byte, 0x40 to 0xFE without 0x7F. U+FFFD
// stands for a code without a character; a string ends with its last character. The rows searched at run
// time are expanded from these by the compiler.
#include "ovani/encoding_manager_table.h"

#include <string_view>

namespace {

constexpr char16_t UNASSIGNED = u'\uFFFD';

constexpr std::u16string_view CHARACTERS_BY_LEAD[] = {
#include "ovani/encoding_manager_rows.inc"
};

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
static_assert(tab_GBK_to_UCS2.back().gbk == GBK_LAST && tab_GBK_to_UCS2.back().ucs2 == 0xE864);
