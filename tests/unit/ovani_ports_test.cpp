// Operator profiles, WAN connections, VLAN binding and work modes, down to the driver calls.
#include <cstring>
#include <set>
#include <utility>

#include "ovani/ovani_lan_port_config.h"
#include "ovani/ovani_operator.h"
#include "ovani/ovani_port_mgr.h"
#include "ovani/ovani_wan_config.h"
#include "tests/unit/daemon_test.h"

namespace {

const std::string WAN = "InternetGatewayDevice.WANDevice.1.WANConnectionDevice.";
const std::string INTERFACES = "InternetGatewayDevice.LANInterfaces.";
const std::string LAN = "InternetGatewayDevice.LANDevice.1.LANEthernetInterfaceConfig.";

class PortsTest : public DaemonTest {
protected:
    // An object with these parameters.
    void put(const std::string &path, const std::string &parameters)
    {
        platform.objects.insert(path);
        for (const auto &[name, value] : pairs(parameters)) {
            platform.values[path + name] = value;
        }
    }
    // An enabled IP connection under the operator's names.
    void put_connection(int carrier, int device, int connection, const std::string &vlan)
    {
        std::string device_path = WAN + std::to_string(device) + ".";
        std::string path = device_path + "WANIPConnection." + std::to_string(connection) + ".";
        put(device_path, carrier == OPTYPE_CU ? "X_CU_VLANEnabled=1 X_CU_VLAN=" + vlan : "");
        put(path, "Enable=1 ConnectionType=IP_Routed");
        if (carrier == OPTYPE_CM) {
            put(path, "X_CMCC_ServiceList=INTERNET X_CMCC_VLANMode=2 X_CMCC_VLANIDMark=" + vlan);
        } else if (carrier == OPTYPE_CU) {
            put(path, "X_CU_ServiceList=INTERNET");
        } else {
            put(path, "X_TRUE_ServiceList=INTERNET X_TRUE_VlanID=" + vlan);
        }
    }
    // The driver calls since the last look.
    std::string driven()
    {
        static const std::set<std::string> drivers{"mac_limit",  "bind",    "unbind", "work_mode",
                                                   "port_state", "ceiling", "total"};
        std::erase_if(platform.calls, [](const std::string &call) {
            return !drivers.contains(call.substr(0, call.find(' ')));
        });
        return fake::joined(std::exchange(platform.calls, {}), ", ");
    }
    int configure(const std::string &url, const std::string &parameters)
    {
        return call_method("ovani_devfuc_port_cfg", url.c_str(), pairs(parameters));
    }
};

} // namespace

TEST_F(PortsTest, ServiceListsNameServices)
{
    constexpr int refused = -1;
    struct Case {
        const char *list;
        int mode;
    } cases[] = {{"voip,tr069", TR069_VOIP},
                 {"Internet_TR069", INTERNET_TR069},
                 {"all", INTERNET_TR069_VOIP},
                 {"VOICE,TR069,INTERNET", INTERNET_TR069_VOIP},
                 {"IPTV,OTHER", OTHER},
                 {"iptv", IPTV},
                 {"VOICE", VOIP},
                 {"internet,voip", INTERNET_VOIP},
                 {"TR069", TR069},
                 {"INTERNET", INTERNET},
                 {"SPECIAL_SERVICE_1", SPECIAL_SERVICE_1},
                 {"special_service_4", SPECIAL_SERVICE_4},
                 {"", refused},
                 {"AWIFI", refused},
                 {nullptr, refused}};
    for (const Case &c : cases) {
        qv_wan_mode mode{};
        EXPECT_EQ(parse_servicelist_to_wan_mode(&mode, c.list), c.mode == refused ? -1 : 0)
            << text_or_empty(c.list);
        EXPECT_EQ(mode, c.mode == refused ? INTERNET : c.mode) << text_or_empty(c.list);
    }
    EXPECT_TRUE(fake::logged("Invalid ServiceLsit:AWIFI !\n", 3));
    EXPECT_EQ(parse_servicelist_to_wan_mode(nullptr, "VOIP"), -1);
}

TEST_F(PortsTest, EachOperatorsConnectionIsReadUnderItsNames)
{
    auto cm = read_wan_conn_cfg_by_index_cm;
    auto ct = read_wan_conn_cfg_by_index_ct;
    auto cu = read_wan_conn_cfg_by_index_cu;
    struct Case {
        decltype(cm) reader;
        const char *connection, *device;
        std::vector<int> expected; // VLAN, priority, DHCP on the LAN, IP version, bridged
    } cases[] = {
        {cm,
         "X_CMCC_IPMode=3 X_CMCC_ServiceList=VOIP X_CMCC_LanInterface-DHCPEnable=1 X_CMCC_VLANMode=2 "
         "X_CMCC_VLANIDMark=100 X_CMCC_802-1pMark=5 ConnectionType=pppoe_bridged",
         "",
         {100, 5, 1, 3, BRIDGE}},
        {cm,
         "X_CMCC_ServiceList=VOIP ConnectionType=IP_Bridged X_CMCC_VLANMode=0 X_CMCC_VLANIDMark=100",
         "",
         {4093, 0, 0, 0, ROUTE}},
        {ct,
         "X_TRUE_IPMode=1 X_TRUE_ServiceList=VOIP DHCPEnable=1 X_TRUE_VlanID=200 X_TRUE_VlanPriority=7",
         "",
         {200, 7, 1, 1, ROUTE}},
        {ct, "X_TRUE_ServiceList=VOIP", "", {0, 0, 0, 0, ROUTE}}, // no default
        {ct,
         "X_TRUE_ServiceList=VOIP X_TRUE_VlanID=65636 X_TRUE_VlanPriority=-1 X_TRUE_IPMode=257",
         "",
         {100, 255, 0, 1, ROUTE}}, // in the fields' types
        {ct, "X_TRUE_ServiceList=VOIP X_TRUE_VlanID=-1", "", {65535, 0, 0, 0, ROUTE}},
        {cu,
         "X_CU_IPMode=2 X_CU_ServiceList=VOIP DHCPEnable=1",
         "X_CU_VLANEnabled=1 X_CU_VLAN=300 X_CU_802_1p=4",
         {300, 4, 0, 2, ROUTE}},
        {cu, "X_CU_ServiceList=VOIP", "X_CU_VLANEnabled=0 X_CU_VLAN=300", {4093, 0, 0, 0, ROUTE}}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.connection);
        platform.values.clear();
        put(WAN + "1.WANPPPConnection.2.", c.connection);
        put(WAN + "1.", c.device);
        qv_wan_param param{};
        EXPECT_EQ(c.reader(&param, 1, 2, 2), 0);
        EXPECT_THAT(c.expected,
                    testing::ElementsAre(param.vid, param.pbit, param.landhcp, param.iptype, param.brflag));
        EXPECT_EQ(param.wanmode, VOIP);
        EXPECT_EQ(c.reader(&param, 17, 1, 1), -1);
        EXPECT_EQ(c.reader(&param, 1, 9, 1), -1);
        EXPECT_EQ(c.reader(&param, -1, 1, 1), -1);
        EXPECT_EQ(c.reader(&param, 1, 1, 3), -1);
    }
    for (const char *complaint : {"wanIndex(17) exeed!\n", "conIndex(9) exeed!\n", "IPorPPP=3 exceed!\n"}) {
        EXPECT_TRUE(fake::logged(complaint));
    }
    qv_wan_param param{};
    EXPECT_EQ(cm(&param, 2, 1, 1), -1); // one device only
    fail("process get", 6);
    EXPECT_EQ(cu(&param, 1, 1, 1), 6);
    EXPECT_TRUE(fake::logged("Get WAN VLAN And 802-1pMark fail! ret=6\n"));
}

TEST_F(PortsTest, EnabledConnectionsFillTheTable)
{
    restart(OPTYPE_CM);
    put_connection(OPTYPE_CM, 1, 1, "101");
    put_connection(OPTYPE_CM, 1, 3, "103");
    put(WAN + "1.WANPPPConnection.2.",
        "Enable=1 X_CMCC_ServiceList=INTERNET X_CMCC_VLANMode=2 X_CMCC_VLANIDMark=102");
    EXPECT_EQ(g_read_wan_param_cfg(), 0);
    for (int slot = 1; slot <= 3; ++slot) {
        EXPECT_EQ(s_vlanbind_wan_param[slot].vid, 100 + slot);
    }
    // Elsewhere a device has one slot, and its first enabled connection counts.
    restart(OPTYPE_CT);
    put_connection(OPTYPE_CT, 16, 2, "216");
    put_connection(OPTYPE_CT, 2, 1, "202");
    put(WAN + "2.WANIPConnection.1.", "Enable=0");
    put(WAN + "2.WANPPPConnection.1.", "Enable=1 X_TRUE_ServiceList=INTERNET X_TRUE_VlanID=222");
    EXPECT_EQ(g_read_wan_param_cfg(), 0);
    EXPECT_EQ(s_vlanbind_wan_param[16].vid, 216);
    EXPECT_EQ(s_vlanbind_wan_param[2].vid, 222);
    EXPECT_EQ(s_vlanbind_wan_param[1].vid, 0);
}

TEST_F(PortsTest, PairsAreTakenAsFarAsTheyGo)
{
    std::string seventeen;
    std::string sixteen;
    for (int i = 1; i <= 17; ++i) {
        sixteen += i < 17 ? std::to_string(i) + "/" + std::to_string(i) + "," : "";
        seventeen += std::to_string(i) + "/" + std::to_string(i) + ",";
    }
    const std::pair<std::string, std::string> cases[] = {{"10/100,20/200", "10/100,20/200,"},
                                                         {"10/100,abc,20/200", "10/100,20/200,"},
                                                         {"10/100,abc", "10/100,"},
                                                         {"abc", ""},
                                                         {"", ""},
                                                         {"x/y,/,1/2/3", "0/0,0/0,1/2,"},
                                                         {seventeen, sixteen},
                                                         {"99999999999999/1", "2147483647/1,"}};
    for (const auto &[text, expected] : cases) {
        int lan_vlans[MAX_VLAN_PAIRS] = {};
        int wan_vlans[MAX_VLAN_PAIRS] = {};
        std::string found;
        for (int i = 0, count = parse_lan_vlan_str(text.c_str(), lan_vlans, wan_vlans); i < count; ++i) {
            found += std::to_string(lan_vlans[i]) + "/" + std::to_string(wan_vlans[i]) + ",";
        }
        EXPECT_EQ(found, expected) << text;
    }
    EXPECT_TRUE(fake::logged("Invalid string, now return failed; tmp_cnt=1\n", 3));
}

TEST_F(PortsTest, StartUpBindsEveryPortFromTheOperatorsNames)
{
    struct Case {
        int carrier;
        const char *ethernet, *wlan;
    } cases[] = {{OPTYPE_CM, "LANInterfaces.LANEthernetInterfaceConfig.2.X_CMCC_",
                  "LANInterfaces.WLANConfiguration.1.X_CMCC_"},
                 {OPTYPE_CT, "LANDevice.1.LANEthernetInterfaceConfig.2.X_CT-COM_",
                  "LANDevice.1.WLANConfiguration.1.X_CT-COM_"},
                 {OPTYPE_CU, "LANDevice.1.LANEthernetInterfaceConfig.2.X_CU_",
                  "LANDevice.1.LANEthernetInterfaceConfig.5.X_CU_"}, // SSIDs like ports
                 {7, "LANDevice.1.LANEthernetInterfaceConfig.2.X_CT-COM_",
                  "LANDevice.1.WLANConfiguration.1.X_CT-COM_"}};
    for (const Case &c : cases) {
        platform.values.clear();
        platform.objects.clear();
        put_connection(c.carrier, 1, 1, "100");
        for (const char *port : {c.ethernet, c.wlan}) {
            platform.values[std::string("InternetGatewayDevice.") + port + "VLAN"] = "10/100";
            platform.values[std::string("InternetGatewayDevice.") + port + "Mode"] = "1";
        }
        platform.values[std::string("InternetGatewayDevice.") + c.ethernet + "MACAddressNum"] = "3";
        start(c.carrier);
        std::string limit = c.carrier == OPTYPE_CM ? "mac_limit 2 3, " : "";
        EXPECT_EQ(driven(), limit + "bind 2 10 100, bind 5 10 100") << c.carrier;
        EXPECT_EQ(platform.values[LAN + "4.MACAddress"], "02:00:00:00:00:01");
        EXPECT_FALSE(platform.values.contains(LAN + "5.MACAddress"));
        EXPECT_EQ(fake::logged("Error: Unknow operator 7.\n", 3), c.carrier == 7);
    }
    platform.port_num = 4000000000U; // no such device
    restart(OPTYPE_CT);
    EXPECT_EQ(g_lan_inf_num, 24U);
}

TEST_F(PortsTest, OnlyChangesRebindAPort)
{
    put_connection(OPTYPE_CT, 1, 1, "100");
    put_connection(OPTYPE_CT, 2, 1, "200");
    restart(OPTYPE_CT);
    LanEthIntfVlanBind config{"10/100,20/200,30/999,0/100", "1", "8"};
    ovani_port_vlan_bind(3, &config);
    EXPECT_EQ(driven(), "mac_limit 3 8, bind 3 10 100, bind 3 20 200");
    EXPECT_TRUE(fake::logged("i=2 wan_vlan(999) find no wan!\n"));
    EXPECT_TRUE(fake::logged("i=3 no cfg!\n"));
    ovani_port_vlan_bind(3, &config);
    EXPECT_EQ(driven(), "mac_limit 3 8");
    EXPECT_TRUE(fake::logged("Param no change!\n"));
    ovani_rebind_port_vlan(); // compares each port with itself: only limits are set again
    EXPECT_EQ(driven(), "mac_limit 3 8");

    LanEthIntfVlanBind off{"", "0", ""};
    ovani_port_vlan_bind(3, &off);
    EXPECT_EQ(driven(), "unbind 3 10 100, unbind 3 20 200");
    LanEthIntfVlanBind none{"null", "1", "-1"}; // no limit, as the driver's type has it
    ovani_port_vlan_bind(3, &none);
    for (int port : {0, -1, 25, 32, 33, 1000}) {
        EXPECT_EQ(ovani_port_vlan_bind(port, &config), 0);
        EXPECT_EQ(ovani_port_vlan_unbind(port), port >= 1 && port <= 32 ? 0 : -1);
    }
    EXPECT_EQ(ovani_port_vlan_bind(1, nullptr), 0);
    EXPECT_EQ(driven(), "mac_limit 3 4294967295");
    EXPECT_TRUE(fake::logged("Param is NULL!\n", 3));
}

TEST_F(PortsTest, WorkModesAreMappedInTwoWays)
{
    struct Case {
        std::string rate, duplex, from_text, from_bus;
    } cases[] = {{"Auto", "Auto", "1 1000 1", "1 0 0"}, {"1000", "Half", "0 1000 1", "0 0 1"},
                 {"100", "Half", "0 100 1", "0 100 1"}, {"2500", "Full", "0 2500 2", "0 2500 2"},
                 {"1250", "Full", "0 0 2", "0 0 2"},    {"10", "Sideways", "1 10 0", "0 0 0"}};
    for (const Case &c : cases) {
        restart(OPTYPE_CT);
        LanEthIntfWorkMode mode{};
        copy_text(mode.MaxBitRate, c.rate.c_str());
        EXPECT_EQ(ovani_lan_eth_workmode_set(2, &mode), -1); // half a configuration
        EXPECT_TRUE(fake::logged("lan_eth_id=2 has no cfg!\n", 3));
        copy_text(mode.DuplexMode, c.duplex.c_str());
        EXPECT_EQ(ovani_lan_eth_workmode_set(2, &mode), 0);
        EXPECT_EQ(ovani_lan_eth_workmode_set(2, &mode), 0);
        EXPECT_EQ(driven(), "work_mode 2 " + c.from_text);

        restart(OPTYPE_CT);
        for (int times = 0; times < 2; ++times) { // the second finds no change
            EXPECT_EQ(configure(LAN + "2.", "MaxBitRate=" + c.rate + " DuplexMode=" + c.duplex), 0);
        }
        EXPECT_EQ(driven(), "work_mode 2 " + c.from_bus);
    }
    LanEthIntfWorkMode mode{"100", "Full"};
    EXPECT_EQ(ovani_lan_eth_workmode_set(25, &mode), -1);
    EXPECT_EQ(ovani_lan_eth_workmode_set(-3, &mode), -1);
}

TEST_F(PortsTest, StartUpAppliesModesAndPublishesLinks)
{
    platform.links_up = {2};
    put(LAN + "1.", "DuplexMode=Full MaxBitRate=100");
    restart(OPTYPE_CT);
    EXPECT_EQ(ovani_port_mgr_init(), R_OK);
    EXPECT_EQ(driven(), "work_mode 1 0 100 2");
    EXPECT_EQ(platform.values[LAN + "1.Status"], "NoLink");
    EXPECT_EQ(platform.values[LAN + "2.Status"], "Up");
    EXPECT_EQ(g_port_link_status[2].link_up, 1U);
    EXPECT_TRUE(fake::logged("get Lan2 DuplexMode fail!\n", 3));
}

TEST_F(PortsTest, PathsNamePorts)
{
    struct Case {
        std::string url;
        const char *calls;
    } cases[] = {
        {LAN + "2.", "port_state 2 1, mac_limit 2 5"},
        {INTERFACES + "LANEthernetInterfaceConfig.3.", "port_state 3 1, mac_limit 3 5"},
        {INTERFACES + "WLANConfiguration.2.", "port_state 2 1, mac_limit 6 5"},
        {"InternetGatewayDevice.LANDevice.1.WLANConfiguration.5.", "mac_limit 9 5"}, // above Ethernet
        {INTERFACES + "WLANConfiguration.21.", "port_state 21 1"},                   // 25 has no binding
        {INTERFACES + "LANEthernetInterfaceConfig.25.", ""},
        {INTERFACES, ""},
        {LAN + "0.", ""},
        {"InternetGatewayDevice.LANDevice.1.", ""},
        {"1.2.3.4.5.6.7.8.9.10.11.", "port_state 2 1, mac_limit 2 5"},
        {"", ""}};
    for (const Case &c : cases) {
        restart(OPTYPE_CM);
        EXPECT_EQ(configure(c.url, "Enable=1 X_CMCC_MACAddressNum=5"), 0);
        EXPECT_EQ(driven(), c.calls) << c.url;
    }
    LanEthInterfaceParam params{};
    EXPECT_EQ(ovani_set_lanport_cfg_process(nullptr, &params), 0);
    EXPECT_EQ(ovani_set_eth_cfg_process(nullptr, &params), 0);
    EXPECT_EQ(ovani_set_eth_cfg_process((LAN + "1.").c_str(), nullptr), 0);
}

TEST_F(PortsTest, OperatorsTakeWhatTheyKnow)
{
    const std::pair<int, const char *> cases[] = {
        {OPTYPE_CM, "port_state 1 0, work_mode 1 0 100 2, mac_limit 1 4, bind 1 10 100"},
        {OPTYPE_CT, "work_mode 1 0 100 2, bind 1 11 100"},
        {OPTYPE_CU, "work_mode 1 0 100 2, bind 1 12 100"},
        {9, "work_mode 1 0 100 2, bind 1 11 100"}};
    for (const auto &[carrier, calls] : cases) {
        platform.objects.clear();
        platform.values.clear();
        put_connection(carrier, 1, 1, "100");
        restart(carrier);
        EXPECT_EQ(configure(LAN + "1.", "MaxBitRate=100 DuplexMode=Full Enable=0 X_CMCC_MACAddressNum=4 "
                                        "X_CMCC_Mode=1 X_CMCC_VLAN=10/100 X_CT-COM_Mode=1 "
                                        "X_CT-COM_VLAN=11/100 X_CU_Mode=1 X_CU_VLAN=12/100"),
                  0);
        EXPECT_EQ(driven(), calls) << carrier;
    }
    LanEthInterfaceParam param{};
    EXPECT_TRUE(system_parse_ovani_config_cm("MACAddress", "lands in Status", &param));
    EXPECT_STREQ(param.Status, "lands in Status");
    EXPECT_STREQ(param.MACAddress, "");
    EXPECT_TRUE(system_parse_ovani_config_cm("Enable", std::string(300, 'x').c_str(), &param));
    EXPECT_EQ(strlen(param.Enable), 255U);
    EXPECT_TRUE(system_parse_ovani_config_cm(nullptr, nullptr, nullptr));

    restart(OPTYPE_CM);
    configure(LAN + "1.", "Enable=yes"); // neither 1 nor 0
    EXPECT_EQ(driven(), "port_state 0 0");
}

TEST_F(PortsTest, RequestsThatAreNoneChangeNothing)
{
    restart(OPTYPE_CM);
    for (const char *method : {"ovani_devfuc_port_cfg", "set_lanhost_config"}) {
        EXPECT_EQ(call_method(method, nullptr), UBUS_STATUS_INVALID_ARGUMENT);
        blob_buf message{};
        blob_buf_init(&message, 0);
        blobmsg_add_string(&message, "url", "x.1.y.1.");
        EXPECT_EQ(call_method(method, message.head), UBUS_STATUS_INVALID_ARGUMENT);
        blobmsg_add_string(&message, "data", "not a table");
        EXPECT_EQ(call_method(method, message.head), UBUS_STATUS_INVALID_ARGUMENT);
        blob_buf_free(&message);
        for (size_t count : {999U, 1000U}) {
            Pairs pairs(count, {"Enable", "1"});
            EXPECT_EQ(call_method(method, "nowhere", pairs), count < 1000 ? 0 : -1);
        }
        EXPECT_TRUE(fake::logged("tableNum(1000) error!\n", 3));
        EXPECT_EQ(call_method(method, (LAN + "1.").c_str(), Pairs{}), 0);
    }
    EXPECT_EQ(driven(), "");
}
