#include <algorithm>
#include <map>

#include "Harness.h"

namespace {

using Reconnect = EmulatorTest;

// Without REAPPLY_SUBSCRIPTIONS subscriptions are dropped (the sentinel, published last, proves
// that the other message had its chance). Withheld acknowledgements are the sends in flight: the
// broker keeps one copy and each tag is acknowledged once; sends made while reconnecting (not
// blocking while connecting) are buffered.
TEST_F(Reconnect, BrokerDropRestoresSubscriptionsFlowsAndSendsInFlight) {
    ASSERT_EQ(0, solEmu_addQueue("r"));
    auto session = harness.connected(hostPort, {{"SESSION_BLOCK_WHILE_CONNECTING", "0"}});
    auto dropping = harness.connected(hostPort, {{"SESSION_REAPPLY_SUBSCRIPTIONS", "0"}});
    int tag = 0, gone = 0, sentinel = 0, tags[4] = {};
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "live/>", &tag));
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(dropping, "live/>", &gone));
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "unacked", nullptr));
    solClient_opaqueFlow_pt flow = nullptr;
    ASSERT_EQ(SOLCLIENT_OK, harness.createFlow(session, "q", flow));
    ASSERT_TRUE(harness.waitForMessages(1));
    solEmu_setAckMode(2);
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "r", "0", &tags[0]));
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "r", "1", &tags[1]));

    solEmu_setBrokerUp(hostPort.c_str(), 0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_RECONNECTING_NOTICE));
    EXPECT_EQ(SOLCLIENT_NOT_READY, harness.publish(session, "live/x", "while down"));
    solEmu_setAckMode(0);
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "r", "2", &tags[2]));
    EXPECT_EQ(1u, harness.countEvents(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
    solEmu_setBrokerUp(hostPort.c_str(), 1);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_RECONNECTED_NOTICE, 2));
    ASSERT_TRUE(harness.waitForEvent(true, SOLCLIENT_FLOW_EVENT_UP_NOTICE, 2));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 4));
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "r", "3", &tags[3]));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 5));
    std::map<void*, int> acks;
    for (auto const& e : harness.events()) {
        acks[e.correlation] += e.event == SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT ? 1 : 0;
    }
    for (auto& sent : tags) {
        EXPECT_EQ(1, acks[&sent]);
    }
    EXPECT_EQ(4, solEmu_queueDepth("r"));

    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(dropping, "sentinel", &sentinel));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, "live/x", "after"));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, "sentinel", "end"));
    ASSERT_TRUE(harness.waitForMessages(1, &tag));
    ASSERT_TRUE(harness.waitForMessages(1, &sentinel));
    ASSERT_TRUE(harness.waitForMessages(2, flow));
    EXPECT_EQ(0u, harness.received(&gone));
    auto const received = harness.messages();
    SeenMessage const& again = *std::find_if(received.begin() + 1, received.end(),
                                             [&](SeenMessage const& m) { return m.user == flow; });
    EXPECT_EQ("unacked", again.payload);
    EXPECT_EQ(1, again.redelivered);
    EXPECT_EQ(SOLCLIENT_OK, solClient_flow_sendAck(flow, again.id));
    EXPECT_TRUE(eventually([] { return solEmu_queueDepth("q") == 0; }));
    ASSERT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&flow));
}

// Not blocking while connecting, guaranteed sends are held in the publish window; past it they
// are flow-controlled as when up.
TEST_F(Reconnect, SendsHeldWhileReconnectingFillThePublishWindow) {
    auto session = harness.connected(hostPort, {{"SESSION_BLOCK_WHILE_CONNECTING", "0"},
                                                {"SESSION_SEND_BLOCKING", "0"},
                                                {"SESSION_PUB_WINDOW_SIZE", "2"}});
    solEmu_setBrokerUp(hostPort.c_str(), 0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_RECONNECTING_NOTICE));
    EXPECT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "0", nullptr));
    EXPECT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "1", nullptr));
    EXPECT_EQ(SOLCLIENT_WOULD_BLOCK, harness.sendGuaranteed(session, "q", "2", nullptr));
    solEmu_setBrokerUp(hostPort.c_str(), 1);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_CAN_SEND));
    EXPECT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "2", nullptr));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 3));
    EXPECT_EQ(3, solEmu_queueDepth("q"));
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

}  // namespace
