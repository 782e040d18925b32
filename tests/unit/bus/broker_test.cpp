// The broker and what clients may try with it. Each test ends by asking the broker to end in order.
#include <memory>
#include <set>

#include "bus_test.h"

using testing::ElementsAre;
using testing::MatchesRegex;

TEST_F(BrokerTest, NonsenseCostsAtMostItsSender)
{
    const std::string status = "00 01 0001 00000000 0000000c 01000008 000000";
    const struct {
        const char *what;
        std::string bytes;
        std::string answer; // empty: is disconnected
    } cases[] = {
        {"a wrong version", "01 03 0001 00000000 00000004", ""},
        {"a length below the header's", "00 03 0001 00000000 00000003", ""},
        {"a message too long by a word", "00 03 0001 00000000 00100004", ""},
        {"text", "'GET / HTTP/1.1'", ""},
        {"an unknown type", "00 0c 0001 00000000 00000004", status + "01"},
        {"a call of a short id", "00 05 0001 00000000 00000014 03000006 0001 0000 04000005 00 000000",
         status + "02"},
        {"a method without end", "00 05 0001 00000000 00000014 03000008 00000001 04000008 'send'",
         status + "02"},
        {"an event with an unsound one",
         "00 05 0001 00000000 00000028 03000008 00000001 04000009 'send' 00 000000 07000010 8300000c ffff "
         "'idxxxx'",
         status + "02"},
        {"a pattern for a system object",
         "00 05 0001 00000000 00000048 03000008 00000001 0400000d 'register' 00 000000 0700002c"
         "85000014 0006 'object' 00000000 00000001 83000012 0007 'pattern' 000000 '*' 00 0000",
         status + "06"},
        {"an unsound signature",
         "00 06 0001 00000000 00000018 02000006 'o' 00 0000 0600000c 85000008 0000 0000", status + "02"},
    };
    Peer bystander(broker_);
    for (const auto &c : cases) {
        const Peer client(broker_);
        client.write(bytes(c.bytes));
        EXPECT_EQ(client.read(), bytes(c.answer)) << c.what;
        bystander.sync();
    }
}

TEST_F(BrokerTest, HalfMessagesWaitAndPiecesAreJoined)
{
    const Peer half(broker_);
    half.write(bytes("00 03 0001 00000000 000fffff 'begin'"));
    const Peer pieces(broker_);
    const std::string ping = "00 03 0007 00000009 0000000c 00000008 'text'";
    for (const char byte : bytes(ping)) {
        pieces.write({byte});
    }
    pieces.write(bytes(ping + ping + "00 03 00")); // two and a bit in one piece
    pieces.write(bytes("07 00000009 0000000c 00000008 'text'"));
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(pieces.read(), bytes("00 02 0007 00000009 0000000c 00000008 'text'"));
        EXPECT_EQ(pieces.read(), bytes("00 01 0007 00000009 0000000c 01000008 00000000"));
    }
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
        {{"abcd*", "aa*", "ac*"}, {}},
        {{"ab"}, {"ab"}},
        {{"a*c"}, {}},
        {{"a*", "ab*", "abc", "*", "abc"}, {"a", "ab", "abc", "b", "abd"}}, // each once
        {{"b", "abd"}, {"b", "abd"}},
    };
    std::deque<Peer> clients;
    for (const auto &c : cases) {
        Peer &client = clients.emplace_back(broker_);
        for (const char *pattern : c.patterns) {
            EXPECT_EQ(client.listen(pattern), UBUS_STATUS_OK);
        }
    }
    Peer sender(broker_);
    EXPECT_EQ(sender.listen("*"), UBUS_STATUS_OK);
    for (const char *event : {"a", "ab", "abc", "b", "abd"}) {
        EXPECT_EQ(sender.send(event), UBUS_STATUS_OK);
    }
    for (size_t i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(clients[i].sync().heard, cases[i].heard) << cases[i].patterns[0];
    }

    // An object is its owner's to subscribe and to remove; removed it hears no more.
    Peer other(broker_);
    other.listener.obj.id = sender.listener.obj.id;
    EXPECT_EQ(other.listen("a"), UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(ubus_unregister_event_handler(other.ctx, &other.listener), UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(other.send("a"), UBUS_STATUS_OK);
    EXPECT_THAT(sender.sync().heard, ElementsAre("a"));
    EXPECT_EQ(ubus_unregister_event_handler(sender.ctx, &sender.listener), UBUS_STATUS_OK);
    EXPECT_EQ(other.send("a"), UBUS_STATUS_OK);
    EXPECT_THAT(sender.sync().heard, ElementsAre("a"));
}

TEST_F(BrokerTest, WhatWasWrittenBeforeHangingUpCounts)
{
    Peer listener(broker_);
    EXPECT_EQ(listener.listen("*"), UBUS_STATUS_OK);
    Blob event;
    blobmsg_add_string(&event.buf, "id", "event");
    blobmsg_close_table(&event.buf, blobmsg_open_table(&event.buf, "data"));
    auto sender = std::make_unique<Peer>(broker_);
    kill(broker_.pid, SIGSTOP);
    for (int i = 0; i < 100; ++i) {
        ubus_request request;
        EXPECT_EQ(ubus_invoke_async(sender->ctx, UBUS_SYSTEM_OBJECT_EVENT, "send", event, &request),
                  UBUS_STATUS_OK);
    }
    sender.reset();
    kill(broker_.pid, SIGCONT);
    EXPECT_TRUE(run_until([&] { return listener.sync().heard.size() == 100; }));
}

TEST_F(BrokerTest, OnlyAnObjectsOwnerAnswersForItAndItsEndDoesToo)
{
    Peer caller(broker_);
    Peer forger(broker_);
    auto owner = std::make_unique<Peer>(broker_);
    const uint32_t object = owner->publish("object");
    forger.publish("other");
    for (int i = 0; i < 3; ++i) {
        caller.start_call(object, "defer");
    }
    caller.sync();
    ASSERT_EQ(owner->sync().calls.size(), 3U);
    forger.calls = owner->calls;
    forger.answer(0, 7);
    forger.sync();
    owner->answer(0, 8);
    owner->sync();
    EXPECT_THAT(caller.sync().statuses, ElementsAre(8));
    owner.reset();
    EXPECT_TRUE(run_until([&] { return caller.sync().statuses.size() == 3; }));
    EXPECT_THAT(caller.statuses, ElementsAre(8, UBUS_STATUS_NO_DATA, UBUS_STATUS_NO_DATA));
}

TEST_F(BrokerTest, WhatGrowsOnTheWayStillFits)
{
    // With the caller's name, and with an object's id, the longest messages would be too long to read.
    Peer owner(broker_);
    const Words words = {{"object", owner.publish("object")},
                         {"all", UBUS_MAX_MSGLEN},
                         {"data", 0x07000000 + UBUS_MAX_MSGLEN - 20},
                         {"signature", 0x06000000 + UBUS_MAX_MSGLEN - 12}};
    for (const char *text : {"00 05 0001 00000000 [all] 03000008 [object] 04000006 'm' 00 0000 [data]",
                             "00 06 0001 00000000 [all] 02000006 'o' 00 0000 [signature]"}) {
        std::string message = bytes(text, words);
        message.resize(sizeof(ubus_msghdr) + UBUS_MAX_MSGLEN);
        const Peer client(broker_);
        client.write(message);
        EXPECT_EQ(client.read(), bytes("00 01 0001 00000000 0000000c 01000008 00000002"));
    }
    EXPECT_THAT(owner.sync().heard, ElementsAre());
}

// Far more than is queued for one who reads nothing; who reads hears all of it, at once.
TEST(Broker, WhoReadsSlowlyLosesWhatDoesNotFitAndNobodyWaits)
{
    constexpr size_t events = 4500;
    testing::internal::CaptureStderr();
    BrokerProcess broker;
    broker.start();
    Peer slow(broker);
    const uint32_t object = slow.publish("slow");
    EXPECT_EQ(slow.listen("event"), UBUS_STATUS_OK);
    Peer quick(broker);
    EXPECT_EQ(quick.listen("event"), UBUS_STATUS_OK);
    Peer sender(broker);
    const Text data(4000);
    for (size_t i = 1; i <= events; ++i) {
        EXPECT_EQ(sender.send("event", data), UBUS_STATUS_OK);
        if (i % 100 == 0) {
            EXPECT_EQ(quick.sync().heard.size(), i);
        }
    }
    // There is still room for calls; when there is none, the caller is told.
    size_t calls = 0;
    for (; calls < 1000 && sender.statuses.empty(); ++calls) {
        sender.start_call(object, "defer", data);
        sender.sync();
    }
    EXPECT_THAT(sender.statuses, ElementsAre(UBUS_STATUS_NO_DATA));
    const size_t heard = slow.sync().heard.size() - slow.calls.size();
    EXPECT_EQ(slow.calls.size(), calls - 1);
    EXPECT_GT(calls, 100U);
    EXPECT_EQ(std::ranges::find(slow.heard, "defer") - slow.heard.begin(), static_cast<long>(heard))
        << "in order";
    EXPECT_GT(heard, 700U);
    EXPECT_LT(heard, 1000U);
    broker.stop();
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                MatchesRegex("ubusd: client [^\n]* does not keep up, dropping messages\n"
                             "ubusd: client [^\n]*: " +
                             std::to_string(events - heard + 1) + " messages dropped\n"));
}

// What monitors were shown, and the numbers of it.
std::string shown;
std::vector<uint32_t> numbers;

TEST_F(BrokerTest, RootsMonitorIsShownWhatGoesOverTheBusAndHoldsNobodyUp)
{
    Peer monitor(broker_);
    monitor.ctx->monitor_cb = [](ubus_context *, uint32_t seq, blob_attr *data) {
        shown.append(reinterpret_cast<const char *>(data), blob_raw_len(data));
        numbers.push_back(seq);
    };
    if (getuid() != 0) {
        EXPECT_EQ(ubus_monitor_start(monitor.ctx), UBUS_STATUS_PERMISSION_DENIED);
        return;
    }
    EXPECT_EQ(setegid(1), 0);
    EXPECT_EQ(ubus_monitor_start(Peer(broker_).ctx), UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(setegid(0), 0);

    EXPECT_EQ(ubus_monitor_start(monitor.ctx), UBUS_STATUS_OK);
    Peer other(broker_);
    other.write(bytes("00 03 0007 00000009 0000000c 00000008 'text'"));
    EXPECT_EQ(other.read(), bytes("00 02 0007 00000009 0000000c 00000008 'text'"));
    EXPECT_EQ(other.read(), bytes("00 01 0007 00000009 0000000c 01000008 00000000"));
    monitor.sync();
    const std::string to_other = "00000008 [other] 01000008 00000009 03000008 00000007 04000008 000000";
    const std::string first = bytes(
        "00000038 00000008 [self] 01000008 00000003 03000008 00000001 04000008 00000001 02000005 01 000000"
        "0500000c 01000008 00000000"
        "00000030 00000008 [other] 01000008 [other] 03000008 00000000 04000008 00000000 02000005 01 000000"
        "05000004"
        "00000038" +
            to_other +
            "03 02000005 00 000000 0500000c 00000008 'text'"
            "00000038" +
            to_other +
            "02 02000005 01 000000 0500000c 00000008 'text'"
            "00000038" +
            to_other + "01 02000005 01 000000 0500000c 01000008 00000000",
        {{"self", be32_to_cpu(monitor.ctx->local_id)}, {"other", be32_to_cpu(other.ctx->local_id)}});
    EXPECT_EQ(shown.substr(0, first.size()), first);
    EXPECT_THAT(numbers, ElementsAre(1, 2, 3, 4, 5, 6, 7)); // the sync's own question and answer among them

    const Text data(4000);
    for (int i = 0; i < 1500; ++i) { // twice what it is kept; it does not read
        EXPECT_EQ(other.send("event", data), UBUS_STATUS_OK);
    }
    monitor.sync();
    other.sync();
    EXPECT_EQ(ubus_monitor_stop(monitor.ctx), UBUS_STATUS_OK);
    EXPECT_LT(numbers.size(), 3000U);
    EXPECT_GT(numbers.back(), 3000U);
    other.sync();
    monitor.sync();
    EXPECT_EQ(numbers.back(), 3012U); // its question to be stopped was the last
}

TEST_F(BrokerTest, RegisterIsBoundedAndALongListIsReadAtLeisure)
{
    const std::string long_name(5000, 'm');
    const ubus_method method = {.name = long_name.c_str(), .handler = Peer::on_call};
    std::deque<Peer> owners;
    std::set<std::string> paths;
    for (int i = 0; i < 3; ++i) {
        for (Peer &owner = owners.emplace_back(broker_);;) {
            const std::string path = std::to_string(paths.size());
            owner.type = {"type", 0, &method, 1}; // the same record for each of them
            owner.object.name = path.c_str();
            if (ubus_add_object(owner.ctx, &owner.object) != UBUS_STATUS_OK) {
                break;
            }
            paths.insert(path);
        }
    }
    EXPECT_GT(paths.size(), 1000U);
    EXPECT_LT(paths.size(), 3000U);

    Peer reader(broker_);
    std::set<std::string> listed;
    const auto on_object = [](ubus_context *, ubus_object_data *found, void *priv) {
        auto &list = *static_cast<std::set<std::string> *>(priv);
        EXPECT_TRUE(list.insert(found->path).second);
        usleep(list.size() % 300 == 0 ? 50'000 : 0);
    };
    EXPECT_EQ(ubus_lookup(reader.ctx, nullptr, on_object, &listed), UBUS_STATUS_OK);
    EXPECT_EQ(listed, paths);
}
