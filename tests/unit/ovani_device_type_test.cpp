#include "ovani/ovani_device_type.h"

#include <gtest/gtest.h>

TEST(DeviceType, NamesVendorClassesAndWords)
{
    struct Case {
        const char *text, *by_name, *by_option60, *word;
    } cases[] = {
        {"Gleifala-SlaveAP", "1", "0", "OTHER"}, // the first rule wins
        {"TrueIDTV_OTT_1 STB", "6", "0", "STB"},
        {"TRUEIPC Camera", "7", "0", "PC"}, // contains the two capitals
        {"xTRUEIOTx", "8", "0", "OTHER"},
        {"SlaveAP_2", "9", "0", "OTHER"},
        {"gleifala android-dhcp-13", "0", "3", "OTHER"}, // case matters
        {"MSFT 5.0 android", "0", "5", "OTHER"},
        {"Android", "0", "0", "OTHER"},
        {"Computer", "0", "0", "PC"},
        {"smartphone", "0", "0", "phone"},
        {"Phone", "0", "0", "phone"},
        {"Camera", "0", "0", "Camera"},
        {"", "0", "0", "OTHER"},
    };
    for (const Case &c : cases) {
        char type[4] = "xxx";
        trans_hostnametodevtype(c.text, type, sizeof type);
        EXPECT_STREQ(type, c.by_name) << c.text;
        trans_opt60todevtype(c.text, type, sizeof type);
        EXPECT_STREQ(type, c.by_option60) << c.text;
        char word[DEVICE_CLASS_LEN] = {};
        EXPECT_EQ(DevType_translate(c.text, word), 0);
        EXPECT_STREQ(word, c.word) << c.text;
    }
    char untouched[4] = "xxx";
    trans_hostnametodevtype(nullptr, untouched, sizeof untouched);
    trans_opt60todevtype("MSFT", untouched, 0);
    trans_opt60todevtype("MSFT", nullptr, 4);
    EXPECT_STREQ(untouched, "xxx");
}
