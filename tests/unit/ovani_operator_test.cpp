// What is asked once: operator, area code, bridge, mesh mode.
#include "ovani/ovani_operator.h"

#include <cstring>

#include <gtest/gtest.h>

#include "ovani/ovani_br_mgr.h"
#include "tests/fake/fake_platform.h"

TEST(Gateway, OperatorCodeIsKeptWhateverItIs)
{
    fake::reset();
    fake::platform().carrier = 2;
    EXPECT_EQ(ovani_operator_type_init(), R_OK);
    EXPECT_STREQ(ovani_operator_type_str_get(), "CHINA_UNICOM");
    EXPECT_TRUE(fake::logged("Get Operator Type:CHINA_UNICOM!\n"));

    fake::platform().carrier = 3;
    EXPECT_EQ(ovani_operator_type_init(), R_ERROR);
    EXPECT_EQ(ovani_operator_type_code_get(), 3U);
    EXPECT_TRUE(fake::logged("Get Operator Type:3 err!\n", 3));
    EXPECT_EQ(ovani_operator_profile(), nullptr);

    // A system manager that does not answer reads as China Mobile.
    fake::platform().fail = [](const std::string &) { return -1; };
    EXPECT_EQ(ovani_operator_type_init(), R_OK);
    EXPECT_EQ(ovani_operator_type_code_get(), 0U);
    EXPECT_EQ(ovani_areacode_init(), R_OK);
}

TEST(Gateway, FactsFromThePlatformAreCutAndParsed)
{
    fake::reset();
    fake::platform().areacode = std::string(200, 'a');
    ovani_areacode_init();
    EXPECT_EQ(ovani_areacode_get(), std::string(31, 'a'));

    char mac[OVANI_MAC_LEN];
    for (const char *text : {"02:00:00:AB:cd:01", "020000ABCD01"}) {
        fake::platform().brmac = text;
        EXPECT_EQ(ovani_br_mac_get(mac), R_OK);
        EXPECT_EQ(memcmp(mac, "\x02\x00\x00\xab\xcd\x01", sizeof mac), 0) << text;
        EXPECT_EQ(memcmp(g_ovani_br.mac, mac, sizeof mac), 0);
    }

    char mode[OVANI_VALUE_LEN] = "as it was";
    EXPECT_FALSE(ovani_get_mesh_mode(mode));
    EXPECT_STREQ(mode, "as it was");
    EXPECT_TRUE(fake::logged("get meshmode fail\n"));
}
