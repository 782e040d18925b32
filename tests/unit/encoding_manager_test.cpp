#include <string>

#include <gtest/gtest.h>

#include "ovani/encoding_manager.h"
#include "ovani/encoding_manager_table.h"
#include "tests/fake/fake_platform.h"

namespace {

// The road of a host name: swapped, then converted. Empty when the conversion fails.
std::string convert(std::string gbk, unsigned int room = 64)
{
    auto *bytes = reinterpret_cast<unsigned char *>(gbk.data());
    ovani_convert_gbk_host_endian(bytes);
    std::string out(room, 'x');
    unsigned int length = room;
    if (gbk_to_utf_eight(bytes, static_cast<unsigned int>(gbk.size()),
                         reinterpret_cast<unsigned char *>(out.data()), &length) != 0) {
        EXPECT_EQ(out, std::string(room, 'x'));
        return {};
    }
    EXPECT_EQ(out.find_first_not_of('\0', length), std::string::npos); // the rest is zero
    EXPECT_LT(length, room);
    return out.substr(0, length);
}

} // namespace

TEST(Encoding, RecognisesUtf8)
{
    const std::pair<std::string, int> cases[] = {
        {"abc", 0}, // ASCII takes the GBK road
        {"", 0},
        {"\xc3\xa9", 1},
        {"caf\xc3\xa9", 1},
        {"\xc3", 0},     // still open at the end
        {"\xc3z", 0},    // no continuation
        {"\x80", 0},     // a continuation cannot lead
        {"\xd6\xd0", 0}, // GBK
        {"\xe4\xb8\xad", 1},
        {"\xf0\x9f\x98\x80", 1},
        {"\xfe\x80\x80\x80\x80", 1}, // FE and FF lead five bytes
        {"\xff\x80\x80\x80", 0},
        {"\xfc\x80\x80\x80\x80\x80", 1},
        {"\xc0\x80", 1}, // overlong forms pass
    };
    for (const auto &[text, expected] : cases) {
        EXPECT_EQ(is_text_utf_eight(text.data(), static_cast<long>(text.size())), expected)
            << testing::PrintToString(text);
    }
}

TEST(Encoding, ConvertsNames)
{
    EXPECT_EQ(convert("\xd6\xd0"), "\xe4\xb8\xad");
    EXPECT_EQ(convert("my-\xb5\xe7\xc4\xd4-1"), "my-电脑-1");
    EXPECT_EQ(convert("plain"), "plain");
    EXPECT_EQ(convert("\xd6\xd0z"), "中z");         // an odd last ASCII byte is kept
    EXPECT_EQ(convert("\xd6\xd0\xb5"), "中");       // an odd last lead byte is dropped
    EXPECT_EQ(convert("\xfe\xa0"), "\xee\xa1\xa4"); // the last row, private use
    EXPECT_EQ(convert("\xaa\xa1"), "\n");           // a code without a character
    EXPECT_EQ(convert("\xff\xff"), "\n");           // beyond the table
    // A trail byte below 0x80 reads as ASCII and leaves its lead byte behind.
    EXPECT_EQ(convert("\x81\x40zz"), "@\nz");
}

TEST(Encoding, OutputMustLeaveRoomForTheTerminator)
{
    std::string sixty_three(63, 'a');
    EXPECT_EQ(convert(sixty_three), sixty_three);
    fake::reset();
    EXPECT_EQ(convert(sixty_three + "a"), "");
    EXPECT_TRUE(fake::logged("output len 64 not enough need 65 bytes\n"));

    unsigned char out[4];
    unsigned int room = sizeof out;
    const auto *text = reinterpret_cast<const unsigned char *>("ab");
    EXPECT_EQ(gbk_to_utf_eight(nullptr, 2, out, &room), -1);
    EXPECT_EQ(gbk_to_utf_eight(text, 2, nullptr, &room), -1);
    EXPECT_EQ(gbk_to_utf_eight(text, 0, out, &room), -1);
    room = 0;
    EXPECT_EQ(gbk_to_utf_eight(text, 2, out, &room), -1);
}

TEST(Encoding, TableIsSortedAndHoldsThePublishedMapping)
{
    for (size_t i = 1; i < tab_GBK_to_UCS2.size(); ++i) {
        ASSERT_LT(tab_GBK_to_UCS2[i - 1].gbk, tab_GBK_to_UCS2[i].gbk);
    }
    const std::pair<unsigned short, unsigned int> cases[] = {
        {0xa1a1, 0x3000}, {0xb0a1, 0x554a}, {0xf7fe, 0x9f44}, {0xa8bc, 0xe7c7},
        {0xa8bf, 0xe7c8}, {0xa989, 0xe7e7}, {0xa995, 0xe7f3}, {0xfea0, 0xe864}};
    for (const auto &[gbk, expected] : cases) {
        unsigned int ucs = 0;
        EXPECT_EQ(enc_gbk_to_unicode_one(gbk, &ucs), 2);
        EXPECT_EQ(ucs, expected) << std::hex << gbk;
    }
}
