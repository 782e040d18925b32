#include "platform/host/store.h"

#include <algorithm>
#include <atomic>
#include <barrier>
#include <csignal>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/host/driver.h"
#include "platform/zk_sys_mgr.h"
#include "tests/unit/host/temporary_store.h"

namespace {

namespace fs = std::filesystem;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string HOSTS = "InternetGatewayDevice.LANDevice.1.Hosts.";
const std::string HOST = HOSTS + "Host.";
const std::string NAME_1 = HOST + "1.HostName";
const std::string NAME_2 = HOST + "2.HostName";
constexpr useconds_t STRANGERS_SEEN_US = 210'000;

struct Item {
    std::string path;
    char *text;
    int prepared = STORE_OK;
};

int process(
    OBJ_OP op, const std::vector<Item> &items, const std::function<void()> &meanwhile = [] {})
{
    void *session = nullptr;
    EXPECT_EQ(zkapi_multinode_sessioncreate(&session, op, 5000), 0);
    for (const Item &item : items) {
        const int prepared = zkapi_multinode_sessionprepare(session, item.path.c_str(), item.text);
        EXPECT_EQ(prepared, item.prepared) << item.path;
    }
    meanwhile();
    const int result = zkapi_multinode_sessionprocess(session);
    EXPECT_EQ(zkapi_multinode_sessiondestroy(session), 0);
    return result;
}

// A user of the file who knows nothing of the store's ways; the result is the first column of the last row.
std::string sql(const std::string &file, const std::string &statement)
{
    sqlite3 *db = nullptr;
    std::string text;
    auto take = [](void *to, int, char **row, char **) {
        *static_cast<std::string *>(to) = row[0];
        return 0;
    };
    sqlite3_open(file.c_str(), &db);
    EXPECT_EQ(sqlite3_exec(db, statement.c_str(), take, &text, nullptr), SQLITE_OK) << statement;
    sqlite3_close(db);
    return text;
}

std::string content(const std::string &file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// A store with two hosts, closed.
class Store : public TemporaryStore {
protected:
    void SetUp() override { check("add Host. = 1 | add Host. = 2 | close"); }

    // By a stranger, who does not count it: as a process that is killed right after its commit.
    void keep(const std::string &path, const std::string &parameters)
    {
        sql(file_, "INSERT OR REPLACE INTO object VALUES ('" + path + "', '" + parameters + "')");
        usleep(STRANGERS_SEEN_US);
    }
};

TEST_F(Store, TellsTheDevicesFacts)
{
    zk_carr_type carrier = CARR_MAX;
    devinfo info{};
    EXPECT_EQ(zk_sys_mgr_get_carrier(&carrier) + zk_sys_mgr_get_devinfo(&info), 0);
    EXPECT_EQ(info.port_num, 4U);
    for (const char *senseless : {"4", "x", "-", ""}) {
        ASSERT_EQ(set("InternetGatewayDevice.DeviceInfo.X_QV_Carrier", senseless), "ok");
        EXPECT_NE(zk_sys_mgr_get_carrier(&carrier), 0) << senseless;
        EXPECT_EQ(carrier, CARR_CT);
    }
}

TEST_F(Store, SaysWhatIsWrongWithARequest)
{
    check("set Host.1.Active 12345678 = value too long | set Host.3.Active 12345678 = value too long |"
          "get Host.3.Active = no such object | set Host.3.Active 1 = no such object |"
          "del Host. 3 = no such object | del Host. 0 = no such object | del Host. -1 = no such object |"
          "add .WANDevice.1.WANConnectionDevice.7.WANIPConnection. = no such object |"
          "set HostNumberOfEntries 7 = parameter is counted and cannot be set");
    for (const std::string &unknown : {HOST + "1.Nonsense", HOST + "01.HostName", HOST + "1", std::string(),
                                       std::string(100'000, '.'), HOST + "1.HostName."}) {
        for (const std::string &result : {get(unknown), set(unknown, ""), add(unknown), del(unknown, 1)}) {
            EXPECT_EQ(result, "no such path in the data model") << unknown;
        }
        EXPECT_EQ(zkapi_obj_checkexist(unknown.c_str(), 5000), 0) << unknown;
    }
    EXPECT_EQ(zkapi_obj_checkexist((HOST + "1.").c_str(), 5000), 1);
    EXPECT_EQ(zkapi_obj_checkexist((HOST + "3.").c_str(), 5000), 0);
    void *session = nullptr;
    EXPECT_EQ(zkapi_multinode_sessioncreate(&session, OBJ_ADD, 5000), STORE_BAD_ARGUMENT);
    EXPECT_EQ(zkapi_multinode_sessionprocess(nullptr), STORE_BAD_ARGUMENT);
    EXPECT_EQ(zkapi_singlevalue_get(nullptr, nullptr, DEVFUNC_NOCALL, 5000), STORE_BAD_ARGUMENT);
}

TEST_F(Store, InstancesTakeTheLowestFreeNumberAndAreCounted)
{
    check("add Host. = 3 | add .LANDevice.1.WLANMeshConfiguration.Controller.Repeater. = 1 |"
          "set Host.2.HostName before = ok | get HostNumberOfEntries = 3 | del Host. 2 = ok |"
          "get HostNumberOfEntries = 2 | get Host.2.HostName = no such object | add Host. = 2 |"
          "get Host.2.HostName = | add Host. = 4");
    EXPECT_EQ(driver_keep(HOST + "9.", {{"Active", "1"}}), STORE_OK); // makes what is missing
    EXPECT_EQ(driver_keep(HOST + "20.", {{"Active", "1"}, {"OS", std::string(64, 'x')}}), STORE_TOO_LONG);
    check("get HostNumberOfEntries = 5 | get Host.9.Active = 1 | get Host.20.Active = no such object");
    std::vector<int> numbers;
    EXPECT_EQ(store_instances(data_model_find_table(data_model(), HOST), numbers, 5000), STORE_OK);
    EXPECT_THAT(numbers, ElementsAre(1, 2, 3, 4, 9));
}

TEST_F(Store, ATableBeginsWithItsInstancesOnce)
{
    check("get .LANInterfaces.WLANConfiguration.8.X_CMCC_Mode = 0 | del .LANInterfaces.WLANConfiguration. 2 "
          "= ok |"
          "close | get .LANInterfaces.WLANConfiguration.2.X_CMCC_Mode = no such object |"
          "add .LANInterfaces.WLANConfiguration. = 2 | add .LANInterfaces.WLANConfiguration. = 9 | close");
    sql(file_, "DELETE FROM object WHERE path LIKE '%.LANInterfaces.%'"); // as if the model had it anew
    check(
        "get .LANInterfaces.WLANConfiguration.8.X_CMCC_Mode = 0 | add .LANInterfaces.WLANConfiguration. = 9");
}

TEST_F(Store, BatchesAreWholeButForWhatCannotBePrepared)
{
    char text[] = "a";
    char late[32] = "b";
    std::string too_long(128, 'x');
    auto meanwhile = [&] { // texts are read when they are processed
        text[0] = 'c';
        std::string("too long by now").copy(late, sizeof late - 1);
    };
    EXPECT_EQ(process(OBJ_SET_NO_OP,
                      {{NAME_1, text},
                       {HOST + "1.Nonsense", text, STORE_UNKNOWN_PATH},
                       {HOSTS + "HostNumberOfEntries", text, STORE_READ_ONLY},
                       {HOST + "2.DevName", too_long.data(), STORE_TOO_LONG},
                       {HOST + "2.Active", late},
                       {NAME_2, text}},
                      meanwhile),
              0);
    EXPECT_EQ(process(OBJ_SET, {{NAME_1, late}, {HOST + "3.OS", text}}), STORE_NO_OBJECT);
    check("get Host.1.HostName = c | get Host.2.HostName = c | get Host.2.Active = | get Host.2.DevName =");
    char values[2][256] = {"-", "-"};
    EXPECT_EQ(process(OBJ_GET, {{NAME_1, values[0]}, {HOST + "3.OS", values[1]}}), STORE_NO_OBJECT);
    EXPECT_STREQ(values[0], "-");
    EXPECT_EQ(process(OBJ_GET_NO_OP, {{NAME_1, values[0]}, {HOSTS + "HostNumberOfEntries", values[1]}}), 0);
    EXPECT_EQ(std::string(values[0]) + values[1], "c2");
}

TEST_F(Store, ListsSubtrees)
{
    for (int i = 3; i <= 11; ++i) {
        add(HOST);
    }
    const std::string mesh = "InternetGatewayDevice.LANDevice.1.WLANMeshConfiguration.";
    StoreListing listing;
    EXPECT_EQ(store_list(HOST + "x", listing, 5000), STORE_UNKNOWN_PATH);
    EXPECT_EQ(store_list(HOST + "12.", listing, 5000), STORE_NO_OBJECT);
    EXPECT_EQ(store_list(HOSTS + "HostNumberOfEntries", listing, 5000), STORE_OK);
    EXPECT_EQ(listing, StoreListing({{HOSTS + "HostNumberOfEntries", "11"}}));
    EXPECT_EQ(store_list(mesh, listing, 5000), STORE_OK); // and of the table in it nothing
    EXPECT_EQ(listing, StoreListing({{mesh + "MeshMode", "Disabled"}}));
    EXPECT_EQ(store_list("", listing, 5000), STORE_OK);
    std::erase_if(listing, [](const auto &entry) { return !entry.first.ends_with(".HostName"); });
    ASSERT_EQ(listing.size(), 11U);
    EXPECT_EQ(listing[1].first + listing[10].first, NAME_2 + HOST + "11.HostName");
}

TEST_F(Store, ReadsInstanceNumbersFromAPath)
{
    const std::pair<const char *, std::vector<int>> cases[] = {
        {"A.1.Host.7.", {1, 7}},
        {"A.12", {12}},
        {"1.2.3.4.5.6.7.8.9.", {1, 2, 3, 4, 5, 6, 7, 8}},
        {"A1.2B.99999999999.-3.", {}},
        {nullptr, {}}};
    for (const auto &[path, numbers] : cases) {
        InstIdStack ids{};
        zkapi_getobjidbyobjpath(path, &ids);
        EXPECT_EQ(std::vector<int>(ids.instance, ids.instance + ids.currentDepth), numbers);
    }
}

TEST_F(Store, KeepsEveryByteReadably)
{
    std::string every;
    for (int byte = 1; byte <= 255; ++byte) {
        every += static_cast<char>(byte);
    }
    const std::string name = "客厅\"电视\"";
    std::string cut = name + "\xe5\xae \\x41\\";
    EXPECT_EQ(set(HOST + "1.HostAlias", every) + set(NAME_1, name), "okok");
    EXPECT_EQ(process(OBJ_SET, {{NAME_2, cut.data()}, {HOST + "2.OS", cut.data()}}), 0);
    store_close();
    EXPECT_EQ(get(HOST + "1.HostAlias"), every);
    EXPECT_EQ(get(NAME_1) + get(NAME_2) + get(HOST + "2.OS"), name + cut + cut);
    const std::string shown = "SELECT parameters ->> '$.HostName' FROM object WHERE path LIKE '%.Host.1.'";
    EXPECT_EQ(sql(file_, shown), name);
}

// What was set stays; how it is shown is the model's affair.
TEST_F(Store, AChangedModelNeedsNoMigration)
{
    const std::string gone = "\"Gone\":\"x\\\"y\"";
    keep(HOST + "7.Gone.1.", "{}");
    keep(HOST + "7.", "{" + gone + ",\"Active\":\"longer-than-it-may-be\",\"Port\":3}");
    check(
        "get Host.7.Port = 3 | get Host.7.Active = longer- | get Host.7.OS = | get HostNumberOfEntries = 3 |"
        "set Host.7.OS none = ok | set LANHostMaxNumber 254 = ok | del Host. 1 = ok");
    const std::string kept = sql(file_, "SELECT parameters FROM object WHERE path LIKE '%.Host.7.'");
    EXPECT_THAT(kept, testing::AllOf(HasSubstr(gone), HasSubstr("longer-than-it-may-be"), HasSubstr("none")));
    EXPECT_EQ(sql(file_, "SELECT count(*) FROM object WHERE path LIKE '" + HOSTS + "%'"), "3"); // no defaults
    for (const char *damaged : {"", "[]", "{\"Active\":", "{\"Active\":[1]}", "{\"a\\\"b\":\"\"}"}) {
        keep(HOST + "8.", damaged);
        check("set Host.8.OS x = store is damaged | get Host.8.OS = store is damaged | get Host.7.OS = none");
        EXPECT_EQ(zkapi_obj_checkexist((HOST + "8.").c_str(), 5000), -1); // not: it is gone
        check("del Host. 8 = ok");
    }
}

TEST_F(Store, SeesAtOnceWhatTheLibraryWroteAndSoonWhatStrangersDid)
{
    std::atomic<int> committed = 0;
    const std::jthread other([&committed] {
        for (int i = 1; i <= 1500; ++i) {
            EXPECT_EQ(set(HOST + "1.Port", std::to_string(i)), "ok");
            committed = i;
        }
    });
    for (int i = 0; committed < 1500; ++i) {
        const int at_least = committed;
        EXPECT_GE(std::stoi("0" + get(HOST + "1.Port")), at_least);
        check("set Host.1.HostName " + std::to_string(i) +
              " = ok | get Host.1.HostName = " + std::to_string(i));
    }
    check("get Host.1.Port = 1500");
    keep(HOST + "1.", "{\"HostName\":\"strange\"}");
    check("get Host.1.HostName = strange | get Host.1.Port =");

    const std::string without = "get Host.4.Port = no such object | get HostNumberOfEntries = 2";
    check(without);
    keep(HOST + "4.", "{\"Port\":\"9\"}");
    check("get Host.4.Port = 9 | get HostNumberOfEntries = 3");
    std::thread([] { EXPECT_EQ(zkapi_obj_del(HOST.c_str(), 4, DEVFUNC_NOCALL, 5000), 0); }).join();
    check(without);
}

TEST_F(Store, WaitsForTheLockAsLongAsItIsTold)
{
    check("get Host.1.HostName =");
    sqlite3 *stranger = nullptr;
    sqlite3_open(file_.c_str(), &stranger);
    sqlite3_exec(stranger, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    EXPECT_EQ(get(NAME_2, NO_BLOCK_LOCK), ""); // reading does not wait, nor does writing what is there
    EXPECT_EQ(set(NAME_1, "", NO_BLOCK_LOCK), "ok");
    for (int wait : std::initializer_list<int>{NO_BLOCK_LOCK, NO_NEED_LOCK, 30}) {
        EXPECT_EQ(set(NAME_1, "1", wait), "store is locked");
    }
    {
        const std::jthread patient([] { EXPECT_EQ(set(NAME_1, "1", ALL_BLOCK_LOCK), "ok"); });
        usleep(50'000);
        EXPECT_EQ(get(NAME_1), "");
        sqlite3_close(stranger);
    }
    check("get Host.1.HostName = 1");
}

// The log's index says how long the log is, and how much of it is home
// (https://sqlite.org/walformat.html, 2.1 and 2.4). No call does that here: the log is not long enough.
TEST_F(Store, TheLogIsBroughtHomeBesideTheCalls)
{
    const auto index = [this](int offset) {
        uint32_t number = 0;
        std::ifstream(file_ + "-shm").seekg(offset).read(reinterpret_cast<char *>(&number), sizeof number);
        return number;
    };
    for (int value = 1; index(16) < 540; ++value) {
        ASSERT_EQ(set(NAME_1, std::to_string(value)), "ok");
    }
    for (int tries = 0; tries < 1000 && index(96) < 540; ++tries) {
        usleep(10'000);
    }
    EXPECT_EQ(index(96), index(16));
}

// Whoever is first puts the damaged file aside and makes a fresh one; the others join.
TEST_F(Store, ManyBeginAtOnce)
{
    for (int round = 0; round < 20; ++round) {
        use(std::to_string(round));
        std::ofstream(file_) << "garbage";
        std::barrier start(8);
        std::array<std::thread, 8> threads;
        std::ranges::generate(threads, [&start] {
            return std::thread([&start] {
                start.arrive_and_wait();
                const std::string path = HOST + add(HOST) + ".HostName";
                EXPECT_EQ(set(path, path, ALL_BLOCK_LOCK), "ok");
                EXPECT_EQ(get(path), path);
            });
        });
        std::ranges::for_each(threads, &std::thread::join);
        check("get HostNumberOfEntries = 8");
        EXPECT_EQ(content(file_ + ".damaged"), "garbage");
    }
}

// The file may grow by so much and no further: every write in turn is the one that fails.
TEST_F(Store, AFullDiskChangesNothing)
{
    signal(SIGXFSZ, SIG_IGN);
    int refused = 0;
    for (unsigned int room = 0; room < 100'000; room += 1000) {
        const std::string before = get(NAME_1);
        rlimit limit{.rlim_cur = room, .rlim_max = RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
        std::string after = std::to_string(room);
        const int result = process(OBJ_SET, {{NAME_1, after.data()}, {NAME_2, after.data()}});
        limit.rlim_cur = RLIM_INFINITY;
        setrlimit(RLIMIT_FSIZE, &limit);
        refused += result == STORE_FAILED ? 1 : 0;
        const std::string &expected = result == 0 ? after : before;
        ASSERT_EQ(get(NAME_1) + get(NAME_2), expected + expected) << room;
    }
    EXPECT_GT(refused, 0);
    check("set Host.1.HostName room-again = ok");
}

TEST_F(Store, IsSmallAndItsOwnersAlone)
{
    const mode_t before = umask(0);
    use("new/below/store.db");
    for (int i = 0; i < 4000; ++i) { // 8 MB of log, if it were left to grow
        ASSERT_EQ(set(HOSTS + "LANHostMaxNumber", std::to_string(i)), "ok");
    }
    EXPECT_LT(fs::file_size(file_ + "-wal"), 3'400'000U);
    store_close();
    chmod(file_.c_str(), 0666); // as an older one may be
    check("get LANHostMaxNumber = 3999");
    for (const char *part : {"", "-wal", "-shm", "-count"}) {
        EXPECT_EQ(fs::status(file_ + part).permissions(), fs::perms(0600)) << part;
    }
    EXPECT_EQ(fs::status(directory_ + "new").permissions(), fs::perms(0700));
    EXPECT_EQ(fs::status(directory_ + "new/below").permissions(), fs::perms(0700));
    umask(before);
}

TEST_F(Store, AFileThatCannotBeOpenedIsTriedAgain)
{
    std::ofstream(directory_ + "in-the-way") << "x";
    use("in-the-way/store.db");
    EXPECT_EQ(zkapi_obj_checkexist((HOST + "1.").c_str(), NO_BLOCK_LOCK), -1);
    const std::jthread other([this] {
        usleep(100'000);
        fs::remove(directory_ + "in-the-way");
    });
    check("add Host. = 1");
}

TEST_F(Store, WhatIsNoStoreIsPutAside)
{
    StoreListing listing;
    use("damaged.db");
    for (const char *garbage : {"first", "second, which takes the place of the first"}) {
        store_close();
        std::ofstream(file_) << garbage;
        std::ofstream(file_ + ".damaged-wal") << "of another";
        EXPECT_EQ(store_list("", listing, 0), STORE_DAMAGED); // who only looks changes nothing
        EXPECT_EQ(content(file_), garbage);
        check("get HostNumberOfEntries = 0 | add Host. = 1");
        EXPECT_EQ(content(file_ + ".damaged"), garbage);
        EXPECT_FALSE(fs::exists(file_ + ".damaged-wal"));
    }
    use("old.db");
    sql(file_, "CREATE TABLE \"" + HOST + "{i}.\" (_1 INTEGER PRIMARY KEY)");
    EXPECT_EQ(store_list("", listing, 0), STORE_DAMAGED);
    check("get HostNumberOfEntries = 0 | add Host. = 1");
    EXPECT_EQ(sql(file_ + ".old", "SELECT count(*) FROM \"" + HOST + "{i}.\""), "0");
    use("made");
    EXPECT_EQ(get(NAME_1, NO_BLOCK_LOCK),
              "store cannot be opened, read or written"); // nor are directories moved
    EXPECT_TRUE(fs::is_directory(file_));
}

// Damage at every place in turn, to a file that is open: it does no harm, or calls fail until the store is
// fresh.
TEST_F(Store, RecoversFromDamage)
{
    for (int i = 3; i <= 40; ++i) {
        ASSERT_EQ(set(HOST + add(HOST) + ".HostAlias", std::string(200, 'x')), "ok");
    }
    store_close();
    const std::string whole = content(file_);
    int fresh = 0;
    for (size_t at = 0; at < whole.size(); at += 997) {
        use(std::to_string(at));
        std::ofstream(file_, std::ios::binary) << whole;
        check("get LANHostMaxNumber = 254");
        std::fstream(file_, std::ios::binary | std::ios::in | std::ios::out)
                .seekp(static_cast<std::streamoff>(at))
            << std::string(64, static_cast<char>(at));
        for (int number = 1; number <= 40; ++number) {
            const std::string result = set(HOST + std::to_string(number) + ".HostName", "x");
            EXPECT_THAT(result, AnyOf("ok", "no such object", "store is damaged"));
        }
        store_close(); // damage that was not met may be met in the opening
        const std::string added = add(HOST);
        EXPECT_THAT(added == "store is damaged" ? add(HOST) : added, testing::MatchesRegex("[0-9]+")) << at;
        fresh += fs::exists(file_ + ".damaged") ? 1 : 0;
    }
    EXPECT_GT(fresh, 5);
}

TEST_F(Store, NoticesThatItsFileIsGoneOrAnother)
{
    use("other.db");
    check("add Host. = 1 | set Host.1.HostName other = ok");
    const std::string other = file_;
    use("made/on/demand/store.db");
    const pid_t child = fork();
    if (child == 0) {
        while (fs::exists(file_)) {
            usleep(1000);
        }
        check("add Host. = 1 | set Host.1.HostName second = ok");
        _exit(HasFailure() ? 1 : 0);
    }
    check("set Host.1.HostName first = ok");
    fs::remove(file_);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    usleep(STRANGERS_SEEN_US);
    check("get Host.1.HostName = second | add Host. = 2");
    fs::rename(other, file_); // the log beside it is not its own
    usleep(STRANGERS_SEEN_US);
    check("get Host.1.HostName = other | add Host. = 2");
    EXPECT_EQ(sql(file_, "PRAGMA integrity_check"), "ok");
    std::ofstream(file_) << "garbage";
    std::thread(check, "add Host. = 1").join();
    check("get Host.1.HostName ="); // at once
}

} // namespace
