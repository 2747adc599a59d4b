#include <atomic>
#include <future>

#include "Harness.h"

namespace {

using Blocking = EmulatorTest;
// A call's return code and the sub-code its thread saw.
using Outcome = std::pair<solClient_returnCode_t, int>;
using Call = std::function<solClient_returnCode_t()>;

Outcome outcome(Call const& call) {
    const solClient_returnCode_t rc = call();
    return {rc, rc == SOLCLIENT_OK ? 0 : static_cast<int>(solClient_getLastErrorInfo()->subCode)};
}

std::future<Outcome> onAnotherThread(Call call) {
    return std::async(std::launch::async, [call] { return outcome(call); });
}

bool blocked(std::future<Outcome>& call) {
    return call.wait_for(std::chrono::milliseconds(150)) == std::future_status::timeout;
}

// Confirm-waiting (un)subscribes, blocking binds and a blocking send into a
// full publish window return only once the context thread has processed the
// broker's answer; while it is held they wait, and each has its time-out.
TEST_F(Blocking, CallsWaitForTheContextThreadUpToTheirTimeOuts) {
    ASSERT_EQ(0, solEmu_addQueue("q"));
    auto session = harness.connected(
        hostPort, {{"SESSION_PUB_WINDOW_SIZE", "1"}, {"SESSION_SUBCONFIRM_TIMEOUT_MS", "20000"}});
    auto quick = harness.connected(hostPort, {{"SESSION_PUB_WINDOW_SIZE", "1"},
                                              {"SESSION_SUBCONFIRM_TIMEOUT_MS", "50"},
                                              {"SESSION_BLOCKING_WRITE_TIMEOUT_MS", "50"}});
    int tag = 0;
    solClient_opaqueFlow_pt flow = nullptr;
    auto fillAndSend = [&](solClient_opaqueSession_pt s) {
        return [&, s] {
            EXPECT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(s, "q", "fills the window", nullptr));
            return harness.sendGuaranteed(s, "q", "waits for room", nullptr);
        };
    };
    const std::vector<std::pair<Call, Call>> calls = {
        {[&] { return harness.subscribe(session, "a", &tag); },
         [&] { return harness.subscribe(quick, "a", &tag); }},
        {[&] { return harness.unsubscribe(session, "a", &tag); },
         [&] { return harness.unsubscribe(quick, "b", &tag); }},
        {[&] { return harness.createFlow(session, "q", flow); },
         [&] {
             return harness.createFlow(quick, "q", flow, {{"FLOW_BIND_TIMEOUT_MS", "50"}});
         }},
        {fillAndSend(session), fillAndSend(quick)}};
    for (size_t i = 0; i < calls.size(); ++i) {
        SCOPED_TRACE(i);
        solEmu_holdDeliveries(1);
        auto waiting = onAnotherThread(calls[i].first);
        EXPECT_TRUE(blocked(waiting));
        EXPECT_EQ(Outcome(SOLCLIENT_FAIL, SOLCLIENT_SUBCODE_TIMEOUT), outcome(calls[i].second));
        solEmu_holdDeliveries(0);
        EXPECT_EQ(SOLCLIENT_OK, waiting.get().first);
    }
    ASSERT_NE(nullptr, flow);
    EXPECT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&flow));
}

// From a callback a call that would block fails at once (sub-code 87); in
// non-blocking send mode a full window gives WOULD_BLOCK, then CAN_SEND.
TEST_F(Blocking, CallsThatWouldBlockFailOnTheContextThread) {
    ASSERT_EQ(0, solEmu_addQueue("q"));
    auto session = harness.connected(hostPort, {{"SESSION_PUB_WINDOW_SIZE", "1"}});
    int tag = 0;
    solClient_opaqueFlow_pt flow = nullptr;
    std::vector<Outcome> inCallback;
    auto fired = std::make_shared<std::atomic<bool>>(false);  // outlives this test's locals
    harness.inEvent = [&, fired](bool isFlow, int event) {
        if (isFlow || event != SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT || fired->exchange(true)) {
            return;
        }
        inCallback.push_back(outcome([&] { return harness.subscribe(session, "a", &tag); }));
        inCallback.push_back(outcome([&] { return harness.createFlow(session, "q", flow); }));
        inCallback.push_back(outcome([&] { return harness.sendGuaranteed(session, "q", "1", 0); }));
        inCallback.push_back(outcome([&] { return harness.sendGuaranteed(session, "q", "2", 0); }));
    };
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "0", nullptr));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
    const Outcome wouldBlock{SOLCLIENT_FAIL, SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT};
    EXPECT_EQ(std::vector<Outcome>({wouldBlock, wouldBlock, {SOLCLIENT_OK, 0}, wouldBlock}),
              inCallback);
    EXPECT_EQ(nullptr, flow);

    auto nonBlocking = harness.connected(
        hostPort, {{"SESSION_PUB_WINDOW_SIZE", "1"}, {"SESSION_SEND_BLOCKING", "0"}});
    solEmu_holdDeliveries(1);
    EXPECT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(nonBlocking, "q", "3", nullptr));
    EXPECT_EQ(SOLCLIENT_WOULD_BLOCK, harness.sendGuaranteed(nonBlocking, "q", "4", nullptr));
    solEmu_holdDeliveries(0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_CAN_SEND));
    EXPECT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(nonBlocking, "q", "4", nullptr));
}

// A broker drop fails the confirmations in flight (the connection is lost);
// sends and subscriptions made while the session reconnects (BLOCK_WHILE_
// CONNECTING at its default) return once it is up again. The broker ending
// the session outright raises DOWN_ERROR and fails every blocked call; a new
// connect then works.
TEST_F(Blocking, BlockedCallsThroughAReconnectAndTheSessionGoingDown) {
    ASSERT_EQ(0, solEmu_addQueue("q"));
    auto session = harness.connected(hostPort, {{"SESSION_PUB_WINDOW_SIZE", "1"}});
    int tag = 0;
    solClient_opaqueFlow_pt flow = nullptr;
    ASSERT_EQ(SOLCLIENT_OK, harness.createFlow(session, "q", flow));
    solEmu_holdDeliveries(1);
    auto confirming = onAnotherThread([&] { return harness.subscribe(session, "a", &tag); });
    ASSERT_TRUE(blocked(confirming));
    solEmu_setBrokerUp(hostPort.c_str(), 0);
    EXPECT_EQ(Outcome(SOLCLIENT_FAIL, SOLCLIENT_SUBCODE_COMMUNICATION_ERROR), confirming.get());
    solEmu_holdDeliveries(0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_RECONNECTING_NOTICE));
    std::vector<std::future<Outcome>> waiting;
    waiting.push_back(onAnotherThread([&] { return harness.publish(session, "t", "direct"); }));
    waiting.push_back(
        onAnotherThread([&] { return harness.sendGuaranteed(session, "q", "kept", nullptr); }));
    waiting.push_back(onAnotherThread([&] { return harness.subscribe(session, "t", &tag); }));
    waiting.push_back(onAnotherThread([&] { return harness.subscribe(session, "u", &tag, 0); }));
    for (auto& call : waiting) {
        EXPECT_TRUE(blocked(call));
    }
    solEmu_setBrokerUp(hostPort.c_str(), 1);
    for (auto& call : waiting) {
        EXPECT_EQ(Outcome(SOLCLIENT_OK, 0), call.get());
    }
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
    EXPECT_EQ(1u, harness.countEvents(false, SOLCLIENT_SESSION_EVENT_RECONNECTED_NOTICE));
    EXPECT_EQ(1, solEmu_queueDepth("q"));  // "kept", held by the flow

    solEmu_holdDeliveries(1);
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "fills", nullptr));
    waiting.clear();
    waiting.push_back(
        onAnotherThread([&] { return harness.sendGuaranteed(session, "q", "waits", nullptr); }));
    waiting.push_back(onAnotherThread([&] { return harness.subscribe(session, "b", &tag); }));
    for (auto& call : waiting) {
        ASSERT_TRUE(blocked(call));
    }
    solEmu_endSessions(hostPort.c_str());
    for (auto& call : waiting) {
        EXPECT_EQ(Outcome(SOLCLIENT_FAIL, SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED), call.get());
    }
    solEmu_holdDeliveries(0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_DOWN_ERROR));
    ASSERT_TRUE(harness.waitForEvent(true, SOLCLIENT_FLOW_EVENT_SESSION_DOWN));

    // The reserved topic does the same from a publisher.
    EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(session));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE, 2));
    EXPECT_EQ(SOLCLIENT_OK, harness.publish(session, "#emulator/down", ""));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_DOWN_ERROR, 2));
    EXPECT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&flow));
}

}  // namespace
