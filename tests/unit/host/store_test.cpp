#include "platform/host/store.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/zk_sys_mgr.h"
#include "platform/zkcfgif.h"

namespace {

using testing::ElementsAre;
using testing::Pair;

const std::string HOSTS = "InternetGatewayDevice.LANDevice.1.Hosts.";
const std::string HOST = HOSTS + "Host.";
const std::string MESH = "InternetGatewayDevice.LANDevice.1.WLANMeshConfiguration.";
const std::string DEVICE = "InternetGatewayDevice.DeviceInfo.";

using Values = std::vector<std::pair<std::string, std::string>>; // full path, value

std::string get(const std::string &path)
{
    std::array<char, 256> value{};
    int result = zkapi_singlevalue_get(path.c_str(), value.data(), DEVFUNC_NOCALL, 5000);
    return result == 0 ? value.data() : std::string("error: ") + store_strerror(result);
}

int set(const std::string &path, const std::string &value, int wait = 5000)
{
    return zkapi_singlevalue_set(path.c_str(), value.c_str(), DEVFUNC_NOCALL, wait);
}

int add(const std::string &table)
{
    int instance = -1;
    int result = zkapi_obj_add(table.c_str(), &instance, DEVFUNC_NOCALL_NOINFORM, ALL_BLOCK_LOCK);
    return result == 0 ? instance : -result;
}

int set_all(const Values &values, int wait = 5000)
{
    void *session = nullptr;
    EXPECT_EQ(zkapi_multinode_sessioncreate(&session, OBJ_SET_NO_OP, wait), 0);
    for (const auto &[path, value] : values)
        zkapi_multinode_sessionprepare(session, path.c_str(), const_cast<char *>(value.c_str()));
    int result = zkapi_multinode_sessionprocess(session);
    EXPECT_EQ(zkapi_multinode_sessiondestroy(session), 0);
    return result;
}

int exit_code(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Another user of the file, who knows nothing of the store's ways.
class Stranger {
public:
    explicit Stranger(const std::string &file) { EXPECT_EQ(sqlite3_open(file.c_str(), &db_), SQLITE_OK); }
    Stranger(const Stranger &) = delete;
    Stranger &operator=(const Stranger &) = delete;
    ~Stranger() { sqlite3_close(db_); }

    void run(const std::string &sql)
    {
        ASSERT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db_);
    }

private:
    sqlite3 *db_ = nullptr;
};

class Store : public testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = testing::TempDir() + "ovani-store-XXXXXX";
        directory_ = mkdtemp(pattern.data());
        use(directory_ + "/made/on/demand/store.db");
    }

    void TearDown() override
    {
        store_close();
        std::filesystem::remove_all(directory_);
    }

    void use(const std::string &file)
    {
        store_close();
        file_ = file;
        setenv("OVANI_STORE", file.c_str(), 1);
    }

    std::string directory_;
    std::string file_;
};

TEST_F(Store, BeginsWithTheDefaults)
{
    EXPECT_EQ(get(HOSTS + "HostNumberOfEntries"), "0");
    EXPECT_EQ(get(HOSTS + "LANHostMaxNumber"), "254");

    zk_carr_type carrier = CARR_MAX;
    devinfo info{};
    std::array<char, 256> text{"x"};
    EXPECT_EQ(zk_sys_mgr_get_carrier(&carrier), 0);
    EXPECT_EQ(carrier, CARR_CT);
    EXPECT_EQ(zk_sys_mgr_get_devinfo(&info), 0);
    EXPECT_EQ(info.port_num, 4U);
    EXPECT_EQ(zk_sys_mgr_get_areacode(text.data()), 0);
    EXPECT_STREQ(text.data(), "");
    EXPECT_EQ(zk_sys_mgr_get_brmac(text.data()), 0);
    EXPECT_EQ(std::string(text.data()).size(), 17U);
}

TEST_F(Store, DeviceFactsThatMakeNoSenseAreRefused)
{
    for (const char *carrier_code : {"4", "9", "x", "-", ""}) {
        ASSERT_EQ(set(DEVICE + "X_QV_Carrier", carrier_code), 0);
        zk_carr_type carrier = CARR_CU;
        EXPECT_NE(zk_sys_mgr_get_carrier(&carrier), 0) << carrier_code;
        EXPECT_EQ(carrier, CARR_CU);
    }
}

TEST_F(Store, SaysWhatIsWrongWithARequest)
{
    ASSERT_EQ(add(HOST), 1);
    const struct {
        std::string path;
        int reading;
        int writing; // of 128 bytes
    } cases[] = {
        {HOST + "1.Layer2Interface", STORE_OK, STORE_TOO_LONG},
        {HOST + "1.Nonsense", STORE_UNKNOWN_PATH, STORE_UNKNOWN_PATH},
        {HOST + "1.hostname", STORE_UNKNOWN_PATH, STORE_UNKNOWN_PATH},
        {HOST + "1", STORE_UNKNOWN_PATH, STORE_UNKNOWN_PATH},
        {HOST + "01.HostName", STORE_UNKNOWN_PATH, STORE_UNKNOWN_PATH},
        {HOST + "2.HostName", STORE_NO_OBJECT, STORE_TOO_LONG},
        {HOSTS + "HostNumberOfEntries", STORE_OK, STORE_READ_ONLY},
        {"HostName", STORE_UNKNOWN_PATH, STORE_UNKNOWN_PATH},
        {"", STORE_UNKNOWN_PATH, STORE_UNKNOWN_PATH},
        {std::string(100'000, '.'), STORE_UNKNOWN_PATH, STORE_UNKNOWN_PATH},
    };
    for (const auto &c : cases) {
        std::array<char, 256> value{"untouched"};
        int read = zkapi_singlevalue_get(c.path.c_str(), value.data(), DEVFUNC_NOCALL, 5000);
        EXPECT_EQ(read, c.reading) << c.path;
        EXPECT_EQ(std::string(value.data()) == "untouched", read != 0) << c.path;
        EXPECT_EQ(set(c.path, std::string(128, 'x')), c.writing) << c.path;
    }
    EXPECT_EQ(add(HOST + "1."), -STORE_UNKNOWN_PATH);
    EXPECT_EQ(add(HOSTS), -STORE_UNKNOWN_PATH);
    EXPECT_EQ(zkapi_obj_del(HOST.c_str(), 2, DEVFUNC_NOCALL, 5000), STORE_NO_OBJECT);
    EXPECT_EQ(zkapi_obj_del(HOST.c_str(), -1, DEVFUNC_NOCALL, 5000), STORE_NO_OBJECT);
    EXPECT_EQ(zkapi_obj_checkexist((HOST + "1.").c_str(), 5000), 1);
    for (const std::string &gone : {HOST + "2.", HOST + "1", HOST, std::string("nonsense")})
        EXPECT_EQ(zkapi_obj_checkexist(gone.c_str(), 5000), 0) << gone;

    void *session = nullptr;
    for (int op : {OBJ_ADD, OBJ_DEL})
        EXPECT_NE(zkapi_multinode_sessioncreate(&session, static_cast<OBJ_OP>(op), 5000), 0);
    EXPECT_NE(zkapi_multinode_sessionprocess(nullptr), 0);
    EXPECT_NE(zkapi_singlevalue_get(nullptr, nullptr, DEVFUNC_NOCALL, 5000), 0);
    EXPECT_NE(zkcfg_setsingleparamval(HOSTS.c_str(), "LANHostMaxNumber", nullptr, 5000), 0);
}

TEST_F(Store, InstancesTakeTheLowestFreeNumberAndAreCounted)
{
    const std::string repeater = MESH + "Controller.Repeater.";
    for (int expected : {1, 2, 3})
        EXPECT_EQ(add(HOST), expected);
    EXPECT_EQ(add(repeater), 1); // a table of its own
    ASSERT_EQ(set(HOST + "2.HostName", "before"), 0);
    EXPECT_EQ(get(HOSTS + "HostNumberOfEntries"), "3");

    EXPECT_EQ(zkapi_obj_del(HOST.c_str(), 2, DEVFUNC_NOCALL_NOFLASH, ALL_BLOCK_LOCK), 0);
    EXPECT_EQ(get(HOSTS + "HostNumberOfEntries"), "2");
    EXPECT_EQ(get(HOST + "2.HostName"), "error: no such object");
    EXPECT_EQ(add(HOST), 2);
    EXPECT_EQ(get(HOST + "2.HostName"), ""); // from the template, not from its predecessor
    EXPECT_EQ(add(HOST), 4);

    ObjectRef table = data_model_find_table(data_model(), HOST);
    std::vector<int> numbers;
    EXPECT_EQ(store_instances(table, numbers, 5000), STORE_OK);
    EXPECT_THAT(numbers, ElementsAre(1, 2, 3, 4));
}

TEST_F(Store, BatchIsWrittenWhollyOrNotAtAll)
{
    ASSERT_EQ(add(HOST), 1);
    ASSERT_EQ(add(HOST), 2);
    // What cannot be prepared is left out.
    EXPECT_EQ(set_all({{HOST + "1.HostName", "a"}, {HOST + "1.Nonsense", "b"}, {HOST + "2.HostName", "c"}}),
              0);
    EXPECT_EQ(get(HOST + "1.HostName") + get(HOST + "2.HostName"), "ac");
    // What fails later fails all.
    EXPECT_EQ(set_all({{HOST + "1.HostName", "x"}, {HOST + "2.Active", std::string(99, 'x')}}),
              STORE_TOO_LONG);
    EXPECT_EQ(set_all({{HOST + "1.HostName", "x"}, {HOST + "3.HostName", "x"}}), STORE_NO_OBJECT);
    EXPECT_EQ(get(HOST + "1.HostName"), "a");
    EXPECT_EQ(set_all({}), 0);

    void *session = nullptr;
    std::array<char, 256> value{"early"};
    ASSERT_EQ(zkapi_multinode_sessioncreate(&session, OBJ_SET, 5000), 0);
    EXPECT_EQ(zkapi_multinode_sessionprepare(session, (HOSTS + "HostNumberOfEntries").c_str(), value.data()),
              STORE_READ_ONLY);
    EXPECT_EQ(zkapi_multinode_sessionprepare(session, (HOST + "1.HostName").c_str(), value.data()), 0);
    value = {"late"};
    EXPECT_EQ(zkapi_multinode_sessionprocess(session), 0);
    zkapi_multinode_sessiondestroy(session);
    EXPECT_EQ(get(HOST + "1.HostName"), "late");
}

TEST_F(Store, BatchIsReadWhollyOrNotAtAll)
{
    ASSERT_EQ(add(HOST), 1);
    ASSERT_EQ(set(HOST + "1.HostName", std::string(127, 'n')), 0);
    for (bool complete : {true, false}) {
        void *session = nullptr;
        std::array<char, 256> host_name{"-"};
        std::array<char, 256> count{"-"};
        std::array<char, 256> missing{"-"};
        ASSERT_EQ(zkapi_multinode_sessioncreate(&session, OBJ_GET, 5000), 0);
        zkapi_multinode_sessionprepare(session, (HOST + "1.HostName").c_str(), host_name.data());
        zkapi_multinode_sessionprepare(session, (HOSTS + "HostNumberOfEntries").c_str(), count.data());
        if (!complete)
            zkapi_multinode_sessionprepare(session, (HOST + "2.HostName").c_str(), missing.data());
        EXPECT_EQ(zkapi_multinode_sessionprocess(session), complete ? STORE_OK : STORE_NO_OBJECT);
        zkapi_multinode_sessiondestroy(session);
        EXPECT_EQ(host_name.data(), complete ? std::string(127, 'n') : "-");
        EXPECT_STREQ(count.data(), complete ? "1" : "-");
    }
}

TEST_F(Store, ListsSubtrees)
{
    for (int i = 0; i < 11; i++)
        add(HOST);
    ASSERT_EQ(set(HOST + "10.HostName", "ten"), 0);

    StoreListing listing;
    EXPECT_EQ(store_list(HOST + "10.HostName", listing, 5000), STORE_OK);
    EXPECT_THAT(listing, ElementsAre(Pair(HOST + "10.HostName", "ten")));
    EXPECT_EQ(store_list(MESH + "Controller.", listing, 5000), STORE_OK); // nothing there yet
    EXPECT_TRUE(listing.empty());
    for (const std::string &wrong : {HOST + "x", std::string("InternetGatewayDevice"), HOST + "1.HostName."})
        EXPECT_EQ(store_list(wrong, listing, 5000), STORE_UNKNOWN_PATH) << wrong;
    EXPECT_EQ(store_list(HOST + "12.", listing, 5000), STORE_NO_OBJECT);
    EXPECT_EQ(store_list(HOST + "12.HostName", listing, 5000), STORE_NO_OBJECT);

    EXPECT_EQ(store_list("", listing, 5000), STORE_OK);
    EXPECT_EQ(listing.front().first, DEVICE + "X_QV_Carrier");
    EXPECT_EQ(listing.back(), std::pair(MESH + "MeshMode", std::string("Disabled")));
    std::vector<std::string> names;
    for (const auto &[path, value] : listing) {
        if (path.ends_with(".HostName"))
            names.push_back(path);
    }
    ASSERT_EQ(names.size(), 11U);
    EXPECT_EQ(names[1], HOST + "2.HostName");
    EXPECT_EQ(names[10], HOST + "11.HostName");
}

TEST_F(Store, ReadsInstanceNumbersFromAPath)
{
    const struct {
        const char *path;
        int depth;
        int last;
    } cases[] = {
        {"InternetGatewayDevice.LANDevice.1.Hosts.Host.7.", 2, 7},
        {"A.12", 1, 12},
        {"1.2.3.4.5.6.7.8.9.10.", 8, 8},
        {"A1.2B.99999999999.-3.", 0, 0},
        {"", 0, 0},
        {nullptr, 0, 0},
    };
    for (const auto &c : cases) {
        InstIdStack ids{};
        zkapi_getobjidbyobjpath(c.path, &ids);
        EXPECT_EQ(ids.currentDepth, c.depth);
        if (c.depth > 0) {
            EXPECT_EQ(ids.instance[c.depth - 1], c.last);
        }
    }
}

TEST_F(Store, SeesAtOnceWhatOthersWrote)
{
    ASSERT_EQ(add(HOST), 1);
    Stranger stranger(file_);
    for (int i = 0; i < 200; i++) {
        std::string value = std::to_string(i);
        stranger.run("UPDATE \"InternetGatewayDevice.LANDevice.1.Hosts.Host.{i}.\" SET HostName = '" + value +
                     "'");
        ASSERT_EQ(get(HOST + "1.HostName"), value);
        ASSERT_EQ(set(HOST + "1.HostName", "own"), 0); // and own writes do not hide theirs
        ASSERT_EQ(get(HOST + "1.HostName"), "own");
        stranger.run("UPDATE \"InternetGatewayDevice.LANDevice.1.Hosts.Host.{i}.\" SET DeviceType = '" +
                     value + "'");
        ASSERT_EQ(set(HOST + "1.HostName", "own again"), 0);
        ASSERT_EQ(get(HOST + "1.DeviceType"), value);
    }
}

TEST_F(Store, WaitsForTheLockAsLongAsItIsTold)
{
    ASSERT_EQ(add(HOST), 1);
    Stranger stranger(file_);
    stranger.run("BEGIN IMMEDIATE");
    EXPECT_EQ(get(HOST + "1.Active"), "");                          // reading does not wait
    EXPECT_EQ(set(HOST + "1.Active", "", NO_BLOCK_LOCK), STORE_OK); // nor does writing what is there
    for (int wait : std::initializer_list<int>{NO_BLOCK_LOCK, NO_NEED_LOCK, 30})
        EXPECT_EQ(set(HOST + "1.Active", "1", wait), STORE_LOCKED);
    EXPECT_EQ(zkapi_obj_del(HOST.c_str(), 1, DEVFUNC_NOCALL, 30), STORE_LOCKED);

    std::atomic<bool> released = false;
    std::vector<std::thread> writers;
    for (int wait : std::initializer_list<int>{ALL_BLOCK_LOCK, 60'000}) {
        writers.emplace_back([wait, &released] {
            EXPECT_EQ(set(HOST + "1.Port", std::to_string(wait), wait), STORE_OK);
            EXPECT_TRUE(released);
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    released = true;
    stranger.run("COMMIT");
    for (std::thread &writer : writers)
        writer.join();
}

TEST_F(Store, ManyProcessesAndThreadsBeginAtOnce)
{
    constexpr int PROCESSES = 3;
    constexpr int ADDS = 15;
    std::vector<pid_t> children;
    for (int i = 0; i < PROCESSES; i++) {
        pid_t child = fork();
        if (child != 0) {
            children.push_back(child);
            continue;
        }
        std::atomic<int> failures = 0;
        auto add_some = [&failures] {
            for (int k = 0; k < ADDS; k++) {
                int instance = add(HOST);
                std::string path = HOST + std::to_string(instance) + ".HostName";
                std::string value = "n" + std::to_string(instance);
                if (instance < 1 || set(path, value, ALL_BLOCK_LOCK) != 0 || get(path) != value)
                    failures++;
            }
        };
        std::thread other(add_some);
        add_some();
        other.join();
        store_close();
        _exit(failures);
    }
    for (pid_t child : children)
        EXPECT_EQ(exit_code(child), 0);
    EXPECT_EQ(get(HOSTS + "HostNumberOfEntries"), std::to_string(PROCESSES * 2 * ADDS));
    EXPECT_EQ(get(HOST + "1.HostName"), "n1");
}

TEST_F(Store, AKilledWriterLeavesWholeBatches)
{
    ASSERT_EQ(add(HOST), 1);
    ASSERT_EQ(add(HOST), 2);
    const std::vector<std::string> paths = {HOST + "1.HostName", HOST + "2.AckTime", MESH + "MeshMode"};
    for (int round = 0; round < 15; round++) {
        store_close();
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        pid_t child = fork();
        if (child == 0) {
            for (int i = 0;; i++) {
                std::string value = std::to_string(round) + "." + std::to_string(i);
                if (set_all({{paths[0], value}, {paths[1], value}, {paths[2], value}}) != 0)
                    _exit(1);
                if (i == 0 && write(ends[1], "", 1) != 1)
                    _exit(2);
            }
        }
        char begun = 0;
        EXPECT_EQ(read(ends[0], &begun, 1), 1);
        std::this_thread::sleep_for(std::chrono::microseconds(300 * round));
        kill(child, SIGKILL);
        EXPECT_EQ(exit_code(child), -SIGKILL);
        close(ends[0]);
        close(ends[1]);
        const std::string value = get(paths[0]);
        EXPECT_EQ(value.substr(0, value.find('.')), std::to_string(round));
        EXPECT_EQ(get(paths[1]), value);
        EXPECT_EQ(get(paths[2]), value);
        EXPECT_EQ(set(paths[0], "free again", NO_BLOCK_LOCK), 0);
    }
}

// The file may grow by so much and no further: every write in turn is the one that fails.
TEST_F(Store, AFullDiskChangesNothing)
{
    ASSERT_EQ(add(HOST), 1);
    ASSERT_EQ(add(HOST), 2);
    store_close();
    pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        int refused = 0;
        int wrong = 0;
        for (unsigned int room = 0; room < 100'000; room += 1000) {
            std::string before = get(HOST + "1.HostName");
            std::string value = "room " + std::to_string(room);
            rlimit limit{.rlim_cur = room, .rlim_max = RLIM_INFINITY};
            setrlimit(RLIMIT_FSIZE, &limit);
            int result = set_all({{HOST + "1.HostName", value}, {HOST + "2.HostName", value}});
            limit.rlim_cur = RLIM_INFINITY;
            setrlimit(RLIMIT_FSIZE, &limit);
            refused += result == STORE_FAILED ? 1 : 0;
            std::string expected = result == 0 ? value : before;
            if (get(HOST + "1.HostName") != expected || get(HOST + "2.HostName") != expected)
                wrong++;
        }
        _exit(wrong > 0 ? 1 : refused == 0 ? 2 : set(HOST + "1.HostName", "room again"));
    }
    EXPECT_EQ(exit_code(child), 0);
    EXPECT_EQ(get(HOST + "1.HostName"), "room again");
}

TEST_F(Store, AFileThatIsNoStoreIsAnError)
{
    const std::string plain = directory_ + "/plain";
    std::ofstream(plain) << std::string(5000, '!');
    const struct {
        std::string file;
        int result;
    } cases[] = {
        {plain, STORE_DAMAGED},
        {plain + "/below/a/file", STORE_FAILED},
        {directory_, STORE_FAILED},
    };
    for (const auto &c : cases) {
        use(c.file);
        EXPECT_EQ(set(HOSTS + "LANHostMaxNumber", "1"), c.result) << c.file;
        EXPECT_EQ(zkapi_obj_checkexist((HOST + "1.").c_str(), 5000), -1); // not: it is gone
        StoreListing listing;
        EXPECT_EQ(store_list("", listing, 5000), c.result);
    }
    use(directory_ + "/good.db"); // a failure does not stick
    EXPECT_EQ(set(HOSTS + "LANHostMaxNumber", "1"), STORE_OK);
}

TEST_F(Store, DamageInTheFileIsAnErrorOrHarmless)
{
    for (int i = 0; i < 30; i++)
        ASSERT_EQ(add(HOST), i + 1);
    store_close();
    std::ifstream file(file_, std::ios::binary);
    const std::string whole((std::istreambuf_iterator<char>(file)), {});
    ASSERT_GT(whole.size(), 20'000U);
    int noticed = 0;
    for (size_t at = 0; at < whole.size(); at += whole.size() / 60) {
        std::string damaged = whole;
        damaged.replace(at, 64, 64, static_cast<char>(at));
        use(directory_ + "/damaged.db");
        std::ofstream(file_, std::ios::binary) << damaged;
        StoreListing listing;
        noticed += store_list("", listing, 0) != STORE_OK ? 1 : 0;
        set(HOST + "7.HostName", "x", 0);
        add(HOST);
        store_close();
        for (const char *part : {"", "-wal", "-shm"})
            std::filesystem::remove(file_ + part);
    }
    EXPECT_GT(noticed, 5);
}

TEST_F(Store, AnOlderStoreGetsWhatIsNew)
{
    use(directory_ + "/old.db");
    {
        Stranger older(file_);
        older.run(
            "CREATE TABLE \"InternetGatewayDevice.LANDevice.1.Hosts.Host.{i}.\" "
            "(_1 INTEGER PRIMARY KEY, HostName TEXT NOT NULL DEFAULT '', Gone TEXT NOT NULL DEFAULT '')");
        older.run("INSERT INTO \"InternetGatewayDevice.LANDevice.1.Hosts.Host.{i}.\" (_1, HostName) VALUES "
                  "(7, 'seven')");
    }
    EXPECT_EQ(get(HOST + "7.HostName"), "seven");
    EXPECT_EQ(get(HOST + "7.Active"), "");
    EXPECT_EQ(get(HOSTS + "HostNumberOfEntries"), "1");
    EXPECT_EQ(set(HOST + "7.Active", "1"), 0);
    EXPECT_EQ(add(HOST), 1);
}

} // namespace
