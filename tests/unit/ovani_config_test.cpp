#include "ovani/ovani_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ovani/ovani_commdef.h"
#include "tests/fake/fake_platform.h"

namespace {

constexpr char URL[] = "Device.Object.1.";

struct ConfigTest : testing::Test {
    ConfigTest() { fake::reset(); }
    fake::Platform &platform = fake::platform();
    char a[OVANI_VALUE_LEN] = "1";
    char b[OVANI_VALUE_LEN] = "2";
    char c[OVANI_VALUE_LEN] = "3";
};

} // namespace

TEST_F(ConfigTest, ARefusedRowDoesNotStopTheBatch)
{
    platform.fail = [](const std::string &call) { return call == "prepare Device.Object.1.B" ? 7 : 0; };
    tConfigMap map[] = {{"A", a}, {"B", b}, {"C", c}, {}};
    EXPECT_EQ(write_multi_config_to_xml(map, URL), 0);
    EXPECT_THAT(platform.written, testing::ElementsAre("A", "C"));
    EXPECT_TRUE(fake::logged("ZKAPI_MultiNode_SeeionPrepare fail paramName=B, ret=7\n", 7));

    // A path that does not fit is refused rather than cut to another parameter's.
    std::string long_name(250, 'x');
    tConfigMap long_map[] = {{long_name.c_str(), a}, {"C", c}, {}};
    EXPECT_EQ(write_multi_config_to_xml(long_map, URL), 0);
    EXPECT_THAT(platform.written, testing::ElementsAre("C"));

    // Nor is a value written that a later read would have no room for.
    std::string longest(OVANI_VALUE_LEN - 1, 'x');
    std::string too_long(OVANI_VALUE_LEN, 'x');
    tConfigMap value_map[] = {{"A", longest.data()}, {"B", too_long.data()}, {"C", c}, {}};
    EXPECT_EQ(write_multi_config_to_xml(value_map, URL), 0);
    EXPECT_THAT(platform.written, testing::ElementsAre("A", "C"));
}

TEST_F(ConfigTest, ANullInEitherColumnEndsTheTable)
{
    tConfigMap by_value[] = {{"A", a}, {"B", nullptr}, {"C", c}, {}};
    EXPECT_EQ(write_multi_config_to_xml(by_value, URL), 0);
    EXPECT_THAT(platform.written, testing::ElementsAre("A"));
    tConfigMap empty[] = {{"A", nullptr}, {}};
    EXPECT_EQ(write_multi_config_to_xml(empty, URL), 0);
    EXPECT_THAT(platform.written, testing::IsEmpty());
}

TEST_F(ConfigTest, FailuresOfTheSessionAreReturned)
{
    tConfigMap map[] = {{"A", a}, {}};
    for (const char *step : {"session_create", "process get", "session_destroy"}) {
        platform.fail = [=](const std::string &call) { return call.starts_with(step) ? 5 : 0; };
        // A failed destruction is only logged.
        EXPECT_EQ(load_multi_config_from_xml(map, URL), std::string(step) == "session_destroy" ? 0 : 5)
            << step;
        EXPECT_STREQ(a, "1");
    }
    EXPECT_TRUE(fake::logged("zkapi_multimode_sessioncreate fail ret=5\n", 7));
    EXPECT_TRUE(fake::logged("ZKAPI_MultiNode_SeeionProcess fail ret=5\n", 7));
    EXPECT_TRUE(fake::logged("ZKAPI_MultiNode_SeeionDestroy fail!\n", 7));
}

TEST_F(ConfigTest, ANullTableIsReportedTwice)
{
    EXPECT_EQ(write_multi_config_to_xml_for_host_add(nullptr, URL), -1);
    std::vector<std::string> texts;
    for (const fake::LogLine &line : platform.log) {
        if (line.text.find("error: param is null\n") != std::string::npos) {
            texts.push_back(line.text.substr(0, line.text.find("][")));
        }
    }
    EXPECT_THAT(texts, testing::ElementsAre("[multi_config_process", "[printf_tconfigmap"));
    EXPECT_THAT(platform.calls, testing::IsEmpty());
}
