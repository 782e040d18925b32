#include "platform/lib_zk_ubus.h"

#include <algorithm>
#include <memory>

#include "tests/unit/bus/bus_test.h"

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

void end_soon()
{
    if (fork() == 0) {
        usleep(100'000);
        kill(getppid(), SIGTERM);
        _exit(0);
    }
}

// A message that holds `text` as a raw record.
struct Record : Blob {
    explicit Record(const std::string &text)
    {
        EXPECT_EQ(lib_zk_blobmsg_add_struct(&buf, "record", text.data(), static_cast<int>(text.size())), 0);
    }
};

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

class BusWrapper : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("OVANI_UBUS_SOCKET", broker_.path.c_str(), 1);
        for (int signo : {SIGCHLD, SIGPIPE, SIGHUP}) {
            signal(signo, SIG_IGN);
        }
    }
    void TearDown() override
    {
        if (ctx_ != nullptr) {
            EXPECT_EQ(lib_zk_ubus_exit(ctx_), 0);
        }
    }

    void start_broker()
    {
        broker_.start();
        peer_ = std::make_unique<Peer>(broker_);
    }
    void kill_broker()
    {
        peer_.reset();
        broker_.stop(SIGKILL);
    }
    void connect()
    {
        start_broker();
        ASSERT_EQ(lib_zk_ubus_init(&ctx_), 0);
    }
    bool is_connected() { return send("nothing") == 0; }
    int send(const std::string &event)
    {
        return lib_zk_ubus_send_event(ctx_, event.c_str(), Record(event).buf);
    }
    void send_by_peer(const std::vector<std::string> &events)
    {
        for (const std::string &event : events) {
            EXPECT_EQ(peer_->send(event.c_str(), Record(event)), 0);
        }
    }
    int call(const char *object, int timeout = 0)
    {
        return lib_zk_ubus_call_method(ctx_, object, "defer", Record("").buf, nullptr, nullptr, timeout);
    }

    BrokerProcess broker_;
    ubus_context *ctx_ = nullptr;
    std::unique_ptr<Peer> peer_;
    ubus_object_type type_ = {.name = "it", .id = 0, .methods = Peer::METHODS, .n_methods = 1};
    ubus_object object_ = {.name = "it", .type = &type_, .methods = Peer::METHODS, .n_methods = 1};
    ubus_object late_ = {.name = "late", .type = &type_, .methods = Peer::METHODS, .n_methods = 1};
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
    EXPECT_EQ(peer_->listen("*"), 0);
    std::vector<std::string> sent;
    while (sent.size() < 1000) { // more than there is room for answers, and an end right after
        sent.push_back(std::to_string(sent.size()));
        EXPECT_EQ(send(sent.back()), 0);
    }
    EXPECT_EQ(lib_zk_ubus_exit(std::exchange(ctx_, nullptr)), 0);
    EXPECT_EQ(peer_->sync().heard, sent);
}

TEST_F(BusWrapper, ASignalEndsTheLoopThoughTheBrokerReadsNothing)
{
    connect();
    kill(broker_.pid, SIGSTOP);
    static std::function<bool()> fill;
    fill = [this] { return is_connected(); };
    uloop_timeout timer{};
    timer.cb = [](uloop_timeout *) {
        end_soon();
        while (fill()) {
        }
    };
    uloop_timeout_set(&timer, 0);
    EXPECT_EQ(lib_zk_ubus_run(UBUS_THREAD_SINGLE), 0);
    EXPECT_EQ(lib_zk_ubus_exit(std::exchange(ctx_, nullptr)), 0);
    broker_.stop(SIGKILL);
}

TEST_F(BusWrapper, CallsMethodsOfOthers)
{
    connect();
    EXPECT_EQ(call("it"), UBUS_STATUS_NOT_FOUND);
    peer_->publish("it");
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
        kill_broker();
        // Whether the loop has noticed or not, nothing blocks, and what is asked for is done later.
        EXPECT_EQ(send("x"), UBUS_STATUS_CONNECTION_FAILED);
        uloop_run_timeout(20);
        EXPECT_EQ(send("x"), UBUS_STATUS_CONNECTION_FAILED);
        EXPECT_EQ(call("it"), UBUS_STATUS_CONNECTION_FAILED);
        EXPECT_EQ(lib_zk_ubus_register_event_handler(ctx_, &listener, "three"), 0);
        EXPECT_EQ(lib_zk_ubus_add_object(ctx_, &late_), 0);
        if (gone != nullptr) {
            EXPECT_EQ(lib_zk_ubus_unregister_event_handler(ctx_, gone.get()), 0);
        }
        gone.reset();

        start_broker();
        ASSERT_TRUE(run_until([&] { return is_connected(); }));
        EXPECT_EQ(peer_->look_up("it"), 0);
        EXPECT_EQ(peer_->look_up("late"), 0);
        listener.records.clear();
        send_by_peer({"one", "four", "two.b", "three"});
        ASSERT_TRUE(run_until([&] { return listener.records.size() >= 3; }));
        EXPECT_THAT(listener.records, ElementsAre("one", "two.b", "three"));
    }
    EXPECT_THAT(GetCapturedStderr(),
                MatchesRegex("([^\n]*has gone[^\n]*\n[^\n]*connected[^\n]*again[^\n]*\n){2}"));
}

TEST_F(BusWrapper, TakesItsNameBackFromWhoeverHasItWhenTheBrokerIsBack)
{
    connect();
    CaptureStderr();
    ASSERT_EQ(lib_zk_ubus_add_object(ctx_, &object_), 0);
    kill_broker();
    uloop_run_timeout(20);
    start_broker();
    peer_->publish("it");
    ASSERT_TRUE(run_until([&] { return is_connected(); }));
    run_until([turns = 0]() mutable { return ++turns == 100; }); // it is tried again meanwhile
    EXPECT_EQ(object_.id, 0U);
    ASSERT_EQ(ubus_remove_object(peer_->ctx, &peer_->object), 0);
    EXPECT_TRUE(run_until([&] { return object_.id != 0; }));
    EXPECT_EQ(peer_->look_up("it"), 0);
    EXPECT_THAT(GetCapturedStderr(),
                MatchesRegex("[^\n]*has gone[^\n]*\n[^\n]*object it: Invalid argument\n"
                             "[^\n]*connected[^\n]*again[^\n]*\n[^\n]*object it: published again\n"));
}

TEST_F(BusWrapper, WaitsForABrokerThatIsNotThereYet)
{
    CaptureStderr();
    broker_.launch("0.3");
    ASSERT_EQ(lib_zk_ubus_init(&ctx_), 0);
    EXPECT_EQ(lib_zk_ubus_add_object(ctx_, &object_), 0);
    EXPECT_THAT(GetCapturedStderr(), MatchesRegex("[^\n]*no broker yet[^\n]*\n[^\n]*connected[^\n]*\n"));
}

TEST_F(BusWrapper, ASignalEndsTheWaiting)
{
    signal(SIGCHLD, SIG_DFL);
    const auto wait = [this] {
        signal(SIGTERM, SIG_DFL); // as if no test had used the loop before
        end_soon();
        _exit(lib_zk_ubus_init(&ctx_));
    };
    EXPECT_EXIT(wait(), testing::ExitedWithCode(UBUS_STATUS_CONNECTION_FAILED), "no broker yet");
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
                           send("x"),
                           call("it"),
                           lib_zk_ubus_exit(nullptr),
                           lib_zk_ubus_init(nullptr)};
    EXPECT_THAT(results, testing::Each(testing::Ne(0)));
    EXPECT_EQ(lib_zk_blobmsg_get_struct(nullptr), nullptr);
}

} // namespace
