#include <algorithm>
#include <iterator>
#include <set>

#include "Harness.h"

namespace {

using DirectMessaging = EmulatorTest;

struct MatchCase {
    char const* subscription;
    char const* topic;
    bool matches;
};

const MatchCase MATCH_CASES[] = {
    {"a/b/c", "a/b/c", true},    {"a/b/c", "a/b", false},        {"a/b", "a/b/c", false},
    {"a/b/c", "a/b/cd", false},  {"a/*/c", "a/xyz/c", true},     {"a/*/c", "a/c", false},
    {"a/*/c", "a/x/y/c", false}, {"a/*", "a/b", true},           {"a/*", "a/b/c", false},
    {"a/b*", "a/bcd", true},     {"a/b*", "a/b", true},          {"a/b*", "a/xb", false},
    {"a/b*/c", "a/bee/c", true}, {"a/>", "a/b", true},           {"a/>", "a/b/c/d", true},
    {"a/>", "a", false},         {">", "anything/at/all", true}, {"*/>", "a/b", true},
    {"*/>", "a", false},         {"a/b>", "a/b>", true},  // ">" inside a level is a plain character
    {"a/b>", "a/bc", false},     {"A/b", "a/b", false},   // case-sensitive
};

// Each case subscribes with its own tag and publishes its topic. Overlapping
// subscriptions of one callback and user deliver once; other VPNs and brokers
// are separate. The sentinel, published last, proves that every message had
// its chance (one context serves all sessions, in order).
TEST_F(DirectMessaging, DeliversOnceToEachMatchingSubscriberOfTheBrokerAndVpn) {
    auto session = harness.connected(hostPort);
    int tags[std::size(MATCH_CASES)] = {};
    int sentinel = 0;
    for (size_t i = 0; i < std::size(MATCH_CASES); ++i) {
        MatchCase const& c = MATCH_CASES[i];
        ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, c.subscription, &tags[i]));
        ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, c.topic, c.topic));
    }
    int once = 0;
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "x/>", &once));
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "x/y", &once));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, "x/y", "once"));
    auto otherVpn = harness.connected(hostPort, {{"SESSION_VPN_NAME", "other"}});
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(otherVpn, "x/y", "vpn"));
    ASSERT_EQ(SOLCLIENT_OK,
              harness.publish(harness.connected("elsewhere." + hostPort), "x/y", "broker"));
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "sentinel", &sentinel));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, "sentinel", "end"));
    ASSERT_TRUE(harness.waitForMessages(1, &sentinel));
    auto const received = harness.messages();
    EXPECT_EQ(1, std::count_if(received.begin(), received.end(),
                               [&](SeenMessage const& m) { return m.user == &once; }));
    for (size_t i = 0; i < std::size(MATCH_CASES); ++i) {
        MatchCase const& c = MATCH_CASES[i];
        SCOPED_TRACE(std::string(c.subscription) + " vs " + c.topic);
        auto const got = std::find_if(received.begin(), received.end(), [&](SeenMessage const& m) {
            return m.user == &tags[i] && m.payload == c.topic;
        });
        EXPECT_EQ(c.matches, got != received.end());
        if (got != received.end()) {
            EXPECT_EQ(c.topic, got->destination);  // the concrete topic, not the pattern
        }
    }
    for (char const* bad : {"", "a//b", "/a", "a/", "a/>/b", "a/*b", "a/b*c/d", "**"}) {
        EXPECT_EQ(SOLCLIENT_FAIL, harness.subscribe(session, bad, &sentinel)) << bad;
        EXPECT_EQ(SOLCLIENT_SUBCODE_INVALID_TOPIC_SYNTAX, solClient_getLastErrorInfo()->subCode);
    }
}

// Every answer and delivery reaches the context thread a round trip later
// (all through one queue, so the connect stands for them); deliveries keep
// publish order and every callback runs on the context thread.
TEST_F(DirectMessaging, TwoSessionsTalkInOrderOnTheContextThreadARoundTripLater) {
    solEmu_setRoundTrip(30000);
    auto const start = std::chrono::steady_clock::now();
    auto publisher = harness.connected(hostPort);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
    auto subscriber = harness.connected(hostPort);
    int tag = 0;
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(subscriber, "o/>", &tag));
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(SOLCLIENT_OK,
                  harness.publish(publisher, "o/" + std::to_string(i), std::to_string(i)));
    }
    ASSERT_TRUE(harness.waitForMessages(50, &tag));
    auto const received = harness.messages();
    std::set<std::thread::id> threads;
    for (size_t i = 0; i < received.size(); ++i) {
        EXPECT_EQ(std::to_string(i), received[i].payload);
        EXPECT_EQ("o/" + std::to_string(i), received[i].destination);
        EXPECT_EQ(SOLCLIENT_TOPIC_DESTINATION, received[i].destinationType);
        EXPECT_FALSE(received[i].hasId);  // direct messages carry no id
        threads.insert(received[i].thread);
    }
    for (auto const& event : harness.events()) {
        threads.insert(event.thread);
    }
    EXPECT_EQ(1u, threads.size());
    EXPECT_EQ(0u, threads.count(std::this_thread::get_id()));
}

TEST_F(DirectMessaging, SubscriptionErrorsConfirmationsDispatchAndTakenMessages) {
    auto session = harness.createSession(hostPort);
    int tag = 0;
    EXPECT_EQ(SOLCLIENT_FAIL, harness.subscribe(session, "x/y", &tag));
    EXPECT_EQ(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, solClient_getLastErrorInfo()->subCode);
    EXPECT_EQ(SOLCLIENT_FAIL, harness.publish(session, "x/y", "p"));
    EXPECT_EQ(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, solClient_getLastErrorInfo()->subCode);
    EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(session));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE));

    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "x/y", &tag));
    EXPECT_EQ(SOLCLIENT_FAIL, harness.subscribe(session, "x/y", &tag));
    EXPECT_EQ(SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT,
              solClient_getLastErrorInfo()->subCode);
    EXPECT_NE('\0', solClient_getLastErrorInfo()->errorStr[0]);
    EXPECT_EQ(SOLCLIENT_OK, harness.unsubscribe(session, "x/y", &tag));
    EXPECT_EQ(SOLCLIENT_FAIL, harness.unsubscribe(session, "x/y", &tag));
    EXPECT_EQ(SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND, solClient_getLastErrorInfo()->subCode);

    // REQUEST_CONFIRM alone: IN_PROGRESS, then SUBSCRIPTION_OK carrying the tag.
    EXPECT_EQ(SOLCLIENT_IN_PROGRESS,
              harness.subscribe(session, "x/z", &tag, SOLCLIENT_SUBSCRIBE_FLAGS_REQUEST_CONFIRM));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_SUBSCRIPTION_OK));
    EXPECT_EQ(&tag, harness.events().back().correlation);

    // Without topic dispatch a dispatch record is refused, and without one the
    // session's own receive callback gets the messages. TAKE_MSG hands a
    // message over until msg_free (the harness frees it).
    auto plain = harness.connected(hostPort, {{"SESSION_TOPIC_DISPATCH", "0"}});
    EXPECT_EQ(SOLCLIENT_FAIL, harness.subscribe(plain, "a", &tag));
    EXPECT_EQ(SOLCLIENT_SUBCODE_PARAM_CONFLICT, solClient_getLastErrorInfo()->subCode);
    ASSERT_EQ(SOLCLIENT_OK,
              solClient_session_topicSubscribeWithDispatch(plain, 0x12, "a", nullptr, nullptr));
    harness.takeMessages = true;
    long const before = solEmu_liveMessages();
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(plain, "a", "held payload"));
    ASSERT_TRUE(harness.waitForMessages(1));
    EXPECT_EQ(nullptr, harness.messages()[0].user);
    auto taken = harness.takenMessages();
    ASSERT_EQ(1u, taken.size());
    EXPECT_TRUE(Harness::eventually([&] { return solEmu_liveMessages() == before + 1; }));
    void* data = nullptr;
    solClient_uint32_t size = 0;
    ASSERT_EQ(SOLCLIENT_OK, solClient_msg_getBinaryAttachmentPtr(taken[0], &data, &size));
    EXPECT_EQ("held payload", std::string(static_cast<char*>(data), size));
}

TEST_F(DirectMessaging, MessageAccessorsAndSendLimits) {
    auto session = harness.connected(hostPort);
    solClient_opaqueMsg_pt msg = nullptr;
    ASSERT_EQ(SOLCLIENT_OK, solClient_msg_alloc(&msg));
    solClient_destination_t dest{};
    EXPECT_EQ(SOLCLIENT_NOT_FOUND, solClient_msg_getDestination(msg, &dest, sizeof(dest)));
    void* data = nullptr;
    solClient_uint32_t size = 0;
    EXPECT_EQ(SOLCLIENT_NOT_FOUND, solClient_msg_getBinaryAttachmentPtr(msg, &data, &size));
    EXPECT_EQ(SOLCLIENT_FAIL, solClient_msg_getDestination(msg, &dest, 8));  // size checked
    EXPECT_EQ(SOLCLIENT_FAIL, solClient_session_sendMsg(session, msg));
    EXPECT_EQ(SOLCLIENT_SUBCODE_TOPIC_MISSING, solClient_getLastErrorInfo()->subCode);

    std::string name = "copied/name";  // setDestination copies the name
    solClient_destination_t in{SOLCLIENT_TOPIC_DESTINATION, name.c_str()};
    ASSERT_EQ(SOLCLIENT_OK, solClient_msg_setDestination(msg, &in, sizeof(in)));
    name.assign("overwritten");
    ASSERT_EQ(SOLCLIENT_OK, solClient_msg_getDestination(msg, &dest, sizeof(dest)));
    EXPECT_STREQ("copied/name", dest.dest);
    std::string big(30u * 1024u * 1024u + 1u, 'x');
    solClient_msg_setBinaryAttachmentPtr(msg, big.data(),
                                         static_cast<solClient_uint32_t>(big.size()));
    EXPECT_EQ(SOLCLIENT_FAIL, solClient_session_sendMsg(session, msg));
    EXPECT_EQ(SOLCLIENT_SUBCODE_MESSAGE_TOO_LARGE, solClient_getLastErrorInfo()->subCode);
    ASSERT_EQ(SOLCLIENT_OK, solClient_msg_free(&msg));
    EXPECT_EQ(nullptr, msg);
}

}  // namespace
