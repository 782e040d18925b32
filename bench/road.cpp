// bench_road: the daemon end to end, beside subscribers to the same events that do next to nothing.
//
// Every subject (the daemon over a store of its own, or a stand-in for it) has a broker of its own, so that
// it alone hears what is sent; the others sleep meanwhile. Subjects take turns at every stream, several
// times, and what is printed are medians of the turns. The sender waits for the broker's answer to every
// event, as all senders on the bus do. An event counts as handled when the subject has answered a method call
// that was sent after it: broker and subject take both in order.
//
// Needs the gateway's interfaces, which run.sh provides. It is best run on one processor: waking another one
// may take longer than to handle an event, above all in a virtual machine.
#include <arpa/inet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/common.h"
#include "platform/host/store.h"
#include "platform/lib_zk_ubus.h"
#include "platform/zkcfgif.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr int TURNS = 7;
constexpr size_t EVENTS_A_TURN = 6000;
constexpr unsigned LAP = 2 * MAX_HOSTS; // hosts visited before the subject is asked whether it has followed
constexpr int LATENCY_SAMPLES = 2000;
constexpr auto LATENCY_PAUSE = std::chrono::milliseconds(1);
constexpr int TIMEOUT_MS = 10000;

void check(bool good, const std::string &why)
{
    if (good)
        return;
    fprintf(stderr, "bench_road: %s\n", why.c_str());
    exit(1);
}

// Tries until it succeeds, as long as it may take a program to start.
template <typename Attempt>
void until(Attempt attempt, const std::string &why)
{
    for (int tries = 0; !attempt(); tries++) {
        check(tries < TIMEOUT_MS, why);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

double seconds_since(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// The value below which `part` of the values lie.
double quantile(std::vector<double> values, double part)
{
    auto place = values.begin() + static_cast<ptrdiff_t>(part * static_cast<double>(values.size()));
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

// --- Programs

using Words = std::vector<std::string>;

// A program that ends with this object, and with this process.
class Program {
public:
    explicit Program(Words words)
    {
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        pid_t parent = getpid();
        pid_ = fork();
        check(pid_ >= 0, "cannot fork");
        if (pid_ > 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent)
            execv(argv[0], argv.data());
        fprintf(stderr, "bench_road: cannot run %s\n", argv[0]);
        _exit(127);
    }
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;
    ~Program()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

    double cpu_seconds() const
    {
        clockid_t clock = 0;
        timespec time{};
        bool told = clock_getcpuclockid(pid_, &clock) == 0 && clock_gettime(clock, &time) == 0;
        check(told, "a program has ended");
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    }

    // Sum of the named lines of the kernel's account of its memory, in KiB.
    double memory(std::initializer_list<const char *> names) const
    {
        std::ifstream rollup("/proc/" + std::to_string(pid_) + "/smaps_rollup");
        double sum = 0;
        for (std::string line; std::getline(rollup, line);) {
            for (const char *name : names) {
                if (line.starts_with(name))
                    sum += strtod(line.c_str() + strlen(name), nullptr);
            }
        }
        return sum;
    }

private:
    pid_t pid_ = -1;
};

fs::path beside_this_program(const char *name)
{
    return fs::read_symlink("/proc/self/exe").parent_path() / name;
}

// The stand-ins: connect, publish and subscribe as the daemon does, through the same platform. One lets the
// events pass, the other announces what the daemon announces and does nothing else.
constexpr char IDLE_SUBSCRIBER[] = "idle-subscriber";
constexpr char BARE_ANNOUNCER[] = "bare-announcer";

void ignore_event(ubus_context *, ubus_event_handler *, const char *, blob_attr *) {}

void announce_event(ubus_context *ctx, ubus_event_handler *, const char *type, blob_attr *)
{
    static blob_buf buf;
    if (strcmp(type, UBUS_EVENT_MAC_ADDR_INFO) == 0)
        return;
    blob_buf_init(&buf, 0);
    blobmsg_add_u32(&buf, "objnum", 1);
    lib_zk_ubus_send_event(ctx, UBUS_EVENT_LANHOST_PARAM_CHANGE, buf);
}

int run_stand_in(ubus_event_handler_t handle)
{
    static ubus_object_type type;
    static ubus_object object;
    static ubus_event_handler listener;
    type.name = object.name = "ovani";
    object.type = &type;
    listener.cb = handle;
    ubus_context *ctx = nullptr;
    lib_zk_ubus_init(&ctx);
    lib_zk_ubus_add_object(ctx, &object);
    for (const char *event : {UBUS_EVENT_ARP_INFO, UBUS_EVENT_MAC_ADDR_INFO, UBUS_EVENT_UNI_PORT_LINK_STATE,
                              UBUS_EVENT_WIFI_ON_OFF, UBUS_EVENT_DHCP_USER_CONN, UBUS_EVENT_WAN_VLAN_INFO})
        lib_zk_ubus_register_event_handler(ctx, &listener, event);
    return lib_zk_ubus_run(UBUS_THREAD_SINGLE);
}

// --- Events

// An event ready to be sent.
struct Event {
    const char *name;
    std::shared_ptr<blob_attr> message;
};

template <typename Fill>
Event make_event(const char *name, Fill fill)
{
    blob_buf buf{};
    blob_buf_init(&buf, 0);
    fill(buf);
    Event event{name, std::shared_ptr<blob_attr>(blob_memdup(buf.head), free)};
    blob_buf_free(&buf);
    return event;
}

Event mac_event(BenchHost host)
{
    return make_event(UBUS_EVENT_MAC_ADDR_INFO, [=](blob_buf &buf) {
        ovani_mac_event event = learned_event(host);
        lib_zk_blobmsg_add_struct(&buf, "mac_struct", &event, sizeof event);
    });
}

Event arp_event(BenchHost host)
{
    return make_event(UBUS_EVENT_ARP_INFO, [=](blob_buf &buf) {
        ovani_arp_event event = neighbour_event(host);
        event.ipv4 = htonl(event.ipv4);
        lib_zk_blobmsg_add_struct(&buf, "arp_struct", &event, sizeof event);
    });
}

Event dhcp_event(BenchHost host)
{
    return make_event(UBUS_EVENT_DHCP_USER_CONN, [=](blob_buf &buf) {
        blobmsg_add_string(&buf, "dhcp_user_string", lease_event(host).c_str());
    });
}

struct Stream {
    const char *name;
    std::vector<Event (*)(BenchHost)> kinds; // what is sent of each host, in turn
    bool changing;                           // with every second visit of a host in its other variant
};

const std::vector<Stream> STREAMS = {
    {"109", {mac_event}, false},
    {"110", {arp_event}, false},
    {"dhcp_user_event", {dhcp_event}, false},
    {"110, new address", {arp_event}, true},
    {"dhcp_user_event, new lease time", {dhcp_event}, true},
    // Each of the last two undoes the other's AckTime and DeviceType, so that both write.
    {"109, 110, dhcp_user_event in turn", {mac_event, arp_event, dhcp_event}, true},
};

using Lap = std::vector<Event>;

Lap make_lap(const Stream &stream, unsigned hosts)
{
    Lap lap;
    for (unsigned n = 0; n < LAP; n++) {
        BenchHost host{.number = n % hosts, .variant = stream.changing ? n / hosts % 2 : 0};
        for (auto *make : stream.kinds)
            lap.push_back(make(host));
    }
    return lap;
}

// --- A subject with its broker and its store

class Subject {
public:
    // `program` with its arguments finds its broker and its store in the environment.
    Subject(Words program, unsigned hosts) : hosts_(hosts)
    {
        std::string socket = directory_.file("bus");
        setenv("OVANI_UBUS_SOCKET", socket.c_str(), 1);
        setenv("OVANI_STORE", store().c_str(), 1);

        broker_ = std::make_unique<Program>(Words{beside_this_program("ubusd"), "-s", socket});
        until([&] { return (bus_ = ubus_connect(socket.c_str())) != nullptr; },
              "the broker does not come up");
        program_ = std::make_unique<Program>(std::move(program));
        until([&] { return ubus_lookup_id(bus_, "ovani", &object_) == 0; }, "the subject does not come up");
        wait_until_handled(); // it answers from its loop, when it has subscribed
    }
    Subject(const Subject &) = delete;
    Subject &operator=(const Subject &) = delete;
    ~Subject()
    {
        ubus_free(bus_);
        blob_buf_free(&no_arguments_);
    }

    unsigned hosts() const { return hosts_; }
    const Program &program() const { return *program_; }

    void send(const Event &event)
    {
        check(ubus_send_event(bus_, event.name, event.message.get()) == 0,
              "the broker does not take an event");
    }

    void send(const Lap &lap)
    {
        for (const Event &event : lap)
            send(event);
        wait_until_handled();
    }

    // The object has no such method, which is what it answers when its turn comes.
    void wait_until_handled()
    {
        blob_buf_init(&no_arguments_, 0);
        int status = ubus_invoke(bus_, object_, "handled", no_arguments_.head, nullptr, nullptr, TIMEOUT_MS);
        check(status == UBUS_STATUS_METHOD_NOT_FOUND, std::string("no answer: ") + ubus_strerror(status));
    }

    void listen_for_announcements()
    {
        listener_.subject = this;
        listener_.cb = [](ubus_context *, ubus_event_handler *self, const char *, blob_attr *) {
            static_cast<Listener *>(self)->subject->announced_ = true;
        };
        int status = ubus_register_event_handler(bus_, &listener_, UBUS_EVENT_LANHOST_PARAM_CHANGE);
        check(status == 0, "cannot subscribe");
    }

    double time_to_announcement(const Event &event)
    {
        announced_ = false;
        auto begin = Clock::now();
        send(event);
        while (!announced_) {
            pollfd readable{.fd = bus_->sock.fd, .events = POLLIN, .revents = 0};
            check(poll(&readable, 1, TIMEOUT_MS) == 1, "no announcement came");
            ubus_handle_event(bus_);
        }
        return seconds_since(begin);
    }

    fs::file_time_type last_written() const { return fs::last_write_time(store() + "-wal"); }

    // What the store says of a parameter below "Hosts.".
    std::string stored(const std::string &parameter) const
    {
        char value[256] = "";
        setenv("OVANI_STORE", store().c_str(), 1);
        std::string path = "InternetGatewayDevice.LANDevice.1.Hosts." + parameter;
        zkapi_singlevalue_get(path.c_str(), value, DEVFUNC_NOCALL, 1000);
        store_close();
        return value;
    }

private:
    struct Listener : ubus_event_handler {
        Subject *subject;
    };

    std::string store() const { return directory_.file("store.db"); }

    unsigned hosts_;
    TempDir directory_;
    std::unique_ptr<Program> broker_;
    ubus_context *bus_ = nullptr;
    std::unique_ptr<Program> program_;
    uint32_t object_ = 0;
    blob_buf no_arguments_{};
    Listener listener_{};
    bool announced_ = false;
};

// --- Measuring

enum Role { DAEMON, ONE_HOST, IDLE, ANNOUNCER, ROLES };
using Subjects = std::array<std::unique_ptr<Subject>, ROLES>;

// The daemons make their hosts; all figures are about these.
Subjects start_subjects()
{
    std::string self = fs::read_symlink("/proc/self/exe");
    std::string ovani = beside_this_program("ovani");
    Subjects subjects{
        std::make_unique<Subject>(Words{ovani}, MAX_HOSTS),
        std::make_unique<Subject>(Words{ovani}, 1),
        std::make_unique<Subject>(Words{self, IDLE_SUBSCRIBER}, MAX_HOSTS),
        std::make_unique<Subject>(Words{self, BARE_ANNOUNCER}, MAX_HOSTS),
    };
    for (Role role : {DAEMON, ONE_HOST}) {
        Subject &subject = *subjects[role];
        for (const Stream &stream : STREAMS)
            subject.send(make_lap(stream, subject.hosts()));
        std::string hosts = std::to_string(subject.hosts());
        check(subject.stored("HostNumberOfEntries") == hosts, "the daemon has not made the hosts");
        check(subject.stored("Host." + hosts + ".LeaseTimeRemaining") == std::to_string(lease_seconds(1)),
              "the daemon has missed an event");
    }
    return subjects;
}

// Seconds an event, turn by turn: by the clock, and of the subject's processor time.
struct Cost {
    std::vector<double> clock, cpu;
};
using Costs = std::array<Cost, ROLES>;

double median_us(const std::vector<double> &seconds)
{
    return 1e6 * quantile(seconds, 0.5);
}

// Of two costs taken in turns: what else goes on in the machine slows neighbouring turns alike.
double median_ratio(const std::vector<double> &a, const std::vector<double> &b)
{
    std::vector<double> ratios(a.size());
    std::transform(a.begin(), a.end(), b.begin(), ratios.begin(), std::divides<>());
    return quantile(ratios, 0.5);
}

// `lap` over and over; a lap ends with what the next one changes.
void take_turn(Subject &subject, const Lap &lap, Cost &cost)
{
    subject.send(lap); // what was before the stream is none of its business
    size_t events = 0;
    double cpu = subject.program().cpu_seconds();
    auto begin = Clock::now();
    for (; events < EVENTS_A_TURN; events += lap.size())
        subject.send(lap);
    cost.clock.push_back(seconds_since(begin) / static_cast<double>(events));
    cost.cpu.push_back((subject.program().cpu_seconds() - cpu) / static_cast<double>(events));
}

Costs measure(const Subjects &subjects, const Stream &stream)
{
    Costs costs;
    Lap lap = make_lap(stream, MAX_HOSTS);
    Lap lap_of_one = make_lap(stream, 1);
    subjects[DAEMON]->send(lap);
    auto before = subjects[DAEMON]->last_written();
    for (int turn = 0; turn < TURNS; turn++) {
        for (int role = 0; role < ROLES; role++)
            take_turn(*subjects[role], role == ONE_HOST ? lap_of_one : lap, costs[role]);
    }
    bool written = subjects[DAEMON]->last_written() != before;
    check(written == stream.changing,
          std::string(stream.name) + (written ? " was written" : " was not written"));
    return costs;
}

std::vector<double> latencies_us(Subject &subject, const Stream &stream)
{
    Lap lap = make_lap(stream, subject.hosts());
    std::vector<double> values;
    for (size_t i = 0; i < LATENCY_SAMPLES; i++) {
        values.push_back(1e6 * subject.time_to_announcement(lap[i % lap.size()]));
        std::this_thread::sleep_for(LATENCY_PAUSE);
    }
    return values;
}

// --- The table

void print_heading(const char *what, std::initializer_list<const char *> columns)
{
    printf("\n%-42s", what);
    for (const char *column : columns)
        printf(" %9s", column);
    printf("\n");
}

void print_row(const char *what, std::initializer_list<double> values)
{
    printf("  %-40s", what);
    for (double value : values)
        printf(" %9.*f", value < 100 ? 2 : 0, value);
    printf("\n");
}

void print_rates(const std::vector<Costs> &costs)
{
    print_heading("the road of 254 hosts, events/s", {"ovani", "idle", "ratio", "announcer", "ratio"});
    for (size_t i = 0; i < STREAMS.size(); i++) {
        const std::vector<double> &ovani = costs[i][DAEMON].clock;
        const std::vector<double> &idle = costs[i][IDLE].clock;
        const std::vector<double> &announcer = costs[i][ANNOUNCER].clock;
        print_row(STREAMS[i].name, {1e6 / median_us(ovani), 1e6 / median_us(idle), median_ratio(idle, ovani),
                                    1e6 / median_us(announcer), median_ratio(announcer, ovani)});
    }
}

void print_cpu(const std::vector<Costs> &costs)
{
    print_heading("of which its own processor time, us/event",
                  {"254 hosts", "1 host", "ratio", "idle", "announcer"});
    for (size_t i = 0; i < STREAMS.size(); i++) {
        const std::vector<double> &many = costs[i][DAEMON].cpu;
        const std::vector<double> &one = costs[i][ONE_HOST].cpu;
        print_row(STREAMS[i].name, {median_us(many), median_us(one), median_ratio(many, one),
                                    median_us(costs[i][IDLE].cpu), median_us(costs[i][ANNOUNCER].cpu)});
    }
}

void print_latencies(const Subjects &subjects)
{
    print_heading("event to announcement, us", {"p50", "p99", "announcer", "p99"});
    subjects[DAEMON]->listen_for_announcements();
    subjects[ANNOUNCER]->listen_for_announcements();
    for (const Stream &stream : STREAMS) {
        if (stream.kinds.front() == mac_event)
            continue; // not announced
        std::vector<double> ovani = latencies_us(*subjects[DAEMON], stream);
        std::vector<double> announcer = latencies_us(*subjects[ANNOUNCER], stream);
        print_row(stream.name, {quantile(ovani, 0.5), quantile(ovani, 0.99), quantile(announcer, 0.5),
                                quantile(announcer, 0.99)});
    }
}

void print_memory(const Program &many, const Program &one)
{
    print_heading("memory of the daemon, KiB", {"254 hosts", "1 host"});
    print_row("resident (VmRSS)", {many.memory({"Rss:"}), one.memory({"Rss:"})});
    auto own = {"Private_Clean:", "Private_Dirty:"};
    print_row("not shared with other programs", {many.memory(own), one.memory(own)});
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], IDLE_SUBSCRIBER) == 0)
        return run_stand_in(ignore_event);
    if (argc == 2 && strcmp(argv[1], BARE_ANNOUNCER) == 0)
        return run_stand_in(announce_event);

    check(if_nametoindex("eth0") != 0 && if_nametoindex("eth3") != 0, "there are no eth0 to eth3 here");
    Subjects subjects = start_subjects();
    std::vector<Costs> costs(STREAMS.size());
    for (size_t i = 0; i < STREAMS.size(); i++)
        costs[i] = measure(subjects, STREAMS[i]);
    print_rates(costs);
    print_cpu(costs);
    print_latencies(subjects);
    print_memory(subjects[DAEMON]->program(), subjects[ONE_HOST]->program());
    return 0;
}
