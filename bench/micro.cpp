// bench_micro: what the daemon's handlers and the store below them cost without the bus.
//
// The handlers are the daemon's own, over the real store on a disk. There is no connection to a bus: an
// announcement is put together, and the wrapper refuses it.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <iterator>
#include <string>

#include "bench/common.h"
#include "ovani/ovani_config.h"
#include "ovani/ovani_event_arp.h"
#include "ovani/ovani_event_dhcp.h"
#include "ovani/ovani_event_mac.h"
#include "ovani/ovani_host_object.h"
#include "ovani/ovani_start.h"
#include "platform/host/store.h"
#include "platform/zkcfgif.h"

namespace {

const TempDir *directory;

// --- Handlers

void handle_mac(BenchHost host)
{
    ovani_mac_event event = learned_event(host);
    ovani_mac_event_process(&event);
}

void handle_arp(BenchHost host)
{
    ovani_arp_event event = neighbour_event(host);
    ovani_arp_event_process(&event);
}

void handle_dhcp(BenchHost host)
{
    std::string text = lease_event(host);
    ovani_dhcpd_user_event_process(text.data());
}

// A daemon's tables and a store with so many hosts, kept for the next benchmark that wants as many.
void have_hosts(unsigned hosts)
{
    static unsigned present;
    if (hosts == present) {
        return;
    }
    present = hosts;
    store_close();
    setenv("OVANI_STORE", directory->file(std::to_string(hosts) + ".db").c_str(), 1);
    ovani_start(0, nullptr, [](void *(*)(void *)) { return 0; });
    for (unsigned number = 0; number < hosts; ++number) {
        for (auto *handle : {handle_mac, handle_arp, handle_dhcp}) {
            handle({number, 0});
        }
    }
}

struct Handler {
    const char *name;
    void (*handle)(BenchHost host);
    bool changing;
};

constexpr Handler HANDLERS[] = {
    {"109", handle_mac, false},
    {"110", handle_arp, false},
    {"dhcp_user_event", handle_dhcp, false},
    {"110, new address", handle_arp, true},
    {"dhcp_user_event, new lease time", handle_dhcp, true},
};

void run_handler(benchmark::State &state, const Handler &handler)
{
    auto hosts = static_cast<unsigned>(state.range(0));
    have_hosts(hosts);
    if (s_hostnumberofentries != hosts) {
        state.SkipWithError("the hosts are not there");
    }
    for (unsigned n = 0; state.KeepRunning(); ++n) {
        handler.handle({.number = n % hosts, .variant = handler.changing ? n / hosts % 2 : 0});
    }
}

// --- The store, beside a table of plain SQLite with the same columns, in the same directory

constexpr const char *PARAMETERS[] = {
    "IPAddress",      "AddressSource",   "AckTime",    "LeaseTimeRemaining", "LatestActiveTime", "HostName",
    "DeviceType",     "X_QV_DeviceType", "MACAddress", "Layer2Interface",    "InterfaceType",    "Port",
    "ConnectionType", "Active",
};
constexpr size_t COUNT = std::size(PARAMETERS);

// Two sets of values, of which the first `changing` differ.
struct Values {
    char text[2][COUNT][8];

    explicit Values(size_t changing)
    {
        for (size_t set = 0; set < 2; ++set) {
            for (size_t i = 0; i < COUNT; ++i) {
                snprintf(text[set][i], sizeof text[set][i], "value-%d", i < changing && set == 1 ? 1 : 0);
            }
        }
    }
};

// Hosts in turn, with the other set in every round.
unsigned host_of(unsigned n)
{
    return n % MAX_HOSTS + 1;
}

unsigned set_of(unsigned n)
{
    return n / MAX_HOSTS % 2;
}

std::string object_path(unsigned host)
{
    return OVANI_HOST_NODE_PATH + std::to_string(host) + ".";
}

void write_store(benchmark::State &state)
{
    have_hosts(MAX_HOSTS);
    Values values(static_cast<size_t>(state.range(0)));
    for (unsigned n = 0; state.KeepRunning(); ++n) {
        tConfigMap map[COUNT + 1] = {};
        for (size_t i = 0; i < COUNT; ++i) {
            map[i] = {PARAMETERS[i], values.text[set_of(n)][i]};
        }
        if (write_multi_config_to_xml(map, object_path(host_of(n)).c_str()) != 0) {
            state.SkipWithError("cannot write");
        }
    }
}

// What the road of an event reads: whether the object is there, and four of its parameters.
void read_store(benchmark::State &state)
{
    have_hosts(MAX_HOSTS);
    char values[4][256];
    for (unsigned n = 0; state.KeepRunning(); ++n) {
        std::string path = object_path(host_of(n));
        tConfigMap map[] = {{"Active", values[0]},
                            {"IPAddress", values[1]},
                            {"MACAddress", values[2]},
                            {"LatestActiveTime", values[3]},
                            {}};
        if (zkapi_obj_checkexist(path.c_str(), 1000) != 1 ||
            load_multi_config_from_xml(map, path.c_str()) != 0) {
            state.SkipWithError("cannot read");
        }
    }
}

class PlainSqlite {
public:
    PlainSqlite()
    {
        std::string columns, places, assignments;
        for (const char *parameter : PARAMETERS) {
            std::string separator = columns.empty() ? "" : ", ";
            columns += separator + parameter + " TEXT NOT NULL";
            places += separator + "''";
            assignments += separator + parameter + " = ?";
        }
        sqlite3_open(directory->file("plain.db").c_str(), &db_);
        execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL");
        execute("DROP TABLE IF EXISTS host; CREATE TABLE host (id INTEGER PRIMARY KEY, " + columns + ")");
        for (unsigned host = 1; host <= MAX_HOSTS; host++) {
            execute("INSERT INTO host VALUES (" + std::to_string(host) + ", " + places + ")");
        }
        prepare("BEGIN IMMEDIATE", begin);
        prepare("UPDATE host SET " + assignments + " WHERE id = ?", update);
        prepare("COMMIT", commit);
        prepare("SELECT Active, IPAddress, MACAddress, LatestActiveTime FROM host WHERE id = ?", select);
    }
    PlainSqlite(const PlainSqlite &) = delete;
    PlainSqlite &operator=(const PlainSqlite &) = delete;
    ~PlainSqlite()
    {
        for (sqlite3_stmt *statement : {begin, update, commit, select}) {
            sqlite3_finalize(statement);
        }
        sqlite3_close(db_);
    }

    static int run(sqlite3_stmt *statement)
    {
        sqlite3_step(statement);
        return sqlite3_reset(statement);
    }

    sqlite3_stmt *begin = nullptr, *update = nullptr, *commit = nullptr, *select = nullptr;

private:
    void execute(const std::string &sql) { sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr); }
    void prepare(const std::string &sql, sqlite3_stmt *&statement)
    {
        sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr);
    }

    sqlite3 *db_ = nullptr;
};

void write_plain(benchmark::State &state)
{
    PlainSqlite plain;
    Values values(static_cast<size_t>(state.range(0)));
    for (unsigned n = 0; state.KeepRunning(); ++n) {
        for (int i = 0; i < static_cast<int>(COUNT); ++i) {
            sqlite3_bind_text(plain.update, i + 1, values.text[set_of(n)][i], -1, SQLITE_STATIC);
        }
        sqlite3_bind_int(plain.update, static_cast<int>(COUNT) + 1, static_cast<int>(host_of(n)));
        for (sqlite3_stmt *statement : {plain.begin, plain.update, plain.commit}) {
            if (PlainSqlite::run(statement) != SQLITE_OK) {
                state.SkipWithError("cannot write");
            }
        }
    }
}

void read_plain(benchmark::State &state)
{
    PlainSqlite plain;
    char values[4][256];
    for (unsigned n = 0; state.KeepRunning(); ++n) {
        sqlite3_bind_int(plain.select, 1, static_cast<int>(host_of(n)));
        if (sqlite3_step(plain.select) != SQLITE_ROW) {
            state.SkipWithError("cannot read");
        }
        for (int i = 0; i < 4; ++i) {
            copy_text(values[i], reinterpret_cast<const char *>(sqlite3_column_text(plain.select, i)));
        }
        sqlite3_reset(plain.select);
    }
}

} // namespace

int main(int argc, char **argv)
{
    TempDir files;
    directory = &files;
    benchmark::Initialize(&argc, argv);
    for (const Handler &handler : HANDLERS) {
        auto run = [&handler](benchmark::State &state) { run_handler(state, handler); };
        benchmark::RegisterBenchmark(handler.name, run)->Arg(MAX_HOSTS)->Arg(1);
    }
    benchmark::RegisterBenchmark("store write", write_store)->Arg(COUNT)->Arg(1)->Arg(0);
    benchmark::RegisterBenchmark("sqlite write", write_plain)->Arg(COUNT)->Arg(1)->Arg(0);
    benchmark::RegisterBenchmark("store read", read_store);
    benchmark::RegisterBenchmark("sqlite read", read_plain);
    benchmark::RunSpecifiedBenchmarks();
    store_close();
    return 0;
}
