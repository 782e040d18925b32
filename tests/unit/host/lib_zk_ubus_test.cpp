#include "platform/lib_zk_ubus.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// UBUSD_COMMAND is the broker that belongs to the library under test.
pid_t start_broker(const std::string &path, const char *delay_seconds = "0")
{
    std::string command = std::string("sleep ") + delay_seconds + "; exec " UBUSD_COMMAND " -s " + path;
    pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    return child;
}

// Runs the loop until `done`; false when that takes absurdly long.
bool run_until(const std::function<bool()> &done)
{
    for (int turns = 0; turns < 1500; ++turns) {
        if (done()) {
            return true;
        }
        uloop_run_timeout(20);
    }
    return false;
}

// A message that holds `text` as a raw record; good until the thread's next.
blob_buf message(const std::string &text)
{
    struct Buffer : blob_buf {
        Buffer() : blob_buf{} {}
        ~Buffer() { blob_buf_free(this); }
    };
    thread_local Buffer buf;
    blob_buf_init(&buf, 0);
    EXPECT_EQ(lib_zk_blobmsg_add_struct(&buf, "record", text.data(), static_cast<int>(text.size())), 0);
    return buf;
}

// Keeps the records that it receives.
struct Listener : ubus_event_handler {
    Listener() : ubus_event_handler{} { cb = on_event; }

    static void on_event(ubus_context *, ubus_event_handler *ev, const char *, blob_attr *msg)
    {
        auto *record = static_cast<blob_attr *>(blob_data(msg));
        const auto *bytes = static_cast<const char *>(lib_zk_blobmsg_get_struct(record));
        static_cast<Listener *>(ev)->records.emplace_back(bytes, blobmsg_data_len(record));
    }

    std::vector<std::string> records;
};

int answer_never(ubus_context *, ubus_object *, ubus_request_data *request, const char *, blob_attr *)
{
    request->deferred = true;
    return 0;
}

const ubus_method METHODS[] = {{.name = "wait", .handler = answer_never}};

class BusWrapper : public testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = testing::TempDir() + "ovani-bus-XXXXXX";
        directory_ = mkdtemp(pattern.data());
        socket_ = directory_ + "/ubus.sock";
        setenv("OVANI_UBUS_SOCKET", socket_.c_str(), 1);
        for (int signo : {SIGCHLD, SIGPIPE, SIGHUP}) {
            signal(signo, SIG_IGN);
        }
    }

    void TearDown() override
    {
        peer_.reset();
        if (ctx_ != nullptr) {
            EXPECT_EQ(lib_zk_ubus_exit(ctx_), 0);
        }
        kill_broker();
        std::filesystem::remove_all(directory_);
    }

    void connect(const char *delay_seconds = "0")
    {
        broker_ = start_broker(socket_, delay_seconds);
        ASSERT_EQ(lib_zk_ubus_init(&ctx_), 0);
        connect_peer();
    }

    void connect_peer()
    {
        for (int i = 0; i < 300 && peer_ == nullptr; ++i) { // a new broker takes its time
            usleep(10'000);
            peer_.reset(ubus_connect(socket_.c_str()), ubus_free);
        }
        ASSERT_NE(peer_, nullptr);
    }

    void kill_broker()
    {
        if (broker_ > 0) {
            kill(std::exchange(broker_, 0), SIGKILL);
            wait(nullptr); // it is reaped for us: this waits until it is gone
        }
    }

    void send_by_peer(const std::vector<std::string> &events)
    {
        for (const std::string &event : events) {
            EXPECT_EQ(ubus_send_event(peer_.get(), event.c_str(), message(event).head), 0);
        }
    }

    void listen_by_peer(Listener *listener)
    {
        ASSERT_EQ(ubus_register_event_handler(peer_.get(), listener, "event"), 0);
        ubus_add_uloop(peer_.get());
    }

    bool is_published(const char *name)
    {
        uint32_t id = 0;
        return ubus_lookup_id(peer_.get(), name, &id) == UBUS_STATUS_OK;
    }

    int call(const char *object, int timeout = 0)
    {
        return lib_zk_ubus_call_method(ctx_, object, "wait", message(""), nullptr, nullptr, timeout);
    }

    std::string directory_;
    std::string socket_;
    pid_t broker_ = 0;
    ubus_context *ctx_ = nullptr;
    std::shared_ptr<ubus_context> peer_; // another client in this process, outside the loop
    ubus_object_type type_ = {.name = "it", .id = 0, .methods = METHODS, .n_methods = 1};
    ubus_object object_ = {.name = "it", .type = &type_, .methods = METHODS, .n_methods = 1};
    ubus_object late_ = {.name = "late", .type = &type_, .methods = METHODS, .n_methods = 1};
};

TEST_F(BusWrapper, DeliversRecordsByPatternUntilUnregistered)
{
    connect();
    Listener listener;
    Listener other;
    for (const char *pattern : {"110", "lan*", "110"}) {
        EXPECT_EQ(lib_zk_ubus_register_event_handler(ctx_, &listener, pattern), 0);
    }
    EXPECT_EQ(lib_zk_ubus_register_event_handler(ctx_, &other, "last"), 0);
    send_by_peer({"110", "111", "lanhost_event", "110"});
    ASSERT_TRUE(run_until([&] { return listener.records.size() >= 3; }));
    EXPECT_EQ(lib_zk_ubus_unregister_event_handler(ctx_, &listener), 0);
    EXPECT_EQ(lib_zk_ubus_unregister_event_handler(ctx_, &listener), UBUS_STATUS_NOT_FOUND);
    send_by_peer({"110", "last"});
    ASSERT_TRUE(run_until([&] { return !other.records.empty(); }));
    EXPECT_THAT(listener.records, ElementsAre("110", "lanhost_event", "110"));
}

TEST_F(BusWrapper, EventsArriveAllAndInOrder)
{
    connect();
    Listener listener;
    listen_by_peer(&listener);
    constexpr size_t EVENTS = 1000; // more answers than the socket takes, and an end right after
    for (size_t i = 0; i < EVENTS; ++i) {
        EXPECT_EQ(lib_zk_ubus_send_event(ctx_, "event", message(std::to_string(i))), 0);
        if (i % 100 == 0) {
            uloop_run_timeout(0);
        }
    }
    EXPECT_EQ(lib_zk_ubus_exit(ctx_), 0);
    ctx_ = nullptr;
    ASSERT_TRUE(run_until([&] { return listener.records.size() >= EVENTS; }));
    for (size_t i = 0; i < EVENTS; ++i) {
        EXPECT_EQ(listener.records[i], std::to_string(i));
    }
}

TEST_F(BusWrapper, ASignalEndsTheLoopThoughTheBrokerReadsNothing)
{
    connect();
    kill(broker_, SIGSTOP);
    static int result;
    static ubus_context *ctx;
    ctx = ctx_;
    uloop_timeout timer{};
    timer.cb = [](uloop_timeout *) {
        if (fork() == 0) {
            usleep(300'000);
            kill(getppid(), SIGTERM);
            _exit(0);
        }
        while (lib_zk_ubus_send_event(ctx, "event", message("")) == 0) {
        }
        result = lib_zk_ubus_send_event(ctx, "event", message(""));
    };
    uloop_timeout_set(&timer, 0);
    EXPECT_EQ(lib_zk_ubus_run(UBUS_THREAD_SINGLE), 0);
    EXPECT_EQ(result, UBUS_STATUS_CONNECTION_FAILED);
}

TEST_F(BusWrapper, CallsMethodsOfOthers)
{
    connect();
    EXPECT_EQ(call("it"), UBUS_STATUS_NOT_FOUND);
    ASSERT_EQ(ubus_add_object(peer_.get(), &object_), 0);
    EXPECT_EQ(call("it", 60), UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(lib_zk_ubus_add_object(ctx_, &object_), UBUS_STATUS_INVALID_ARGUMENT); // the name is taken
}

TEST_F(BusWrapper, ComesBackWhenTheBrokerDoes)
{
    connect();
    CaptureStderr();
    Listener listener;
    auto gone = std::make_unique<Listener>();
    ASSERT_EQ(lib_zk_ubus_add_object(ctx_, &object_), 0);
    for (const char *pattern : {"one", "two.*"}) {
        ASSERT_EQ(lib_zk_ubus_register_event_handler(ctx_, &listener, pattern), 0);
    }
    ASSERT_EQ(lib_zk_ubus_register_event_handler(ctx_, gone.get(), "*"), 0);

    for (int round = 0; round < 2; ++round) {
        peer_.reset();
        kill_broker();
        // Whether the loop has noticed or not, nothing blocks, and what is asked for is done later.
        EXPECT_EQ(lib_zk_ubus_send_event(ctx_, "x", message("")), UBUS_STATUS_CONNECTION_FAILED);
        uloop_run_timeout(20);
        EXPECT_EQ(lib_zk_ubus_send_event(ctx_, "x", message("")), UBUS_STATUS_CONNECTION_FAILED);
        EXPECT_EQ(call("it"), UBUS_STATUS_CONNECTION_FAILED);
        EXPECT_EQ(lib_zk_ubus_register_event_handler(ctx_, &listener, "three"), 0);
        EXPECT_EQ(lib_zk_ubus_add_object(ctx_, &late_), 0);
        if (gone != nullptr) {
            EXPECT_EQ(lib_zk_ubus_unregister_event_handler(ctx_, gone.get()), 0);
        }
        gone.reset();

        broker_ = start_broker(socket_);
        ASSERT_TRUE(run_until([&] { return lib_zk_ubus_send_event(ctx_, "x", message("")) == 0; }));
        connect_peer();
        EXPECT_TRUE(is_published("it"));
        EXPECT_TRUE(is_published("late"));
        listener.records.clear();
        send_by_peer({"one", "four", "two.b", "three"});
        ASSERT_TRUE(run_until([&] { return listener.records.size() >= 3; }));
        EXPECT_THAT(listener.records, ElementsAre("one", "two.b", "three"));
    }
    std::string log = GetCapturedStderr();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 4) << log;
    EXPECT_THAT(log, ContainsRegex("has gone.*\n.*connected.*again.*\n.*has gone.*\n.*connected.*again"));
}

TEST_F(BusWrapper, TakesItsNameBackFromWhoeverHasItWhenTheBrokerIsBack)
{
    connect();
    CaptureStderr();
    ASSERT_EQ(lib_zk_ubus_add_object(ctx_, &object_), 0);
    peer_.reset();
    kill_broker();
    uloop_run_timeout(20);
    broker_ = start_broker(socket_);
    connect_peer();
    ubus_object_type type = {.name = "it", .methods = METHODS, .n_methods = 1};
    ubus_object other = {.name = "it", .type = &type, .methods = METHODS, .n_methods = 1};
    ASSERT_EQ(ubus_add_object(peer_.get(), &other), 0);
    ASSERT_TRUE(run_until([&] { return lib_zk_ubus_send_event(ctx_, "x", message("")) == 0; }));
    for (int turns = 0; turns < 3; ++turns) {
        uloop_run_timeout(1000); // until it is tried again
    }
    EXPECT_EQ(object_.id, 0U);
    ASSERT_EQ(ubus_remove_object(peer_.get(), &other), 0);
    EXPECT_TRUE(run_until([&] { return object_.id != 0; }));
    EXPECT_TRUE(is_published("it"));
    EXPECT_THAT(GetCapturedStderr(),
                MatchesRegex("[^\n]*has gone[^\n]*\n[^\n]*object it: Invalid argument\n"
                             "[^\n]*connected[^\n]*again[^\n]*\n[^\n]*object it: published again\n"));
}

TEST_F(BusWrapper, WaitsForABrokerThatIsNotThereYet)
{
    CaptureStderr();
    connect("0.3");
    EXPECT_EQ(lib_zk_ubus_add_object(ctx_, &object_), 0);
    EXPECT_TRUE(is_published("it"));
    std::string log = GetCapturedStderr();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
    EXPECT_THAT(log, ContainsRegex("no broker yet.*\n.*connected"));
}

TEST_F(BusWrapper, ASignalEndsTheWaiting)
{
    signal(SIGCHLD, SIG_DFL);
    pid_t child = fork();
    if (child == 0) {
        close(STDERR_FILENO);
        signal(SIGTERM, SIG_DFL); // as if no test had used the loop before
        lib_zk_ubus_init(&ctx_);
        _exit(1);
    }
    usleep(100'000);
    kill(child, SIGTERM);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
}

TEST_F(BusWrapper, LoopLeavesSignalsAloneAndEndsBySignal)
{
    connect();
    uloop_timeout timer{};
    timer.cb = [](uloop_timeout *expired) {
        for (int signo : {SIGCHLD, SIGPIPE, SIGHUP}) {
            EXPECT_EQ(signal(signo, SIG_IGN), SIG_IGN) << signo;
        }
        expired->cb = nullptr;
        raise(SIGTERM);
    };
    uloop_timeout_set(&timer, 10);
    EXPECT_EQ(lib_zk_ubus_run(UBUS_THREAD_MULTIPLE), 0);
    EXPECT_EQ(timer.cb, nullptr);

    raise(SIGTERM); // before the loop runs: it ends as soon as it does
    EXPECT_EQ(lib_zk_ubus_run(UBUS_THREAD_MULTIPLE), 0);
}

TEST_F(BusWrapper, AContextThatIsNoneIsRefused)
{
    Listener listener;
    const int results[] = {lib_zk_ubus_add_object(nullptr, &object_),
                           lib_zk_ubus_register_event_handler(nullptr, &listener, "x"),
                           lib_zk_ubus_unregister_event_handler(nullptr, &listener),
                           lib_zk_ubus_send_event(nullptr, "x", message("")),
                           call("it"),
                           lib_zk_ubus_exit(nullptr),
                           lib_zk_ubus_init(nullptr)};
    EXPECT_THAT(results, testing::Each(testing::Ne(0)));
    EXPECT_EQ(lib_zk_blobmsg_get_struct(nullptr), nullptr);
}

} // namespace
