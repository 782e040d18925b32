#include "platform/host/store.h"

#include <array>
#include <atomic>
#include <csignal>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/zk_sys_mgr.h"
#include "platform/zkcfgif.h"
#include "tests/unit/host/temporary_store.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Pair;

const std::string HOSTS = "InternetGatewayDevice.LANDevice.1.Hosts.";
const std::string HOST = HOSTS + "Host.";
const std::string NAME_1 = HOST + "1.HostName";
const std::string NAME_2 = HOST + "2.HostName";
const std::string COUNT = HOSTS + "HostNumberOfEntries";
const std::string MESH = "InternetGatewayDevice.LANDevice.1.WLANMeshConfiguration.";

int set(const std::string &path, const std::string &value, int wait = 5000)
{
    return zkapi_singlevalue_set(path.c_str(), value.c_str(), DEVFUNC_NOCALL, wait);
}

int add(const std::string &table)
{
    int instance = 0;
    int result = zkapi_obj_add(table.c_str(), &instance, DEVFUNC_NOCALL_NOINFORM, ALL_BLOCK_LOCK);
    return result == 0 ? instance : -result;
}

int set_all(const std::vector<std::string> &paths, const std::string &value)
{
    void *session = nullptr;
    EXPECT_EQ(zkapi_multinode_sessioncreate(&session, OBJ_SET_NO_OP, 5000), 0);
    for (const std::string &path : paths) {
        zkapi_multinode_sessionprepare(session, path.c_str(), const_cast<char *>(value.c_str()));
    }
    int result = zkapi_multinode_sessionprocess(session);
    EXPECT_EQ(zkapi_multinode_sessiondestroy(session), 0);
    return result;
}

pid_t in_child(const std::function<int()> &act)
{
    pid_t child = fork();
    if (child == 0) {
        _exit(act());
    }
    return child;
}

// Negative: the signal that ended it.
int exit_code(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Another user of the file, who knows nothing of the store's ways.
struct Stranger {
    explicit Stranger(const std::string &file)
    {
        sqlite3 *db = nullptr;
        EXPECT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
        sqlite3_busy_timeout(db, 60'000);
        db_.reset(db, sqlite3_close);
    }

    void run(const std::string &sql)
    {
        EXPECT_EQ(sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
    }

    std::shared_ptr<sqlite3> db_;
};

// A store with two hosts, closed.
class Store : public TemporaryStore {
protected:
    void SetUp() override
    {
        EXPECT_EQ(add(HOST), 1);
        EXPECT_EQ(add(HOST), 2);
        store_close();
    }
};

TEST_F(Store, TellsTheDevicesFacts)
{
    zk_carr_type carrier = CARR_MAX;
    devinfo info{};
    EXPECT_EQ(zk_sys_mgr_get_carrier(&carrier), 0);
    EXPECT_EQ(carrier, CARR_CT);
    EXPECT_EQ(zk_sys_mgr_get_devinfo(&info), 0);
    EXPECT_EQ(info.port_num, 4U);
    for (const char *senseless : {"4", "x", "-", ""}) {
        ASSERT_EQ(set("InternetGatewayDevice.DeviceInfo.X_QV_Carrier", senseless), 0);
        EXPECT_NE(zk_sys_mgr_get_carrier(&carrier), 0) << senseless;
        EXPECT_EQ(carrier, CARR_CT);
    }
}

TEST_F(Store, SaysWhatIsWrongWithARequest)
{
    const struct {
        std::string path;
        int reading;
        int writing; // of 128 bytes
    } cases[] = {
        {NAME_1, STORE_OK, STORE_TOO_LONG},
        {HOST + "3.HostName", STORE_NO_OBJECT, STORE_TOO_LONG},
        {COUNT, STORE_OK, STORE_READ_ONLY},
        {HOST + "1.Nonsense", STORE_UNKNOWN_PATH, STORE_UNKNOWN_PATH},
        {HOST + "01.HostName", STORE_UNKNOWN_PATH, STORE_UNKNOWN_PATH},
        {HOST + "1", STORE_UNKNOWN_PATH, STORE_UNKNOWN_PATH},
        {"", STORE_UNKNOWN_PATH, STORE_UNKNOWN_PATH},
        {std::string(100'000, '.'), STORE_UNKNOWN_PATH, STORE_UNKNOWN_PATH},
    };
    for (const auto &c : cases) {
        std::string value = get(c.path);
        std::string failure = std::string("untouched, ") + store_strerror(c.reading);
        EXPECT_EQ(value, c.reading == STORE_OK ? value.substr(0, 1) : failure) << c.path;
        EXPECT_EQ(set(c.path, std::string(128, 'x')), c.writing) << c.path;
    }
    EXPECT_EQ(add(HOSTS), -STORE_UNKNOWN_PATH);
    for (int wrong : {3, 0, -1}) {
        EXPECT_EQ(zkapi_obj_del(HOST.c_str(), wrong, DEVFUNC_NOCALL, 5000), STORE_NO_OBJECT);
    }
    EXPECT_EQ(zkapi_obj_checkexist((HOST + "1.").c_str(), 5000), 1);
    for (const std::string &gone : {HOST + "3.", HOST + "1", HOST, std::string("nonsense")}) {
        EXPECT_EQ(zkapi_obj_checkexist(gone.c_str(), 5000), 0) << gone;
    }
    void *session = nullptr;
    EXPECT_EQ(zkapi_multinode_sessioncreate(&session, OBJ_ADD, 5000), STORE_BAD_ARGUMENT);
    EXPECT_EQ(zkapi_multinode_sessionprocess(nullptr), STORE_BAD_ARGUMENT);
    EXPECT_EQ(zkapi_singlevalue_get(nullptr, nullptr, DEVFUNC_NOCALL, 5000), STORE_BAD_ARGUMENT);
}

TEST_F(Store, InstancesTakeTheLowestFreeNumberAndAreCounted)
{
    EXPECT_EQ(add(HOST), 3);
    EXPECT_EQ(add(MESH + "Controller.Repeater."), 1); // a table of its own
    ASSERT_EQ(set(NAME_2, "before"), 0);
    EXPECT_EQ(get(COUNT), "3");
    EXPECT_EQ(zkapi_obj_del(HOST.c_str(), 2, DEVFUNC_NOCALL_NOFLASH, ALL_BLOCK_LOCK), 0);
    EXPECT_EQ(get(COUNT), "2");
    EXPECT_EQ(get(NAME_2), "untouched, no such object");
    EXPECT_EQ(add(HOST), 2);
    EXPECT_EQ(get(NAME_2), ""); // from the template, not from its predecessor
    EXPECT_EQ(add(HOST), 4);
    std::vector<int> numbers;
    EXPECT_EQ(store_instances(data_model_find_table(data_model(), HOST), numbers, 5000), STORE_OK);
    EXPECT_THAT(numbers, ElementsAre(1, 2, 3, 4));
}

TEST_F(Store, ATableMayBeginWithInstances)
{
    const std::string port = "InternetGatewayDevice.LANDevice.1.LANEthernetInterfaceConfig.";
    EXPECT_EQ(get(port + "4.MaxBitRate") + get(port + "5.MaxBitRate"), "Autountouched, no such object");
    EXPECT_EQ(zkapi_obj_del(port.c_str(), 2, DEVFUNC_NOCALL, 5000), 0);
    store_close();
    Stranger(file_).run("PRAGMA user_version = 1"); // as another data model leaves it
    EXPECT_EQ(get(port + "2.MaxBitRate"), "untouched, no such object");
    EXPECT_EQ(add(port), 2);
    EXPECT_EQ(add(port), 5);
}

TEST_F(Store, PuttingMakesWhatIsMissing)
{
    const std::string device = "InternetGatewayDevice.WANDevice.1.WANConnectionDevice.";
    auto put = [](const std::vector<std::string> &paths, const char *value) {
        std::vector<StoreItem> items;
        for (const std::string &path : paths) {
            size_t name = path.rfind('.') + 1;
            ObjectRef object = data_model_find_object(data_model(), path.substr(0, name));
            const ModelObject &model = data_model().objects[static_cast<size_t>(object.object)];
            int parameter = data_model_find_parameter(model, path.substr(name));
            items.push_back({object, static_cast<size_t>(parameter), const_cast<char *>(value)});
        }
        return store_put(items, 5000);
    };
    const std::string enable = device + "7.WANIPConnection.3.Enable";
    EXPECT_EQ(get(COUNT), "2"); // a row that is kept in memory
    EXPECT_EQ(put({HOST + "9.Active", enable, NAME_1, device + "7.X_CU_VLAN"}, "1"), STORE_OK);
    EXPECT_EQ(get(COUNT), "3");
    EXPECT_EQ(get(enable) + get(device + "7.X_CU_VLAN") + get(NAME_1) + get(HOST + "9.Active"), "1111");
    EXPECT_EQ(get(device + "1.X_CU_VLAN"), "untouched, no such object");
    EXPECT_EQ(put({HOST + "20.Active", HOST + "20.HostName"}, "12345678"), STORE_TOO_LONG);
    EXPECT_EQ(zkapi_obj_checkexist((HOST + "20.").c_str(), 5000), 0);
}

TEST_F(Store, BatchesAreWhole)
{
    EXPECT_EQ(set_all({NAME_1, HOST + "1.Nonsense", COUNT, NAME_2}, "a"),
              0); // what cannot be prepared is left out
    EXPECT_EQ(get(NAME_1) + get(NAME_2), "aa");
    EXPECT_EQ(set_all({NAME_1, HOST + "2.Active"}, "too long"), STORE_TOO_LONG); // what fails later fails all
    EXPECT_EQ(set_all({NAME_1, HOST + "3.HostName"}, "b"), STORE_NO_OBJECT);
    EXPECT_EQ(get(NAME_1), "a");

    for (bool complete : {true, false}) {
        void *session = nullptr;
        std::array<std::array<char, 256>, 3> values{{{"-"}, {"-"}, {"-"}}};
        ASSERT_EQ(zkapi_multinode_sessioncreate(&session, OBJ_GET, 5000), 0);
        zkapi_multinode_sessionprepare(session, NAME_1.c_str(), values[0].data());
        zkapi_multinode_sessionprepare(session, COUNT.c_str(), values[1].data());
        if (!complete) {
            zkapi_multinode_sessionprepare(session, (HOST + "3.HostName").c_str(), values[2].data());
        }
        ASSERT_EQ(set(NAME_1, "read when processed"), 0);
        EXPECT_EQ(zkapi_multinode_sessionprocess(session), complete ? STORE_OK : STORE_NO_OBJECT);
        zkapi_multinode_sessiondestroy(session);
        EXPECT_STREQ(values[0].data(), complete ? "read when processed" : "-");
        EXPECT_STREQ(values[1].data(), complete ? "2" : "-");
    }
}

TEST_F(Store, ListsSubtrees)
{
    for (int i = 3; i <= 11; i++) {
        add(HOST);
    }
    StoreListing listing;
    EXPECT_EQ(store_list(HOST + "x", listing, 5000), STORE_UNKNOWN_PATH);
    EXPECT_EQ(store_list(HOST + "12.", listing, 5000), STORE_NO_OBJECT);
    EXPECT_EQ(store_list(MESH + "Controller.", listing, 5000), STORE_OK); // nothing there yet
    EXPECT_TRUE(listing.empty());
    EXPECT_EQ(store_list(COUNT, listing, 5000), STORE_OK);
    EXPECT_THAT(listing, ElementsAre(Pair(COUNT, "11")));

    EXPECT_EQ(store_list("", listing, 5000), STORE_OK);
    EXPECT_THAT(listing, Contains(Pair(MESH + "MeshMode", "Disabled")));
    std::erase_if(listing, [](const auto &entry) { return !entry.first.ends_with(".HostName"); });
    ASSERT_EQ(listing.size(), 11U);
    EXPECT_EQ(listing[1].first, NAME_2);
    EXPECT_EQ(listing[10].first, HOST + "11.HostName");
}

TEST_F(Store, ReadsInstanceNumbersFromAPath)
{
    auto numbers_in = [](const char *path) {
        InstIdStack ids{};
        zkapi_getobjidbyobjpath(path, &ids);
        return std::vector<int>(ids.instance, ids.instance + ids.currentDepth);
    };
    EXPECT_THAT(numbers_in((HOST + "7.").c_str()), ElementsAre(1, 7));
    EXPECT_THAT(numbers_in("A.12"), ElementsAre(12));
    EXPECT_THAT(numbers_in("1.2.3.4.5.6.7.8.9."), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
    EXPECT_THAT(numbers_in("A1.2B.99999999999.-3."), ElementsAre());
    EXPECT_THAT(numbers_in(nullptr), ElementsAre());
}

TEST_F(Store, SeesAtOnceWhatOthersWrote)
{
    constexpr int LAST = 1500;
    std::atomic<int> committed = 0;
    std::thread stranger([this, &committed] {
        Stranger writer(file_);
        for (int i = 1; i <= LAST; i++) {
            writer.run("UPDATE \"" + HOST + "{i}.\" SET DeviceType = '" + std::to_string(i) + "'");
            committed = i;
        }
    });
    for (int i = 0; committed < LAST; i++) {
        int at_least = committed;
        EXPECT_GE(std::stoi("0" + get(HOST + "1.DeviceType")), at_least);
        std::string own = "own" + std::to_string(i); // nor do own writes in between hide theirs
        EXPECT_EQ(set(NAME_1, own), 0);
        EXPECT_EQ(get(NAME_1), own);
    }
    stranger.join();
    EXPECT_EQ(get(HOST + "1.DeviceType"), std::to_string(LAST));
}

TEST_F(Store, WaitsForTheLockAsLongAsItIsTold)
{
    Stranger stranger(file_);
    stranger.run("BEGIN IMMEDIATE");
    EXPECT_EQ(get(NAME_1), "");                          // reading does not wait
    EXPECT_EQ(set(NAME_1, "", NO_BLOCK_LOCK), STORE_OK); // nor does writing what is there
    for (int wait : std::initializer_list<int>{NO_BLOCK_LOCK, NO_NEED_LOCK, 30}) {
        EXPECT_EQ(set(NAME_1, "1", wait), STORE_LOCKED);
    }

    std::atomic<bool> released = false;
    std::vector<std::thread> writers;
    for (int wait : std::initializer_list<int>{ALL_BLOCK_LOCK, 60'000}) {
        writers.emplace_back([wait, &released] {
            EXPECT_EQ(set(NAME_1, std::to_string(wait), wait), STORE_OK);
            EXPECT_TRUE(released);
        });
    }
    usleep(50'000);
    released = true;
    stranger.run("COMMIT");
    for (std::thread &writer : writers) {
        writer.join();
    }
}

TEST_F(Store, ManyProcessesAndThreadsBeginAtOnce)
{
    use(directory_ + "/new.db");
    constexpr int PROCESSES = 4;
    constexpr int ADDS = 12;
    std::array<pid_t, PROCESSES> children{};
    for (pid_t &child : children) {
        child = in_child([] {
            std::atomic<int> failures = 0;
            auto add_some = [&failures] {
                for (int k = 0; k < ADDS; k++) {
                    int instance = add(HOST);
                    std::string path = HOST + std::to_string(instance) + ".HostName";
                    if (instance < 1 || set(path, path, ALL_BLOCK_LOCK) != 0 || get(path) != path) {
                        failures++;
                    }
                }
            };
            std::thread other(add_some);
            add_some();
            other.join();
            return failures.load();
        });
    }
    for (pid_t child : children) {
        EXPECT_EQ(exit_code(child), 0);
    }
    EXPECT_EQ(get(COUNT), std::to_string(PROCESSES * 2 * ADDS));
}

TEST_F(Store, AKilledWriterLeavesWholeBatches)
{
    const std::vector<std::string> paths = {NAME_1, HOST + "2.AckTime", MESH + "MeshMode"};
    for (unsigned int round = 0; round < 15; round++) {
        const std::string mark = std::to_string(round) + ".";
        pid_t child = in_child([&] {
            for (int i = 0; set_all(paths, mark + std::to_string(i)) == 0; i++) {
                continue;
            }
            return 1;
        });
        while (!get(NAME_1).starts_with(mark)) {
            usleep(100);
        }
        usleep(300 * round);
        kill(child, SIGKILL);
        EXPECT_EQ(exit_code(child), -SIGKILL);
        EXPECT_EQ(get(paths[1]), get(paths[0]));
        EXPECT_EQ(get(paths[2]), get(paths[0]));
        EXPECT_EQ(set(paths[0], "free again", NO_BLOCK_LOCK), 0);
        store_close();
    }
}

// The file may grow by so much and no further: every write in turn is the one that fails.
TEST_F(Store, AFullDiskChangesNothing)
{
    EXPECT_EQ(exit_code(in_child([] {
                  signal(SIGXFSZ, SIG_IGN);
                  int refused = 0;
                  for (unsigned int room = 0; room < 100'000; room += 1000) {
                      std::string before = get(NAME_1);
                      rlimit limit{.rlim_cur = room, .rlim_max = RLIM_INFINITY};
                      setrlimit(RLIMIT_FSIZE, &limit);
                      int result = set_all({NAME_1, NAME_2}, "room " + std::to_string(room));
                      limit.rlim_cur = RLIM_INFINITY;
                      setrlimit(RLIMIT_FSIZE, &limit);
                      refused += result == STORE_FAILED ? 1 : 0;
                      std::string expected = result == 0 ? "room " + std::to_string(room) : before;
                      if (get(NAME_1) != expected || get(NAME_2) != expected)
                          return 1;
                  }
                  return refused > 0 ? set(NAME_1, "room again") : 2;
              })),
              0);
    EXPECT_EQ(get(NAME_1), "room again");
}

TEST_F(Store, AFileThatIsNoStoreIsAnError)
{
    const std::string plain = directory_ + "/plain";
    std::ofstream(plain) << std::string(5000, '!');
    const std::pair<std::string, int> cases[] = {
        {plain, STORE_DAMAGED}, {plain + "/below/a/file", STORE_FAILED}, {directory_, STORE_FAILED}};
    for (const auto &[file, result] : cases) {
        use(file);
        EXPECT_EQ(set(HOSTS + "LANHostMaxNumber", "1"), result) << file;
        EXPECT_EQ(zkapi_obj_checkexist((HOST + "1.").c_str(), 5000), -1); // not: it is gone
    }
    use(directory_ + "/good.db"); // a failure does not stick
    EXPECT_EQ(set(HOSTS + "LANHostMaxNumber", "1"), STORE_OK);
}

TEST_F(Store, DamageInTheFileIsAnErrorOrHarmless)
{
    for (int i = 3; i <= 30; i++) {
        add(HOST);
    }
    store_close();
    std::ifstream file(file_, std::ios::binary);
    const std::string whole((std::istreambuf_iterator<char>(file)), {});
    int noticed = 0;
    for (size_t at = 0; at < whole.size(); at += whole.size() / 60) {
        std::string damaged = whole;
        damaged.replace(at, 64, 64, static_cast<char>(at));
        use(directory_ + "/" + std::to_string(at));
        std::ofstream(file_, std::ios::binary) << damaged;
        StoreListing listing;
        noticed += store_list("", listing, 0) != STORE_OK ? 1 : 0;
        set(HOST + "7.HostName", "x", 0);
        add(HOST);
    }
    EXPECT_GT(noticed, 5);
}

TEST_F(Store, AnOlderStoreGetsWhatIsNew)
{
    use(directory_ + "/old.db");
    Stranger older(file_);
    older.run("CREATE TABLE \"" + HOST +
              "{i}.\" (_1 INTEGER PRIMARY KEY, HostName TEXT NOT NULL DEFAULT '', "
              "Gone TEXT NOT NULL DEFAULT ''); INSERT INTO \"" +
              HOST + "{i}.\" (_1, HostName) VALUES (7, 'seven')");
    EXPECT_EQ(get(HOST + "7.HostName"), "seven");
    EXPECT_EQ(get(HOST + "7.Active"), "");
    EXPECT_EQ(get(COUNT), "1");
    EXPECT_EQ(set(HOST + "7.Active", "1"), 0);
    EXPECT_EQ(add(HOST), 1);
}

} // namespace
