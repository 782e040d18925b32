// The client library and the command-line client, over a real broker.
#include <poll.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "bus_test.h"

namespace {

std::vector<std::string> seen; // what the handlers below were called for
size_t received;               // the length of the last reply

int note(ubus_context *, ubus_object *, ubus_request_data *, const char *method, blob_attr *)
{
    seen.emplace_back(method);
    return UBUS_STATUS_OK;
}

void note_event(ubus_context *, ubus_event_handler *, const char *type, blob_attr *)
{
    seen.emplace_back(type);
}

int echo(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg)
{
    return ubus_send_reply(ctx, req, msg);
}

ubus_request_data deferred;

int defer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    ubus_defer_request(ctx, req, &deferred);
    return UBUS_STATUS_OK;
}

// Makes calls while it is itself being called.
int ask_back(ubus_context *ctx, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
    seen.emplace_back("asking");
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "server", &id), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_send_event(ctx, "asked", nullptr), UBUS_STATUS_OK);
    seen.emplace_back("answered");
    return UBUS_STATUS_OK;
}

const ubus_method METHODS[] = {UBUS_METHOD_NOARG("note", note), UBUS_METHOD_NOARG("echo", echo),
                               UBUS_METHOD_NOARG("defer", defer), UBUS_METHOD_NOARG("ask_back", ask_back)};

void turn(int times)
{
    while (times-- > 0) {
        uloop_run_timeout(5);
    }
}

// Turns the loop until so much was seen.
void run_until(size_t count)
{
    for (int i = 0; i < WAIT_MS / 5 && seen.size() < count; ++i) {
        turn(1);
    }
}

// A context in the loop, with an object "server" and a handler of "event".
class ClientTest : public BrokerTest {
protected:
    void SetUp() override
    {
        ctx_ = ubus_connect(path_);
        ASSERT_NE(ctx_, nullptr);
        ubus_add_uloop(ctx_);
        listener_.cb = note_event;
        ASSERT_EQ(ubus_add_object(ctx_, &server_), UBUS_STATUS_OK);
        ASSERT_EQ(ubus_register_event_handler(ctx_, &listener_, "event"), UBUS_STATUS_OK);
        seen.clear();
    }
    void TearDown() override
    {
        ubus_free(ctx_);
        uloop_done();
    }
    int look_up(const char *path) { return ubus_lookup_id(ctx_, path, &id_); }
    void start_call(const char *method, ubus_request *req, blob_attr *args = nullptr)
    {
        EXPECT_EQ(ubus_invoke_async(ctx_, server_.id, method, args, req), UBUS_STATUS_OK);
        req->data_cb = [](ubus_request *, int, blob_attr *msg) { received = blob_len(msg); };
        req->complete_cb = [](ubus_request *, int ret) { seen.push_back("end " + std::to_string(ret)); };
        ubus_complete_request_async(ctx_, req);
    }
    ubus_context *ctx_ = nullptr;
    uint32_t id_ = 0;
    ubus_object_type type_ = UBUS_OBJECT_TYPE("server", METHODS);
    ubus_object server_ = {
        .name = "server", .type = &type_, .methods = METHODS, .n_methods = ARRAY_SIZE(METHODS)};
    ubus_event_handler listener_ = {};
};

// Starts `ubus`, its errors among its output.
FILE *start_ubus(const std::string &arguments)
{
    return popen((UBUS_COMMAND " " + arguments + " 2>&1").c_str(), "r");
}

bool has_output(FILE *command, int timeout_ms)
{
    pollfd pfd = {fileno(command), POLLIN, 0};
    return poll(&pfd, 1, timeout_ms) > 0;
}

// Its output, a blank and its exit status.
std::string result(FILE *command)
{
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
        seen.clear();
        if (!in_loop) {
            uloop_fd_delete(&ctx_->sock);
        }
        // These are there before the next call is answered.
        RawClient peer(path_);
        EXPECT_TRUE(peer.call(1, server_.id, "note"));
        EXPECT_EQ(peer.send_event("event"), UBUS_STATUS_OK);
        EXPECT_TRUE(peer.call(2, server_.id, "nonsense"));
        EXPECT_TRUE(peer.ping());
        EXPECT_EQ(look_up("server"), UBUS_STATUS_OK);
        EXPECT_EQ(seen.empty(), in_loop);
        run_until(2);
        EXPECT_EQ(seen, (std::vector<std::string>{"note", "event"}));
        EXPECT_EQ(peer.status(), UBUS_STATUS_OK);
        EXPECT_EQ(peer.status(), UBUS_STATUS_METHOD_NOT_FOUND);
    }
}

TEST_F(ClientTest, HandlersMayCallButAreNotNested)
{
    RawClient peer(path_);
    EXPECT_EQ(peer.listen(peer.add_object(nullptr), "asked"), UBUS_STATUS_OK);
    EXPECT_TRUE(peer.call(1, server_.id, "ask_back"));
    EXPECT_TRUE(peer.call(2, server_.id, "note"));
    EXPECT_TRUE(peer.ping());
    run_until(3);
    EXPECT_EQ(seen, (std::vector<std::string>{"asking", "answered", "note"}));
    EXPECT_TRUE(peer.receive(UBUS_MSG_INVOKE)) << "the event";
}

TEST_F(ClientTest, LookupCallbackMayCall)
{
    RawClient owner(path_);
    owner.add_object("another");
    const auto on_object = [](ubus_context *ctx, ubus_object_data *object, void *) {
        const std::string path = object->path;
        uint32_t id = 0;
        EXPECT_EQ(ubus_lookup_id(ctx, object->path, &id), UBUS_STATUS_OK);
        EXPECT_EQ(id, object->id);
        EXPECT_EQ(path, object->path) << "valid throughout the callback";
        seen.push_back(path);
    };
    EXPECT_EQ(ubus_lookup(ctx_, nullptr, on_object, nullptr), UBUS_STATUS_OK);
    EXPECT_EQ(seen, (std::vector<std::string>{"another", "server"}));
    EXPECT_EQ(ubus_lookup(ctx_, "th*", on_object, nullptr), UBUS_STATUS_NOT_FOUND);
}

TEST_F(ClientTest, CallTimesOutAndItsLateAnswerIsPassedOver)
{
    RawClient owner(path_);
    const uint32_t object = owner.add_object("slow", "m");
    EXPECT_EQ(ubus_invoke(ctx_, object, "m", nullptr, nullptr, nullptr, 50), UBUS_STATUS_TIMEOUT);
    const auto late = owner.receive(UBUS_MSG_INVOKE);
    ASSERT_TRUE(late);
    EXPECT_TRUE(owner.answer(*late, object, 9));
    EXPECT_TRUE(owner.ping());
    EXPECT_EQ(look_up("slow"), UBUS_STATUS_OK);
}

TEST_F(ClientTest, AsynchronousCallsOfAnySizeAndDeferredOnes)
{
    // Less and more than what the library reads at once, and than the socket takes.
    for (const size_t size : {10U, 16300U, 16400U, 900000U}) {
        seen.clear();
        Blob args;
        blobmsg_add_string(&args.buf, "text", std::string(size, 'y').c_str());
        ubus_request req = {};
        start_call("echo", &req, args);
        run_until(1);
        EXPECT_EQ(seen, std::vector<std::string>{"end 0"}) << size;
        EXPECT_EQ(received, blob_len(args));
    }
    const std::string too_long(UBUS_MAX_MSGLEN, 'z');
    EXPECT_EQ(ubus_invoke(ctx_, server_.id, too_long.c_str(), nullptr, nullptr, nullptr, 0),
              UBUS_STATUS_INVALID_ARGUMENT);

    seen.clear();
    ubus_request req = {};
    start_call("defer", &req);
    turn(10);
    EXPECT_TRUE(seen.empty());
    ubus_complete_deferred_request(ctx_, &deferred, 8);
    run_until(1);
    EXPECT_EQ(seen, std::vector<std::string>{"end 8"});
}

TEST_F(ClientTest, SurvivesTheBrokersRestart)
{
    ctx_->connection_lost = [](ubus_context *) { seen.emplace_back("lost"); };
    ubus_request req = {};
    start_call("defer", &req);
    const uint32_t old_id = server_.id;

    broker_.stop();
    EXPECT_EQ(look_up("server"), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_TRUE(seen.empty()) << "told from the loop only";
    turn(3);
    EXPECT_EQ(seen, (std::vector<std::string>{"end 10", "lost"}));
    EXPECT_EQ(ubus_send_event(ctx_, "event", nullptr), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ubus_reconnect(ctx_, path_), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ubus_send_event(ctx_, "event", nullptr), UBUS_STATUS_CONNECTION_FAILED);

    broker_.start();
    ASSERT_EQ(ubus_reconnect(ctx_, path_), UBUS_STATUS_OK);
    ubus_add_uloop(ctx_);
    EXPECT_NE(server_.id, old_id);
    EXPECT_EQ(look_up("server"), UBUS_STATUS_OK);
    EXPECT_EQ(id_, server_.id);
    EXPECT_EQ(ubus_register_event_handler(ctx_, &listener_, "event"), UBUS_STATUS_OK);
    RawClient peer(path_);
    EXPECT_EQ(peer.send_event("event"), UBUS_STATUS_OK);
    run_until(3);
    EXPECT_EQ(seen.back(), "event");

    // A call that is waited for when the broker goes.
    const uint32_t object = peer.add_object("deaf", "m");
    std::thread killer([&] {
        EXPECT_TRUE(peer.receive(UBUS_MSG_INVOKE));
        broker_.stop();
    });
    const int status = ubus_invoke(ctx_, object, "m", nullptr, nullptr, nullptr, 0);
    killer.join();
    EXPECT_TRUE(status == UBUS_STATUS_CONNECTION_FAILED || status == UBUS_STATUS_NO_DATA) << status;
}

TEST_F(ClientTest, LosingTheBrokerEndsTheLoopOnceAllIsRead)
{
    RawClient peer(path_);
    for (int i = 0; i < 20; ++i) { // more than is read at once
        EXPECT_TRUE(peer.write(event_message("event", 2000)));
    }
    EXPECT_TRUE(peer.ping());
    broker_.stop();
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(seen.size(), 20U);
    EXPECT_EQ(ubus_connect(path_), nullptr);
}

TEST_F(ClientTest, NothingIsLeftInTheLoop)
{
    RawClient peer(path_);
    EXPECT_EQ(peer.send_event("event"), UBUS_STATUS_OK);
    EXPECT_EQ(look_up("server"), UBUS_STATUS_OK); // puts the event aside
    ubus_free(ctx_);
    ctx_ = nullptr;
    EXPECT_EQ(uloop_get_next_timeout(), -1);
    turn(3);
    EXPECT_TRUE(seen.empty());
}

TEST_F(ClientTest, CommandLine)
{
    const std::string at = "-s " + std::string(path_) + " ";
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
        {"call nothing note", "Command failed: Not found\n 4"},
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
        FILE *command = start_ubus(at + c.arguments);
        while (!has_output(command, 0)) { // its end counts
            turn(1);
        }
        EXPECT_EQ(result(command), c.result) << c.arguments;
    }

    // Events are printed as they come; the end of the broker ends it.
    FILE *listening = start_ubus(at + "listen 'ev*' other");
    RawClient peer(path_);
    for (int i = 0; i < WAIT_MS / 50 && !has_output(listening, 50); ++i) {
        EXPECT_EQ(peer.send_event("event"), UBUS_STATUS_OK);
    }
    for (const char *event : {"event", "nothing", "other"}) {
        EXPECT_EQ(peer.send_event(event), UBUS_STATUS_OK);
    }
    broker_.stop();
    const std::string end = "{ \"event\": {\"text\":\"x\"} }\n{ \"other\": {\"text\":\"x\"} }\n"
                            "Command failed: Connection failed\n 10";
    EXPECT_TRUE(result(listening).ends_with(end));
}
