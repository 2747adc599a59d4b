#include "Harness.h"

namespace {

class Guaranteed : public EmulatorTest {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, solEmu_addQueue("work"));
        session = harness.connected(hostPort);
    }
    void sendAll(int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(SOLCLIENT_OK,
                      harness.sendGuaranteed(session, "work", std::to_string(i), nullptr));
        }
    }
    solClient_opaqueSession_pt session = nullptr;
};

// A non-blocking bind fails as an event of a flow that must still be destroyed. After
// flow_destroy returns no callback of that flow runs, even with its delivery held in the context
// queue; the message goes back.
TEST_F(Guaranteed, UnknownQueuesAndADestroyedFlowWithAHeldDelivery) {
    solClient_opaqueFlow_pt flow = nullptr;
    EXPECT_EQ(SOLCLIENT_SUBCODE_QUEUE_NOT_FOUND,
              failure(harness.createFlow(session, "nowhere", flow)));
    EXPECT_EQ(nullptr, flow);
    EXPECT_EQ(SOLCLIENT_IN_PROGRESS,
              harness.createFlow(session, "nowhere", flow, {{"FLOW_BIND_BLOCKING", "0"}}));
    ASSERT_TRUE(harness.waitForEvent(true, SOLCLIENT_FLOW_EVENT_BIND_FAILED_ERROR));
    EXPECT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&flow));

    ASSERT_EQ(SOLCLIENT_OK, harness.createFlow(session, "work", flow));
    solEmu_holdDeliveries(1);
    int spooled = 0, unknown = 0;
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "work", "one", &spooled));
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "nowhere", "two", &unknown));
    ASSERT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&flow));
    solEmu_holdDeliveries(0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
    EXPECT_EQ(&spooled, harness.last(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT).correlation);
    SeenEvent const rejected = harness.last(false, SOLCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR);
    EXPECT_EQ(&unknown, rejected.correlation);
    EXPECT_EQ(503u, rejected.responseCode);
    EXPECT_EQ("Unknown Queue", rejected.info);
    EXPECT_EQ(0u, harness.messages().size());
    EXPECT_EQ(1, solEmu_queueDepth("work"));
}

// The bytes a guaranteed send lends stay the library's until its answer: a change is told.
TEST_F(Guaranteed, LentBytesChangedBeforeTheAnswerAreCounted) {
    long const before = solEmu_changedAttachments();
    solEmu_setAckMode(2);  // withheld
    char bytes[] = "lent";
    ASSERT_EQ(SOLCLIENT_OK,
              harness.sendBytes(session, {SOLCLIENT_QUEUE_DESTINATION, "work"}, bytes, 4, nullptr));
    sendAll(1);
    bytes[0] = 'b';
    solEmu_setAckMode(0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 2));
    EXPECT_EQ(before + 1, solEmu_changedAttachments());
}

// What is unacknowledged at flow_destroy comes again, flagged and with the same id, to the next
// flow. An auto-ack flow removes each message once its callback returns.
TEST_F(Guaranteed, ClientAckWindowAndRedeliveryThenAutoAck) {
    sendAll(4);
    solClient_opaqueFlow_pt flow = nullptr;
    ASSERT_EQ(SOLCLIENT_OK,
              harness.createFlow(session, "work", flow,
                                 {{"FLOW_WINDOWSIZE", "10"}, {"FLOW_MAX_UNACKED_MESSAGES", "2"}}));
    ASSERT_TRUE(harness.waitForEvent(true, SOLCLIENT_FLOW_EVENT_UP_NOTICE));
    ASSERT_TRUE(harness.waitForMessages(2));
    auto const first = harness.messages();
    ASSERT_EQ(2u, first.size());
    EXPECT_TRUE(first[0].hasId);
    EXPECT_EQ("0", first[0].payload);
    EXPECT_EQ("work", first[0].destination);
    EXPECT_EQ(SOLCLIENT_QUEUE_DESTINATION, first[0].destinationType);
    EXPECT_EQ(0, first[0].redelivered);
    EXPECT_EQ(4, solEmu_queueDepth("work"));
    ASSERT_EQ(SOLCLIENT_OK, solClient_flow_sendAck(flow, first[0].id));
    ASSERT_TRUE(harness.waitForMessages(3));
    EXPECT_EQ("2", harness.messages()[2].payload);
    EXPECT_EQ(3, solEmu_queueDepth("work"));
    EXPECT_EQ(SOLCLIENT_OK, solClient_flow_sendAck(flow, 999999));  // unknown ids are ignored
    ASSERT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&flow));
    EXPECT_EQ(nullptr, flow);

    solClient_opaqueFlow_pt again = nullptr;
    ASSERT_EQ(SOLCLIENT_OK, harness.createFlow(session, "work", again, {{"FLOW_ACKMODE", "1"}}));
    ASSERT_TRUE(harness.waitForMessages(6));
    auto const all = harness.messages();
    SeenMessage const& redelivered = all[3];
    EXPECT_EQ("1", redelivered.payload);
    EXPECT_EQ(1, redelivered.redelivered);
    EXPECT_EQ(first[1].id, redelivered.id);
    EXPECT_EQ(1, all[4].redelivered);  // "2" was delivered, never acknowledged
    EXPECT_EQ(0, all[5].redelivered);  // "3" never left the queue
    EXPECT_TRUE(eventually([] { return solEmu_queueDepth("work") == 0; }));
    EXPECT_EQ(SOLCLIENT_OK, solClient_flow_sendAck(again, all[5].id));  // ignored
    ASSERT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&again));
}

TEST_F(Guaranteed, StoppedFlowsWaitAndStartedFlowsShareTheQueue) {
    const Props props = {{"FLOW_START_STATE", "0"}, {"FLOW_WINDOWSIZE", "1"}};
    solClient_opaqueFlow_pt first = nullptr, second = nullptr;
    ASSERT_EQ(SOLCLIENT_OK, harness.createFlow(session, "work", first, props));
    ASSERT_EQ(SOLCLIENT_OK, harness.createFlow(session, "work", second, props));
    sendAll(4);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 4));
    EXPECT_EQ(0u, harness.messages().size());  // created stopped
    ASSERT_EQ(SOLCLIENT_OK, solClient_flow_start(first));
    ASSERT_EQ(SOLCLIENT_OK, solClient_flow_start(second));
    // A window of one: each flow holds one message until it acknowledges it.
    ASSERT_TRUE(harness.waitForMessages(2));
    auto const held = harness.messages();
    ASSERT_EQ(2u, held.size());
    EXPECT_NE(held[0].user, held[1].user);
    for (auto const& m : held) {
        ASSERT_EQ(SOLCLIENT_OK, solClient_flow_sendAck(m.user, m.id));
    }
    ASSERT_TRUE(harness.waitForMessages(4));
    ASSERT_EQ(SOLCLIENT_OK, solClient_flow_stop(first));
    ASSERT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&first));
    ASSERT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&second));
    EXPECT_EQ(2, solEmu_queueDepth("work"));  // the last two were never acknowledged
}

// A destroyed flow's or session's handle stays refused once a new one is made after it (the
// allocator readily hands the same memory back): it must never reach the new object.
TEST_F(Guaranteed, StaleHandlesNeverReachTheObjectsMadeAfterThem) {
    solClient_opaqueFlow_pt flow = nullptr, next = nullptr;
    ASSERT_EQ(SOLCLIENT_OK, harness.createFlow(session, "work", flow));
    solClient_opaqueFlow_pt staleFlow = flow;
    ASSERT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&flow));
    ASSERT_EQ(SOLCLIENT_OK, harness.createFlow(session, "work", next));
    EXPECT_EQ(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, failure(solClient_flow_destroy(&staleFlow)));
    EXPECT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&next));

    solClient_opaqueSession_pt other = harness.createSession(hostPort);
    solClient_opaqueSession_pt staleSession = other;
    ASSERT_EQ(SOLCLIENT_OK, solClient_session_destroy(&other));
    solClient_opaqueSession_pt made = harness.createSession(hostPort);
    EXPECT_EQ(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, failure(solClient_session_connect(staleSession)));
    EXPECT_EQ(SOLCLIENT_OK, solClient_session_destroy(&made));
}

// A flow's callbacks may use the handle they are given from the first one on, also while a
// blocking bind has not returned yet: its UP_NOTICE and a message already queued come first.
TEST_F(Guaranteed, AFlowsCallbacksUseTheirHandleBeforeABlockingBindReturns) {
    sendAll(1);
    std::vector<int> inCallbacks;  // written on the context thread before the bind returns
    solClient_flow_createFuncInfo_t funcs{};
    funcs.eventInfo.callback_p = [](solClient_opaqueFlow_pt flow, auto, void* user) {
        static_cast<std::vector<int>*>(user)->push_back(failure(solClient_flow_start(flow)));
    };
    funcs.eventInfo.user_p = &inCallbacks;
    funcs.rxMsgInfo.callback_p = [](solClient_opaqueFlow_pt flow, solClient_opaqueMsg_pt msg,
                                    void* user) {
        solClient_msgId_t id = 0;
        solClient_msg_getMsgId(msg, &id);
        static_cast<std::vector<int>*>(user)->push_back(failure(solClient_flow_sendAck(flow, id)));
        return SOLCLIENT_CALLBACK_OK;
    };
    funcs.rxMsgInfo.user_p = &inCallbacks;
    char const* props[] = {"FLOW_BIND_ENTITY_ID", "2", "FLOW_BIND_NAME", "work",
                           "FLOW_ACKMODE",        "2", nullptr};
    solClient_opaqueFlow_pt flow = nullptr;
    ASSERT_EQ(SOLCLIENT_OK,
              solClient_session_createFlow(props, session, &flow, &funcs, sizeof(funcs)));
    EXPECT_EQ(std::vector<int>({-1, -1}), inCallbacks);  // neither call failed
    EXPECT_TRUE(eventually([] { return solEmu_queueDepth("work") == 0; }));
    EXPECT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&flow));
}

}  // namespace
