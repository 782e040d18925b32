#include "tests/unit/daemon_test.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ovani/ovani_br_mgr.h"
#include "ovani/ovani_memory.h"
#include "ovani/ovani_presence.h"
#include "ovani/ovani_ubus.h"

static void empty_tables()
{
    while (g_host_table_ipv4.top != nullptr) {
        ovani_host_node_delete(&g_host_table_ipv4, g_host_table_ipv4.top);
    }
    while (g_mac_table.top != nullptr) {
        ovani_mac_node_delete_top(&g_mac_table);
    }
}

DaemonTest::DaemonTest()
{
    fake::reset();
    std::string hosts = OVANI_HOSTS_NODE_PATH;
    platform.values[hosts + "HostNumberOfEntries"] = "0";
    platform.values[hosts + "LANHostMaxNumber"] = "254";
    restart(OPTYPE_CT);
}

DaemonTest::~DaemonTest()
{
    empty_tables();
    EXPECT_EQ(MemAllocCount[MTYPE_HOST_NODE], 0);
    EXPECT_EQ(MemAllocCount[MTYPE_MAC_NODE], 0);
}

void DaemonTest::restart(int carrier)
{
    empty_tables();
    platform.carrier = carrier;
    ovani_operator_type_init();
    ovani_mac_table_init();
    ovani_presence_init();
    s_hostnumberofentries = 0;
    s_hostmaxnumber = 0;
    g_slaveapnum = 0;
    g_filtermode = 0;
    ovani_hostmgr_init();
    platform.log.clear();
    platform.calls.clear();
}

void DaemonTest::fail(const std::string &beginning, int code)
{
    platform.fail = [=](const std::string &call) { return call.starts_with(beginning) ? code : 0; };
}

std::string DaemonTest::stored(int instance, const std::string &parameters) const
{
    std::vector<std::string> values;
    std::istringstream words(parameters);
    for (std::string word; words >> word;) {
        auto found = platform.values.find(host_path(instance) + word);
        values.push_back(found == platform.values.end() ? "(none)" : found->second);
    }
    return fake::joined(values);
}

ovani_mac_event mac_event(const Mac &mac, const char *interface, uint8_t action, const char *bridge)
{
    ovani_mac_event event{};
    event.action = action;
    std::ranges::copy(mac, event.mac);
    copy_text(event.eth_num, interface);
    copy_text(event.brname, bridge);
    return event;
}

ovani_arp_event arp_event(const Mac &mac, uint32_t ip, uint8_t action)
{
    ovani_arp_event event{};
    event.action = action;
    event.ipv4 = ip;
    std::ranges::copy(mac, event.mac);
    copy_text(event.brname, "br0");
    return event;
}

void DaemonTest::learn(const Mac &mac, const char *interface)
{
    ovani_mac_event event = mac_event(mac, interface, 1);
    ovani_mac_event_process(&event);
}

void DaemonTest::forget(const Mac &mac)
{
    ovani_mac_event event = mac_event(mac, "eth1", 0);
    ovani_mac_event_process(&event);
}

int DaemonTest::arp(const Mac &mac, uint32_t ip)
{
    ovani_arp_event event = arp_event(mac, ip, 1);
    return ovani_arp_event_add(&event);
}

void DaemonTest::dhcp(std::string text)
{
    ovani_dhcpd_user_event_process(text.data());
}

Pairs pairs(const std::string &text)
{
    Pairs result;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        size_t sign = word.find('=');
        result.emplace_back(word.substr(0, sign), word.substr(sign + 1));
    }
    return result;
}

int call_method(const char *method, blob_attr *message)
{
    if (fake::platform().object == nullptr) {
        ovani_ubus_init_main(nullptr);
    }
    const ubus_object &object = *fake::platform().object;
    for (int i = 0; i < object.n_methods; ++i) {
        if (strcmp(object.methods[i].name, method) == 0) {
            return object.methods[i].handler(nullptr, fake::platform().object, nullptr, method, message);
        }
    }
    ADD_FAILURE() << "no method " << method;
    return -1;
}

int call_method(const char *method, const char *url, const Pairs &pairs)
{
    blob_buf message{};
    blob_buf_init(&message, 0);
    blobmsg_add_string(&message, "url", url);
    void *table = blobmsg_open_table(&message, "data");
    for (const auto &[name, value] : pairs) {
        blobmsg_add_string(&message, name.c_str(), value.c_str());
    }
    blobmsg_close_table(&message, table);
    int status = call_method(method, message.head);
    blob_buf_free(&message);
    return status;
}

static void run_in_a_private_root(const std::function<void()> &body)
{
    unshare(CLONE_NEWNS);
    mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    mount("none", "/mnt", "tmpfs", 0, nullptr);
    for (std::string part : {"/bin", "/usr", "/lib", "/lib64", "/etc", "/dev"}) {
        mkdir(("/mnt" + part).c_str(), 0755);
        mount(part.c_str(), ("/mnt" + part).c_str(), nullptr, MS_BIND | MS_REC, nullptr);
    }
    mkdir("/mnt/qvconf", 0755);
    mkdir("/mnt/var", 0755);
    ASSERT_EQ(chroot("/mnt"), 0);
    body();
    _exit(testing::Test::HasFailure() ? 1 : 0);
}

void in_a_private_root(const std::function<void()> &body)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may have a root directory of its own";
    }
    EXPECT_EXIT(run_in_a_private_root(body), testing::ExitedWithCode(0), "");
}

CommandPath::CommandPath() : old_path_(getenv("PATH"))
{
    char name[] = "/tmp/ovani-test-XXXXXX";
    directory_ = mkdtemp(name);
    setenv("PATH", (directory_ + ":" + old_path_).c_str(), 1);
}

CommandPath::~CommandPath()
{
    setenv("PATH", old_path_.c_str(), 1);
    std::filesystem::remove_all(directory_);
}

void CommandPath::answer(const std::string &command, const std::string &script)
{
    std::string path = directory_ + "/" + command;
    std::ofstream(path) << "#!/bin/sh\n" << script << "\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
}

std::string CommandPath::trace() const
{
    std::ifstream file(trace_file());
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}
