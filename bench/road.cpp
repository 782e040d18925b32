// bench_road: the daemon end to end, beside announcers (announcer.cpp) that hear and send the same and do
// nothing else.
//
// Every subject, a daemon or an announcer, has a broker and a store of its own, so that it alone hears what
// is sent; the others sleep meanwhile. Subjects take short turns at every stream, many times, and what is
// printed are medians of the turns. Cost is processor time, of subject, broker and sender together: a clock
// would measure what else the machine does. The sender waits for the broker's answer to every event, as all
// senders on the bus do. An event counts as handled when the subject has answered a method call that was sent
// after it: broker and subject take both in order.
//
// Needs a gateway around it (run.sh): br0 with eth0 to eth3, and nothing else that speaks. Its first argument
// says what is measured: "all", the "road" alone, or "instructions"; a second one, "short", makes do with
// fewer turns.
#include <arpa/inet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
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

int turns = 15;
int starts = 9;
constexpr size_t EVENTS_A_TURN = 2000;
constexpr unsigned LAP = 2 * MAX_HOSTS; // hosts visited before the subject is asked whether it has followed
size_t latency_samples = 2000;
constexpr auto LATENCY_PAUSE = std::chrono::microseconds(500);
constexpr unsigned COMMANDS = 20; // events that each start a command, in a lap
constexpr int TIMEOUT_MS = 20000;

void check(bool good, const std::string &why)
{
    if (!good) {
        fprintf(stderr, "bench_road: %s\n", why.c_str());
        exit(1);
    }
}

// Tries until it succeeds, as long as it may take a program to start.
template <typename Attempt>
void until(Attempt attempt, const std::string &why)
{
    for (int tries = 0; !attempt(); ++tries) {
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

double median(const std::vector<double> &values)
{
    return quantile(values, 0.5);
}

// Of two costs taken in turns: what else goes on in the machine slows neighbouring turns alike.
double median_ratio(const std::vector<double> &a, const std::vector<double> &b)
{
    std::vector<double> ratios(a.size());
    std::transform(a.begin(), a.end(), b.begin(), ratios.begin(), std::divides<>());
    return median(ratios);
}

double cpu_seconds(clockid_t clock)
{
    timespec time{};
    check(clock_gettime(clock, &time) == 0, "a program has ended");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// --- Programs

using Words = std::vector<std::string>;

// A program that ends with this object, and with this process.
class Program {
public:
    explicit Program(Words words)
    {
        std::vector<char *> argv;
        for (std::string &word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        pid_t parent = getpid();
        pid_ = fork();
        check(pid_ >= 0, "cannot fork");
        if (pid_ > 0) {
            return;
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent) {
            execvp(argv[0], argv.data());
        }
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

    // As init would, and returns when it has gone.
    void end() const
    {
        kill(pid_, SIGTERM);
        siginfo_t info{};
        waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    }

    double cpu() const
    {
        clockid_t clock = 0;
        check(clock_getcpuclockid(pid_, &clock) == 0, "a program has ended");
        return cpu_seconds(clock);
    }

    // A line of the kernel's account of its memory, in KiB.
    double memory(const std::string &name) const
    {
        std::ifstream rollup("/proc/" + std::to_string(pid_) + "/smaps_rollup");
        for (std::string line; std::getline(rollup, line);) {
            if (line.starts_with(name)) {
                return strtod(line.c_str() + name.size(), nullptr);
            }
        }
        return 0;
    }

private:
    pid_t pid_ = -1;
};

// --- Events

// An event or a call, ready to be sent.
struct Message {
    const char *name;
    bool is_call;
    std::shared_ptr<blob_attr> body;
};

template <typename Fill>
Message make_message(const char *name, Fill fill, bool is_call = false)
{
    blob_buf buf{};
    blob_buf_init(&buf, 0);
    fill(buf);
    Message message{name, is_call, std::shared_ptr<blob_attr>(blob_memdup(buf.head), free)};
    blob_buf_free(&buf);
    return message;
}

template <typename Record>
Message record_message(const char *name, const char *attribute, const Record &record)
{
    return make_message(
        name, [&](blob_buf &buf) { lib_zk_blobmsg_add_struct(&buf, attribute, &record, sizeof record); });
}

Message learned(BenchHost host)
{
    return record_message(UBUS_EVENT_MAC_ADDR_INFO, "mac_struct", learned_event(host));
}

Message aged(BenchHost host)
{
    ovani_mac_event event = learned_event(host);
    event.action = 0;
    return record_message(UBUS_EVENT_MAC_ADDR_INFO, "mac_struct", event);
}

Message neighbour(BenchHost host)
{
    ovani_arp_event event = neighbour_event(host);
    event.ipv4 = htonl(event.ipv4);
    return record_message(UBUS_EVENT_ARP_INFO, "arp_struct", event);
}

// Nobody knows it, the bridge neither.
Message stranger(BenchHost host)
{
    return neighbour({.number = 60000 + host.number, .variant = 0});
}

Message joined(BenchHost host)
{
    ovani_wifi_event event{.event_id = 1, .ssidno = static_cast<uint8_t>(host.variant), .action = 1};
    set_mac(event.mac, host);
    return record_message(UBUS_EVENT_WIFI_ON_OFF, "wifi_user_struct", event);
}

// Of a port where nobody is.
Message link_down(BenchHost)
{
    return record_message(UBUS_EVENT_UNI_PORT_LINK_STATE, "port_status_struct",
                          ovani_port_status_event{.event_id = 1, .port = 9, .status = 0});
}

Message lease(BenchHost host)
{
    return make_message(UBUS_EVENT_DHCP_USER_CONN, [=](blob_buf &buf) {
        blobmsg_add_string(&buf, "dhcp_user_string", lease_event(host).c_str());
    });
}

// A front end's call: the object that it has changed, and what it has changed there.
Message set_parameters(const char *method, const std::string &object,
                       std::initializer_list<std::pair<const char *, const char *>> pairs)
{
    return make_message(
        method,
        [&](blob_buf &buf) {
            blobmsg_add_string(&buf, "url", object.c_str());
            void *data = blobmsg_open_table(&buf, "data");
            for (auto [name, value] : pairs) {
                blobmsg_add_string(&buf, name, value);
            }
            blobmsg_close_table(&buf, data);
        },
        true);
}

constexpr char LAN_PATH[] = "InternetGatewayDevice.LANDevice.1.";

Message set_ceiling(BenchHost host)
{
    return set_parameters(BENCH_METHODS[0],
                          LAN_PATH + ("Hosts.Host." + std::to_string(host.number + 1)) + ".",
                          {{"MaxUSBandwidth", host.variant == 0 ? "2048" : "4096"}});
}

Message set_port_rate(BenchHost host)
{
    return set_parameters(BENCH_METHODS[1], std::string(LAN_PATH) + "LANEthernetInterfaceConfig.1.",
                          {{"MaxBitRate", host.number % 2 == 0 ? "100" : "1000"}, {"DuplexMode", "Full"}});
}

using Maker = Message (*)(BenchHost);
using Reactions = std::map<std::string, std::string>;
enum Writes { NEVER, EACH, SOME };

// What is sent of each host in turn, and what the daemon does about it.
struct Stream {
    const char *name;
    Maker make;
    bool changing; // every second visit of a host finds it in its other variant
    Writes writes;
    std::string reaction;
    Maker restore = nullptr; // what is sent after each lap, unmeasured, for the next to be like it
    std::string restored{};  // and what the daemon does about that
};

const Stream MAC{"109", learned, false, NEVER, ""};
const Stream ARP{"110", neighbour, false, NEVER, "c"};
const Stream STREAMS[] = {
    MAC,
    ARP,
    {"110, new address", neighbour, true, EACH, "cu"},
    {"dhcp_user_event", lease, false, NEVER, "c"},
    {"dhcp_user_event, new lease time", lease, true, EACH, "cu"},
    {"111, same Wi-Fi", joined, false, SOME, "c"}, // writes what second it is
    {"111, other Wi-Fi", joined, true, EACH, "cu"},
    {"106, nobody there", link_down, false, NEVER, ""},
    {"109, a host comes", learned, false, EACH, "civ", aged, "cdv"},
    {"109, a host leaves", aged, false, EACH, "cdv", learned, "civ"},
    {"set_lanhost_config", set_ceiling, true, EACH, "cu"},
    {"ovani_devfuc_port_cfg", set_port_rate, true, EACH, "u"},
};
const Stream UNKNOWN{"110, unknown MAC", stranger, false, NEVER, "x"};
const Stream MESH{"110, in a mesh", neighbour, false, NEVER, "xc"};

using Lap = std::vector<Message>;

Lap make_lap(Maker make, bool changing, unsigned hosts, unsigned visits)
{
    Lap lap;
    for (unsigned n = 0; n < visits; ++n) {
        lap.push_back(make({.number = n % hosts, .variant = changing ? n / hosts % 2 : 0}));
    }
    return lap;
}

// --- A subject with its broker and its store

class Subject {
public:
    // `program` finds its broker and its store in the environment.
    Subject(Words program, unsigned hosts) : words_(std::move(program)), hosts_(hosts)
    {
        broker_ = std::make_unique<Program>(Words{"ubusd", "-s", socket()});
        until([&] { return (bus_ = ubus_connect(socket().c_str())) != nullptr; },
              "the broker does not come up");
        start();
    }
    Subject(const Subject &) = delete;
    Subject &operator=(const Subject &) = delete;
    ~Subject()
    {
        ubus_free(bus_);
        blob_buf_free(&no_arguments_);
        blob_buf_free(&request_);
    }

    unsigned hosts() const { return hosts_; }
    const Program &program() const { return *program_; }
    std::string socket() const { return directory_.file("bus"); }

    void stop() { program_.reset(); }

    // Seconds until it answers. With its store from the last time, or without.
    double start(bool afresh = false)
    {
        stop();
        if (afresh) {
            for (const char *part : {"", "-wal", "-shm"}) {
                fs::remove(store() + part);
            }
        }
        setenv("OVANI_UBUS_SOCKET", socket().c_str(), 1);
        setenv("OVANI_STORE", store().c_str(), 1);
        until([&] { return ubus_lookup_id(bus_, "ovani", &object_) != 0; }, "the broker keeps the object");
        auto begin = Clock::now();
        program_ = std::make_unique<Program>(words_);
        until([&] { return ubus_lookup_id(bus_, "ovani", &object_) == 0; }, "the subject does not come up");
        wait_until_handled(); // it answers from its loop, when it has subscribed
        return seconds_since(begin);
    }

    // Tells announcers what to do.
    void set_reactions(const Reactions &reactions)
    {
        send(make_message(BENCH_REACTIONS_EVENT, [&](blob_buf &buf) {
            for (const auto &[name, steps] : reactions) {
                blobmsg_add_string(&buf, name.c_str(), steps.c_str());
            }
        }));
    }

    void send(const Message &message)
    {
        int status = message.is_call ? ubus_invoke(bus_, object_, message.name, message.body.get(), nullptr,
                                                   nullptr, TIMEOUT_MS)
                                     : ubus_send_event(bus_, message.name, message.body.get());
        check(status == 0, std::string(message.name) + ": " + ubus_strerror(status));
    }

    void send(const Lap &lap)
    {
        for (const Message &message : lap) {
            send(message);
        }
        wait_until_handled();
    }

    // The object has no such method, which is what it answers when its turn comes.
    void wait_until_handled()
    {
        blob_buf_init(&no_arguments_, 0);
        int status = ubus_invoke(bus_, object_, "handled", no_arguments_.head, nullptr, nullptr, TIMEOUT_MS);
        check(status == UBUS_STATUS_METHOD_NOT_FOUND, std::string("no answer: ") + ubus_strerror(status));
    }

    double round_trip()
    {
        auto begin = Clock::now();
        wait_until_handled();
        return seconds_since(begin);
    }

    // From sending to hearing what is announced; of what is not announced, until a call behind it is
    // answered.
    double latency(const Message &message, bool announced)
    {
        auto begin = Clock::now();
        if (message.is_call) {
            send(message);
            return seconds_since(begin);
        }
        size_t before = heard_.changes;
        send_without_waiting(message);
        if (!announced) {
            wait_until_handled();
        }
        while (announced && heard_.changes == before) {
            pollfd readable{.fd = bus_->sock.fd, .events = POLLIN, .revents = 0};
            check(poll(&readable, 1, TIMEOUT_MS) == 1, "no announcement came");
            ubus_handle_event(bus_);
        }
        return seconds_since(begin);
    }

    void hear_changes()
    {
        heard_.cb = [](ubus_context *, ubus_event_handler *self, const char *, blob_attr *) {
            ++static_cast<Changes *>(self)->changes;
        };
        check(ubus_register_event_handler(bus_, &heard_, UBUS_EVENT_LANHOST_PARAM_CHANGE) == 0,
              "cannot listen");
    }

    // Of itself, its broker and this process.
    double cpu() const { return program_->cpu() + broker_->cpu() + cpu_seconds(CLOCK_PROCESS_CPUTIME_ID); }

    fs::file_time_type last_written() const { return fs::last_write_time(store() + "-wal"); }

    // What the store says of a parameter below LANDevice.1.
    std::string stored(const std::string &parameter) const
    {
        char value[256] = "";
        with_store(
            [&] { zkapi_singlevalue_get((LAN_PATH + parameter).c_str(), value, DEVFUNC_NOCALL, 1000); });
        return value;
    }
    void store(const std::string &parameter, const char *value) const
    {
        with_store(
            [&] { zkapi_singlevalue_set((LAN_PATH + parameter).c_str(), value, DEVFUNC_NOCALL, 1000); });
    }

private:
    struct Changes : ubus_event_handler {
        size_t changes;
    };

    void send_without_waiting(const Message &message)
    {
        blob_buf_init(&request_, 0);
        blobmsg_add_string(&request_, "id", message.name);
        blobmsg_add_field(&request_, BLOBMSG_TYPE_TABLE, "data", blob_data(message.body.get()),
                          static_cast<unsigned>(blob_len(message.body.get())));
        ubus_request unanswered{};
        int status = ubus_invoke_async(bus_, UBUS_SYSTEM_OBJECT_EVENT, "send", request_.head, &unanswered);
        check(status == 0, "cannot send");
    }

    std::string store() const { return directory_.file("store.db"); }
    template <typename Use>
    void with_store(Use use) const
    {
        setenv("OVANI_STORE", store().c_str(), 1);
        use();
        store_close();
    }

    Words words_;
    unsigned hosts_;
    TempDir directory_;
    std::unique_ptr<Program> broker_;
    ubus_context *bus_ = nullptr;
    std::unique_ptr<Program> program_;
    uint32_t object_ = 0;
    blob_buf no_arguments_{};
    blob_buf request_{};
    Changes heard_{};
};

// Counts the announcements on a broker.
class Ears {
public:
    explicit Ears(const std::string &socket) : bus_(ubus_connect(socket.c_str()))
    {
        check(bus_ != nullptr, "cannot listen");
        for (const char *event : {UBUS_EVENT_LANHOST_PARAM_CHANGE, UBUS_EVENT_LANHOST_UP_DOWN}) {
            Listener &listener = listeners_[event];
            listener.cb = [](ubus_context *, ubus_event_handler *self, const char *, blob_attr *) {
                ++static_cast<Listener *>(self)->heard;
            };
            check(ubus_register_event_handler(bus_, &listener, event) == 0, "cannot listen");
        }
    }
    Ears(const Ears &) = delete;
    Ears &operator=(const Ears &) = delete;
    ~Ears() { ubus_free(bus_); }

    // False when nothing came in that time.
    bool listen(int milliseconds)
    {
        pollfd readable{.fd = bus_->sock.fd, .events = POLLIN, .revents = 0};
        if (poll(&readable, 1, milliseconds) != 1) {
            return false;
        }
        ubus_handle_event(bus_);
        return true;
    }
    size_t heard(const char *event) const { return listeners_.at(event).heard; }

private:
    struct Listener : ubus_event_handler {
        size_t heard;
    };
    ubus_context *bus_;
    std::map<std::string, Listener> listeners_;
};

// --- Measuring

enum Role { DAEMON, ANNOUNCER, WITH_ROW, ONE_HOST, THOUSAND, TEN_THOUSAND, ROLES };
using Subjects = std::array<std::unique_ptr<Subject>, ROLES>;

// There is one daemon in a network namespace.
constexpr char ELSEWHERE[] = "for port in 0 1 2 3; do ip link add eth$port type dummy; done; exec ovani";

// A daemon that knows `known` hosts, of which up to 254 are here and have objects; events are about these.
std::unique_ptr<Subject> start_daemon(unsigned known)
{
    Words program = known == MAX_HOSTS ? Words{"ovani"} : Words{"unshare", "--net", "sh", "-c", ELSEWHERE};
    auto subject = std::make_unique<Subject>(program, std::min(known, MAX_HOSTS));
    Lap seen;
    for (unsigned number = MAX_HOSTS; number < known; ++number) {
        seen.push_back(learned({number, 0}));
        seen.push_back(aged({number, 0}));
        if (seen.size() >= LAP) {
            subject->send(std::exchange(seen, {}));
        }
    }
    subject->send(seen);
    for (Maker make : {learned, neighbour, lease}) {
        subject->send(make_lap(make, false, subject->hosts(), subject->hosts()));
    }
    std::string hosts = std::to_string(subject->hosts());
    check(subject->stored("Hosts.HostNumberOfEntries") == hosts, "the daemon has not made the hosts");
    check(subject->stored("Hosts.Host." + hosts + ".LeaseTimeRemaining") == std::to_string(lease_seconds(0)),
          "the daemon has missed an event");
    return subject;
}

Subjects start_subjects()
{
    return {
        start_daemon(MAX_HOSTS),
        std::make_unique<Subject>(Words{"bench_announcer"}, MAX_HOSTS),
        std::make_unique<Subject>(Words{"bench_announcer", "--row"}, MAX_HOSTS),
        start_daemon(1),
        start_daemon(1000),
        start_daemon(10000),
    };
}

// Seconds an event, turn by turn.
struct Cost {
    std::vector<double> cpu; // of subject, broker and sender
    std::vector<double> own; // of the subject
    std::vector<double> clock;
};
using Costs = std::array<Cost, ROLES>;

// One subject's laps of a stream.
class Laps {
public:
    Laps(Subject &subject, const Stream &stream, unsigned visits)
        : subject_(subject), stream_(stream), hosts_(std::min(subject.hosts(), visits)),
          lap_(make_lap(stream.make, stream.changing, hosts_, stream.restore == nullptr ? visits : hosts_))
    {
        if (stream.restore != nullptr) {
            restoring_ = make_lap(stream.restore, false, hosts_, hosts_);
        }
    }

    void run()
    {
        subject_.set_reactions({{lap_.front().name, stream_.reaction}});
        subject_.wait_until_handled();
        double cpu = subject_.cpu();
        double own = subject_.program().cpu();
        auto begin = Clock::now();
        subject_.send(lap_);
        clock_ += seconds_since(begin);
        own_ += subject_.program().cpu() - own;
        cpu_ += subject_.cpu() - cpu;
        events_ += lap_.size();
        if (!restoring_.empty()) {
            subject_.set_reactions({{restoring_.front().name, stream_.restored}});
            subject_.send(restoring_);
        }
    }

    // Laps before it are none of its business.
    void take_turn(Cost &cost)
    {
        cpu_ = own_ = clock_ = 0;
        for (events_ = 0; events_ < std::min(EVENTS_A_TURN, 4 * lap_.size());) {
            run();
        }
        auto events = static_cast<double>(events_);
        cost.cpu.push_back(cpu_ / events);
        cost.own.push_back(own_ / events);
        cost.clock.push_back(clock_ / events);
    }

    // The subject is to announce what the stream's reaction says, no more and no less.
    void check_announcements()
    {
        run(); // what was before the stream is not asked about
        Ears ears(subject_.socket());
        run();
        while (ears.listen(50)) {
        }
        for (auto [event, step] : {std::pair{UBUS_EVENT_LANHOST_PARAM_CHANGE, REACTION_CHANGE},
                                   std::pair{UBUS_EVENT_LANHOST_UP_DOWN, REACTION_VISIT}}) {
            auto in = [step = step](const std::string &steps) {
                return static_cast<size_t>(std::count(steps.begin(), steps.end(), step));
            };
            size_t expected = in(stream_.reaction) * lap_.size() + in(stream_.restored) * restoring_.size();
            check(ears.heard(event) == expected, std::string(stream_.name) + ": " +
                                                     std::to_string(ears.heard(event)) + " times " + event +
                                                     " instead of " + std::to_string(expected));
        }
    }

private:
    Subject &subject_;
    const Stream &stream_;
    unsigned hosts_;
    Lap lap_;
    Lap restoring_;
    size_t events_ = 0;
    double cpu_ = 0;
    double own_ = 0;
    double clock_ = 0;
};

Costs measure(const Subjects &subjects, const Stream &stream, const std::vector<Role> &roles,
              unsigned visits = LAP)
{
    Costs costs;
    std::map<Role, Laps> laps;
    for (Role role : roles) {
        Laps &mine = laps.try_emplace(role, *subjects[role], stream, visits).first->second;
        mine.check_announcements();
    }
    auto before = subjects[DAEMON]->last_written();
    for (int turn = 0; turn < turns; ++turn) {
        for (Role role : roles) {
            laps.at(role).take_turn(costs[role]);
        }
    }
    bool written = subjects[DAEMON]->last_written() != before;
    check(stream.writes == SOME || written == (stream.writes == EACH),
          std::string(stream.name) + (written ? " was written" : " was not written"));
    return costs;
}

// --- The tables

void print_heading(const char *what, std::initializer_list<const char *> columns)
{
    printf("\n%-40s", what);
    for (const char *column : columns) {
        printf(" %9s", column);
    }
    printf("\n");
}

// A value that is no number is left blank.
void print_row(const char *what, std::initializer_list<double> values)
{
    printf("  %-38s", what);
    for (double value : values) {
        if (std::isnan(value)) {
            printf(" %9s", "");
        } else {
            printf(" %9.*f", value < 100 ? 2 : 0, value);
        }
    }
    printf("\n");
    fflush(stdout);
}

double rate(const Cost &cost)
{
    return 1 / median(cost.cpu);
}

void print_rates(const Subjects &subjects)
{
    print_heading("254 hosts, events a processor second",
                  {"ovani", "announcer", "ratio", "with row", "ratio", "own us", "clock us"});
    for (const Stream &stream : STREAMS) {
        std::vector<Role> roles{DAEMON, ANNOUNCER};
        if (stream.writes == EACH) {
            roles.push_back(WITH_ROW);
        }
        Costs costs = measure(subjects, stream, roles);
        const Cost &ovani = costs[DAEMON];
        bool row = stream.writes == EACH;
        print_row(stream.name,
                  {rate(ovani), rate(costs[ANNOUNCER]), median_ratio(costs[ANNOUNCER].cpu, ovani.cpu),
                   row ? rate(costs[WITH_ROW]) : NAN,
                   row ? median_ratio(costs[WITH_ROW].cpu, ovani.cpu) : NAN, 1e6 * median(ovani.own),
                   1e6 * median(ovani.clock)});
    }
}

void print_growth(const Subjects &subjects)
{
    print_heading("hosts known, us of processor time",
                  {"1", "254", "1000", "10000", "254 : 1", "10000 : 1", "own", "own"});
    for (const Stream *stream : {&MAC, &ARP}) {
        Costs costs = measure(subjects, *stream, {ONE_HOST, DAEMON, THOUSAND, TEN_THOUSAND});
        const Cost &one = costs[ONE_HOST];
        auto us = [&](Role role) { return 1e6 * median(costs[role].cpu); };
        print_row(stream->name,
                  {us(ONE_HOST), us(DAEMON), us(THOUSAND), us(TEN_THOUSAND),
                   median_ratio(costs[DAEMON].cpu, one.cpu), median_ratio(costs[TEN_THOUSAND].cpu, one.cpu),
                   median_ratio(costs[DAEMON].own, one.own), median_ratio(costs[TEN_THOUSAND].own, one.own)});
    }
}

// Latencies of one stream's messages, one by one. The first, for which the processor has to fetch what
// another subject drove out of its caches, does not count.
std::vector<double> sample(Subject &subject, const Stream &stream, size_t samples)
{
    bool announced = stream.reaction.find(REACTION_CHANGE) != std::string::npos;
    Lap lap = make_lap(stream.make, stream.changing, MAX_HOSTS, LAP);
    std::vector<double> times;
    for (size_t i = 0; i <= samples; ++i) {
        const Message &message = lap[i % lap.size()];
        subject.set_reactions({{message.name, stream.reaction}});
        subject.wait_until_handled();
        times.push_back(subject.latency(message, announced));
        if (stream.restore != nullptr) {
            subject.set_reactions({{message.name, stream.restored}});
            subject.send(stream.restore({.number = static_cast<unsigned>(i % MAX_HOSTS), .variant = 0}));
        }
        subject.wait_until_handled();
        std::this_thread::sleep_for(LATENCY_PAUSE);
    }
    times.erase(times.begin());
    return times;
}

// In round trips: a call, by way of the broker, of somebody who does nothing else.
void print_latencies(const Subjects &subjects)
{
    print_heading("announced after, in round trips",
                  {"p50", "p99", "p99.9", "announcer", "p99", "p99.9", "trip us", "p99"});
    for (Role role : {DAEMON, ANNOUNCER, WITH_ROW}) {
        subjects[role]->hear_changes();
    }
    constexpr size_t slice = 100;
    for (const Stream &stream : STREAMS) {
        Subject &ovani = *subjects[DAEMON];
        Subject &announcer = *subjects[stream.writes == EACH ? WITH_ROW : ANNOUNCER];
        ovani.send(make_lap(stream.make, stream.changing, MAX_HOSTS, LAP));
        if (stream.restore != nullptr) {
            ovani.send(make_lap(stream.restore, false, MAX_HOSTS, MAX_HOSTS));
        }
        std::array<std::vector<double>, 3> times;
        for (size_t i = 0; i < latency_samples; i += slice) {
            for (const size_t who : {0U, 1U}) {
                std::vector<double> part = sample(who == 0 ? ovani : announcer, stream, slice);
                times[who].insert(times[who].end(), part.begin(), part.end());
            }
            announcer.round_trip();
            for (size_t n = 0; n < slice; ++n) {
                times[2].push_back(announcer.round_trip());
                std::this_thread::sleep_for(LATENCY_PAUSE);
            }
        }
        double trip = median(times[2]);
        auto of = [&](size_t who, double part) { return quantile(times[who], part) / trip; };
        print_row(stream.name, {of(0, 0.5), of(0, 0.99), of(0, 0.999), of(1, 0.5), of(1, 0.99), of(1, 0.999),
                                1e6 * trip, of(2, 0.99)});
    }
}

void print_commands(const Subjects &subjects)
{
    print_heading("with a command each, us by the clock", {"ovani", "announcer", "ratio", "own us"});
    for (const Stream *stream : {&UNKNOWN, &MESH}) {
        if (stream == &MESH) {
            subjects[DAEMON]->store("WLANMeshConfiguration.MeshMode", "Master");
        }
        Costs costs = measure(subjects, *stream, {DAEMON, ANNOUNCER}, COMMANDS);
        print_row(stream->name, {1e6 * median(costs[DAEMON].clock), 1e6 * median(costs[ANNOUNCER].clock),
                                 median_ratio(costs[ANNOUNCER].clock, costs[DAEMON].clock),
                                 1e6 * median(costs[DAEMON].own)});
    }
    subjects[DAEMON]->store("WLANMeshConfiguration.MeshMode", "");
}

// What anybody would write instead.
void print_shell_loop()
{
    constexpr size_t events = 200;
    TempDir directory;
    std::string socket = directory.file("bus");
    Program broker({"ubusd", "-s", socket});
    ubus_context *bus = nullptr;
    until([&] { return (bus = ubus_connect(socket.c_str())) != nullptr; }, "the broker does not come up");
    Program loop({"bash", "-c",
                  "ubus -s $0 listen 110 2>/dev/null | while read -r event; do"
                  " ubus -s $0 send lanhost_param_change '{\"objnum\":1}'; done",
                  socket});
    Ears ears(socket);
    Message event = neighbour({0, 0});
    auto send = [&] { check(ubus_send_event(bus, event.name, event.body.get()) == 0, "no broker"); };
    until(
        [&] {
            send();
            return ears.listen(100);
        },
        "the loop does not come up");
    while (ears.listen(500)) {
    }
    size_t before = ears.heard(UBUS_EVENT_LANHOST_PARAM_CHANGE);
    auto begin = Clock::now();
    for (size_t i = 0; i < events; ++i) {
        send();
    }
    while (ears.heard(UBUS_EVENT_LANHOST_PARAM_CHANGE) - before < events) {
        check(ears.listen(TIMEOUT_MS), "the loop has missed an event");
    }
    print_row("a shell loop around ubus listen, 110", {1e6 * seconds_since(begin) / events});
    ubus_free(bus);
}

// The hosts where a daemon that starts finds them.
void attach_hosts()
{
    std::ofstream bridge("/tmp/bench.bridge");
    std::ofstream neighbours("/tmp/bench.neighbours");
    for (unsigned number = 0; number < MAX_HOSTS; ++number) {
        char mac[18];
        snprintf(mac, sizeof mac, "02:00:00:be:00:%02x", number);
        bridge << "fdb add " << mac << " dev eth" << number % 4 << " master static\n";
        neighbours << "neigh add 192.168.0." << number + 1 << " lladdr " << mac << " dev br0 nud permanent\n";
    }
    bridge.close();
    neighbours.close();
    check(system("bridge -batch /tmp/bench.bridge && ip -batch /tmp/bench.neighbours &&"
                 " rm /tmp/bench.bridge /tmp/bench.neighbours") == 0,
          "cannot attach the hosts");
}

void print_starts(const Subjects &subjects)
{
    Subject &many = *subjects[DAEMON];
    many.stop();
    Subject empty({"ovani"}, 0);
    std::vector<double> afresh;
    std::vector<double> again;
    std::vector<double> with_hosts;
    for (int i = 0; i < starts; ++i) {
        afresh.push_back(1e3 * empty.start(true));
        again.push_back(1e3 * empty.start());
    }
    double empty_anonymous = empty.program().memory("Anonymous:");
    empty.stop();
    attach_hosts();
    with_hosts.reserve(static_cast<size_t>(starts));
    for (int i = 0; i < starts; ++i) {
        with_hosts.push_back(1e3 * many.start());
    }
    check(many.stored("Hosts.HostNumberOfEntries") == std::to_string(MAX_HOSTS), "hosts got lost");
    print_heading("start-up, ms by the clock", {"median", "fastest"});
    auto print = [](const char *what, const std::vector<double> &times) {
        print_row(what, {median(times), quantile(times, 0)});
    };
    print("no store yet", afresh);
    print("no hosts", again);
    print("254 stored, in bridge and ARP cache", with_hosts);
    print_heading("memory after a start, KiB", {"254 hosts", "none"});
    print_row("anonymous", {many.program().memory("Anonymous:"), empty_anonymous});
    print_row("resident, with what is shared", {many.program().memory("Rss:")});
}

// --- Instructions

// What a program executes in its life, with so many laps of a stream.
double instructions(const char *program, const Stream &stream, int laps)
{
    TempDir directory;
    std::string file = directory.file("callgrind");
    Subject subject({"valgrind", "--quiet", "--tool=callgrind", "--callgrind-out-file=" + file, program},
                    MAX_HOSTS);
    for (Maker make : {learned, neighbour}) {
        subject.send(make_lap(make, false, MAX_HOSTS, MAX_HOSTS));
    }
    subject.set_reactions({{stream.make({}).name, stream.reaction}});
    for (int i = 0; i < laps; ++i) {
        subject.send(make_lap(stream.make, false, MAX_HOSTS, MAX_HOSTS));
    }
    subject.program().end();
    std::ifstream counted(file);
    constexpr std::string_view total = "summary: ";
    for (std::string line; std::getline(counted, line);) {
        if (line.starts_with(total)) {
            return strtod(line.c_str() + total.size(), nullptr);
        }
    }
    check(false, "callgrind has not counted");
    return 0;
}

void print_instructions()
{
    print_heading("254 hosts, instructions an event", {"ovani", "announcer", "ratio"});
    constexpr int laps = 10;
    for (const Stream *stream : {&MAC, &ARP}) {
        auto each = [&](const char *program) {
            return (instructions(program, *stream, laps + 1) - instructions(program, *stream, 1)) /
                   (laps * MAX_HOSTS);
        };
        double ovani = each("ovani");
        double announcer = each("bench_announcer");
        print_row(stream->name, {ovani, announcer, announcer / ovani});
    }
}

} // namespace

int main(int argc, char **argv)
{
    std::string_view what = argc > 1 ? argv[1] : "all";
    check(what == "all" || what == "road" || what == "instructions", "all, road or instructions?");
    check(if_nametoindex("eth0") != 0 && if_nametoindex("eth3") != 0, "there are no eth0 to eth3 here");
    if (argc > 2 && strcmp(argv[2], "short") == 0) {
        turns = starts = 3;
        latency_samples = 200;
    }
    if (what == "instructions") {
        print_instructions();
        return 0;
    }
    Subjects subjects = start_subjects();
    print_rates(subjects);
    print_growth(subjects);
    print_latencies(subjects);
    if (what == "all") {
        print_commands(subjects);
        print_shell_loop();
        print_starts(subjects);
    }
    return 0;
}
