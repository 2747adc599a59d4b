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

// The sentinel, published last, proves that every message had its chance. Answers and
// deliveries all pass one queue, so the connect's round trip stands for theirs.
TEST_F(DirectMessaging, DeliversOnceToEachMatchingSubscriberInOrderARoundTripLater) {
    solEmu_setRoundTrip(30000);
    auto const start = std::chrono::steady_clock::now();
    auto session = harness.connected(hostPort);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
    auto publisher = harness.connected(hostPort);
    int tags[std::size(MATCH_CASES)] = {};
    int once = 0, sentinel = 0;
    for (size_t i = 0; i < std::size(MATCH_CASES); ++i) {
        ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, MATCH_CASES[i].subscription, &tags[i]));
        ASSERT_EQ(SOLCLIENT_OK,
                  harness.publish(publisher, MATCH_CASES[i].topic, std::to_string(i)));
    }
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "x/>", &once));
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "x/y", &once));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(publisher, "x/y", "100"));
    auto otherVpn = harness.connected(hostPort, {{"SESSION_VPN_NAME", "other"}});
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(otherVpn, "x/y", "101"));
    ASSERT_EQ(SOLCLIENT_OK,
              harness.publish(harness.connected("elsewhere." + hostPort), "x/y", "102"));
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "sentinel", &sentinel));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(publisher, "sentinel", "103"));
    ASSERT_TRUE(harness.waitForMessages(1, &sentinel));
    EXPECT_EQ(1u, harness.received(&once));
    auto const received = harness.messages();
    for (size_t i = 0; i < std::size(MATCH_CASES); ++i) {
        MatchCase const& c = MATCH_CASES[i];
        SCOPED_TRACE(std::string(c.subscription) + " vs " + c.topic);
        auto const got = std::find_if(received.begin(), received.end(), [&](SeenMessage const& m) {
            return m.user == &tags[i] && m.payload == std::to_string(i);
        });
        EXPECT_EQ(c.matches, got != received.end());
        if (got != received.end()) {
            EXPECT_EQ(c.topic, got->destination);  // the concrete topic, not the pattern
        }
    }
    std::set<std::thread::id> threads;
    int last = -1;
    for (auto const& m : received) {
        EXPECT_LE(last, std::stoi(m.payload)) << "out of publish order";
        last = std::stoi(m.payload);
        EXPECT_EQ(SOLCLIENT_TOPIC_DESTINATION, m.destinationType);
        EXPECT_FALSE(m.hasId);  // direct messages carry no id
        threads.insert(m.thread);
    }
    for (auto const& event : harness.events()) {
        threads.insert(event.thread);
    }
    EXPECT_EQ(1u, threads.size());
    EXPECT_EQ(0u, threads.count(std::this_thread::get_id()));
    for (char const* bad : {"", "a//b", "/a", "a/", "a/>/b", "a/*b", "a/b*c/d", "**"}) {
        EXPECT_EQ(SOLCLIENT_SUBCODE_INVALID_TOPIC_SYNTAX,
                  failure(harness.subscribe(session, bad, &sentinel)))
            << bad;
    }
}

// Without topic dispatch the session's own callback gets the messages.
TEST_F(DirectMessaging, RefusalsConfirmationsAndTheSessionCallback) {
    auto idle = harness.createSession(hostPort);
    auto session = harness.connected(hostPort);
    auto plain = harness.connected(hostPort, {{"SESSION_TOPIC_DISPATCH", "0"}});
    int tag = 0;
    EXPECT_EQ(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
              failure(harness.subscribe(idle, "x", &tag)));
    EXPECT_EQ(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, failure(harness.publish(idle, "x", "p")));
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "x/y", &tag));
    EXPECT_EQ(SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT,
              failure(harness.subscribe(session, "x/y", &tag)));
    EXPECT_NE('\0', solClient_getLastErrorInfo()->errorStr[0]);
    EXPECT_EQ(SOLCLIENT_OK, harness.unsubscribe(session, "x/y", &tag));
    EXPECT_EQ(SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND,
              failure(harness.unsubscribe(session, "x/y", &tag)));
    EXPECT_EQ(SOLCLIENT_SUBCODE_PARAM_CONFLICT, failure(harness.subscribe(plain, "a", &tag)));

    solClient_opaqueMsg_pt msg = nullptr;
    ASSERT_EQ(SOLCLIENT_OK, solClient_msg_alloc(&msg));
    solClient_destination_t dest{};
    void* data = nullptr;
    solClient_uint32_t size = 0;
    EXPECT_EQ(SOLCLIENT_NOT_FOUND, solClient_msg_getDestination(msg, &dest, sizeof(dest)));
    EXPECT_EQ(SOLCLIENT_NOT_FOUND, solClient_msg_getBinaryAttachmentPtr(msg, &data, &size));
    EXPECT_EQ(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
              failure(solClient_msg_getDestination(msg, &dest, 8)));
    EXPECT_EQ(SOLCLIENT_SUBCODE_TOPIC_MISSING, failure(solClient_session_sendMsg(session, msg)));
    std::string name = "copied/name";
    solClient_destination_t in{SOLCLIENT_TOPIC_DESTINATION, name.c_str()};
    ASSERT_EQ(SOLCLIENT_OK, solClient_msg_setDestination(msg, &in, sizeof(in)));
    name.assign("overwritten");
    ASSERT_EQ(SOLCLIENT_OK, solClient_msg_getDestination(msg, &dest, sizeof(dest)));
    EXPECT_STREQ("copied/name", dest.dest);
    std::string big(30u * 1024u * 1024u + 1u, 'x');
    solClient_msg_setBinaryAttachmentPtr(msg, big.data(),
                                         static_cast<solClient_uint32_t>(big.size()));
    EXPECT_EQ(SOLCLIENT_SUBCODE_MESSAGE_TOO_LARGE,
              failure(solClient_session_sendMsg(session, msg)));
    ASSERT_EQ(SOLCLIENT_OK, solClient_msg_free(&msg));
    EXPECT_EQ(nullptr, msg);

    EXPECT_EQ(SOLCLIENT_IN_PROGRESS,
              harness.subscribe(session, "x/z", &tag, SOLCLIENT_SUBSCRIBE_FLAGS_REQUEST_CONFIRM));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_SUBSCRIPTION_OK));
    EXPECT_EQ(&tag, harness.events().back().correlation);
    ASSERT_EQ(SOLCLIENT_OK,
              solClient_session_topicSubscribeWithDispatch(plain, 0x12, "a", nullptr, nullptr));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(plain, "a", "p"));
    ASSERT_TRUE(harness.waitForMessages(1));
    EXPECT_EQ(nullptr, harness.messages()[0].user);
}

}  // namespace
