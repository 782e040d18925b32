// GBK to Unicode, code page 936 as published, with its private-use assignments.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

struct GbkRow {
    uint16_t gbk; // lead byte times 256 plus trail byte
    uint16_t ucs2;
};

inline constexpr size_t GBK_ROWS = 21886;
inline constexpr uint16_t GBK_FIRST = 0x8140;
inline constexpr uint16_t GBK_LAST = 0xFEA0;

// Sorted by strictly rising GBK code.
extern const std::array<GbkRow, GBK_ROWS> tab_GBK_to_UCS2;
