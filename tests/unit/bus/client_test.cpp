// The client library and the command-line client, over a real broker.
#include <memory>
#include <poll.h>
#include <thread>

#include "bus_test.h"

namespace {

using testing::ElementsAre;

// A client in the loop, with an object "server" and a handler of "event".
class ClientTest : public BrokerTest {
protected:
    void SetUp() override
    {
        BrokerTest::SetUp();
        server_ = std::make_unique<Peer>(broker_);
        ubus_add_uloop(server_->ctx);
        server_->publish("server");
        ASSERT_EQ(server_->listen("event"), UBUS_STATUS_OK);
    }
    void TearDown() override
    {
        server_.reset();
        uloop_done();
    }
    // Turns the loop until so much was heard, or so many calls have ended.
    std::vector<std::string> hear(size_t count)
    {
        run_until([&] { return server_->heard.size() >= count; });
        return server_->heard;
    }
    std::vector<int> end(size_t count)
    {
        run_until([&] { return server_->statuses.size() >= count; });
        return server_->statuses;
    }

    std::unique_ptr<Peer> server_;
};

// The output of `ubus`, its errors among it, a blank and its exit status; the loop turns until there is some.
std::string result(FILE *command)
{
    pollfd pfd = {fileno(command), POLLIN, 0};
    run_until([&] { return poll(&pfd, 1, 0) > 0; }); // its end counts
    std::string out;
    char buffer[4096];
    while (const size_t n = fread(buffer, 1, sizeof(buffer), command)) {
        out.append(buffer, n);
    }
    return out + " " + std::to_string(WEXITSTATUS(pclose(command)));
}

} // namespace

TEST_F(ClientTest, CallsAndEventsWaitWhileACallIsWaitedFor)
{
    for (const bool in_loop : {true, false}) {
        SCOPED_TRACE(in_loop);
        if (!in_loop) {
            uloop_fd_delete(&server_->ctx->sock);
        }
        // These are there before the next call is answered.
        server_->heard.clear();
        Peer peer(broker_);
        peer.start_call(server_->object.id, "note");
        EXPECT_EQ(peer.send("event"), UBUS_STATUS_OK);
        peer.start_call(server_->object.id, "nonsense");
        peer.sync();
        server_->sync();
        EXPECT_EQ(server_->heard.empty(), in_loop);
        EXPECT_THAT(hear(2), ElementsAre("note", "event"));
        server_->sync();
        EXPECT_THAT(peer.sync().statuses, ElementsAre(UBUS_STATUS_OK, UBUS_STATUS_METHOD_NOT_FOUND));
    }
}

TEST_F(ClientTest, HandlersMayCallButAreNotNested)
{
    Peer peer(broker_);
    EXPECT_EQ(peer.listen("asked"), UBUS_STATUS_OK);
    peer.start_call(server_->object.id, "ask_back");
    peer.start_call(server_->object.id, "note");
    peer.sync();
    EXPECT_THAT(hear(3), ElementsAre("ask_back", "answered", "note"));
    EXPECT_THAT(peer.sync().heard, ElementsAre("asked"));
}

TEST_F(ClientTest, LookupCallbackMayCall)
{
    static std::vector<std::string> paths;
    Peer another(broker_);
    another.publish("another");
    const auto on_object = [](ubus_context *ctx, ubus_object_data *object, void *) {
        paths.emplace_back(object->path);
        uint32_t id = 0;
        EXPECT_EQ(ubus_lookup_id(ctx, object->path, &id), UBUS_STATUS_OK);
        EXPECT_EQ(id, object->id);
        EXPECT_EQ(paths.back(), object->path) << "valid throughout the callback";
    };
    EXPECT_EQ(ubus_lookup(server_->ctx, nullptr, on_object, nullptr), UBUS_STATUS_OK);
    EXPECT_THAT(paths, ElementsAre("another", "server"));
    EXPECT_EQ(ubus_lookup(server_->ctx, "th*", on_object, nullptr), UBUS_STATUS_NOT_FOUND);
}

TEST_F(ClientTest, CallsOfAnySizeDeferredOnesAndLateOnes)
{
    // Less and more than what the library reads at once, and than the socket takes.
    for (const size_t size : {10U, 16300U, 16400U, 900000U}) {
        server_->statuses.clear();
        const Text text(size);
        server_->start_call(server_->object.id, "echo", text);
        EXPECT_THAT(end(1), ElementsAre(0)) << size;
        EXPECT_EQ(server_->received, blob_len(text));
    }
    const std::string too_long(UBUS_MAX_MSGLEN, 'z');
    EXPECT_EQ(ubus_invoke(server_->ctx, server_->object.id, too_long.c_str(), nullptr, nullptr, nullptr, 0),
              UBUS_STATUS_INVALID_ARGUMENT);

    server_->start_call(server_->object.id, "defer");
    run_until([&] { return !server_->calls.empty(); });
    EXPECT_THAT(server_->statuses, ElementsAre(0));
    server_->answer(0, 8);
    EXPECT_THAT(end(2), ElementsAre(0, 8));

    Peer owner(broker_);
    const uint32_t slow = owner.publish("slow");
    EXPECT_EQ(ubus_invoke(server_->ctx, slow, "defer", nullptr, nullptr, nullptr, 50), UBUS_STATUS_TIMEOUT);
    owner.sync().answer(0, 9);
    owner.sync();
    server_->sync();
}

TEST_F(ClientTest, TheBrokersEndEndsEveryCall)
{
    static bool lost;
    server_->ctx->connection_lost = [](ubus_context *) { lost = true; };
    Peer peer(broker_);
    const uint32_t deaf = peer.publish("deaf");
    server_->start_call(server_->object.id, "defer");
    std::thread killer([&] {
        usleep(50'000);
        broker_.stop();
    });
    EXPECT_EQ(ubus_invoke(server_->ctx, deaf, "note", nullptr, nullptr, nullptr, 0),
              UBUS_STATUS_CONNECTION_FAILED);
    killer.join();
    EXPECT_FALSE(lost) << "told from the loop only";
    EXPECT_THAT(end(1), ElementsAre(UBUS_STATUS_CONNECTION_FAILED));
    EXPECT_TRUE(lost);
    EXPECT_EQ(ubus_reconnect(server_->ctx, broker_.path.c_str()), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(server_->send("event"), UBUS_STATUS_CONNECTION_FAILED);
}

TEST_F(ClientTest, NothingIsLeftInTheLoop)
{
    Peer peer(broker_);
    EXPECT_EQ(peer.send("event"), UBUS_STATUS_OK);
    server_->sync(); // puts the event aside
    server_.reset();
    EXPECT_EQ(uloop_get_next_timeout(), -1);
}

TEST_F(ClientTest, CommandLine)
{
    const auto start = [this](const std::string &arguments) {
        return popen((UBUS_COMMAND " -s " + broker_.path + " " + arguments + " 2>&1").c_str(), "r");
    };
    const struct {
        const char *arguments, *result;
    } cases[] = {
        {"list", "server\n 0"},
        {"list nothing", "Command failed: Not found\n 4"},
        {"-v list server | sed 's/@[0-9a-f]*/@ID/'",
         "'server' @ID\n\t\"note\":{}\n\t\"echo\":{}\n\t\"defer\":{}\n\t\"ask_back\":{}\n 0"},
        {R"(call server echo '{"a":{"b":[1,"x"]},"t":true}')",
         "{\n\t\"a\": {\n\t\t\"b\": [\n\t\t\t1,\n\t\t\t\"x\"\n\t\t]\n\t},\n\t\"t\": true\n}\n 0"},
        {R"(-S call server echo '{"a":{"b":[1,"x"]},"t":true}')", "{\"a\":{\"b\":[1,\"x\"]},\"t\":true}\n 0"},
        {"call server nothing", "Command failed: ubus call server nothing (Method not found)\n 253"},
        {"call server echo '{'",
         "Command failed: ubus call server echo { (Parsing message data failed)\n 244"},
        {"-S -t 1 call server defer", " 7"},
        {"send event '['", "Command failed: Parsing message data failed\n 12"},
        {"send ubus.event", "Command failed: Permission denied\n 6"},
        {"wait_for server", " 0"},
        {"-t 1 wait_for server nothing", "Command failed: Request timed out\n 7"},
        {"-t 1 listen", " 0"},
        {"call server >/dev/null", " 254"},
        {"-s /nowhere list", "Failed to connect to ubus\n 255"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(result(start(c.arguments)), c.result) << c.arguments;
    }

    // Events are printed as they come, and all of them before the end of the broker ends it.
    FILE *listening = start("listen 'ev*' other");
    Peer peer(broker_);
    pollfd pfd = {fileno(listening), POLLIN, 0};
    for (int i = 0; i < WAIT_MS / 50 && poll(&pfd, 1, 50) == 0; ++i) {
        EXPECT_EQ(peer.send("event"), UBUS_STATUS_OK);
    }
    for (int i = 0; i < 20; ++i) { // more than is read at once
        EXPECT_EQ(peer.send("event", Text(2000)), UBUS_STATUS_OK);
    }
    for (const char *event : {"event", "nothing", "other"}) {
        EXPECT_EQ(peer.send(event), UBUS_STATUS_OK);
    }
    broker_.stop();
    EXPECT_TRUE(result(listening).ends_with("{ \"event\": {} }\n{ \"other\": {} }\n"
                                            "Command failed: Connection failed\n 10"));
}
