#include <map>

#include "Harness.h"

namespace {

using Reconnect = EmulatorTest;

TEST_F(Reconnect, BrokerDropReappliesSubscriptionsAndRedeliversToFlows) {
    ASSERT_EQ(0, solEmu_addQueue("q"));
    auto session = harness.connected(hostPort, {{"SESSION_BLOCK_WHILE_CONNECTING", "0"}});
    int tag = 0;
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "live/>", &tag));
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "unacked", nullptr));
    solClient_opaqueFlow_pt flow = nullptr;
    ASSERT_EQ(SOLCLIENT_OK, harness.createFlow(session, "q", flow));
    ASSERT_TRUE(harness.waitForMessages(1));

    solEmu_setBrokerUp(hostPort.c_str(), 0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_RECONNECTING_NOTICE));
    EXPECT_EQ(SOLCLIENT_NOT_READY, harness.publish(session, "live/x", "while down"));
    solEmu_setBrokerUp(hostPort.c_str(), 1);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_RECONNECTED_NOTICE));
    ASSERT_TRUE(harness.waitForEvent(true, SOLCLIENT_FLOW_EVENT_UP_NOTICE, 2));

    ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, "live/x", "after"));
    ASSERT_TRUE(harness.waitForMessages(1, &tag));
    ASSERT_TRUE(harness.waitForMessages(2, flow));
    auto const received = harness.messages();
    SeenMessage const& again = received[received[1].user == flow ? 1 : 2];
    EXPECT_EQ("unacked", again.payload);
    EXPECT_EQ(1, again.redelivered);
    EXPECT_EQ(SOLCLIENT_OK, solClient_flow_sendAck(flow, again.id));
    EXPECT_TRUE(Harness::eventually([] { return solEmu_queueDepth("q") == 0; }));
    ASSERT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&flow));
}

TEST_F(Reconnect, SubscriptionsAreDroppedWithoutReapply) {
    auto session = harness.connected(hostPort, {{"SESSION_REAPPLY_SUBSCRIPTIONS", "0"}});
    int tag = 0, sentinel = 0;
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "gone", &tag));
    solEmu_setBrokerUp(hostPort.c_str(), 0);
    solEmu_setBrokerUp(hostPort.c_str(), 1);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_RECONNECTED_NOTICE));
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "sentinel", &sentinel));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, "gone", "x"));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, "sentinel", "y"));
    ASSERT_TRUE(harness.waitForMessages(1, &sentinel));
    EXPECT_EQ(1u, harness.messages().size());
}

// Withheld acknowledgements are the messages "in flight" when the broker
// drops: after the reconnect each is retransmitted, the broker keeps one copy,
// and each tag is acknowledged exactly once. Sends made while reconnecting
// (not blocking while connecting) are buffered and delivered too.
TEST_F(Reconnect, RetransmitsUnacknowledgedSendsWithoutLossOrDuplicates) {
    ASSERT_EQ(0, solEmu_addQueue("q"));
    auto session = harness.connected(hostPort, {{"SESSION_BLOCK_WHILE_CONNECTING", "0"}});
    int tags[4] = {};
    solEmu_setAckMode(2);
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "0", &tags[0]));
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "1", &tags[1]));
    solEmu_setBrokerUp(hostPort.c_str(), 0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_RECONNECTING_NOTICE));
    solEmu_setAckMode(0);
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "2", &tags[2]));
    EXPECT_EQ(0u, harness.countEvents(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
    solEmu_setBrokerUp(hostPort.c_str(), 1);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 3));
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "3", &tags[3]));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 4));
    std::map<void*, int> acks;
    for (auto const& e : harness.events()) {
        acks[e.correlation] += e.event == SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT ? 1 : 0;
    }
    for (auto& tag : tags) {
        EXPECT_EQ(1, acks[&tag]);
    }
    EXPECT_EQ(4, solEmu_queueDepth("q"));
}

TEST_F(Reconnect, FiniteRetriesEndInDownErrorAndConnectFailure) {
    ASSERT_NE(nullptr, harness.connected(hostPort, {{"SESSION_RECONNECT_RETRIES", "2"},
                                                    {"SESSION_RECONNECT_RETRY_WAIT_MS", "5"}}));
    solEmu_setBrokerUp(hostPort.c_str(), 0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_DOWN_ERROR));
    EXPECT_EQ(0u, harness.countEvents(false, SOLCLIENT_SESSION_EVENT_RECONNECTED_NOTICE));

    // A fresh connect to the down broker with finite retries fails; with -1 it
    // waits silently and comes up with the broker.
    auto finite = harness.createSession(
        hostPort, {{"SESSION_CONNECT_RETRIES", "1"}, {"SESSION_CONNECT_TIMEOUT_MS", "5"}});
    EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(finite));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_CONNECT_FAILED_ERROR));
    auto patient = harness.createSession(hostPort);
    EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(patient));
    solEmu_setBrokerUp(hostPort.c_str(), 1);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE, 2));
    EXPECT_EQ(1u, harness.countEvents(false, SOLCLIENT_SESSION_EVENT_CONNECT_FAILED_ERROR));
}

TEST_F(Reconnect, BlockingConnectAndSilentDisconnect) {
    auto session = harness.createSession(hostPort, {{"SESSION_CONNECT_BLOCKING", "1"}});
    EXPECT_EQ(SOLCLIENT_OK, solClient_session_connect(session));
    EXPECT_EQ(SOLCLIENT_OK, solClient_session_disconnect(session));
    int tag = 0;
    EXPECT_EQ(SOLCLIENT_FAIL, harness.subscribe(session, "a", &tag));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE));
    EXPECT_EQ(1u, harness.events().size());  // the UP_NOTICE only
}

}  // namespace
