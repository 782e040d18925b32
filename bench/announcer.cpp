// bench_announcer: what the daemon is compared with. It connects, publishes and subscribes as the daemon
// does, through the same libraries, and does nothing but what a stream's reactions say (common.h): it sends
// the daemon's announcement and, with --row, commits one row of a plain SQLite table.
#include <sqlite3.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <string_view>

#include "bench/common.h"
#include "platform/lib_zk_ubus.h"

namespace {

ubus_context *bus;
blob_buf announcement;

// --- A table anybody would make of hosts

class Table {
public:
    explicit Table(const char *file)
    {
        constexpr const char *columns[] = {
            "IPAddress",        "AddressSource",   "AckTime",       "LeaseTimeRemaining",
            "LatestActiveTime", "HostName",        "DeviceType",    "X_QV_DeviceType",
            "MACAddress",       "Layer2Interface", "InterfaceType", "Port",
            "Connection",       "Active",
        };
        static_assert(std::size(columns) == COLUMNS);
        std::string definitions;
        std::string places;
        std::string assignments;
        for (int i = 0; i < COLUMNS; ++i) {
            std::string place = "?" + std::to_string(i + 1);
            definitions += std::string(", ") + columns[i] + " TEXT";
            places += ", " + place;
            assignments += (i == 0 ? "" : ", ") + std::string(columns[i]) + " = " + place;
        }
        sqlite3_open(file, &db_);
        execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL");
        execute("CREATE TABLE host (id INTEGER PRIMARY KEY" + definitions + ")");
        for (unsigned id = 1; id <= MAX_HOSTS; ++id) {
            execute("INSERT INTO host (id) VALUES (" + std::to_string(id) + ")");
        }
        prepare('u', "UPDATE host SET " + assignments + " WHERE id = ?15");
        prepare('i', "INSERT OR REPLACE INTO host VALUES (?15" + places + ")");
        prepare('d', "DELETE FROM host WHERE id = ?15");
    }

    // Each statement goes through the hosts in turn, with other values each time.
    void commit(char what)
    {
        Statement &statement = statements_.at(what);
        unsigned turn = statement.turns++;
        char value[16];
        snprintf(value, sizeof value, "value-%u", turn);
        for (int i = 1; what != 'd' && i <= COLUMNS; ++i) {
            sqlite3_bind_text(statement.prepared, i, value, -1, SQLITE_STATIC);
        }
        sqlite3_bind_int(statement.prepared, COLUMNS + 1, static_cast<int>(turn % MAX_HOSTS) + 1);
        sqlite3_step(statement.prepared);
        if (sqlite3_reset(statement.prepared) != SQLITE_OK) {
            fprintf(stderr, "bench_announcer: %s\n", sqlite3_errmsg(db_));
            exit(1);
        }
    }

private:
    static constexpr int COLUMNS = 14;
    struct Statement {
        sqlite3_stmt *prepared;
        unsigned turns;
    };

    void execute(const std::string &sql) { sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr); }
    void prepare(char what, const std::string &sql)
    {
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statements_[what].prepared, nullptr) != SQLITE_OK) {
            fprintf(stderr, "bench_announcer: %s\n", sqlite3_errmsg(db_));
            exit(1);
        }
    }

    sqlite3 *db_ = nullptr;
    std::map<char, Statement> statements_;
};

Table *table; // null: rows are not kept

// --- Reactions

void announce_change()
{
    blob_buf_init(&announcement, 0);
    blobmsg_add_u32(&announcement, "objnum", 1);
    lib_zk_ubus_send_event(bus, UBUS_EVENT_LANHOST_PARAM_CHANGE, announcement);
}

void announce_visit()
{
    ovani_device_status_event status{};
    blob_buf_init(&announcement, 0);
    lib_zk_blobmsg_add_struct(&announcement, "lanhost_struct", &status, sizeof status);
    lib_zk_ubus_send_event(bus, UBUS_EVENT_LANHOST_UP_DOWN, announcement);
}

// What the daemon asks of the bridge about a MAC that it does not know.
void ask_bridge()
{
    char line[128];
    FILE *pipe =
        popen("brctl showmacs br0 |grep -i 02:00:00:00:ff:ff | awk '{print $(NF-2),$(NF-1),$NF}'", "re");
    if (pipe != nullptr) {
        [[maybe_unused]] char *none = fgets(line, sizeof line, pipe);
        pclose(pipe);
    }
}

std::map<std::string, std::string, std::less<>> reactions;

void react(std::string_view to)
{
    auto found = reactions.find(to);
    if (found == reactions.end()) {
        return;
    }
    for (char step : found->second) {
        switch (step) {
        case REACTION_CHANGE:
            announce_change();
            break;
        case REACTION_VISIT:
            announce_visit();
            break;
        case REACTION_COMMAND:
            ask_bridge();
            break;
        default:
            if (table != nullptr) {
                table->commit(step);
            }
        }
    }
}

void take_reactions(blob_attr *message)
{
    reactions.clear();
    blob_attr *member = nullptr;
    size_t left = 0;
    blobmsg_for_each_attr(member, message, left)
    {
        reactions[blobmsg_name(member)] = blobmsg_get_string(member);
    }
}

void handle_event(ubus_context *, ubus_event_handler *, const char *type, blob_attr *message)
{
    if (strcmp(type, BENCH_REACTIONS_EVENT) == 0) {
        take_reactions(message);
    } else {
        react(type);
    }
}

int handle_method(ubus_context *, ubus_object *, ubus_request_data *, const char *method, blob_attr *)
{
    react(method);
    return UBUS_STATUS_OK;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], "--row") == 0) {
        static Table kept(getenv("OVANI_STORE"));
        table = &kept;
    }
    static ubus_method methods[2];
    methods[0].name = BENCH_METHODS[0];
    methods[1].name = BENCH_METHODS[1];
    static ubus_object_type type;
    static ubus_object object;
    type.name = object.name = "ovani";
    type.methods = object.methods = methods;
    type.n_methods = object.n_methods = static_cast<int>(std::size(methods));
    object.type = &type;
    for (ubus_method &method : methods) {
        method.handler = handle_method;
    }
    static ubus_event_handler listener;
    listener.cb = handle_event;
    lib_zk_ubus_init(&bus);
    lib_zk_ubus_add_object(bus, &object);
    for (const char *event : {UBUS_EVENT_ARP_INFO, UBUS_EVENT_MAC_ADDR_INFO, UBUS_EVENT_UNI_PORT_LINK_STATE,
                              UBUS_EVENT_WIFI_ON_OFF, UBUS_EVENT_DHCP_USER_CONN, UBUS_EVENT_WAN_VLAN_INFO,
                              BENCH_REACTIONS_EVENT}) {
        lib_zk_ubus_register_event_handler(bus, &listener, event);
    }
    return lib_zk_ubus_run(UBUS_THREAD_SINGLE);
}
