#include "ovani/ovani_commdef.h"

#include <cstring>
#include <ctime>

#include <gtest/gtest.h>

#include "ovani/ovani_interface.h"
#include "tests/fake/fake_platform.h"

TEST(Text, CopiesAreCutAndTerminated)
{
    char field[4] = {'x', 'x', 'x', 'x'};
    copy_text(field, "abcdef");
    EXPECT_STREQ(field, "abc");
    copy_text(field, static_cast<const char *>(nullptr));
    EXPECT_STREQ(field, "");
    EXPECT_EQ(decimal_value("99999999999999999999"), 2147483647);
    EXPECT_EQ(decimal_value("12 monkeys"), 12);
    EXPECT_EQ(decimal_value(nullptr), 0);
}

TEST(Mac, TextsRoundTrip)
{
    const unsigned char mac[6] = {0x00, 0x1f, 0xab, 0xcd, 0xef, 0x09};
    unsigned char text[33];
    memset(text, 'x', sizeof text);
    EXPECT_EQ(ovani_mac_to_str(mac, text), R_OK);
    EXPECT_EQ(memcmp(text, "00:1F:AB:CD:EF:09\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0x", 33), 0); // 32 bytes, no more
    EXPECT_EQ(ovani_mac_to_upstr(mac, text), R_OK);
    EXPECT_STREQ(reinterpret_cast<char *>(text), "001FABCDEF09");

    for (const char *form : {"00:1f:ab:cd:ef:09", "00:1F:AB:CD:EF:09", "001FABCDEF09"}) {
        char parsed[6] = {};
        EXPECT_EQ(ovani_str2mac(form, parsed), 1);
        EXPECT_EQ(memcmp(parsed, mac, 6), 0) << form;
    }
    char parsed[6] = {};
    EXPECT_EQ(ovani_str2mac2("001fABcdef09", parsed), 0);
    EXPECT_EQ(memcmp(parsed, mac, 6), 0);
}

TEST(Mac, ParsingStopsAtTheEndOfTheText)
{
    // Exactly sized, so that the address sanitizer sees a read behind the end.
    char parsed[6];
    for (std::string text :
         {"", "0", "00:1f:", "001fab", "001fabcdef0", "00:1f:ab:cd:ef:0", "::::::::::::"}) {
        EXPECT_EQ(ovani_str2mac(std::string(text).c_str(), parsed), 0) << text;
        EXPECT_EQ(ovani_str2mac2(text.c_str(), parsed), 0);
    }
    EXPECT_EQ(ovani_str2mac("gg0000000000", parsed), 1);
    EXPECT_EQ(static_cast<unsigned char>(parsed[0]), 16 * 16 + 16 - 256); // g is 16
}

TEST(Mac, FormsTranslate)
{
    struct Case {
        const char *from;
        int form;
        const char *expected; // null: refused
    } cases[] = {
        {"aa:bb:cc:dd:ee:ff", 1, "AABBCCDDEEFF"},
        {"aabbccddeeff", 1, "aabbccddeeff"}, // form 1 only strips
        {"aabbccddeeff", 2, "AA:BB:CC:DD:EE:FF"},
        {"AABBCCDDEEFF", 3, "aa:bb:cc:dd:ee:ff"},
        {"AA:bb:CC:dd:EE:ff", 3, "AA:bb:CC:dd:EE:ff"}, // forms 2 and 3 only insert
        {"AA:bb:CC:dd:EE:ff", 7, "AA:bb:CC:dd:EE:ff"},
        {"aabbccddeeff", 7, "aabbccddeeff"},
        {"aabbccddeeff00112", 3, "aa:bb:cc:dd:ee:ff"}, // never more than 17 characters
        {"00-11-22-33-44-55", 1, "00-11-22-33-"},
        {"aabbccddeef", 1, nullptr},
        {"aa:bb:cc:dd:ee:ff0", 1, nullptr},
        {"", 1, nullptr},
        {nullptr, 1, nullptr},
    };
    for (const Case &c : cases) {
        char to[18] = {};
        int result = mac_form_translate(c.from, c.form, to);
        EXPECT_EQ(result, c.expected == nullptr ? -1 : 0);
        EXPECT_STREQ(to, text_or_empty(c.expected)) << text_or_empty(c.from) << " form " << c.form;
    }
}

TEST(Ipv4, NumbersAreInHostOrder)
{
    EXPECT_STREQ(ovani_ipv4_ltostr(0xc0a80101), "192.168.1.1");
    EXPECT_EQ(ovani_ipv4_strtol("192.168.1.1"), 0xc0a80101U);
    EXPECT_EQ(ovani_ipv4_strtol("nonsense"), 0xffffffffU);
    EXPECT_EQ(ovani_ipv4_strtol(nullptr), 0xffffffffU);
}

TEST(Ports, InterfaceNamesMapToPorts)
{
    struct Case {
        const char *name;
        int result, port, type;
    } cases[] = {
        {"eth0", R_OK, 1, 0},   {"eth3", R_OK, 4, 0}, {"ra0", R_OK, 1, 1},   {"ra3", R_OK, 4, 1},
        {"ra4", R_OK, 9, 1},    {"rai0", R_OK, 5, 1}, {"rai3", R_OK, 8, 1},  {"rai4", R_OK, 13, 1},
        {"wlan0", 0, 55, 55},   {"eth", 0, 55, 55},   {"", 0, 55, 55},       {nullptr, 0, 55, 55},
        {"ra99999", 0, 55, 55}, {"ra-9", 0, 55, 55},  {"eth700", 0, 55, 55},
    };
    for (const Case &c : cases) {
        char port = 55;
        char type = 55;
        EXPECT_EQ(eth_num2lanport_no_type(c.name, &port, &type), c.result) << text_or_empty(c.name);
        EXPECT_EQ(port, c.port) << text_or_empty(c.name);
        EXPECT_EQ(type, c.type) << text_or_empty(c.name);
    }
    EXPECT_EQ(ovani_wanstr2index("nas_eth2.100"), 3);
    EXPECT_EQ(ovani_wanstr2index("ppp0"), -1);
}

TEST(Interfaces, KernelIsAskedWithinItsNameLength)
{
    unsigned char mac[6] = {1, 1, 1, 1, 1, 1};
    EXPECT_EQ(ovani_get_mac_by_ifname("lo", mac), 0);
    EXPECT_EQ(memcmp(mac, "\0\0\0\0\0\0", 6), 0);
    EXPECT_EQ(ovani_get_mac_by_ifname("no-such-if", mac), -1);
    EXPECT_EQ(ovani_get_mac_by_ifname("0123456789abcdef", mac), -1);
    fake::reset();
    EXPECT_EQ(ovani_get_mac_by_ifname("0123456789abcdefg", mac), -1);
    EXPECT_TRUE(fake::logged("ovani_get_mac_by_ifname param error"));
    EXPECT_EQ(ovani_get_ifc_status("no-such-if"), -1);
}

TEST(Time, ShortBuffersAreReportedAndNotOverrun)
{
    fake::reset();
    char text[64];
    ovani_get_curr_time(text, sizeof text);
    tm parsed{};
    const char *end = strptime(text, "%Y-%m-%d#%H:%M:%S", &parsed);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(*end, '\0');
    EXPECT_FALSE(fake::logged("overrun"));

    char shorter[32] = {};
    ovani_get_curr_time(shorter, sizeof shorter);
    EXPECT_EQ(strlen(shorter), 19U);
    EXPECT_TRUE(fake::logged("szTimeBuffLen=32,overrun error", 3));
    char tiny[5];
    ovani_get_curr_time(tiny, sizeof tiny);
    EXPECT_EQ(strlen(tiny), 4U);
    ovani_get_curr_time(nullptr, 64);
}
