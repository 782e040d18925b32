// The client library and the command-line client, over a real broker.
#include <array>
#include <cstdio>
#include <memory>
#include <poll.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <libubox/blobmsg_json.h>

#include "bus_test.h"

namespace {

struct ContextFree {
    void operator()(ubus_context *ctx) const { ubus_free(ctx); }
};
using Context = std::unique_ptr<ubus_context, ContextFree>;

Context connect(const char *path)
{
    Context ctx(ubus_connect(path));
    EXPECT_TRUE(ctx);
    return ctx;
}

std::vector<std::string> log_of_calls;

int note_call(ubus_context *, ubus_object *, ubus_request_data *, const char *method, blob_attr *)
{
    log_of_calls.emplace_back(method);
    return UBUS_STATUS_OK;
}

void note_event(ubus_context *, ubus_event_handler *, const char *type, blob_attr *)
{
    log_of_calls.emplace_back(type);
}

int echo(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg)
{
    return ubus_send_reply(ctx, req, msg);
}

ubus_request_data held;

int defer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    ubus_defer_request(ctx, req, &held);
    return UBUS_STATUS_OK;
}

// Calls another object of the peer while it is itself being called.
int ask_back(ubus_context *ctx, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
    log_of_calls.emplace_back("asking");
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "server", &id), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_send_event(ctx, "asked", nullptr), UBUS_STATUS_OK);
    log_of_calls.emplace_back("answered");
    return UBUS_STATUS_OK;
}

const ubus_method kMethods[] = {UBUS_METHOD_NOARG("note", note_call), UBUS_METHOD_NOARG("echo", echo),
                                UBUS_METHOD_NOARG("defer", defer), UBUS_METHOD_NOARG("ask_back", ask_back)};

struct Server {
    ubus_object_type type = UBUS_OBJECT_TYPE("server", kMethods);
    ubus_object object = {};

    explicit Server(const char *name)
    {
        object.name = name;
        object.type = &type;
        object.methods = kMethods;
        object.n_methods = ARRAY_SIZE(kMethods);
    }
};

ubus_event_handler new_listener()
{
    ubus_event_handler listener = {};
    listener.cb = note_event;
    return listener;
}

// Turns the loop until the log has so many lines.
void run_until(size_t lines)
{
    for (int i = 0; i < kWaitMs / 10 && log_of_calls.size() < lines; i++)
        uloop_run_timeout(10);
}

class ClientTest : public BrokerTest {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_DFL);
        uloop_init();
        log_of_calls.clear();
    }
    void TearDown() override { uloop_done(); }
};

// Starts a call over a raw connection; its answer is to be read there.
void start_call(RawClient &client, uint16_t seq, uint32_t object, const char *method)
{
    Blob blob;
    blob_put_u32(&blob.buf, UBUS_ATTR_OBJID, object);
    blob_put_string(&blob.buf, UBUS_ATTR_METHOD, method);
    blob_put(&blob.buf, UBUS_ATTR_DATA, nullptr, 0);
    EXPECT_TRUE(client.send(UBUS_MSG_INVOKE, seq, object, blob));
}

// A run of `ubus`, its errors with its output.
class Command {
public:
    explicit Command(const std::string &arguments) : pipe_(popen((UBUS_COMMAND " " + arguments).c_str(), "r"))
    {
    }
    ~Command() { finish(); }
    Command(const Command &) = delete;
    Command &operator=(const Command &) = delete;

    bool has_output(int timeout_ms) const
    {
        pollfd pfd = {fileno(pipe_), POLLIN, 0};
        return poll(&pfd, 1, timeout_ms) > 0;
    }
    int finish()
    {
        std::array<char, 4096> buffer;
        while (const size_t n = pipe_ ? fread(buffer.data(), 1, buffer.size(), pipe_) : 0)
            out.append(buffer.data(), n);
        const int status = pipe_ ? pclose(pipe_) : 0;
        pipe_ = nullptr;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string out;

private:
    FILE *pipe_;
};

} // namespace

TEST_F(ClientTest, CallsAndEventsWaitWhileACallIsWaitedFor)
{
    for (const bool in_loop : {true, false}) {
        SCOPED_TRACE(in_loop);
        log_of_calls.clear();
        const Context ctx = connect(path_);
        if (in_loop)
            ubus_add_uloop(ctx.get());
        Server server("server");
        ubus_event_handler listener = new_listener();
        ASSERT_EQ(ubus_add_object(ctx.get(), &server.object), UBUS_STATUS_OK);
        ASSERT_EQ(ubus_register_event_handler(ctx.get(), &listener, "*"), UBUS_STATUS_OK);
        log_of_calls.clear(); // of the object's own coming

        // These are there before the next call is answered.
        RawClient peer(path_);
        start_call(peer, 1, server.object.id, "note");
        EXPECT_EQ(peer.send_event("event", 1), UBUS_STATUS_OK);
        start_call(peer, 2, server.object.id, "nonsense");
        EXPECT_TRUE(peer.ping());
        uint32_t id = 0;
        EXPECT_EQ(ubus_lookup_id(ctx.get(), "server", &id), UBUS_STATUS_OK);
        EXPECT_EQ(log_of_calls.empty(), in_loop);
        run_until(2);
        EXPECT_EQ(log_of_calls, (std::vector<std::string>{"note", "event"}));
        EXPECT_EQ(peer.receive(UBUS_MSG_STATUS)->u32(UBUS_ATTR_STATUS), UBUS_STATUS_OK);
        EXPECT_EQ(peer.receive(UBUS_MSG_STATUS)->u32(UBUS_ATTR_STATUS), UBUS_STATUS_METHOD_NOT_FOUND);
    }
}

TEST_F(ClientTest, HandlersMayCallButAreNotNested)
{
    const Context ctx = connect(path_);
    ubus_add_uloop(ctx.get());
    Server server("server");
    ASSERT_EQ(ubus_add_object(ctx.get(), &server.object), UBUS_STATUS_OK);
    RawClient peer(path_);
    EXPECT_EQ(peer.listen(peer.add_object(nullptr), "asked"), UBUS_STATUS_OK);
    start_call(peer, 1, server.object.id, "ask_back");
    start_call(peer, 2, server.object.id, "note");
    EXPECT_TRUE(peer.ping());
    run_until(3);
    EXPECT_EQ(log_of_calls, (std::vector<std::string>{"asking", "answered", "note"}));
    EXPECT_TRUE(peer.receive(UBUS_MSG_INVOKE)) << "the event";
}

TEST_F(ClientTest, LookupCallbackMayCall)
{
    const Context ctx = connect(path_);
    Server first("one");
    Server second("two");
    ASSERT_EQ(ubus_add_object(ctx.get(), &first.object), UBUS_STATUS_OK);
    ASSERT_EQ(ubus_add_object(ctx.get(), &second.object), UBUS_STATUS_OK);
    const auto on_object = [](ubus_context *c, ubus_object_data *object, void *) {
        const std::string path = object->path; // valid throughout the callback
        uint32_t id = 0;
        EXPECT_EQ(ubus_lookup_id(c, object->path, &id), UBUS_STATUS_OK);
        EXPECT_EQ(id, object->id);
        EXPECT_EQ(path, object->path);
        log_of_calls.push_back(path);
    };
    EXPECT_EQ(ubus_lookup(ctx.get(), nullptr, on_object, nullptr), UBUS_STATUS_OK);
    EXPECT_EQ(log_of_calls, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(ubus_lookup(ctx.get(), "th*", on_object, nullptr), UBUS_STATUS_NOT_FOUND);
}

TEST_F(ClientTest, CallTimesOutAndItsLateAnswerIsPassedOver)
{
    const Context ctx = connect(path_);
    RawClient owner(path_);
    const uint32_t object = owner.add_object("slow", "m");
    EXPECT_EQ(ubus_invoke(ctx.get(), object, "m", nullptr, nullptr, nullptr, 50), UBUS_STATUS_TIMEOUT);
    const auto late = owner.receive(UBUS_MSG_INVOKE);
    ASSERT_TRUE(late);
    Blob blob;
    blob_put_u32(&blob.buf, UBUS_ATTR_STATUS, 9);
    blob_put_u32(&blob.buf, UBUS_ATTR_OBJID, object);
    EXPECT_TRUE(owner.send(UBUS_MSG_STATUS, late->seq(), late->peer(), blob));
    EXPECT_TRUE(owner.ping());
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "slow", &id), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_invoke(ctx.get(), object ^ 1, "m", nullptr, nullptr, nullptr, 0), UBUS_STATUS_NOT_FOUND);
}

TEST_F(ClientTest, AsynchronousAndDeferredCallsOfAnySize)
{
    const Context server_ctx = connect(path_);
    const Context ctx = connect(path_);
    ubus_add_uloop(server_ctx.get());
    ubus_add_uloop(ctx.get());
    Server server("server");
    ASSERT_EQ(ubus_add_object(server_ctx.get(), &server.object), UBUS_STATUS_OK);

    // Longer than what the library reads at once, and than the socket takes.
    for (const size_t size : {10U, 16300U, 16400U, 900000U}) {
        SCOPED_TRACE(size);
        log_of_calls.clear();
        Blob args;
        blobmsg_add_string(&args.buf, "text", std::string(size, 'y').c_str());
        static size_t received;
        received = 0;
        ubus_request req = {};
        EXPECT_EQ(ubus_invoke_async(ctx.get(), server.object.id, "echo", args, &req), 0);
        req.data_cb = [](ubus_request *, int, blob_attr *msg) { received = blob_len(msg); };
        req.complete_cb = [](ubus_request *, int ret) {
            log_of_calls.push_back("done " + std::to_string(ret));
        };
        ubus_complete_request_async(ctx.get(), &req);
        run_until(1);
        EXPECT_EQ(log_of_calls, std::vector<std::string>{"done 0"});
        EXPECT_EQ(received, blob_len(args));
    }
    const std::string too_long(UBUS_MAX_MSGLEN, 'z');
    EXPECT_EQ(ubus_invoke(ctx.get(), server.object.id, too_long.c_str(), nullptr, nullptr, nullptr, 0),
              UBUS_STATUS_INVALID_ARGUMENT);

    log_of_calls.clear();
    ubus_request req = {};
    EXPECT_EQ(ubus_invoke_async(ctx.get(), server.object.id, "defer", nullptr, &req), 0);
    req.complete_cb = [](ubus_request *, int ret) { log_of_calls.push_back("done " + std::to_string(ret)); };
    ubus_complete_request_async(ctx.get(), &req);
    for (int i = 0; i < 10; i++)
        uloop_run_timeout(5);
    EXPECT_TRUE(log_of_calls.empty());
    ubus_complete_deferred_request(server_ctx.get(), &held, 8);
    run_until(1);
    EXPECT_EQ(log_of_calls, std::vector<std::string>{"done 8"});
}

TEST_F(ClientTest, SurvivesTheBrokersRestart)
{
    static int lost;
    lost = 0;
    const Context ctx = connect(path_);
    ubus_add_uloop(ctx.get());
    ctx->connection_lost = [](ubus_context *) { lost++; };
    Server server("server");
    ubus_event_handler listener = new_listener();
    ASSERT_EQ(ubus_add_object(ctx.get(), &server.object), UBUS_STATUS_OK);
    ASSERT_EQ(ubus_register_event_handler(ctx.get(), &listener, "event"), UBUS_STATUS_OK);
    static int aborted;
    aborted = -1;
    ubus_request req = {};
    ASSERT_EQ(ubus_invoke_async(ctx.get(), server.object.id, "defer", nullptr, &req), 0);
    req.complete_cb = [](ubus_request *, int ret) { aborted = ret; };
    ubus_complete_request_async(ctx.get(), &req);
    const uint32_t old_id = server.object.id;

    broker_.stop();
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "server", &id), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(lost, 0) << "told from the loop only";
    for (int i = 0; i < 3; i++)
        uloop_run_timeout(10);
    EXPECT_EQ(lost, 1);
    EXPECT_EQ(aborted, UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ubus_send_event(ctx.get(), "event", nullptr), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ubus_reconnect(ctx.get(), path_), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(ubus_send_event(ctx.get(), "event", nullptr), UBUS_STATUS_CONNECTION_FAILED);

    broker_.start();
    ASSERT_EQ(ubus_reconnect(ctx.get(), path_), UBUS_STATUS_OK);
    ubus_add_uloop(ctx.get());
    EXPECT_NE(server.object.id, 0U);
    EXPECT_NE(server.object.id, old_id);
    EXPECT_EQ(ubus_lookup_id(ctx.get(), "server", &id), UBUS_STATUS_OK);
    EXPECT_EQ(id, server.object.id);
    EXPECT_EQ(ubus_register_event_handler(ctx.get(), &listener, "event"), UBUS_STATUS_OK);
    RawClient peer(path_);
    EXPECT_EQ(peer.send_event("event", 1), UBUS_STATUS_OK);
    run_until(1);
    EXPECT_EQ(log_of_calls, std::vector<std::string>{"event"});

    // A call that is waited for when the broker dies.
    RawClient owner(path_);
    const uint32_t object = owner.add_object("deaf", "m");
    std::thread killer([&] {
        EXPECT_TRUE(owner.receive(UBUS_MSG_INVOKE));
        broker_.stop();
    });
    const int status = ubus_invoke(ctx.get(), object, "m", nullptr, nullptr, nullptr, 0);
    killer.join();
    EXPECT_TRUE(status == UBUS_STATUS_CONNECTION_FAILED || status == UBUS_STATUS_NO_DATA) << status;
}

TEST_F(ClientTest, WithoutAHandlerLosingTheBrokerEndsTheLoop)
{
    const Context ctx = connect(path_);
    ubus_add_uloop(ctx.get());
    broker_.stop();
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(ubus_connect(path_), nullptr);
}

TEST_F(ClientTest, NothingIsLeftInTheLoop)
{
    RawClient peer(path_);
    {
        const Context ctx = connect(path_);
        ubus_add_uloop(ctx.get());
        ubus_event_handler listener = new_listener();
        ASSERT_EQ(ubus_register_event_handler(ctx.get(), &listener, "event"), UBUS_STATUS_OK);
        EXPECT_EQ(peer.send_event("event", 1), UBUS_STATUS_OK);
        uint32_t id = 0;
        ubus_lookup_id(ctx.get(), "nothing", &id); // receives the event and puts it aside
    }
    EXPECT_EQ(uloop_get_next_timeout(), -1);
    for (int i = 0; i < 3; i++)
        uloop_run_timeout(1);
    EXPECT_TRUE(log_of_calls.empty());
}

TEST_F(ClientTest, CommandLine)
{
    // An object for the commands, served from a child.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        uloop_done();
        ubus_context *ctx = ubus_connect(path_);
        ubus_add_uloop(ctx);
        Server server("server");
        const bool added = ubus_add_object(ctx, &server.object) == UBUS_STATUS_OK;
        _exit(added && write(ready[1], "", 1) == 1 ? uloop_run() : 1);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);

    const std::string at = "-s " + std::string(path_) + " ";
    const struct {
        const char *arguments;
        const char *out; // null: the usage
        int status;
    } cases[] = {
        {"list", "server\n", 0},
        {"list 'ser*'", "server\n", 0},
        {"list nothing", "Command failed: Not found\n", 4},
        {"-v list server | sed 's/@[0-9a-f]*/@ID/'",
         "'server' @ID\n\t\"note\":{}\n\t\"echo\":{}\n\t\"defer\":{}\n\t\"ask_back\":{}\n", 0},
        {R"(call server echo '{"a":{"b":[1,"x"]},"t":true}')",
         "{\n\t\"a\": {\n\t\t\"b\": [\n\t\t\t1,\n\t\t\t\"x\"\n\t\t]\n\t},\n\t\"t\": true\n}\n", 0},
        {R"(-S call server echo '{"a":{"b":[1,"x"]},"t":true}')", "{\"a\":{\"b\":[1,\"x\"]},\"t\":true}\n",
         0},
        {"call server note", "", 0},
        {"call nothing note", "Command failed: Not found\n", 4},
        {"call server nothing", "Command failed: ubus call server nothing (Method not found)\n", 256 - 3},
        {"-S call server nothing", "", 3},
        {"call server echo '{'", "Command failed: ubus call server echo { (Parsing message data failed)\n",
         256 - 12},
        {"-S -t 1 call server defer", "", 7},
        {"send event '{\"a\":1}'", "", 0},
        {"send event '['", "Command failed: Parsing message data failed\n", 12},
        {"send ubus.event", "Command failed: Permission denied\n", 6},
        {"wait_for server", "", 0},
        {"-t 1 wait_for server nothing", "Command failed: Request timed out\n", 7},
        {"-t 1 listen", "", 0},
        {"nonsense", nullptr, 254},
        {"call server", nullptr, 254},
        {"-t x list", nullptr, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.arguments);
        Command command(at + c.arguments + " 2>&1");
        EXPECT_EQ(command.finish(), c.status);
        if (c.out)
            EXPECT_EQ(command.out, c.out);
        else
            EXPECT_EQ(command.out.rfind("Usage:", 0), 0U) << command.out;
    }
    Command alone("-s " + dir_.file("nobody") + " list 2>&1");
    EXPECT_EQ(alone.finish(), 255);
    EXPECT_EQ(alone.out, "Failed to connect to ubus\n");

    // Events are printed as they come; the end of the broker ends it.
    Command listening(at + "listen 'ev*' other 2>&1");
    RawClient peer(path_);
    for (int i = 0; i < kWaitMs / 50 && !listening.has_output(50); i++)
        EXPECT_EQ(peer.send_event("event", 1), UBUS_STATUS_OK);
    EXPECT_EQ(peer.send_event("nothing", 3), UBUS_STATUS_OK);
    EXPECT_EQ(peer.send_event("other", 2), UBUS_STATUS_OK);
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
    broker_.stop();
    EXPECT_EQ(listening.finish(), UBUS_STATUS_CONNECTION_FAILED);
    const std::string end =
        "{ \"event\": {\"value\":1} }\n{ \"other\": {\"value\":2} }\nCommand failed: Connection failed\n";
    EXPECT_TRUE(listening.out.ends_with(end)) << listening.out;
}
