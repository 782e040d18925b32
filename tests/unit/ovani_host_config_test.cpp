#include "ovani/ovani_host_config.h"

#include <cstring>
#include <fstream>

#include "tests/unit/daemon_test.h"

namespace {

class HostConfigTest : public DaemonTest {
protected:
    HostConfigTest()
    {
        learn(PC, "eth1");
        arp(PC, PC_IP);
        platform.calls.clear();
        platform.sent.clear();
    }
    int set(const std::string &url, const char *name, const char *value)
    {
        return call_method("set_lanhost_config", url.c_str(), {{name, value}});
    }
    std::string alias(int instance, const char *parameter)
    {
        return platform.values[OVANI_HOSTALIAS_OBJ_URL + std::to_string(instance) + "." + parameter];
    }
};

} // namespace

TEST_F(HostConfigTest, CeilingsKeepTheOtherDirection)
{
    platform.ceilings["00:11:22:AA:BB:CC"] = {10, 20};
    set(host_path(1), "MaxUSBandwidth", "111");
    EXPECT_EQ(platform.ceilings["00:11:22:AA:BB:CC"], std::pair(111U, 20U));
    set(host_path(1), "MaxDSBandwidth", "222");
    EXPECT_EQ(platform.ceilings["00:11:22:AA:BB:CC"], std::pair(111U, 222U));
    EXPECT_EQ(told(), "changed 1, changed 1");

    // Hosts without a cache row, and paths that are no host's, change nothing.
    platform.calls.clear();
    for (int instance : {2, 0, 254, 255, 100000}) {
        set(host_path(instance), "MaxUSBandwidth", "5");
    }
    set("InternetGatewayDevice.LANDevice.1.Hosts.Host.", "MaxUSBandwidth", "5");
    set("", "MaxDSBandwidth", "5");
    EXPECT_EQ(fake::count_calls("ceiling"), 0);
}

TEST_F(HostConfigTest, EveryParameterOfAHostIsAnnounced)
{
    std::string url = host_path(7);
    for (std::string key : {"MaxUSBandwidth", "HostAlias", "DevName", "Brand", "OS", "DeviceOnlineNofication",
                            "hostalias", ""}) {
        platform.sent.clear();
        EXPECT_EQ(system_set_lanhost_config_param(key.c_str(), "x", url.data()),
                  key == "MaxUSBandwidth" || key == "HostAlias");
        EXPECT_EQ(told(), "changed 7") << key;
    }
    platform.sent.clear();
    EXPECT_TRUE(system_set_lanhost_config_param(nullptr, "x", url.data()));
    EXPECT_TRUE(fake::logged("param is Null\n", 3));
    char elsewhere[] = "InternetGatewayDevice.LANDevice.1.";
    EXPECT_FALSE(system_set_lanhost_config_param("OS", "x", elsewhere));
    EXPECT_EQ(told(), "");
}

TEST_F(HostConfigTest, AnAliasBelongsToItsMac)
{
    set(host_path(1), "HostAlias", "desk");
    EXPECT_EQ(alias(1, "MACAddress"), "00:11:22:aa:bb:cc");
    EXPECT_EQ(alias(1, "HostAlias"), "desk");
    platform.values[std::string(OVANI_HOSTALIAS_OBJ_URL) + "1.MACAddress"] = "00:11:22:AA:BB:CC";
    set(host_path(1), "HostAlias", "couch");
    EXPECT_EQ(alias(1, "HostAlias"), "couch");
    EXPECT_EQ(fake::count_calls("obj_add"), 1);
    // However long, it is cut where it comes in, on the road of a new object and of an old one.
    for (bool known : {true, false}) {
        platform.objects.erase(known ? "" : std::string(OVANI_HOSTALIAS_OBJ_URL) + "1.");
        set(host_path(1), "HostAlias", std::string(300, 'a').c_str());
        EXPECT_EQ(alias(1, "HostAlias"), std::string(255, 'a'));
    }
    platform.calls.clear();

    // Only the first 64 are searched.
    for (int i = 1; i <= 64; ++i) {
        platform.objects.insert(OVANI_HOSTALIAS_OBJ_URL + std::to_string(i) + ".");
        platform.values[OVANI_HOSTALIAS_OBJ_URL + std::to_string(i) + ".MACAddress"] = "other";
    }
    EXPECT_EQ(set_hostalias_process("far", host_path(1).c_str()), R_OK);
    EXPECT_EQ(alias(65, "HostAlias"), "far");
    for (const char *step : {"obj_add", "process set"}) {
        fail(step);
        EXPECT_EQ(set_hostalias_process("none", host_path(1).c_str()), -1) << step;
    }
}

TEST_F(HostConfigTest, BuiltInDevicesAreLimitedWhenSwitchedOn)
{
    ovani_speedlimit_all();
    platform.values[OVANI_SPEEDLIMIT_PATH] = "0";
    ovani_speedlimit_all();
    EXPECT_EQ(fake::count_calls("total"), 0);
    platform.values[OVANI_SPEEDLIMIT_PATH] = "1";
    platform.values[OVANI_UP_SPEEDLIMIT_PATH] = "null";
    platform.values[OVANI_DOWN_SPEEDLIMIT_PATH] = "5000";
    platform.calls.clear();
    ovani_speedlimit_all();
    EXPECT_EQ(fake::count_calls("total b8:27:eb:"), 19);
    EXPECT_EQ(platform.calls.back(), "total b8:27:eb:50:b4:5e 70000 5000");
}

TEST_F(HostConfigTest, TheListFileLimitsTheHostsItNames)
{
    const std::pair<const char *, const char *> cases[] = {
        {"100 200 00:11:22:AA:BB:CC", "ceiling 00:11:22:AA:BB:CC 100 200"},
        {"100 200 x 00:11:22:aa:bb:cc x x x x x x x x", "ceiling 00:11:22:aa:bb:cc 100 200"},
        {"100 200 a-word-that-is-longer-than-its-slot-of-32-bytes 00:11:22:aa:bb:cc",
         "ceiling 00:11:22:aa:bb:cc 100 200"},
        {"100 200 x x x x x x x x x x 00:11:22:aa:bb:cc", ""}, // 13 words
        {"100 200", ""},
        {"", ""},
        {"100 200 02:00:00:00:00:01", ""}};
    auto ceilings_after = [&](const char *list) {
        std::ofstream(SPEEDLIMIT_MACLIST_FILE) << list << "\n";
        platform.calls.clear();
        arp(PC, PC_IP);
        auto limited = platform.calls;
        std::erase_if(limited, [](const std::string &call) { return !call.starts_with("ceiling"); });
        return fake::joined(limited);
    };
    in_a_private_root([&] {
        for (const auto &[list, ceilings] : cases) {
            EXPECT_EQ(ceilings_after(list), ceilings) << list;
        }
        EXPECT_TRUE(fake::logged("mac count:11 error !!!", 3));
        // A host that is refused an object has been limited before.
        s_hostmaxnumber = 0;
        platform.objects.clear();
        EXPECT_EQ(ceilings_after(cases[0].first), cases[0].second);
        EXPECT_EQ(fake::count_calls("obj_add"), 0);
    });
}
