// The broker and what clients may try with it. Each test ends by asking the broker to end in order.
#include <cstring>
#include <deque>
#include <fstream>
#include <set>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "bus_test.h"

namespace {

void sleep_ms(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// The names of the events a client receives, up to the one called "end".
std::vector<std::string> events_until_end(RawClient &client)
{
    std::vector<std::string> events;
    while (const auto m = client.receive(UBUS_MSG_INVOKE)) {
        events.emplace_back(m->text(UBUS_ATTR_METHOD));
        if (events.back() == "end") {
            break;
        }
    }
    return events;
}

} // namespace

TEST_F(BrokerTest, NonsenseCostsAtMostItsSender)
{
    constexpr int dropped = -1;
    constexpr int silence = -2;
    const struct {
        const char *what, *bytes;
        int answer; // a status or what else becomes of the sender
    } cases[] = {
        {"a wrong version", "01 03 0001 00000000 00000004", dropped},
        {"a length below the header's", "00 03 0001 00000000 00000003", dropped},
        {"a message too long by a word", "00 03 0001 00000000 00100004", dropped},
        {"the longest length there is", "00 03 0001 00000000 00ffffff", dropped},
        {"text", "'GET / HTTP/1.1'", dropped},
        {"an unknown type", "00 0c 0001 00000000 00000004", UBUS_STATUS_INVALID_COMMAND},
        {"a greeting", "00 00 0001 00000000 00000004", UBUS_STATUS_INVALID_COMMAND},
        {"a call of a short id", "00 05 0001 00000000 00000014 03000006 0001 0000 04000005 00 000000",
         UBUS_STATUS_INVALID_ARGUMENT},
        {"a method without end", "00 05 0001 00000000 00000014 03000008 00000001 04000008 'send'",
         UBUS_STATUS_INVALID_ARGUMENT},
        {"an event with an unsound one",
         "00 05 0001 00000001 00000028 03000008 00000001 04000009 'send' 00 000000 07000010 8300000c ffff "
         "'idxxxx'",
         UBUS_STATUS_INVALID_ARGUMENT},
        {"a pattern for a system object",
         "00 05 0001 00000001 00000048 03000008 00000001 0400000d 'register' 00 000000 0700002c"
         "85000014 0006 'object' 00000000 00000001 83000012 0007 'pattern' 000000 '*' 00 0000",
         UBUS_STATUS_PERMISSION_DENIED},
        {"an unsound signature",
         "00 06 0001 00000000 00000018 02000006 'o' 00 0000 0600000c 85000008 0000 0000",
         UBUS_STATUS_INVALID_ARGUMENT},
        {"a member shorter than its header", "00 06 0001 00000000 0000000c 06000001 06000003",
         UBUS_STATUS_OK},
        {"a member beyond the end", "00 04 0001 00000000 0000000c 02ffffff 'abcd'", UBUS_STATUS_OK},
        {"an answer nobody asked for", "00 01 0001 12345678 00000014 01000008 00000000 03000008 12345678",
         silence},
    };
    RawClient bystander(path_);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        RawClient client(path_);
        EXPECT_TRUE(client.write(bytes(c.bytes)));
        if (c.answer == dropped) {
            EXPECT_TRUE(client.closed());
        } else if (c.answer == silence) {
            EXPECT_TRUE(client.ping());
        } else {
            EXPECT_EQ(client.status(), static_cast<uint32_t>(c.answer));
        }
        EXPECT_TRUE(bystander.ping());
    }
}

TEST_F(BrokerTest, HalfMessagesWaitAndPiecesAreJoined)
{
    const RawClient short_half(path_);
    const RawClient long_half(path_);
    EXPECT_TRUE(short_half.write(bytes("00 03 00")));
    EXPECT_TRUE(long_half.write(bytes("00 03 0001 00000000 000fffff 'begin'")));

    RawClient pieces(path_);
    const std::string blob = "0000000c 00000008 'text'";
    for (const uint8_t byte : bytes("00 03 0007 00000009" + blob)) {
        EXPECT_TRUE(pieces.write({byte}));
    }
    EXPECT_EQ(pieces.receive()->raw, bytes("00 02 0007 00000009" + blob));
    EXPECT_TRUE(pieces.receive(UBUS_MSG_STATUS));
    // Two and a half in one piece.
    EXPECT_TRUE(pieces.write(bytes("00 03 0001 00000000 00000004 00 03 0002 00000000 00000004 00 03 0003")));
    EXPECT_TRUE(pieces.write(bytes("00000000 00000004")));
    for (uint16_t seq = 1; seq <= 3; ++seq) {
        EXPECT_EQ(pieces.receive(UBUS_MSG_STATUS)->seq(), seq);
    }
}

TEST_F(BrokerTest, HundredsOfClients)
{
    std::deque<RawClient> clients;
    for (int i = 0; i < 500; ++i) {
        RawClient &client = clients.emplace_back(path_);
        ASSERT_EQ(client.listen(client.add_object(nullptr), "all"), UBUS_STATUS_OK);
    }
    EXPECT_EQ(clients[0].send_event("all"), UBUS_STATUS_OK);
    for (size_t i = 1; i < clients.size(); ++i) {
        EXPECT_TRUE(clients[i].receive(UBUS_MSG_INVOKE));
    }
    EXPECT_TRUE(clients[0].ping());
}

TEST(Broker, OutOfDescriptorsItWaitsWithoutSpinning)
{
    const BrokerProcess broker(32);
    std::deque<RawClient> clients;
    std::deque<RawClient> late;
    while (clients.size() < 20) {
        clients.emplace_back(broker.path());
    }
    // These connect as far as the kernel is concerned, but most are not greeted before others have left.
    while (late.size() < 20) {
        late.emplace_back(connected_to(broker.path()));
    }
    sleep_ms(500);
    std::ifstream stat(broker.proc("stat"));
    std::string field;
    for (int i = 0; i < 13; ++i) {
        stat >> field;
    }
    long user = 0;
    long system = 0;
    stat >> user >> system;
    EXPECT_LT(user + system, sysconf(_SC_CLK_TCK) / 4) << "of a half second";
    char byte = 0;
    EXPECT_LT(recv(late.back().fd(), &byte, 1, MSG_PEEK | MSG_DONTWAIT), 0) << "greeted";
    EXPECT_TRUE(clients[0].ping());
    clients.clear();
    for (RawClient &client : late) {
        EXPECT_TRUE(client.receive(UBUS_MSG_HELLO));
    }
}

TEST_F(BrokerTest, EventsGoToWhoeverMatchesButTheirSender)
{
    const struct {
        std::vector<const char *> patterns;
        std::vector<std::string> heard;
    } cases[] = {
        {{"*"}, {"a", "ab", "abc", "b", "abd", "end"}},
        {{"a*"}, {"a", "ab", "abc", "abd", "end"}},
        {{"ab*"}, {"ab", "abc", "abd", "end"}},
        {{"abcd*", "aa*", "ac*"}, {"end"}},
        {{"ab"}, {"ab", "end"}},
        {{"a*c"}, {"end"}},
        {{"a*", "ab*", "abc", "*", "abc"}, {"a", "ab", "abc", "b", "abd", "end"}}, // each once
        {{"b", "abd"}, {"b", "abd", "end"}},
    };
    std::deque<RawClient> clients;
    for (const auto &c : cases) {
        RawClient &client = clients.emplace_back(path_);
        const uint32_t object = client.add_object(nullptr);
        for (const char *pattern : c.patterns) {
            EXPECT_EQ(client.listen(object, pattern), UBUS_STATUS_OK);
        }
        EXPECT_EQ(client.listen(object, "end"), UBUS_STATUS_OK);
    }
    RawClient sender(path_);
    const uint32_t own = sender.add_object(nullptr);
    EXPECT_EQ(sender.listen(own, "*"), UBUS_STATUS_OK);
    for (const char *event : {"a", "ab", "abc", "b", "abd", "end"}) {
        EXPECT_EQ(sender.send_event(event), UBUS_STATUS_OK);
    }
    for (size_t i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(events_until_end(clients[i]), cases[i].heard) << cases[i].patterns[0];
    }
    EXPECT_EQ(sender.calls_passed_over(), 0U);

    // What is removed hears no more, and is its owner's to remove and to subscribe.
    RawClient &other = clients[0];
    Blob blob;
    blob_put_u32(&blob.buf, UBUS_ATTR_OBJID, own);
    EXPECT_EQ(other.request(UBUS_MSG_REMOVE_OBJECT, 0, blob), UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(other.listen(own, "a"), UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(other.send_event("a"), UBUS_STATUS_OK);
    EXPECT_EQ(sender.request(UBUS_MSG_REMOVE_OBJECT, 0, blob), UBUS_STATUS_OK);
    EXPECT_EQ(other.send_event("a"), UBUS_STATUS_OK);
    EXPECT_TRUE(sender.ping());
    EXPECT_EQ(sender.calls_passed_over(), 1U);
}

TEST_F(BrokerTest, CallersOfWhoGoesAwayAreAnswered)
{
    RawClient caller(path_);
    auto owner = std::make_unique<RawClient>(path_);
    const uint32_t dying = owner->add_object("dying", "m");
    EXPECT_TRUE(caller.call(1, dying, "m"));
    EXPECT_TRUE(owner->answer(*owner->receive(UBUS_MSG_INVOKE), dying, 7));
    EXPECT_EQ(caller.status(), 7U);

    for (uint16_t seq = 2; seq <= 3; ++seq) {
        EXPECT_TRUE(caller.call(seq, dying, "m"));
        EXPECT_TRUE(owner->receive(UBUS_MSG_INVOKE));
    }
    owner.reset();
    for (uint16_t seq = 2; seq <= 3; ++seq) {
        const auto status = caller.receive(UBUS_MSG_STATUS);
        ASSERT_TRUE(status);
        EXPECT_EQ(status->seq(), seq) << "only calls that are open";
        EXPECT_EQ(status->peer(), dying);
        EXPECT_EQ(status->u32(UBUS_ATTR_STATUS), UBUS_STATUS_NO_DATA);
    }
}

TEST_F(BrokerTest, NobodyAnswersForAnother)
{
    RawClient owner(path_);
    RawClient caller(path_);
    RawClient forger(path_);
    const uint32_t object = owner.add_object("object", "m");
    forger.add_object("other", "m");
    EXPECT_TRUE(caller.call(9, object, "m"));
    const auto call = owner.receive(UBUS_MSG_INVOKE);
    ASSERT_TRUE(call);
    EXPECT_TRUE(forger.answer(*call, object, 1));
    EXPECT_TRUE(forger.ping());
    EXPECT_TRUE(owner.answer(*call, object, 2));
    EXPECT_EQ(caller.status(), 2U);
}

TEST_F(BrokerTest, WhatGrowsOnTheWayStillFits)
{
    // With the caller's name, and with an object's id, messages of the greatest length would be too long to
    // read.
    RawClient owner(path_);
    const Words words = {{"object", owner.add_object("object", "m")},
                         {"all", UBUS_MAX_MSGLEN},
                         {"data", 0x07000000 + UBUS_MAX_MSGLEN - 20},
                         {"signature", 0x06000000 + UBUS_MAX_MSGLEN - 12}};
    Bytes call = bytes("00 05 0001 [object] [all] 03000008 [object] 04000006 'm' 00 0000 [data]", words);
    Bytes object = bytes("00 06 0002 00000000 [all] 02000006 'o' 00 0000 [signature]", words);
    for (Bytes *m : {&call, &object}) {
        m->resize(sizeof(ubus_msghdr) + UBUS_MAX_MSGLEN);
        RawClient client(path_);
        EXPECT_TRUE(client.write(*m));
        EXPECT_EQ(client.status(), UBUS_STATUS_INVALID_ARGUMENT);
    }
    EXPECT_TRUE(owner.ping());
    EXPECT_EQ(owner.calls_passed_over(), 0U);
}

// Far more than is queued for one who reads nothing; who reads hears all of it, at once.
TEST(Broker, WhoReadsSlowlyLosesWhatDoesNotFitAndNobodyWaits)
{
    constexpr size_t rounds = 45;
    constexpr size_t burst = 100;
    testing::internal::CaptureStderr();
    BrokerProcess broker;
    RawClient slow(broker.path());
    const uint32_t object = slow.add_object("slow", "m");
    EXPECT_EQ(slow.listen(object, "big"), UBUS_STATUS_OK);
    RawClient quick(broker.path());
    EXPECT_EQ(quick.listen(quick.add_object(nullptr), "big"), UBUS_STATUS_OK);
    RawClient sender(broker.path());
    const Bytes event = event_message("big", 4000);
    for (size_t round = 0; round < rounds; ++round) {
        for (size_t i = 0; i < burst; ++i) {
            EXPECT_TRUE(sender.write(event));
        }
        EXPECT_TRUE(sender.ping());
        for (size_t i = 0; i < burst; ++i) {
            ASSERT_TRUE(quick.receive(UBUS_MSG_INVOKE));
        }
    }
    // There is still room for calls; when there is none, the caller is told.
    EXPECT_TRUE(sender.call(1, object, "m"));
    const std::string long_name(4000, 'm');
    size_t calls = 1;
    while (calls < 1000 && !sender.has_input()) {
        EXPECT_TRUE(sender.call(2, object, long_name.c_str()));
        ++calls;
    }
    EXPECT_EQ(sender.status(), UBUS_STATUS_NO_DATA);

    size_t events = 0;
    auto m = slow.receive();
    for (; m && m->peer() == 0; m = slow.receive()) {
        ++events;
    }
    EXPECT_GT(events, 700U);
    EXPECT_LT(events, 1000U);
    ASSERT_TRUE(m);
    EXPECT_STREQ(m->text(UBUS_ATTR_METHOD), "m");
    EXPECT_TRUE(slow.ping());
    const size_t dropped = rounds * burst - events + calls - 1 - slow.calls_passed_over();
    broker.stop();
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex("ubusd: client [^\n]* does not keep up, dropping messages\n"
                                      "ubusd: client [^\n]*: " +
                                      std::to_string(dropped) + " messages dropped\n"));
}

TEST_F(BrokerTest, RegisterIsBoundedAndALongListIsReadAtLeisure)
{
    std::deque<RawClient> owners;
    std::set<std::string> paths;
    const std::string method(5000, 'm');
    for (int i = 0; i < 3; ++i) {
        owners.emplace_back(path_);
        std::string path = std::to_string(paths.size());
        while (paths.size() < 5000 && owners.back().add_object(path.c_str(), method.c_str()) != 0) {
            paths.insert(path);
            path = std::to_string(paths.size());
        }
    }
    EXPECT_GT(paths.size(), 1000U);
    EXPECT_LT(paths.size(), 3000U);

    RawClient reader(path_);
    Blob all;
    EXPECT_TRUE(reader.write(message(UBUS_MSG_LOOKUP, 1, 0, all)));
    std::set<std::string> listed;
    auto m = reader.receive();
    for (; m && m->type() == UBUS_MSG_DATA; m = reader.receive()) {
        EXPECT_TRUE(listed.insert(m->text(UBUS_ATTR_OBJPATH)).second);
        if (listed.size() % 300 == 0) {
            sleep_ms(100);
        }
    }
    EXPECT_EQ(m->u32(UBUS_ATTR_STATUS), UBUS_STATUS_OK);
    EXPECT_EQ(listed, paths);
}
