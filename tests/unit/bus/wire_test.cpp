// The bytes on the socket. Other brokers and clients are in use elsewhere: when a test here fails, ours no
// longer talk to those.
#include <grp.h>
#include <pwd.h>

#include "bus_test.h"

namespace {

using std::string;

// What the library says and hears here, by descriptor.
std::map<int, string> said;
std::map<int, string> heard;

// Message headers are "version type seq peer"; these are the blobs after them.
const string EMPTY = "00000004";
const string STATUS_OK = "0000000c 01000008 00000000";

// An object "test.obj" with methods args (name: String, on: Boolean) and get.
const string PATH = "0200000d 'test.obj' 00 000000";
const string SIGNATURE = "0600003c 8200002c 0004 'args' 0000 85000010 0004 'name' 0000 00000003"
                         "85000010 0002 'on' 00000000 00000007 8200000c 0003 'get' 000000";
const string OBJECT = "0000000c 03000008 [object]";
const string OBJECT_AND_TYPE = "00000014 03000008 [object] 05000008 [type]";
const string LOOKED_UP = "00000060" + PATH + "03000008 [object] 05000008 [type]" + SIGNATURE;

// A call { name: "abc", raw: 5 bytes } made, answered with the same and a status; and one received.
const string ARGS =
    "07000028 83000010 0004 'name' 0000 'abc' 00 80000011 0003 'raw' 000000 0102030405 000000";
const string CALL = "00000040 03000008 [other] 04000009 'echo' 00 000000" + ARGS;
const string CALL_REPLY = "00000034 03000008 [other]" + ARGS;
const string CALL_STATUS = "00000014 01000008 00000000 03000008 [other]";
const string CALLED = "[size] 03000008 [object] 04000009 'args' 00 000000"; // USER and GROUP behind it
const string REPLY = "00000020 03000008 [object] 07000014 8700000d 0002 'ok' 00000000 01 000000";
const string REPLY_STATUS = "00000014 01000008 00000006 03000008 [object]";

// Events: the object that listens, its patterns, one sent and received, one from the broker, which nobody
// else may send.
const string LISTENER = "0000000c 03000008 [listener]";
const string REGISTER = "0000004c 03000008 00000001 0400000d 'register' 00 000000"
                        "07000030 85000014 0006 'object' 00000000 [listener]"
                        "83000018 0007 'pattern' 000000 'event.*' 00";
const string REGISTER_UBUS = "00000050 03000008 00000001 0400000d 'register' 00 000000"
                             "07000034 85000014 0006 'object' 00000000 [listener]"
                             "8300001a 0007 'pattern' 000000 'ubus.obj*' 00 0000";
const string DATA = "8200001c 0004 'data' 0000 85000010 0005 'value' 00 00000007";
const string SENDING = "0000004c 03000008 00000001 04000009 'send' 00 000000 07000034";
const string SEND = SENDING + "83000014 0002 'id' 00000000 'event.x' 00" + DATA;
const string SEND_UBUS = SENDING + "83000013 0002 'id' 00000000 'ubus.x' 00 00" + DATA;
const string EVENT = "0000002c 03000008 [listener] 0400000c 'event.x' 00"
                     "07000014 85000010 0005 'value' 00 00000007";
const string REMOVED = "0000004c 03000008 [listener] 04000017 'ubus.object.remove' 00 00 07000028"
                       "85000010 0002 'id' 00000000 [other] 83000012 0004 'path' 0000 'other' 00 0000";

int on_call(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    Blob reply;
    blobmsg_add_u8(&reply.buf, "ok", 1);
    ubus_send_reply(ctx, req, reply);
    return UBUS_STATUS_PERMISSION_DENIED;
}

} // namespace

extern "C" ssize_t __real_sendmsg(int fd, const msghdr *message, int flags);
extern "C" ssize_t __wrap_sendmsg(int fd, const msghdr *message, int flags)
{
    const ssize_t n = __real_sendmsg(fd, message, flags);
    for (size_t i = 0, left = n > 0 ? static_cast<size_t>(n) : 0; i < message->msg_iovlen; ++i) {
        const size_t len = std::min(left, message->msg_iov[i].iov_len);
        said[fd].append(static_cast<const char *>(message->msg_iov[i].iov_base), len);
        left -= len;
    }
    return n;
}

extern "C" ssize_t __real_recv(int fd, void *buffer, size_t size, int flags);
extern "C" ssize_t __wrap_recv(int fd, void *buffer, size_t size, int flags)
{
    const ssize_t n = __real_recv(fd, buffer, size, flags);
    heard[fd].append(static_cast<const char *>(buffer), n > 0 ? static_cast<size_t>(n) : 0);
    return n;
}

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

    EXPECT_EQ(blob.bytes(),
              bytes("000000b0 80000011 0003 'raw' 000000 0102030405 000000 83000010 0004 'text' 0000 'abc' 00"
                    "8700000d 0002 'i8' 00000000 12 000000 8600000e 0003 'i16' 000000 1234 0000"
                    "85000010 0003 'i32' 000000 12345678 84000014 0003 'i64' 000000 123456789abcdef0"
                    "88000010 0001 'f' 00 3ff8000000000000 82000028 0001 't' 00 81000020 0001 'a' 00"
                    "87000009 0000 0000 01 000000 83000009 0000 0000 00 000000 8200000c 0005 'empty' 00"));
}

TEST_F(BrokerTest, BothSidesSayTheKnownBytes)
{
    Peer other(broker_);
    other.publish("other");
    said.clear();
    heard.clear();
    ubus_context *ctx = ubus_connect(broker_.path.c_str());
    ASSERT_NE(ctx, nullptr);

    const blobmsg_policy policy[] = {{"name", BLOBMSG_TYPE_STRING}, {"on", BLOBMSG_TYPE_BOOL}};
    const ubus_method methods[] = {UBUS_METHOD("args", on_call, policy), UBUS_METHOD_NOARG("get", on_call)};
    ubus_object_type type = UBUS_OBJECT_TYPE("test", methods);
    ubus_object object = {.name = "test.obj", .type = &type, .methods = methods, .n_methods = 2};
    EXPECT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    static std::vector<string> events;
    ubus_event_handler handler = {};
    handler.cb = [](ubus_context *, ubus_event_handler *, const char *name, blob_attr *) {
        events.emplace_back(name);
    };
    EXPECT_EQ(ubus_register_event_handler(ctx, &handler, "event.*"), UBUS_STATUS_OK);
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "test.obj", &id), UBUS_STATUS_OK);
    Words words = {{"client", be32_to_cpu(ctx->local_id)},
                   {"object", object.id},
                   {"type", type.id},
                   {"listener", handler.obj.id},
                   {"other", other.object.id},
                   {"peer", be32_to_cpu(other.ctx->local_id)}};

    Blob args;
    blobmsg_add_string(&args.buf, "name", "abc");
    blobmsg_add_field(&args.buf, BLOBMSG_TYPE_UNSPEC, "raw", "\1\2\3\4\5", 5);
    Blob value;
    blobmsg_add_u32(&value.buf, "value", 7);
    ubus_request request;
    EXPECT_EQ(ubus_invoke_async(ctx, other.object.id, "echo", args, &request), UBUS_STATUS_OK);
    ubus_complete_request_async(ctx, &request);
    EXPECT_TRUE(run_until([&] { return !other.sync().heard.empty(); }));
    other.sync();
    EXPECT_EQ(ubus_invoke(ctx, 0x12345, "m", nullptr, nullptr, nullptr, WAIT_MS), UBUS_STATUS_NOT_FOUND);
    EXPECT_TRUE(request.status_msg);
    EXPECT_EQ(other.send("event.x", value), UBUS_STATUS_OK);
    other.start_call(object.id, "args", args);
    other.sync();
    EXPECT_EQ(ubus_send_event(ctx, "event.x", value), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_send_event(ctx, "ubus.x", value), UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(ubus_register_event_handler(ctx, &handler, "ubus.obj*"), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_remove_object(other.ctx, &other.object), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_unregister_event_handler(ctx, &handler), UBUS_STATUS_OK);
    EXPECT_EQ(ubus_remove_object(ctx, &object), UBUS_STATUS_OK);
    EXPECT_EQ(type.id, 0U);
    EXPECT_THAT(events, testing::ElementsAre("event.x"));
    EXPECT_THAT(other.sync().statuses, testing::ElementsAre(UBUS_STATUS_PERMISSION_DENIED));

    const uint32_t seq = other.requests.front().seq; // of the call that it made
    words.insert({{"invoke", 0x00050000 | seq}, {"data", 0x00020000 | seq}, {"status", 0x00010000 | seq}});
    Blob names;
    blob_put_string(&names.buf, UBUS_ATTR_USER, getpwuid(getuid())->pw_name);
    blob_put_string(&names.buf, UBUS_ATTR_GROUP, getgrgid(getgid())->gr_name);
    words["size"] = 0x3c + static_cast<uint32_t>(blob_raw_len(names));
    const struct {
        string says;
        string hears;
    } script[] = {
        {"", "00 00 0000 [client]" + EMPTY},
        {"00 06 0001 00000000 00000050" + PATH + SIGNATURE,
         "00 02 0001 00000000" + OBJECT_AND_TYPE + "00 01 0001 00000000" + STATUS_OK},
        {"00 06 0002 00000000" + EMPTY, "00 02 0002 00000000" + LISTENER + "00 01 0002 00000000" + STATUS_OK},
        {"00 05 0003 00000001" + REGISTER, "00 01 0003 00000001" + STATUS_OK},
        {"00 04 0004 00000000 00000014" + PATH,
         "00 02 0004 00000000" + LOOKED_UP + "00 01 0004 00000000" + STATUS_OK},
        {"00 05 0005 [other]" + CALL, "00 02 0005 [other]" + CALL_REPLY + "00 01 0005 [other]" + CALL_STATUS},
        {"00 05 0006 00012345 00000018 03000008 00012345 04000006 'm' 00 0000 07000004",
         "00 01 0006 00012345 0000000c 01000008 00000004"},
        {"00 05 0007 00000001" + SEND, "00 05 0001 00000000" + EVENT + "[invoke] [peer]" + CALLED},
        {"", "'" + names.bytes().substr(sizeof(blob_attr)) + "'" + ARGS},
        {"[data] [peer]" + REPLY + "[status] [peer]" + REPLY_STATUS, "00 01 0007 00000001" + STATUS_OK},
        {"00 05 0008 00000001" + SEND_UBUS, "00 01 0008 00000001 0000000c 01000008 00000006"},
        {"00 05 0009 00000001" + REGISTER_UBUS, "00 01 0009 00000001" + STATUS_OK},
        {"00 07 000a 00000000" + LISTENER, "00 05 0002 00000000" + REMOVED + "00 02 000a 00000000" +
                                               LISTENER + "00 01 000a 00000000" + STATUS_OK},
        {"00 07 000b 00000000" + OBJECT,
         "00 02 000b 00000000" + OBJECT_AND_TYPE + "00 01 000b 00000000" + STATUS_OK},
    };
    string says = said[ctx->sock.fd];
    string hears = heard[ctx->sock.fd];
    for (const auto &step : script) {
        EXPECT_EQ(says.substr(0, bytes(step.says, words).size()), bytes(step.says, words)) << step.says;
        EXPECT_EQ(hears.substr(0, bytes(step.hears, words).size()), bytes(step.hears, words)) << step.hears;
        says.erase(0, bytes(step.says, words).size());
        hears.erase(0, bytes(step.hears, words).size());
    }
    EXPECT_EQ(says + hears, "");
    ubus_free(ctx);
    uloop_done();
}
