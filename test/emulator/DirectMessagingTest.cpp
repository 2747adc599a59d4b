#include <algorithm>
#include <set>

#include "Harness.h"

namespace {

using DirectMessaging = EmulatorTest;

TEST_F(DirectMessaging, TwoSessionsTalkInPublishOrderAndCallbacksRunOnTheContextThread) {
    auto publisher = harness.connected(hostPort);
    auto subscriber = harness.connected(hostPort);
    int tag = 0;
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(subscriber, "orders/>", &tag));
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(SOLCLIENT_OK,
                  harness.publish(publisher, "orders/" + std::to_string(i), std::to_string(i)));
    }
    ASSERT_TRUE(harness.waitForMessages(50, &tag));
    auto const received = harness.messages();
    std::set<std::thread::id> threads;
    for (size_t i = 0; i < received.size(); ++i) {
        EXPECT_EQ(std::to_string(i), received[i].payload);
        EXPECT_EQ("orders/" + std::to_string(i), received[i].destination);
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

// Other VPNs and brokers are separate; overlapping subscriptions with the same
// callback and user deliver once, another user gets its own copy.
TEST_F(DirectMessaging, EachMatchingCallbackOfTheBrokerAndVpnGetsOneCopy) {
    auto session = harness.connected(hostPort);
    auto otherVpn = harness.connected(hostPort, {{"SESSION_VPN_NAME", "other"}});
    auto otherBroker = harness.connected("elsewhere." + hostPort);
    int first = 0, second = 0;
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "a/>", &first));
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "a/b", &first));
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "a/*", &second));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(otherVpn, "a/b", "vpn"));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(otherBroker, "a/b", "broker"));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, "a/b", "own"));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, "a/b/c", "end"));
    ASSERT_TRUE(harness.waitForMessages(3));
    auto const received = harness.messages();
    ASSERT_EQ(3u, received.size());
    EXPECT_EQ(1, std::count_if(received.begin(), received.end(),
                               [&](SeenMessage const& m) { return m.user == &second; }));
    EXPECT_EQ("end", received[2].payload);
}

TEST_F(DirectMessaging, SubscriptionErrorsConfirmationsAndTopicDispatch) {
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
    // session's own receive callback gets the messages.
    auto plain = harness.connected(hostPort, {{"SESSION_TOPIC_DISPATCH", "0"}});
    EXPECT_EQ(SOLCLIENT_FAIL, harness.subscribe(plain, "a", &tag));
    ASSERT_EQ(SOLCLIENT_OK,
              solClient_session_topicSubscribeWithDispatch(plain, 0x12, "a", nullptr, nullptr));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(plain, "a", "p"));
    ASSERT_TRUE(harness.waitForMessages(1));
    EXPECT_EQ(nullptr, harness.messages()[0].user);
}

// TAKE_MSG hands the message over until msg_free (the harness frees it).
TEST_F(DirectMessaging, TakenMessagesStayValidUntilFreed) {
    auto session = harness.connected(hostPort);
    int tag = 0;
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "keep", &tag));
    harness.setTakeMessages(true);
    long const before = solEmu_liveMessages();
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, "keep", "held payload"));
    ASSERT_TRUE(harness.waitForMessages(1));
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
