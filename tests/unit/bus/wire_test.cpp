// The bytes on the socket. Other brokers and clients are in use elsewhere: when a test here fails, ours no
// longer talk to those.
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "bus_test.h"

namespace {

using std::string;

// Message headers are "version type seq peer"; below are the blobs after them.
const string kEmpty = "00000004";
const string kStatusOk = "0000000c 01000008 00000000";
const string kStatusPermissionDenied = "0000000c 01000008 00000006";
const string kStatusNotFound = "0000000c 01000008 00000004";

// An object "test.obj" with methods args (name: String, on: Boolean) and get.
const string kPath = "0200000d 'test.obj' 00 000000";
const string kSignature = "0600003c 8200002c 0004 'args' 0000"
                          "85000010 0004 'name' 0000 00000003 85000010 0002 'on' 00000000 00000007"
                          "8200000c 0003 'get' 000000";
const string kAddObject = "00000050" + kPath + kSignature;
const string kObject = "0000000c 03000008 [object]";
const string kObjectAndType = "00000014 03000008 [object] 05000008 [type]";
const string kLookup = "00000014" + kPath;
const string kLookedUp = "00000060" + kPath + "03000008 [object] 05000008 [type]" + kSignature;

// A call of args { name: "abc", raw: 5 bytes }, its reply { ok: true } and its status.
const string kArgs =
    "07000028 83000010 0004 'name' 0000 'abc' 00 80000011 0003 'raw' 000000 0102030405 000000";
const string kCall = "00000040 03000008 [object] 04000009 'args' 00 000000" + kArgs;
const string kReply = "00000020 03000008 [object] 07000014 8700000d 0002 'ok' 00000000 01 000000";
const string kCallStatus = "00000014 01000008 00000006 03000008 [object]";

// Events: the object that listens, its pattern, an event sent and received, one that only the broker may
// send.
const string kListener = "0000000c 03000008 [listener]";
const string kRegister = "0000004c 03000008 00000001 0400000d 'register' 00 000000"
                         "07000030 85000014 0006 'object' 00000000 [listener]"
                         "83000018 0007 'pattern' 000000 'event.*' 00";
const string kSendEvent = "0000004c 03000008 00000001 04000009 'send' 00 000000"
                          "07000034 83000014 0002 'id' 00000000 'event.x' 00"
                          "8200001c 0004 'data' 0000 85000010 0005 'value' 00 00000007";
const string kEvent = "0000002c 03000008 [listener] 0400000c 'event.x' 00"
                      "07000014 85000010 0005 'value' 00 00000007";
const string kSendBrokersEvent = "0000004c 03000008 00000001 04000009 'send' 00 000000"
                                 "07000034 83000013 0002 'id' 00000000 'ubus.x' 00 00"
                                 "8200001c 0004 'data' 0000 85000010 0005 'value' 00 00000007";
const string kCallUnknown = "00000018 03000008 00012345 04000006 'm' 00 0000 07000004";

// A USER or GROUP member.
string name_attr(ubus_msg_attr id, const char *name)
{
    Blob blob;
    blob_put_string(&blob.buf, id, name);
    const auto *start = reinterpret_cast<const uint8_t *>(blob_data(blob.buf.head));
    return hex(Bytes(start, start + blob_len(blob.buf.head)));
}

string word(uint32_t value)
{
    char text[9];
    snprintf(text, sizeof(text), "%08x", value);
    return text;
}

// Two clients of a broker, what they say and must be told.
struct Conversation {
    Ids ids;

    void say(RawClient &client, const string &text) { EXPECT_TRUE(client.write(bytes(text.c_str(), ids))); }
    void hear(RawClient &client, const string &text)
    {
        const auto m = client.receive();
        ASSERT_TRUE(m) << "expected " << text;
        EXPECT_TRUE(match(text.c_str(), m->raw, ids));
    }
};

// A broker that does as it is told: waits for a message, compares it, answers.
struct Step {
    string expected;
    string answer;
};

class ScriptedBroker {
public:
    ScriptedBroker(const string &path, Ids ids, std::vector<Step> script)
        : ids_(std::move(ids)), script_(std::move(script)), listener_(socket(AF_UNIX, SOCK_STREAM, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        thread_ = std::thread([this] { run(); });
    }
    ~ScriptedBroker()
    {
        thread_.join();
        close(listener_);
    }
    ScriptedBroker(const ScriptedBroker &) = delete;
    ScriptedBroker &operator=(const ScriptedBroker &) = delete;

private:
    void run()
    {
        RawClient client(accept(listener_, nullptr, nullptr));
        EXPECT_TRUE(client.write(bytes(("00 00 0000 [client]" + kEmpty).c_str(), ids_)));
        for (const Step &step : script_) {
            const auto m = client.receive();
            ASSERT_TRUE(m) << "expected " << step.expected;
            EXPECT_TRUE(match(step.expected.c_str(), m->raw, ids_));
            EXPECT_TRUE(client.write(bytes(step.answer.c_str(), ids_)));
        }
    }

    Ids ids_;
    std::vector<Step> script_;
    int listener_;
    std::thread thread_;
};

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
    void *empty = blobmsg_open_table(b, "empty");
    blobmsg_close_table(b, empty);

    const auto *start = reinterpret_cast<const uint8_t *>(b->head);
    Ids none;
    EXPECT_TRUE(match("000000b0"
                      "80000011 0003 'raw' 000000 0102030405 000000"
                      "83000010 0004 'text' 0000 'abc' 00"
                      "8700000d 0002 'i8' 00000000 12 000000"
                      "8600000e 0003 'i16' 000000 1234 0000"
                      "85000010 0003 'i32' 000000 12345678"
                      "84000014 0003 'i64' 000000 123456789abcdef0"
                      "88000010 0001 'f' 00 3ff8000000000000"
                      "82000028 0001 't' 00 81000020 0001 'a' 00"
                      "87000009 0000 0000 01 000000 83000009 0000 0000 00 000000"
                      "8200000c 0005 'empty' 00",
                      Bytes(start, start + blob_raw_len(b->head)), none));
}

TEST_F(BrokerTest, SaysTheKnownBytes)
{
    const string who = name_attr(UBUS_ATTR_USER, getpwuid(getuid())->pw_name) +
                       name_attr(UBUS_ATTR_GROUP, getgrgid(getgid())->gr_name);
    const string passed_on = word(0x40 + static_cast<uint32_t>(who.size() / 2)) +
                             "03000008 [object] 04000009 'args' 00 000000" + who + kArgs;

    // The greetings, which RawClient hears, tell the ids.
    RawClient owner(path_);
    RawClient caller(path_);
    Conversation c;
    c.ids["caller"] = word(caller.id());

    c.say(owner, "00 06 0001 00000000" + kAddObject);
    c.hear(owner, "00 02 0001 00000000" + kObjectAndType);
    c.hear(owner, "00 01 0001 00000000" + kStatusOk);
    c.say(owner, "00 06 0002 00000000" + kEmpty);
    c.hear(owner, "00 02 0002 00000000" + kListener);
    c.hear(owner, "00 01 0002 00000000" + kStatusOk);
    c.say(owner, "00 05 0003 00000001" + kRegister);
    c.hear(owner, "00 01 0003 00000001" + kStatusOk);

    c.say(caller, "00 04 0001 00000000" + kLookup);
    c.hear(caller, "00 02 0001 00000000" + kLookedUp);
    c.hear(caller, "00 01 0001 00000000" + kStatusOk);
    c.say(caller, "00 05 0002 [object]" + kCall);
    c.hear(owner, "00 05 0002 [caller]" + passed_on);
    c.say(owner, "00 02 0002 [caller]" + kReply);
    c.hear(caller, "00 02 0002 [object]" + kReply);
    c.say(owner, "00 01 0002 [caller]" + kCallStatus);
    c.hear(caller, "00 01 0002 [object]" + kCallStatus);
    c.say(caller, "00 05 0005 00012345" + kCallUnknown);
    c.hear(caller, "00 01 0005 00012345" + kStatusNotFound);

    c.say(caller, "00 05 0003 00000001" + kSendEvent);
    c.hear(owner, "00 05 0001 00000000" + kEvent);
    c.hear(caller, "00 01 0003 00000001" + kStatusOk);
    c.say(caller, "00 05 0004 00000001" + kSendBrokersEvent);
    c.hear(caller, "00 01 0004 00000001" + kStatusPermissionDenied);

    c.say(owner, "00 07 0004 00000000" + kListener);
    c.hear(owner, "00 02 0004 00000000" + kListener);
    c.hear(owner, "00 01 0004 00000000" + kStatusOk);
    c.say(owner, "00 07 0005 00000000" + kObject);
    c.hear(owner, "00 02 0005 00000000" + kObjectAndType);
    c.hear(owner, "00 01 0005 00000000" + kStatusOk);
    c.say(owner, "00 04 0006 00000000" + kLookup);
    c.hear(owner, "00 01 0006 00000000" + kStatusNotFound);
}

TEST(Wire, ClientSaysTheKnownBytes)
{
    const TempDir dir;
    const string path = dir.file("bus");
    const ScriptedBroker broker(
        path,
        {{"client", "00001001"}, {"object", "00002001"}, {"listener", "00002002"}, {"type", "00003001"}},
        {
            {"00 06 0001 00000000" + kAddObject,
             "00 02 0001 00000000" + kObjectAndType + "00 01 0001 00000000" + kStatusOk},
            {"00 06 0002 00000000" + kEmpty,
             "00 02 0002 00000000" + kListener + "00 01 0002 00000000" + kStatusOk},
            {"00 05 0003 00000001" + kRegister, "00 01 0003 00000001" + kStatusOk},
            {"00 04 0004 00000000" + kLookup,
             "00 02 0004 00000000" + kLookedUp + "00 01 0004 00000000" + kStatusOk},
            {"00 05 0005 [object]" + kCall,
             "00 02 0005 [object]" + kReply + "00 01 0005 [object]" + kCallStatus},
            {"00 05 0006 00012345" + kCallUnknown, "00 01 0006 00012345" + kStatusNotFound},
            // An event and a call come in between: the call alone is answered.
            {"00 05 0007 00000001" + kSendEvent, "00 05 0001 00000000" + kEvent + "00 05 0102 00005005" +
                                                     kCall + "00 01 0007 00000001" + kStatusOk},
            {"00 02 0102 00005005" + kReply, ""},
            {"00 01 0102 00005005" + kCallStatus, ""},
            {"00 07 0008 00000000" + kListener,
             "00 02 0008 00000000" + kListener + "00 01 0008 00000000" + kStatusOk},
            {"00 07 0009 00000000" + kObject,
             "00 02 0009 00000000" + kObjectAndType + "00 01 0009 00000000" + kStatusOk},
        });

    ubus_context *ctx = ubus_connect(path.c_str());
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->local_id, 0x1001U);

    const blobmsg_policy policy[] = {{"name", BLOBMSG_TYPE_STRING}, {"on", BLOBMSG_TYPE_BOOL}};
    const ubus_method methods[] = {UBUS_METHOD("args", on_call, policy), UBUS_METHOD_NOARG("get", on_call)};
    ubus_object_type type = UBUS_OBJECT_TYPE("test", methods);
    ubus_object object = {};
    object.name = "test.obj";
    object.type = &type;
    object.methods = methods;
    object.n_methods = 2;
    EXPECT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    EXPECT_EQ(object.id, 0x2001U);
    EXPECT_EQ(type.id, 0x3001U);

    static std::vector<string> events;
    events.clear();
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
    EXPECT_EQ(ubus_invoke(ctx, id, "args", args, on_reply, &reply_len, kWaitMs),
              UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(reply_len, 16U);
    EXPECT_EQ(ubus_invoke(ctx, 0x12345, "m", nullptr, nullptr, nullptr, kWaitMs), UBUS_STATUS_NOT_FOUND);

    Blob event;
    blobmsg_add_u32(&event.buf, "value", 7);
    EXPECT_EQ(ubus_send_event(ctx, "event.x", event), UBUS_STATUS_OK);
    EXPECT_EQ(events, std::vector<string>{"event.x"});
    EXPECT_EQ(ubus_unregister_event_handler(ctx, &handler), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_remove_object(ctx, &object), UBUS_STATUS_OK);
    EXPECT_EQ(type.id, 0U);
    ubus_free(ctx);
    uloop_done();
}
