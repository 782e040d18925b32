// The broker and what clients may try with it. Each test ends by asking the broker to end in order.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "bus_test.h"

namespace {

// The events a client receives, by name and value, up to the one called "end".
std::vector<std::string> events_until_end(RawClient &client)
{
    std::vector<std::string> events;
    while (const auto m = client.receive(UBUS_MSG_INVOKE)) {
        const std::string name = m->text(UBUS_ATTR_METHOD);
        if (name == "end")
            return events;
        events.push_back(name);
    }
    events.emplace_back("(no end)");
    return events;
}

// "send" of an event whose message is `size` bytes of text.
Bytes big_event(const char *name, size_t size)
{
    Blob blob;
    blob_put_u32(&blob.buf, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_EVENT);
    blob_put_string(&blob.buf, UBUS_ATTR_METHOD, "send");
    void *data = blob_nest_start(&blob.buf, UBUS_ATTR_DATA);
    blobmsg_add_string(&blob.buf, "id", name);
    void *table = blobmsg_open_table(&blob.buf, "data");
    blobmsg_add_string(&blob.buf, "text", std::string(size, 'x').c_str());
    blobmsg_close_table(&blob.buf, table);
    blob_nest_end(&blob.buf, data);
    Bytes raw = bytes("00 05 0001 00000001");
    const auto *start = reinterpret_cast<const uint8_t *>(blob.buf.head);
    raw.insert(raw.end(), start, start + blob_raw_len(blob.buf.head));
    return raw;
}

bool write_all(int fd, const Bytes &data)
{
    size_t at = 0;
    while (at < data.size()) {
        const ssize_t n = send(fd, data.data() + at, data.size() - at, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

// Writes the event again and again while it reads the answers; gives how many were taken.
size_t flood(RawClient &client, const Bytes &event, size_t count)
{
    size_t sent = 0;
    uint8_t answers[4096];
    while (sent < count && write_all(client.fd(), event)) {
        sent++;
        while (recv(client.fd(), answers, sizeof(answers), MSG_DONTWAIT) > 0) {
        }
    }
    return sent;
}

uint32_t call(RawClient &client, uint16_t seq, uint32_t object, const char *method)
{
    Blob blob;
    blob_put_u32(&blob.buf, UBUS_ATTR_OBJID, object);
    blob_put_string(&blob.buf, UBUS_ATTR_METHOD, method);
    blob_put(&blob.buf, UBUS_ATTR_DATA, nullptr, 0);
    return client.send(UBUS_MSG_INVOKE, seq, object, blob);
}

void answer(RawClient &client, const Message &call, uint32_t object, uint32_t status)
{
    Blob blob;
    blob_put_u32(&blob.buf, UBUS_ATTR_STATUS, status);
    blob_put_u32(&blob.buf, UBUS_ATTR_OBJID, object);
    client.send(UBUS_MSG_STATUS, call.seq(), call.peer(), blob);
}

} // namespace

TEST_F(BrokerTest, NonsenseCostsAtMostItsSender)
{
    const struct {
        const char *what;
        const char *bytes;
        bool dropped;
        int status; // answered, if not dropped; -1: silence
    } cases[] = {
        {"a wrong version", "01 03 0001 00000000 00000004", true, 0},
        {"a length below the header's", "00 03 0001 00000000 00000003", true, 0},
        {"no length", "00 03 0001 00000000 00000000", true, 0},
        {"a message too long by a word", "00 03 0001 00000000 00100004", true, 0},
        {"the longest length there is", "00 03 0001 00000000 00ffffff", true, 0},
        {"text", "'GET / HTTP/1.1'", true, 0},
        {"an unknown type", "00 0c 0001 00000000 00000004", false, UBUS_STATUS_INVALID_COMMAND},
        {"a greeting", "00 00 0001 00000000 00000004", false, UBUS_STATUS_INVALID_COMMAND},
        {"a subscription", "00 08 0001 00000000 00000004", false, UBUS_STATUS_NOT_SUPPORTED},
        {"an empty call", "00 05 0001 00000000 00000004", false, UBUS_STATUS_INVALID_ARGUMENT},
        {"a call of a short id", "00 05 0001 00000000 00000014 03000006 0001 0000 04000005 00 000000", false,
         UBUS_STATUS_INVALID_ARGUMENT},
        {"a method name without end", "00 05 0001 00000000 00000014 03000008 00000001 04000008 'send'", false,
         UBUS_STATUS_INVALID_ARGUMENT},
        {"an event without a message",
         "00 05 0001 00000001 00000018 03000008 00000001 04000009 'send' 00 000000", false,
         UBUS_STATUS_INVALID_ARGUMENT},
        {"an event with an unsound message",
         "00 05 0001 00000001 00000028 03000008 00000001 04000009 'send' 00 000000"
         "07000010 8300000c ffff 'id' 'xxxx'",
         false, UBUS_STATUS_INVALID_ARGUMENT},
        {"a pattern for a system object",
         "00 05 0001 00000001 00000048 03000008 00000001 0400000d 'register' 00 000000"
         "0700002c 85000014 0006 'object' 00000000 00000001 83000012 0007 'pattern' 000000 '*' 00 0000",
         false, UBUS_STATUS_PERMISSION_DENIED},
        {"an object with an unsound signature",
         "00 06 0001 00000000 00000018 02000006 'o' 00 0000 0600000c 85000008 0000 0000", false,
         UBUS_STATUS_INVALID_ARGUMENT},
        {"members beyond the end", "00 04 0001 00000000 0000000c 02ffffff 'abcd'", false, UBUS_STATUS_OK},
        {"an empty path", "00 04 0001 00000000 0000000c 02000005 00 000000", false,
         UBUS_STATUS_INVALID_ARGUMENT},
        {"an answer nobody asked for", "00 01 0001 12345678 00000014 01000008 00000000 03000008 12345678",
         false, -1},
    };
    RawClient bystander(path_);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        RawClient client(path_);
        ASSERT_TRUE(client.write(bytes(c.bytes)));
        if (c.dropped) {
            EXPECT_TRUE(client.closed());
        } else if (c.status >= 0) {
            const auto m = client.receive(UBUS_MSG_STATUS);
            ASSERT_TRUE(m);
            EXPECT_EQ(m->u32(UBUS_ATTR_STATUS), static_cast<uint32_t>(c.status));
        } else {
            EXPECT_TRUE(client.ping());
        }
        EXPECT_TRUE(bystander.ping());
    }
}

TEST_F(BrokerTest, HalfMessagesWaitAndPiecesAreJoined)
{
    std::vector<std::unique_ptr<RawClient>> halves;
    for (int i = 0; i < 20; i++) {
        halves.push_back(std::make_unique<RawClient>(path_));
        EXPECT_TRUE(halves.back()->write(bytes(i % 2 ? "00 03 00" : "00 03 0001 00000000 000fffff 'begin'")));
    }
    RawClient pieces(path_);
    const Bytes ping = bytes("00 03 0007 00000009 0000000c 00000008 'text'");
    for (const uint8_t byte : ping)
        EXPECT_TRUE(pieces.write({byte}));
    Ids ids;
    const auto pong = pieces.receive();
    ASSERT_TRUE(pong);
    EXPECT_TRUE(match("00 02 0007 00000009 0000000c 00000008 'text'", pong->raw, ids));
    // Two messages and a half in one piece.
    EXPECT_TRUE(pieces.receive(UBUS_MSG_STATUS));
    EXPECT_TRUE(pieces.write(bytes("00 03 0001 00000000 00000004 00 03 0002 00000000 00000004 00 03 0003")));
    EXPECT_TRUE(pieces.write(bytes("00000000 00000004")));
    for (uint16_t seq = 1; seq <= 3; seq++) {
        const auto status = pieces.receive(UBUS_MSG_STATUS);
        ASSERT_TRUE(status);
        EXPECT_EQ(status->seq(), seq);
    }
}

TEST_F(BrokerTest, DescriptorsSentAlongAreDropped)
{
    RawClient client(path_);
    Bytes ping = bytes("00 03 0001 00000000 00000004");
    for (int i = 0; i < 50; i++) {
        iovec part = {ping.data(), ping.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr m = {};
        m.msg_iov = &part;
        m.msg_iovlen = 1;
        m.msg_control = control;
        m.msg_controllen = sizeof(control);
        cmsghdr *head = CMSG_FIRSTHDR(&m);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof(int));
        const int fd = client.fd();
        memcpy(CMSG_DATA(head), &fd, sizeof(fd));
        ASSERT_GT(sendmsg(client.fd(), &m, 0), 0);
        ASSERT_TRUE(client.receive(UBUS_MSG_STATUS));
    }
    const std::string path = "/proc/" + std::to_string(broker_.pid()) + "/fd/20";
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST_F(BrokerTest, HundredsOfClients)
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 500; i++) {
        clients.push_back(std::make_unique<RawClient>(path_));
        ASSERT_NE(clients.back()->id(), 0U);
        ASSERT_EQ(clients.back()->listen(clients.back()->add_object(nullptr), "all"), UBUS_STATUS_OK);
    }
    EXPECT_EQ(clients[0]->send_event("all", 1), UBUS_STATUS_OK);
    for (size_t i = 1; i < clients.size(); i++)
        EXPECT_TRUE(clients[i]->receive(UBUS_MSG_INVOKE));
    EXPECT_TRUE(clients[0]->ping());
}

TEST(Broker, OutOfDescriptorsItWaitsWithoutSpinning)
{
    const TempDir dir;
    BrokerProcess broker(dir.file("bus"), 32);
    std::vector<std::unique_ptr<RawClient>> clients;
    while (clients.size() < 20)
        clients.push_back(std::make_unique<RawClient>(broker.path()));

    // These connect as far as the kernel is concerned, but most are not greeted.
    std::vector<std::thread> waiting;
    waiting.reserve(20);
    std::atomic<int> greeted = 0;
    for (int i = 0; i < 20; i++) {
        waiting.emplace_back([&] {
            const RawClient late(broker.path());
            greeted += late.id() != 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    std::ifstream stat("/proc/" + std::to_string(broker.pid()) + "/stat");
    std::string field;
    for (int i = 0; i < 13; i++)
        stat >> field;
    long user = 0;
    long system = 0;
    stat >> user >> system;
    EXPECT_LT(user + system, sysconf(_SC_CLK_TCK) / 4) << "of a half second";
    EXPECT_TRUE(clients[0]->ping());
    clients.clear();
    for (std::thread &thread : waiting)
        thread.join();
    EXPECT_EQ(greeted, 20);
}

TEST_F(BrokerTest, EventsGoToWhoeverMatchesButTheirSender)
{
    const struct {
        std::vector<const char *> patterns;
        std::vector<std::string> heard;
    } cases[] = {
        {{"*"}, {"a", "ab", "abc", "b", "abd"}},
        {{"a*"}, {"a", "ab", "abc", "abd"}},
        {{"ab*"}, {"ab", "abc", "abd"}},
        {{"abc*"}, {"abc"}},
        {{"abcd*", "aa*", "ac*"}, {}},
        {{"ab"}, {"ab"}},
        {{"a*c"}, {}},
        {{"a*", "ab*", "abc", "*", "abc"}, {"a", "ab", "abc", "b", "abd"}}, // each once
        {{"b", "abd"}, {"b", "abd"}},
    };
    std::vector<std::unique_ptr<RawClient>> clients;
    for (const auto &c : cases) {
        clients.push_back(std::make_unique<RawClient>(path_));
        const uint32_t object = clients.back()->add_object(nullptr);
        for (const char *pattern : c.patterns)
            EXPECT_EQ(clients.back()->listen(object, pattern), UBUS_STATUS_OK);
        EXPECT_EQ(clients.back()->listen(object, "end"), UBUS_STATUS_OK);
    }
    RawClient sender(path_);
    const uint32_t own = sender.add_object(nullptr);
    EXPECT_EQ(sender.listen(own, "*"), UBUS_STATUS_OK);
    for (const char *event : {"a", "ab", "abc", "b", "abd", "end"})
        EXPECT_EQ(sender.send_event(event, 1), UBUS_STATUS_OK);
    for (size_t i = 0; i < clients.size(); i++) {
        SCOPED_TRACE(cases[i].patterns[0]);
        EXPECT_EQ(events_until_end(*clients[i]), cases[i].heard);
    }
    EXPECT_FALSE(sender.receive(UBUS_MSG_INVOKE, 0));

    // An object that is removed hears no more.
    RawClient &listener = *clients[0];
    const uint32_t second = listener.add_object(nullptr);
    EXPECT_EQ(listener.listen(second, "end"), UBUS_STATUS_OK);
    Blob blob;
    blob_put_u32(&blob.buf, UBUS_ATTR_OBJID, second - 1);
    EXPECT_EQ(listener.request(UBUS_MSG_REMOVE_OBJECT, 0, blob), UBUS_STATUS_NOT_FOUND);
    Blob foreign;
    blob_put_u32(&foreign.buf, UBUS_ATTR_OBJID, own);
    EXPECT_EQ(listener.request(UBUS_MSG_REMOVE_OBJECT, 0, foreign), UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(listener.listen(own, "a"), UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(sender.send_event("end", 1), UBUS_STATUS_OK);
    EXPECT_EQ(events_until_end(listener), std::vector<std::string>{});
}

TEST_F(BrokerTest, ObjectsComingAndGoingAreEvents)
{
    RawClient listener(path_);
    EXPECT_EQ(listener.listen(listener.add_object(nullptr), "ubus.object.*"), UBUS_STATUS_OK);
    {
        RawClient owner(path_);
        EXPECT_NE(owner.add_object("here"), 0U);
        EXPECT_NE(owner.add_object(nullptr), 0U);
        EXPECT_EQ(owner.add_object("here"), 0U) << "the path is taken";
    }
    EXPECT_EQ(listener.receive(UBUS_MSG_INVOKE)->text(UBUS_ATTR_METHOD), "ubus.object.add");
    const auto gone = listener.receive(UBUS_MSG_INVOKE);
    EXPECT_EQ(gone->text(UBUS_ATTR_METHOD), "ubus.object.remove");
    const blobmsg_policy policy = {"path", BLOBMSG_TYPE_STRING};
    blob_attr *path = nullptr;
    const blob_attr *data = gone->attr(UBUS_ATTR_DATA);
    blobmsg_parse(&policy, 1, &path, blob_data(data), static_cast<unsigned>(blob_len(data)));
    ASSERT_NE(path, nullptr);
    EXPECT_STREQ(blobmsg_get_string(path), "here");
}

TEST_F(BrokerTest, CallersOfWhoGoesAwayAreAnswered)
{
    RawClient caller(path_);
    auto owner = std::make_unique<RawClient>(path_);
    const uint32_t dying = owner->add_object("dying", "m");
    EXPECT_TRUE(call(caller, 1, dying, "m"));
    const auto first = owner->receive(UBUS_MSG_INVOKE);
    ASSERT_TRUE(first);
    answer(*owner, *first, dying, 7);
    EXPECT_EQ(caller.receive(UBUS_MSG_STATUS)->u32(UBUS_ATTR_STATUS), 7U);

    EXPECT_TRUE(call(caller, 2, dying, "m"));
    EXPECT_TRUE(call(caller, 3, dying, "m"));
    ASSERT_TRUE(owner->receive(UBUS_MSG_INVOKE));
    ASSERT_TRUE(owner->receive(UBUS_MSG_INVOKE));
    owner.reset();
    for (uint16_t seq = 2; seq <= 3; seq++) {
        const auto status = caller.receive(UBUS_MSG_STATUS);
        ASSERT_TRUE(status);
        EXPECT_EQ(status->seq(), seq) << "only calls that are open";
        EXPECT_EQ(status->peer(), dying);
        EXPECT_EQ(status->u32(UBUS_ATTR_STATUS), UBUS_STATUS_NO_DATA);
    }
    EXPECT_TRUE(call(caller, 4, dying, "m"));
    EXPECT_EQ(caller.receive(UBUS_MSG_STATUS)->u32(UBUS_ATTR_STATUS), UBUS_STATUS_NOT_FOUND);
}

TEST_F(BrokerTest, NobodyAnswersForAnother)
{
    RawClient owner(path_);
    RawClient caller(path_);
    RawClient forger(path_);
    const uint32_t object = owner.add_object("object", "m");
    forger.add_object("other", "m");
    EXPECT_TRUE(call(caller, 9, object, "m"));
    const auto received = owner.receive(UBUS_MSG_INVOKE);
    ASSERT_TRUE(received);
    answer(forger, *received, object, 1);
    EXPECT_TRUE(forger.ping());
    answer(owner, *received, object, 2);
    const auto status = caller.receive(UBUS_MSG_STATUS);
    ASSERT_TRUE(status);
    EXPECT_EQ(status->u32(UBUS_ATTR_STATUS), 2U);
}

TEST_F(BrokerTest, WhoNeverReadsIsDroppedAndTheOthersLoseNothing)
{
    constexpr size_t kEvents = 3000;
    RawClient deaf(path_);
    EXPECT_EQ(deaf.listen(deaf.add_object("deaf"), "*"), UBUS_STATUS_OK);
    RawClient listener(path_);
    const uint32_t object = listener.add_object(nullptr);
    EXPECT_EQ(listener.listen(object, "big"), UBUS_STATUS_OK);
    EXPECT_EQ(listener.listen(object, "ubus.object.remove"), UBUS_STATUS_OK);

    RawClient sender(path_);
    const Bytes event = big_event("big", 4000);
    std::thread thread([&] { EXPECT_EQ(flood(sender, event, kEvents), kEvents); });
    size_t events = 0;
    bool removed = false;
    while (events < kEvents || !removed) {
        const auto m = listener.receive(UBUS_MSG_INVOKE);
        if (!m)
            break;
        m->text(UBUS_ATTR_METHOD) == "big" ? events++ : removed = true;
    }
    thread.join();
    EXPECT_EQ(events, kEvents);
    EXPECT_TRUE(removed) << "of the deaf client's object";
    EXPECT_TRUE(deaf.closed());
}

TEST_F(BrokerTest, FastSenderWaitsForASlowReader)
{
    constexpr size_t kEvents = 4000; // four times of what is queued at most
    RawClient listener(path_);
    EXPECT_EQ(listener.listen(listener.add_object(nullptr), "big"), UBUS_STATUS_OK);
    RawClient sender(path_);
    const Bytes event = big_event("big", 4000);
    std::thread thread([&] { EXPECT_EQ(flood(sender, event, kEvents), kEvents); });
    for (size_t i = 0; i < kEvents; i++) {
        if (i % 500 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (!listener.receive(UBUS_MSG_INVOKE)) {
            ADD_FAILURE() << "after " << i << " events";
            break;
        }
    }
    thread.join();
}

TEST_F(BrokerTest, RegisterIsBoundedAndALongListIsReadAtLeisure)
{
    // Three clients register as much as they may.
    std::vector<std::unique_ptr<RawClient>> owners;
    std::set<std::string> paths;
    for (int i = 0; i < 3; i++) {
        owners.push_back(std::make_unique<RawClient>(path_));
        Bytes refused;
        for (;;) {
            Blob blob;
            const std::string path = std::to_string(i) + "." + std::to_string(paths.size());
            blob_put_string(&blob.buf, UBUS_ATTR_OBJPATH, path.c_str());
            void *signature = blob_nest_start(&blob.buf, UBUS_ATTR_SIGNATURE);
            blobmsg_close_table(&blob.buf, blobmsg_open_table(&blob.buf, std::string(5000, 'm').c_str()));
            blob_nest_end(&blob.buf, signature);
            const uint32_t status = owners.back()->request(UBUS_MSG_ADD_OBJECT, 0, blob);
            if (status != UBUS_STATUS_OK) {
                EXPECT_EQ(status, UBUS_STATUS_NO_MEMORY);
                break;
            }
            paths.insert(path);
        }
    }
    EXPECT_GT(paths.size(), 1000U);
    EXPECT_LT(paths.size(), 3000U);

    RawClient reader(path_);
    Blob all;
    EXPECT_TRUE(reader.send(UBUS_MSG_LOOKUP, 1, 0, all));
    EXPECT_TRUE(reader.send(UBUS_MSG_PING, 2, 0, all));
    std::set<std::string> listed;
    for (;;) {
        const auto m = reader.receive();
        ASSERT_TRUE(m);
        if (listed.size() % 300 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (m->type() == UBUS_MSG_STATUS) {
            EXPECT_EQ(m->seq(), 1);
            break;
        }
        EXPECT_TRUE(listed.insert(m->text(UBUS_ATTR_OBJPATH)).second);
    }
    EXPECT_EQ(listed, paths);
    EXPECT_EQ(reader.receive(UBUS_MSG_STATUS)->seq(), 2) << "what came meanwhile is not lost";
}
