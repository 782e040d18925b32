// The roads of devices, whole: every log line with its function, every store call with its arguments, every
// message, held against the files in tests/golden. What is the machine's own (source lines, uptimes) is
// masked. With OVANI_WRITE_GOLDEN set the files are written anew: read what changed in them before you commit
// it.
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

#include "ovani/ovani_lan_port_config.h"
#include "ovani/ovani_neigh.h"
#include "ovani/ovani_operator.h"
#include "ovani/ovani_start.h"
#include "tests/unit/daemon_test.h"

namespace {

class GoldenTest : public DaemonTest {
protected:
    GoldenTest() { platform.keep_trace = true; }

    // A step of the road, told in the trace by its name.
    template <typename Act>
    void step(const char *name, Act act)
    {
        platform.trace.push_back(std::string("--- ") + name);
        act();
    }

    void hold_against(const std::string &file)
    {
        std::string path = std::string(GOLDEN_DIR) + "/" + file;
        std::string trace = masked(fake::joined(platform.trace, "\n") + "\n");
        if (getenv("OVANI_WRITE_GOLDEN") != nullptr) {
            std::ofstream(path) << trace;
        }
        std::stringstream golden;
        golden << std::ifstream(path).rdbuf();
        std::istringstream expected(golden.str());
        std::istringstream seen(trace);
        std::string step;
        int number = 0;
        for (std::string a, b; ++number, std::getline(expected, a) || !a.empty();) {
            std::getline(seen, b);
            step = a.starts_with("---") ? a : step;
            ASSERT_EQ(b, a) << file << ":" << number << ", in step " << step;
            a.clear();
        }
        EXPECT_EQ(trace.size(), golden.str().size()) << file;
    }

private:
    static std::string masked(std::string trace)
    {
        const std::pair<const char *, const char *> masks[] = {
            {"\\]\\[[0-9]+\\]", "][]"},
            {"\\r?\\n\\r?\\n", "\n"},
            {"\\r", ""},
            {"(sacktime:|uptime=|ctiveTime=|ctiveTime )[0-9]+", "$1N"},
            {"(Param Error: [a-z_0-9]+,|connect_type_get:)[0-9]+", "$1N"},
            {" +\n", "\n"},
        };
        for (const auto &[what, with] : masks) {
            trace = std::regex_replace(trace, std::regex(what), with);
        }
        return trace;
    }
};

} // namespace

TEST_F(GoldenTest, StartUp)
{
    learn(PC);
    arp(PC, PC_IP);
    platform.values[std::string(OVANI_HOSTS_NODE_PATH) + "HostNumberOfEntries"] = "1";
    platform.trace.clear();
    step("a host is there, and no thread can be had", [] {
        ovani_start(0, nullptr, [](void *(*body)(void *)) {
            EXPECT_TRUE(body == vlan_bind_init_wifi || body == ovani_host_neigh_poll);
            return EAGAIN;
        });
    });
    hold_against("start_ct.txt");
}

TEST_F(GoldenTest, ADeviceOnACable)
{
    CommandPath path;
    path.answer("ip", "echo 'fe80::1 dev br0 lladdr 00:11:22:aa:bb:cc REACHABLE'");
    step("its MAC is learned", [&] { learn(PC); });
    step("it gets a lease, its name is GBK", [&] { dhcp(lease("\xb5\xe7\xc4\xd4")); });
    step("ARP confirms the lease", [&] { arp(PC, PC_IP); });
    step("ARP shows another address", [&] { arp(PC, PC_IP + 1); });
    step("it has IPv6 addresses", [&] {
        dhcp("x#ADD6#2001:db8::1#00:11:22:aa:bb:cc#fe80::1");
        dhcp("#NB6ADD#LLA#fe80::2#00:11:22:aa:bb:cc");
    });
    step("its port goes down", [&] { link(2, 0); });
    step("it is learned behind another port", [&] { learn(PC, "eth2"); });
    step("its MAC ages", [&] { forget(PC); });
    hold_against("device_ct.txt");
}

TEST_F(GoldenTest, AStationInAMesh)
{
    CommandPath path;
    path.answer("brctl", "echo '5\t00:11:22:aa:bb:cc\tno\t\t0.10\tra0'");
    path.answer("meshinfo", "true");
    platform.values["InternetGatewayDevice.LANDevice.1.WLANMeshConfiguration.MeshMode"] = "Master";
    platform.keep_trace = false;
    restart(OPTYPE_CM);
    platform.keep_trace = true;
    step("it joins, and the bridge knows it", [&] { wifi(PC, 0, 1); });
    step("ARP shows its address", [&] { arp(PC, PC_IP); });
    step("it is leased a name of a satellite", [&] { dhcp(lease("SlaveAP_1", "192.168.1.100")); });
    step("it roams", [&] { wifi(PC, 4, 1); });
    step("its lease is released", [&] { dhcp(lease("SlaveAP_1", "192.168.1.100", "DEL")); });
    step("it leaves", [&] { wifi(PC, 4, 0); });
    hold_against("station_cm.txt");
}
