#include "platform/lib_zk_ubus.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

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
    auto deadline = std::chrono::steady_clock::now() + 30s;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        uloop_run_timeout(20);
    }
    return true;
}

class Message {
public:
    Message() { blob_buf_init(&buf_, 0); }
    explicit Message(const std::string &record) : Message()
    {
        EXPECT_EQ(lib_zk_blobmsg_add_struct(&buf_, "record", record.data(), static_cast<int>(record.size())),
                  0);
    }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;
    ~Message() { blob_buf_free(&buf_); }

    blob_buf buf() const { return buf_; }

private:
    blob_buf buf_{};
};

// A handler that keeps the names and records of what it received.
struct Listener : ubus_event_handler {
    Listener() : ubus_event_handler{} { cb = on_event; }

    static void on_event(ubus_context *, ubus_event_handler *ev, const char *type, blob_attr *msg)
    {
        static constexpr blobmsg_policy POLICY = {"record", BLOBMSG_TYPE_UNSPEC};
        auto *listener = static_cast<Listener *>(ev);
        listener->received.emplace_back(type);
        blob_attr *record = nullptr;
        blobmsg_parse(&POLICY, 1, &record, blob_data(msg), static_cast<unsigned int>(blob_len(msg)));
        if (record != nullptr)
            listener->records.emplace_back(static_cast<const char *>(lib_zk_blobmsg_get_struct(record)),
                                           blobmsg_data_len(record));
    }

    std::vector<std::string> received;
    std::vector<std::string> records;
};

int answer_later(ubus_context *, ubus_object *, ubus_request_data *request, const char *, blob_attr *)
{
    request->deferred = true; // never, in fact
    return 0;
}

const ubus_method METHODS[] = {{.name = "wait", .handler = answer_later}};

class BusWrapper : public testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = testing::TempDir() + "ovani-bus-XXXXXX";
        directory_ = mkdtemp(pattern.data());
        socket_ = directory_ + "/ubus.sock";
        setenv("OVANI_UBUS_SOCKET", socket_.c_str(), 1);
        for (int signo : {SIGCHLD, SIGPIPE, SIGHUP})
            signal(signo, SIG_IGN);
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

    void connect()
    {
        broker_ = start_broker(socket_);
        ASSERT_EQ(lib_zk_ubus_init(&ctx_), 0);
        connect_peer();
    }

    void connect_peer()
    {
        peer_.reset(ubus_connect(socket_.c_str()));
        ASSERT_NE(peer_, nullptr);
    }

    void kill_broker()
    {
        if (broker_ <= 0)
            return;
        kill(broker_, SIGKILL);
        signal(SIGCHLD, SIG_DFL);
        waitpid(broker_, nullptr, 0);
        signal(SIGCHLD, SIG_IGN);
        broker_ = 0;
    }

    int send_by_peer(const std::string &event)
    {
        return ubus_send_event(peer_.get(), event.c_str(), Message("record of " + event).buf().head);
    }

    bool is_published(const char *name)
    {
        uint32_t id = 0;
        return ubus_lookup_id(peer_.get(), name, &id) == UBUS_STATUS_OK;
    }

    struct Freer {
        void operator()(ubus_context *ctx) const { ubus_free(ctx); }
    };

    std::string directory_;
    std::string socket_;
    pid_t broker_ = 0;
    ubus_context *ctx_ = nullptr;
    std::unique_ptr<ubus_context, Freer> peer_; // another client in this process, outside the loop

    ubus_object_type type_ = {.name = "it", .id = 0, .methods = METHODS, .n_methods = 1};
    ubus_object object_ = {.name = "it", .type = &type_, .methods = METHODS, .n_methods = 1};
};

TEST_F(BusWrapper, DeliversRecordsByPatternUntilUnregistered)
{
    connect();
    Listener listener;
    for (const char *pattern : {"110", "lan*", "110"})
        EXPECT_EQ(lib_zk_ubus_register_event_handler(ctx_, &listener, pattern), 0);
    for (const char *event : {"110", "111", "lanhost_event", "110"})
        EXPECT_EQ(send_by_peer(event), 0);
    ASSERT_TRUE(run_until([&] { return listener.received.size() >= 3; }));
    EXPECT_THAT(listener.received, ElementsAre("110", "lanhost_event", "110"));
    EXPECT_EQ(listener.records[1], "record of lanhost_event");

    EXPECT_EQ(lib_zk_ubus_unregister_event_handler(ctx_, &listener), 0);
    EXPECT_EQ(lib_zk_ubus_unregister_event_handler(ctx_, &listener), UBUS_STATUS_NOT_FOUND);
    Listener other;
    EXPECT_EQ(lib_zk_ubus_register_event_handler(ctx_, &other, "last"), 0);
    for (const char *event : {"110", "last"})
        EXPECT_EQ(send_by_peer(event), 0);
    ASSERT_TRUE(run_until([&] { return !other.received.empty(); }));
    EXPECT_EQ(listener.received.size(), 3U);
}

TEST_F(BusWrapper, CallsMethodsOfOthers)
{
    connect();
    Message message;
    EXPECT_EQ(lib_zk_ubus_call_method(ctx_, "it", "wait", message.buf(), nullptr, nullptr, 0),
              UBUS_STATUS_NOT_FOUND);
    ASSERT_EQ(ubus_add_object(peer_.get(), &object_), 0);
    EXPECT_EQ(lib_zk_ubus_call_method(ctx_, "it", "wait", message.buf(), nullptr, nullptr, 60),
              UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(lib_zk_ubus_add_object(ctx_, &object_), UBUS_STATUS_INVALID_ARGUMENT); // the name is taken
}

TEST_F(BusWrapper, ComesBackWhenTheBrokerDoes)
{
    connect();
    testing::internal::CaptureStderr();
    Listener listener;
    auto gone = std::make_unique<Listener>();
    ASSERT_EQ(lib_zk_ubus_add_object(ctx_, &object_), 0);
    for (const char *pattern : {"one", "two.*"})
        ASSERT_EQ(lib_zk_ubus_register_event_handler(ctx_, &listener, pattern), 0);
    ASSERT_EQ(lib_zk_ubus_register_event_handler(ctx_, gone.get(), "*"), 0);

    for (int round = 1; round <= 2; round++) {
        peer_.reset();
        kill_broker();
        Message message;
        // Whether the loop has noticed or not, nothing blocks and nothing crashes.
        EXPECT_EQ(lib_zk_ubus_send_event(ctx_, "one", message.buf()), UBUS_STATUS_CONNECTION_FAILED);
        ASSERT_TRUE(run_until([] {
            static int turns = 0;
            return ++turns % 5 == 0;
        }));
        EXPECT_EQ(lib_zk_ubus_send_event(ctx_, "one", message.buf()), UBUS_STATUS_CONNECTION_FAILED);
        EXPECT_EQ(lib_zk_ubus_call_method(ctx_, "it", "wait", message.buf(), nullptr, nullptr, 0),
                  UBUS_STATUS_CONNECTION_FAILED);
        EXPECT_EQ(lib_zk_ubus_register_event_handler(ctx_, &listener, "three"), 0);
        if (gone != nullptr) {
            EXPECT_EQ(lib_zk_ubus_unregister_event_handler(ctx_, gone.get()), 0);
        }
        gone.reset();

        broker_ = start_broker(socket_);
        ASSERT_TRUE(run_until([&] { return lib_zk_ubus_send_event(ctx_, "x", message.buf()) == 0; }));
        connect_peer();
        EXPECT_TRUE(is_published("it"));
        listener.received.clear();
        for (const char *event : {"one", "four", "two.b", "three"})
            EXPECT_EQ(send_by_peer(event), 0);
        ASSERT_TRUE(run_until([&] { return listener.received.size() >= 3; }));
        EXPECT_THAT(listener.received, ElementsAre("one", "two.b", "three"));
    }
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 4) << log;
    EXPECT_THAT(log,
                testing::ContainsRegex("has gone.*\n.*connected.*again.*\n.*has gone.*\n.*connected.*again"));
}

TEST_F(BusWrapper, WaitsForABrokerThatIsNotThereYet)
{
    testing::internal::CaptureStderr();
    broker_ = start_broker(socket_, "0.3");
    EXPECT_EQ(lib_zk_ubus_init(&ctx_), 0);
    EXPECT_NE(ctx_, nullptr);
    EXPECT_EQ(lib_zk_ubus_add_object(ctx_, &object_), 0);
    connect_peer();
    EXPECT_TRUE(is_published("it"));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_THAT(log, testing::ContainsRegex("no broker yet.*\n.*connected"));
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
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
    static bool checked = false;
    uloop_timeout timer{};
    timer.cb = [](uloop_timeout *) {
        for (int signo : {SIGCHLD, SIGPIPE, SIGHUP}) {
            struct sigaction action {};
            sigaction(signo, nullptr, &action);
            EXPECT_EQ(action.sa_handler, SIG_IGN) << signo;
        }
        checked = true;
        raise(SIGTERM);
    };
    uloop_timeout_set(&timer, 10);
    EXPECT_EQ(lib_zk_ubus_run(UBUS_THREAD_MULTIPLE), 0);
    EXPECT_TRUE(checked);

    raise(SIGTERM); // before the loop runs: it ends as soon as it does
    EXPECT_EQ(lib_zk_ubus_run(UBUS_THREAD_MULTIPLE), 0);
}

TEST_F(BusWrapper, AContextThatIsNoneIsRefused)
{
    ubus_context stranger{};
    Listener listener;
    Message message;
    for (ubus_context *ctx : {static_cast<ubus_context *>(nullptr), &stranger}) {
        EXPECT_NE(lib_zk_ubus_add_object(ctx, &object_), 0);
        EXPECT_NE(lib_zk_ubus_register_event_handler(ctx, &listener, "x"), 0);
        EXPECT_NE(lib_zk_ubus_unregister_event_handler(ctx, &listener), 0);
        EXPECT_NE(lib_zk_ubus_send_event(ctx, "x", message.buf()), 0);
        EXPECT_NE(lib_zk_ubus_call_method(ctx, "it", "wait", message.buf(), nullptr, nullptr, 0), 0);
        EXPECT_NE(lib_zk_ubus_exit(ctx), 0);
    }
    EXPECT_NE(lib_zk_ubus_init(nullptr), 0);
    EXPECT_EQ(lib_zk_blobmsg_get_struct(nullptr), nullptr);
    EXPECT_NE(lib_zk_blobmsg_add_struct(nullptr, "x", "", 0), 0);
}

} // namespace
