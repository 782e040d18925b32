// The host objects: index, content, life.
#include "ovani/ovani_host_mgr.h"

#include <cstring>

#include "ovani/ovani_host_object.h"
#include "ovani/ovani_operator.h"
#include "tests/unit/daemon_test.h"

using testing::IsEmpty;

namespace {

constexpr char LAN2[] = "InternetGatewayDevice.LANDevice.1.LANEthernetInterfaceConfig.2.";
constexpr char MESH_MODE[] = "InternetGatewayDevice.LANDevice.1.WLANMeshConfiguration.MeshMode";

// A record with its writable texts.
struct Record : ovani_dhcpd_host_event {
    explicit Record(const char *mac = PC_BARE, const char *ip = "192.168.1.100", std::string name = "my-pc")
        : ovani_dhcpd_host_event{}, name_(std::move(name))
    {
        action = "ADD";
        IPAddress = ip;
        AddressSource = "DHCP";
        AckTime = "2026-01-02 03:04:05";
        LeaseTimeRemaining = "3600";
        HostName = name_.data();
        AssociatedDeviceType = "PC";
        MACAddress = mac;
        Layer2Interface = LAN2;
        InterfaceType = "Ethernet";
        Active = active_;
        X_QV_Option60 = "MSFT 5.0";
    }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;

private:
    std::string name_;
    char active_[2] = "1";
};

class HostMgrTest : public DaemonTest {
protected:
    int add(const char *mac = PC_BARE, const char *ip = "192.168.1.100")
    {
        Record record(mac, ip);
        return ovani_add_host_info(&record);
    }
    // The instances that the cache knows, each with its host.
    static std::string cached()
    {
        std::vector<std::string> rows;
        for (size_t row = 0; row < std::size(tmpHostToIndex); ++row) {
            if (tmpHostToIndex[row].hostHash[0] != '\0') {
                rows.push_back(std::to_string(row + 1) + " " + tmpHostToIndex[row].hostHash);
            }
        }
        return fake::joined(rows, ", ");
    }
    // The parameters of the last batch, in order.
    std::string written() const { return fake::joined(platform.written); }
    int remove(const char *mac = PC_BARE)
    {
        Record record(mac);
        return ovani_del_host_info(&record);
    }
    void put_object(int instance, const char *mac)
    {
        platform.objects.insert(host_path(instance));
        platform.values[host_path(instance) + "MACAddress"] = mac;
        platform.values[host_path(instance) + "Layer2Interface"] = LAN2;
    }
    void set_counters(const char *entries, const char *max)
    {
        platform.values[std::string(OVANI_HOSTS_NODE_PATH) + "HostNumberOfEntries"] = entries;
        platform.values[std::string(OVANI_HOSTS_NODE_PATH) + "LANHostMaxNumber"] = max;
    }
};

std::string bare_mac(int i)
{
    char text[16];
    snprintf(text, sizeof text, "0200000000%02X", static_cast<unsigned>(i & 0xff));
    return text;
}

} // namespace

// --- Start-up

TEST_F(HostMgrTest, StartUpRebuildsTheCacheAndStopsOnceAllAreFound)
{
    set_counters("3", "64");
    put_object(1, "00:11:22:aa:bb:cc");
    put_object(4, "02:00:00:00:00:04");
    put_object(9, "02:00:00:00:00:09");
    restart(OPTYPE_CT);
    EXPECT_EQ(cached(), "1 001122AABBCC, 4 020000000004, 9 020000000009");
    EXPECT_STREQ(tmpHostToIndex[8].path, LAN2);
    EXPECT_EQ(tmpHostToIndex[8].index, -1);
    EXPECT_EQ(s_hostnumberofentries, 3U);
    // The same objects are updated from now on.
    EXPECT_EQ(add(), 1);
    EXPECT_EQ(add("020000000009"), 9);
    EXPECT_EQ(s_hostnumberofentries, 3U);
}

TEST_F(HostMgrTest, StartUpProbesNoFurtherThanItMust)
{
    put_object(2, "02:00:00:00:00:02");
    put_object(5, "02:00:00:00:00:05");
    struct Case {
        const char *entries, *max;
        int probes;
    } cases[] = {
        {"2", "64", 5},
        {"0", "64", 2}, // compared after each load: the first object ends it
        {"9", "64", 64},
        {"9", "100000", 254}, // the cache's rows
        {"9", "-1", 254},
        {"-3", "64", 64}, // large numbers
        {"rubbish", "rubbish", 0},
    };
    for (const Case &c : cases) {
        set_counters(c.entries, c.max);
        platform.calls.clear();
        ovani_hostmgr_init();
        EXPECT_EQ(fake::count_calls("exists"), c.probes) << c.entries << "/" << c.max;
    }
}

TEST_F(HostMgrTest, StartUpRemovesWhatAKilledDaemonLeftUnfilled)
{
    put_object(1, "00:11:22:aa:bb:cc");
    put_object(2, ""); // as the store makes it
    put_object(3, "damaged");
    set_counters("3", "254");
    restart(OPTYPE_CT);
    EXPECT_THAT(platform.objects, testing::ElementsAre(host_path(1), host_path(3)));
    EXPECT_EQ(s_hostnumberofentries, 2U);
}

TEST_F(HostMgrTest, StartUpSurvivesABadStore)
{
    set_counters("3", "64");
    put_object(1, "not a MAC");
    put_object(2, std::string(200, 'f').c_str());
    put_object(3, "02:00:00:00:00:03");
    ovani_hostmgr_init();
    EXPECT_THAT(cached(), testing::EndsWith("3 020000000003"));
    EXPECT_STREQ(tmpHostToIndex[0].hostHash, "");
    EXPECT_TRUE(fake::logged("load_host_info_from_xml mac_form_translate error", 3));

    // Unreadable counters stay 0, and refuse every new host.
    fail("process get");
    EXPECT_EQ(ovani_hostmgr_init(), R_OK);
    platform.fail = nullptr;
    EXPECT_EQ(add(), -1);
    EXPECT_EQ(fake::count_calls("obj_add"), 0);
}

// --- Creation and update

TEST_F(HostMgrTest, WhatIsKnownChoosesTheParameters)
{
    EXPECT_EQ(add(), 1);
    EXPECT_EQ(written(),
              "IPAddress AddressSource AckTime LeaseTimeRemaining LatestActiveTime HostName DeviceType "
              "X_QV_DeviceType MACAddress Layer2Interface InterfaceType Port ConnectionType Active");
    EXPECT_TRUE(platform.sent.empty());    // the caller announces
    Record no_ip("001122aabbcc", nullptr); // found in any case
    EXPECT_EQ(ovani_add_host_info(&no_ip), 1);
    EXPECT_EQ(written(),
              "AckTime LatestActiveTime MACAddress Layer2Interface InterfaceType Port ConnectionType Active");
    Record nameless(PC_BARE, "192.168.1.100", "");
    nameless.AddressSource = "STATIC";
    EXPECT_EQ(ovani_add_host_info(&nameless), 1);
    EXPECT_EQ(written(),
              "IPAddress AddressSource AckTime LeaseTimeRemaining LatestActiveTime DeviceType MACAddress "
              "Layer2Interface InterfaceType Port ConnectionType Active");
    Record cut;
    cut.AckTime = nullptr; // a null value ends the map
    EXPECT_EQ(ovani_add_host_info(&cut), 1);
    EXPECT_EQ(written(), "IPAddress AddressSource");
    EXPECT_EQ(s_hostnumberofentries, 1U);
}

TEST_F(HostMgrTest, NullTextsAreEmptyTexts)
{
    Record bare;
    bare.HostName = bare.Active = nullptr;
    bare.Layer2Interface = bare.InterfaceType = bare.X_QV_Option60 = nullptr;
    g_filtermode = 2; // would overwrite Active
    EXPECT_EQ(ovani_add_host_info(&bare), 1);
    EXPECT_EQ(stored(1, "Active"), "(none)");
    EXPECT_TRUE(fake::logged("Param Error: "));
    ovani_dhcpd_host_event nothing{};
    EXPECT_EQ(ovani_add_host_info(&nothing), -1);
    EXPECT_EQ(ovani_add_host_info(nullptr), 0);
    EXPECT_EQ(ovani_del_host_info(&nothing), 0);
    EXPECT_EQ(ovani_update_host_lanport(&nothing, 1), 0);
    EXPECT_EQ(ovani_add_host_ipv6_info(&nothing), 0);
}

TEST_F(HostMgrTest, AHostWithoutAnAddressGetsNoObject)
{
    for (const char *ip : {"", "null", "NULL", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(add(PC_BARE, ip), -1);
    }
    EXPECT_TRUE(fake::logged("Error: Do not add No IP host mac = 001122AABBCC\n"));
    EXPECT_THAT(platform.objects, IsEmpty());
}

TEST_F(HostMgrTest, TheCeilingRefusesNewHostsOnly)
{
    set_counters("0", "-1"); // none
    ovani_hostmgr_init();
    EXPECT_EQ(s_hostmaxnumber, 4294967295U);
    s_hostmaxnumber = 1;
    EXPECT_EQ(add(), 1);
    EXPECT_EQ(add("020000000009"), -1);
    EXPECT_TRUE(fake::logged("ovani_add_host_info ovani_del_inactive_host"));
    EXPECT_TRUE(fake::logged("Error: hostNumberOfEntries 1, hostMaxNumber 1\n"));
    EXPECT_EQ(add(PC_BARE, "192.168.1.101"), 1);
}

TEST_F(HostMgrTest, ObjectsThatTheCacheDoesNotHoldAreMadeAgain)
{
    platform.next_instance = 300; // has no row
    EXPECT_EQ(add(), 300);
    EXPECT_EQ(stored(300, "IPAddress"), "192.168.1.100");
    EXPECT_TRUE(fake::logged("More Than Max Host Entries Error: index is 300,max entries is 254\n"));
    EXPECT_EQ(ovani_get_host_associatedev_info(PC_BARE), 0);
    platform.next_instance = -5; // no instance
    EXPECT_EQ(add(), -1);
    platform.next_instance = 254;
    EXPECT_EQ(add(), 254);
    EXPECT_EQ(cached(), "254 001122AABBCC");
    platform.objects.clear(); // behind the daemon's back
    EXPECT_EQ(add(), 1);
    EXPECT_EQ(cached(), "1 001122AABBCC");
}

TEST_F(HostMgrTest, LatestActiveTimeMovesOnlyWithAChange)
{
    add();
    auto time_after = [&](const char *ip) {
        platform.values[host_path(1) + "LatestActiveTime"] = "17";
        add(PC_BARE, ip);
        return stored(1, "LatestActiveTime");
    };
    EXPECT_EQ(time_after("192.168.1.100"), "17");
    EXPECT_NE(time_after("192.168.1.101"), "17"); // another address
    EXPECT_EQ(time_after("192.168.1.101"), "17");
    platform.values[host_path(1) + "Active"] = "0";
    EXPECT_NE(time_after("192.168.1.101"), "17"); // had left
    platform.values[host_path(1) + "MACAddress"] = "02:00:00:00:00:99";
    EXPECT_NE(time_after("192.168.1.101"), "17"); // another host's object
    fail("process get");
    EXPECT_NE(time_after("192.168.1.101"), "17"); // not known
}

TEST_F(HostMgrTest, PortAndConnectionComeFromTheInterface)
{
    struct Case {
        const char *path, *type, *expected;
    } cases[] = {{"X.LANEthernetInterfaceConfig.3.", "ethernet", "3 0"},
                 {"X.WLANConfiguration.5.", "802.11", "5 1"},
                 {"X.LANEthernetInterfaceConfig.x.", "Ethernet", "255 0"},
                 {"nothing", "", "255 1"},
                 {"X.WLANConfiguration.99999.", "802.11", "999 1"}}; // cut at the buffer
    for (const Case &c : cases) {
        Record record;
        record.Layer2Interface = c.path;
        record.InterfaceType = c.type;
        EXPECT_EQ(ovani_add_host_info(&record), 1);
        EXPECT_EQ(stored(1, "Port ConnectionType"), c.expected) << c.path;
    }
}

TEST_F(HostMgrTest, TheFilterMarksHostsInactive)
{
    copy_text(black_mac, "xx001122aabbccxx");
    copy_text(white_mac, "xx001122aabbccxx");
    for (int mode = 0; mode <= 3; ++mode) {
        g_filtermode = mode;
        add();
        EXPECT_EQ(stored(1, "Active"), mode == 1 ? "0" : "1") << mode;
    }
    copy_text(white_mac, "");
    g_filtermode = 2;
    add();
    EXPECT_EQ(stored(1, "Active"), "0");
}

TEST_F(HostMgrTest, MeshSatellitesAreRememberedUpToTen)
{
    CommandPath path;
    path.answer("meshinfo", "true");
    platform.values[MESH_MODE] = "Master";
    std::string repeater = "InternetGatewayDevice.LANDevice.1.WLANMeshConfiguration.Controller.Repeater.1.";
    platform.values[repeater + "mac_br0"] = "02:00:00:00:00:00";
    platform.values[repeater + "connect_type"] = "wireless";
    for (int i = 0; i < 11; ++i) {
        std::string mac = bare_mac(i);
        Record record(mac.c_str(), "192.168.1.100", "SlaveAP_x");
        EXPECT_EQ(ovani_add_host_info(&record), i + 1);
        EXPECT_EQ(ovani_add_host_info(&record), i + 1); // once is enough
    }
    EXPECT_EQ(g_slaveapnum, 10);
    EXPECT_STREQ(slaveAPMACs[9], "020000000009");
    // What the controller says of a satellite wins; one it does not know keeps what the bridge says.
    EXPECT_EQ(stored(1, "InterfaceType ConnectionType X_QV_DeviceType"), "802.11 1 9");
    EXPECT_EQ(stored(2, "InterfaceType"), "Ethernet");

    // A satellite's static address does not replace the one it has.
    Record moved("020000000000", "192.168.1.200", "renamed");
    moved.AddressSource = "STATIC";
    EXPECT_EQ(ovani_add_host_info(&moved), 1);
    EXPECT_EQ(moved.IPAddress, nullptr);
    EXPECT_EQ(stored(1, "IPAddress"), "192.168.1.100");
}

TEST_F(HostMgrTest, ARowsAssociatedDeviceIsDeletedWithEveryUpdate)
{
    add();
    copy_text(tmpHostToIndex[0].path, LAN2);
    tmpHostToIndex[0].index = 4;
    platform.objects.insert(std::string(LAN2) + "4.");
    add();
    EXPECT_EQ(tmpHostToIndex[0].index, -1);
    EXPECT_EQ(fake::count_calls(std::string("obj_del ") + LAN2), 1);
    tmpHostToIndex[0].index = 4; // gone already
    EXPECT_EQ(ovani_del_associateddevice_info(1), -1);
    tmpHostToIndex[0].index = -2;
    EXPECT_EQ(ovani_del_associateddevice_info(1), R_OK);
    EXPECT_EQ(ovani_del_associateddevice_info(0), -1);
    EXPECT_EQ(ovani_del_associateddevice_info(255), -1);
}

// --- IPv6, ports

TEST_F(HostMgrTest, Ipv6AddressesGoToAnExistingObject)
{
    Record record;
    record.IPv6Address = "2001:db8::1";
    record.IPv6LLAddress = "fe80::1";
    EXPECT_EQ(ovani_add_host_ipv6_info(&record), 0);
    EXPECT_TRUE(fake::logged("index not exist!! mac=001122AABBCC\r\n", 3));
    add();
    EXPECT_EQ(ovani_add_host_ipv6_info(&record), 1);
    EXPECT_EQ(stored(1, "IPv6Address IPv6LLAddress"), "2001:db8::1 fe80::1");
    EXPECT_EQ(told(), "changed 1");

    record.IPv6Address = record.IPv6LLAddress = nullptr;
    EXPECT_EQ(ovani_add_host_ipv6_info(&record), -1); // nothing to write reads as a failure
    EXPECT_TRUE(fake::logged("ret=1\n", 3));
    record.IPv6LLAddress = "fe80::1";
    fail("set_param ");
    EXPECT_EQ(ovani_add_host_ipv6_info(&record), -1);
    EXPECT_EQ(told(), "");
}

TEST_F(HostMgrTest, APortUpdateIsAnnouncedOnce)
{
    Record record;
    EXPECT_EQ(ovani_update_host_lanport(&record, 6), 0);
    add();
    EXPECT_EQ(ovani_update_host_lanport(&record, 6), 1);
    EXPECT_EQ(stored(1, "Port"), "6");
    EXPECT_EQ(told(), "changed 1");
    platform.objects.clear(); // behind the daemon's back
    EXPECT_EQ(ovani_update_host_lanport(&record, 7), 0);
}

// --- Removal

TEST_F(HostMgrTest, OnlyAKnownHostLeaves)
{
    for (int carrier = 0; carrier <= 3; ++carrier) {
        bool deletes = carrier == OPTYPE_CT;
        platform.objects.clear();
        restart(carrier);
        EXPECT_EQ(add(), 1);
        for (const char *mac : {"", "short", "02:00:00:00:00:00:00:00", "02:00:00:00:00:77"}) {
            EXPECT_EQ(remove(mac), 0);
        }
        EXPECT_TRUE(fake::logged("ovani_del_host_info mac_form_translate error", 3));
        EXPECT_TRUE(fake::logged("delObject not found,mac=02:00:00:00:00:77\n"));
        fail(deletes ? "obj_del" : "process set");
        EXPECT_EQ(remove(), deletes ? 1 : -1); // a failed deletion still names the host
        platform.fail = nullptr;
        EXPECT_EQ(remove(), 1);
        EXPECT_EQ(s_hostnumberofentries, deletes ? 0U : 1U);
        EXPECT_EQ(cached(), deletes ? "" : "1 001122AABBCC");
        EXPECT_EQ(written().starts_with("LatestInactiveTime Active Lease"), !deletes);
        EXPECT_EQ(add(), 1); // the same number again
        EXPECT_EQ(stored(1, "Active"), "1");
    }
}

// --- Faults: every platform call on the road fails once, in turn

TEST_F(HostMgrTest, AnyFailingStoreCallLeavesCacheAndCountersTrue)
{
    for (int carrier : {OPTYPE_CT, OPTYPE_CM}) {
        for (int failing = 0;; ++failing) {
            set_counters("0", "254");
            platform.objects.clear();
            restart(carrier);
            int call_number = 0;
            platform.fail = [&](const std::string &) { return call_number++ == failing ? 1 : 0; };
            add();
            add(PC_BARE, "192.168.1.101");
            remove();
            bool all_calls_done = call_number <= failing;
            platform.fail = nullptr;
            // Whatever failed, the next events put it right: one object, known and counted.
            add();
            ASSERT_EQ(s_hostnumberofentries, platform.objects.size()) << "call " << failing;
            int index = ovani_get_host_associatedev_info(PC_BARE);
            ASSERT_GT(index, 0) << "call " << failing;
            EXPECT_TRUE(platform.objects.contains(host_path(index)));
            EXPECT_EQ(stored(index, "IPAddress"), "192.168.1.100");
            if (all_calls_done) {
                break;
            }
        }
    }
}
