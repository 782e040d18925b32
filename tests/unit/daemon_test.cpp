#include "tests/unit/daemon_test.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ovani/ovani_event_arp.h"
#include "ovani/ovani_event_dhcp.h"
#include "ovani/ovani_event_mac.h"
#include "ovani/ovani_event_port.h"
#include "ovani/ovani_event_wifi.h"
#include "ovani/ovani_memory.h"
#include "ovani/ovani_operator.h"
#include "ovani/ovani_start.h"
#include "ovani/ovani_ubus.h"

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
    ovani_host_table_init();
    ovani_mac_table_init();
    EXPECT_EQ(MemAllocCount[MTYPE_HOST_NODE], 0);
    EXPECT_EQ(MemAllocCount[MTYPE_MAC_NODE], 0);
}

void DaemonTest::start(int carrier)
{
    platform.carrier = carrier;
    ovani_start(0, nullptr, [](void *(*)(void *)) { return 0; });
}

void DaemonTest::restart(int carrier)
{
    start(carrier);
    platform.log.clear();
    platform.calls.clear();
    platform.sent.clear();
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

std::string DaemonTest::told()
{
    std::vector<std::string> all;
    for (const fake::Sent &sent : std::exchange(platform.sent, {})) {
        if (sent.name == "lanhost_param_change") {
            all.push_back("changed " + std::to_string(sent.attribute("objnum")[3]));
        } else {
            std::string bytes = sent.attribute("lanhost_struct");
            EXPECT_EQ(bytes.size(), 488U);
            ovani_device_status_event visit{};
            memcpy(&visit, bytes.data(), sizeof visit);
            all.push_back(std::string(visit.status) + " " + visit.deviceIP + " " +
                          std::to_string(visit.port));
        }
    }
    return fake::joined(all, ", ");
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

void DaemonTest::wifi(const Mac &mac, uint8_t ssidno, uint8_t action)
{
    ovani_wifi_event event{.event_id = 0, .mac = {}, .ssidno = ssidno, .action = action};
    std::ranges::copy(mac, event.mac);
    ovani_wifi_user_event_process(&event);
}

void DaemonTest::link(int port, uint8_t status)
{
    ovani_port_status_event event{.event_id = 0, .port = static_cast<uint8_t>(port), .status = status};
    ovani_port_status_event_process(&event);
}

std::string lease(const std::string &name, const std::string &ip, const std::string &action,
                  const std::string &mac, const std::string &option60, const std::string &type)
{
    return "x#" + action + "#" + ip + "#DHCP#2026-01-02 03:04:05#3600#" + name + "#" + type + "#" + option60 +
           "#" + mac;
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
