// The bytes on the socket. Other brokers and clients are in use elsewhere: when a test here fails, ours no
// longer talk to those.
#include <grp.h>
#include <pwd.h>
#include <random>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "bus_test.h"

namespace {

using std::string;

// Message headers are "version type seq peer"; these are the blobs after them.
const string EMPTY = "00000004";
const string STATUS_OK = "0000000c 01000008 00000000";
const string PERMISSION_DENIED = "0000000c 01000008 00000006";
const string NOT_FOUND = "0000000c 01000008 00000004";

// An object "test.obj" with methods args (name: String, on: Boolean) and get.
const string PATH = "0200000d 'test.obj' 00 000000";
const string SIGNATURE = "0600003c 8200002c 0004 'args' 0000 85000010 0004 'name' 0000 00000003"
                         "85000010 0002 'on' 00000000 00000007 8200000c 0003 'get' 000000";
const string ADD_OBJECT = "00000050" + PATH + SIGNATURE;
const string OBJECT = "0000000c 03000008 [object]";
const string OBJECT_AND_TYPE = "00000014 03000008 [object] 05000008 [type]";
const string LOOKUP = "00000014" + PATH;
const string LOOKED_UP = "00000060" + PATH + "03000008 [object] 05000008 [type]" + SIGNATURE;

// A call of args { name: "abc", raw: 5 bytes }, its reply { ok: true } and its status.
const string ARGS =
    "07000028 83000010 0004 'name' 0000 'abc' 00 80000011 0003 'raw' 000000 0102030405 000000";
const string CALL = "00000040 03000008 [object] 04000009 'args' 00 000000" + ARGS;
const string REPLY = "00000020 03000008 [object] 07000014 8700000d 0002 'ok' 00000000 01 000000";
const string CALL_STATUS = "00000014 01000008 00000006 03000008 [object]";
const string CALL_UNKNOWN = "00000018 03000008 00012345 04000006 'm' 00 0000 07000004";

// Events: the object that listens, its pattern, one sent and received, one that only the broker may send.
const string LISTENER = "0000000c 03000008 [listener]";
const string REGISTER = "0000004c 03000008 00000001 0400000d 'register' 00 000000"
                        "07000030 85000014 0006 'object' 00000000 [listener]"
                        "83000018 0007 'pattern' 000000 'event.*' 00";
const string SEND =
    "0000004c 03000008 00000001 04000009 'send' 00 000000 07000034 83000014 0002 'id' 00000000"
    "'event.x' 00 8200001c 0004 'data' 0000 85000010 0005 'value' 00 00000007";
const string EVENT =
    "0000002c 03000008 [listener] 0400000c 'event.x' 00 07000014 85000010 0005 'value' 00 00000007";
const string SEND_UBUS =
    "0000004c 03000008 00000001 04000009 'send' 00 000000 07000034 83000013 0002 'id'"
    "00000000 'ubus.x' 00 00 8200001c 0004 'data' 0000 85000010 0005 'value' 00 00000007";

// USER and GROUP of who runs this.
Bytes own_names()
{
    Blob blob;
    blob_put_string(&blob.buf, UBUS_ATTR_USER, getpwuid(getuid())->pw_name);
    blob_put_string(&blob.buf, UBUS_ATTR_GROUP, getgrgid(getgid())->gr_name);
    Bytes names = bytes_of(blob);
    names.erase(names.begin(), names.begin() + sizeof(blob_attr));
    return names;
}

// A request, and what the broker answers.
struct Exchange {
    string request;
    string answer;
};

// `about` is the sequence and the peer, both ways the same; data and a status come back.
Exchange exchange(const string &type, const string &about, const string &request, const string &data = "",
                  const string &status = STATUS_OK)
{
    return {"00" + type + about + request,
            (data.empty() ? "" : "00 02" + about + data) + "00 01" + about + status};
}

int on_call(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    Blob reply;
    blobmsg_add_u8(&reply.buf, "ok", 1);
    ubus_send_reply(ctx, req, reply);
    return UBUS_STATUS_PERMISSION_DENIED;
}

} // namespace

TEST(Wire, MessageOfEveryType)
{
    Blob blob;
    blob_buf *b = &blob.buf;
    blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, "raw", "\1\2\3\4\5", 5);
    blobmsg_add_string(b, "text", "abc");
    blobmsg_add_u8(b, "i8", 0x12);
    blobmsg_add_u16(b, "i16", 0x1234);
    blobmsg_add_u32(b, "i32", 0x12345678);
    blobmsg_add_u64(b, "i64", 0x123456789abcdef0);
    blobmsg_add_double(b, "f", 1.5);
    void *table = blobmsg_open_table(b, "t");
    void *array = blobmsg_open_array(b, "a");
    blobmsg_add_u8(b, nullptr, 1);
    blobmsg_add_string(b, nullptr, "");
    blobmsg_close_array(b, array);
    blobmsg_close_table(b, table);
    blobmsg_close_table(b, blobmsg_open_table(b, "empty"));

    EXPECT_EQ(
        hex(bytes_of(blob)),
        hex(bytes("000000b0 80000011 0003 'raw' 000000 0102030405 000000 83000010 0004 'text' 0000 'abc' 00"
                  "8700000d 0002 'i8' 00000000 12 000000 8600000e 0003 'i16' 000000 1234 0000"
                  "85000010 0003 'i32' 000000 12345678 84000014 0003 'i64' 000000 123456789abcdef0"
                  "88000010 0001 'f' 00 3ff8000000000000 82000028 0001 't' 00 81000020 0001 'a' 00"
                  "87000009 0000 0000 01 000000 83000009 0000 0000 00 000000 8200000c 0005 'empty' 00")));
}

TEST_F(BrokerTest, SaysTheKnownBytes)
{
    RawClient owner(path_);
    RawClient caller(path_);
    Words words = {{"caller", caller.id()}, {"size", 0x40 + static_cast<uint32_t>(own_names().size())}};
    const auto say = [&](const RawClient &client, const string &text) { client.write(bytes(text, words)); };
    const auto hear = [&](RawClient &client, const string &text) {
        const auto m = client.receive();
        EXPECT_EQ(m ? hex(m->raw) : "nothing", hex(bytes(text, words)));
    };
    // The broker chooses the ids of what is added; they are `learned` from its answer.
    const auto ask = [&](RawClient &client, const Exchange &asked, const char *learned = nullptr) {
        say(client, asked.request);
        string heard;
        for (auto m = client.receive(); m; m = client.receive()) {
            heard += hex(m->raw);
            if (m->type() == UBUS_MSG_STATUS) {
                break;
            }
            if (learned) {
                words.insert({{learned, m->u32(UBUS_ATTR_OBJID)}, {"type", m->u32(UBUS_ATTR_OBJTYPE)}});
            }
        }
        EXPECT_EQ(heard, hex(bytes(asked.answer, words)));
    };

    ask(owner, exchange("06", "0001 00000000", ADD_OBJECT, OBJECT_AND_TYPE), "object");
    ask(owner, exchange("06", "0002 00000000", EMPTY, LISTENER), "listener");
    ask(owner, exchange("05", "0003 00000001", REGISTER));
    ask(caller, exchange("04", "0001 00000000", LOOKUP, LOOKED_UP));
    say(caller, "00 05 0002 [object]" + CALL);
    hear(owner,
         "00 05 0002 [caller] [size] 03000008 [object] 04000009 'args' 00 000000" + hex(own_names()) + ARGS);
    say(owner, "00 02 0002 [caller]" + REPLY);
    hear(caller, "00 02 0002 [object]" + REPLY);
    say(owner, "00 01 0002 [caller]" + CALL_STATUS);
    hear(caller, "00 01 0002 [object]" + CALL_STATUS);
    ask(caller, exchange("05", "0005 00012345", CALL_UNKNOWN, "", NOT_FOUND));

    ask(caller, exchange("05", "0003 00000001", SEND));
    hear(owner, "00 05 0001 00000000" + EVENT);
    ask(caller, exchange("05", "0004 00000001", SEND_UBUS, "", PERMISSION_DENIED));

    ask(owner, exchange("07", "0004 00000000", LISTENER, LISTENER));
    words["watcher"] = caller.add_object(nullptr);
    EXPECT_EQ(caller.listen(words["watcher"], "ubus.object.*"), UBUS_STATUS_OK);
    ask(owner, exchange("07", "0005 00000000", OBJECT, OBJECT_AND_TYPE));
    hear(caller,
         "00 05 0002 00000000 00000050 03000008 [watcher] 04000017 'ubus.object.remove' 00 00 0700002c"
         "85000010 0002 'id' 00000000 [object] 83000015 0004 'path' 0000 'test.obj' 00 000000");
    ask(owner, exchange("04", "0006 00000000", LOOKUP, "", NOT_FOUND));
}

TEST(Wire, ClientSaysTheKnownBytes)
{
    const Words words = {{"client", 0x1001}, {"object", 0x2001}, {"listener", 0x2002}, {"type", 0x3001}};
    const Exchange script[] = {
        exchange("06", "0001 00000000", ADD_OBJECT, OBJECT_AND_TYPE),
        exchange("06", "0002 00000000", EMPTY, LISTENER),
        exchange("05", "0003 00000001", REGISTER),
        exchange("04", "0004 00000000", LOOKUP, LOOKED_UP),
        exchange("05", "0005 [object]", CALL, REPLY, CALL_STATUS),
        exchange("05", "0006 00012345", CALL_UNKNOWN, "", NOT_FOUND),
        // An event and a call come in between: the call alone is answered.
        {"00 05 0007 00000001" + SEND,
         "00 05 0001 00000000" + EVENT + "00 05 0102 00005005" + CALL + "00 01 0007 00000001" + STATUS_OK},
        {"00 02 0102 00005005" + REPLY, ""},
        {"00 01 0102 00005005" + CALL_STATUS, ""},
        exchange("07", "0008 00000000", LISTENER, LISTENER),
        exchange("07", "0009 00000000", OBJECT, OBJECT_AND_TYPE)};
    const string path = socket_path();
    const int listening = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {.sun_family = AF_UNIX};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(listening, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listening, 1), 0);
    std::thread broker([&] {
        RawClient client(accept(listening, nullptr, nullptr));
        EXPECT_TRUE(client.write(bytes("00 00 0000 [client]" + EMPTY, words)));
        for (const Exchange &step : script) {
            const auto m = client.receive();
            EXPECT_EQ(m ? hex(m->raw) : "nothing", hex(bytes(step.request, words)));
            EXPECT_TRUE(client.write(bytes(step.answer, words)));
        }
    });

    ubus_context *ctx = ubus_connect(path.c_str());
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->local_id, 0x1001U);

    const blobmsg_policy policy[] = {{"name", BLOBMSG_TYPE_STRING}, {"on", BLOBMSG_TYPE_BOOL}};
    const ubus_method methods[] = {UBUS_METHOD("args", on_call, policy), UBUS_METHOD_NOARG("get", on_call)};
    ubus_object_type type = UBUS_OBJECT_TYPE("test", methods);
    ubus_object object = {.name = "test.obj", .type = &type, .methods = methods, .n_methods = 2};
    EXPECT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    EXPECT_EQ(object.id, 0x2001U);
    EXPECT_EQ(type.id, 0x3001U);

    static std::vector<string> events;
    ubus_event_handler handler = {};
    handler.cb = [](ubus_context *, ubus_event_handler *, const char *name, blob_attr *) {
        events.emplace_back(name);
    };
    EXPECT_EQ(ubus_register_event_handler(ctx, &handler, "event.*"), UBUS_STATUS_OK);
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "test.obj", &id), UBUS_STATUS_OK);
    EXPECT_EQ(id, 0x2001U);

    Blob args;
    blobmsg_add_string(&args.buf, "name", "abc");
    blobmsg_add_field(&args.buf, BLOBMSG_TYPE_UNSPEC, "raw", "\1\2\3\4\5", 5);
    size_t reply_len = 0;
    const auto on_reply = [](ubus_request *req, int, blob_attr *msg) {
        *static_cast<size_t *>(req->priv) = blob_len(msg);
    };
    EXPECT_EQ(ubus_invoke(ctx, id, "args", args, on_reply, &reply_len, WAIT_MS),
              UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(reply_len, 16U);
    EXPECT_EQ(ubus_invoke(ctx, 0x12345, "m", nullptr, nullptr, nullptr, WAIT_MS), UBUS_STATUS_NOT_FOUND);

    Blob event;
    blobmsg_add_u32(&event.buf, "value", 7);
    EXPECT_EQ(ubus_send_event(ctx, "event.x", event), UBUS_STATUS_OK);
    EXPECT_EQ(events, std::vector<string>{"event.x"});
    EXPECT_EQ(ubus_unregister_event_handler(ctx, &handler), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_remove_object(ctx, &object), UBUS_STATUS_OK);
    EXPECT_EQ(type.id, 0U);
    ubus_free(ctx);
    uloop_done();
    broker.join();
    close(listening);
    unlink(path.c_str());
}

// Whatever comes near a valid message: the sender may be dropped, the broker and a bystander may not.
TEST_F(BrokerTest, SurvivesWhatIsNearlyRight)
{
    const string blobs[] = {ADD_OBJECT, LOOKUP, CALL,  REPLY,    CALL_STATUS,
                            LISTENER,   EMPTY,  EVENT, REGISTER, SEND};
    RawClient bystander(path_);
    std::mt19937 random(20110601);
    const auto below = [&](size_t n) { return random() % n; };
    std::unique_ptr<RawClient> client;
    Words words = {{"type", 1234}};
    for (int round = 0; round < 5000; ++round) {
        if (!client || below(50) == 0) {
            client = std::make_unique<RawClient>(path_);
            words["object"] = client->add_object(nullptr);
            words["listener"] = client->add_object(nullptr);
        }
        const string &blob = blobs[below(std::size(blobs))];
        Bytes mutant = bytes((below(2) ? "00 05 0001 00000001" : "00 05 0001 [object]") + blob, words);
        if (below(2)) {
            mutant[1] = static_cast<uint8_t>(below(__UBUS_MSG_LAST + 1));
        }
        for (size_t n = below(4); n > 0; --n) {
            mutant[11 + below(mutant.size() - 11)] = static_cast<uint8_t>(below(2) ? below(16) : random());
        }
        const bool written = client->write(mutant);
        while (recv(client->fd(), mutant.data(), mutant.size(), MSG_DONTWAIT) > 0) {
        }
        if (!written) {
            client.reset();
        }
    }
    EXPECT_TRUE(bystander.ping());
}
