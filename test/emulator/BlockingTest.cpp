#include <atomic>
#include <future>

#include "Harness.h"

namespace {

// A publish window of one: a second unanswered send waits for room.
class Blocking : public EmulatorTest {
  protected:
    solClient_opaqueSession_pt session =
        harness.connected(hostPort, {{"SESSION_PUB_WINDOW_SIZE", "1"}});
    int tag = 0;
    solClient_opaqueFlow_pt flow = nullptr;
};
using Call = std::function<solClient_returnCode_t()>;
constexpr int DONE = -1;  // what failure() gives for a call that did not fail

// Each call started on a thread of its own; each gives the sub-code it failed with.
std::vector<std::future<int>> onOtherThreads(std::vector<Call> const& calls) {
    std::vector<std::future<int>> started;
    started.reserve(calls.size());
    for (auto const& call : calls) {
        started.push_back(std::async(std::launch::async, [call] { return failure(call()); }));
    }
    return started;
}

bool blocked(std::vector<std::future<int>>& calls) {
    return std::all_of(calls.begin(), calls.end(), [](auto& call) {
        return call.wait_for(std::chrono::milliseconds(150)) == std::future_status::timeout;
    });
}

std::vector<int> outcomes(std::vector<std::future<int>>& calls) {
    std::vector<int> all;
    all.reserve(calls.size());
    for (auto& call : calls) {
        all.push_back(call.get());
    }
    return all;
}

// Confirm-waiting (un)subscribes, blocking binds and a blocking send into a full window return
// only once the context thread has processed the broker's answer.
TEST_F(Blocking, CallsWaitForTheContextThreadUpToTheirTimeOuts) {
    auto quick = harness.connected(hostPort, {{"SESSION_PUB_WINDOW_SIZE", "1"},
                                              {"SESSION_SUBCONFIRM_TIMEOUT_MS", "50"},
                                              {"SESSION_BLOCKING_WRITE_TIMEOUT_MS", "50"}});
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
        auto waiting = onOtherThreads({calls[i].first});
        EXPECT_TRUE(blocked(waiting));
        EXPECT_EQ(SOLCLIENT_SUBCODE_TIMEOUT, failure(calls[i].second()));
        solEmu_holdDeliveries(0);
        EXPECT_EQ(DONE, waiting[0].get());
    }
    ASSERT_NE(nullptr, flow);
    EXPECT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&flow));
}

// From a callback a call that would block fails at once (sub-code 87), as does destroying the
// session or flow whose callback it is; in non-blocking send mode a full window gives
// WOULD_BLOCK, then CAN_SEND.
TEST_F(Blocking, CallsThatWouldBlockFailOnTheContextThread) {
    std::vector<int> inCallback;
    auto fired = std::make_shared<std::atomic<int>>(0);  // the callback may run after the test
    harness.inEvent = [&, fired](void* object, bool isFlow, int event) {
        if (isFlow && event == SOLCLIENT_FLOW_EVENT_UP_NOTICE && !(fired->fetch_or(2) & 2)) {
            auto own = static_cast<solClient_opaqueFlow_pt>(object);
            inCallback.push_back(failure(solClient_flow_destroy(&own)));
        }
        if (isFlow || event != SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT || fired->fetch_or(1)) {
            return;
        }
        auto own = static_cast<solClient_opaqueSession_pt>(object);
        inCallback = {failure(harness.subscribe(session, "a", &tag)),
                      failure(harness.createFlow(session, "q", flow)),
                      failure(harness.sendGuaranteed(session, "q", "1", nullptr)),
                      failure(harness.sendGuaranteed(session, "q", "2", nullptr)),
                      failure(solClient_session_destroy(&own))};
    };
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "0", nullptr));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
    EXPECT_EQ(nullptr, flow);
    ASSERT_EQ(SOLCLIENT_OK, harness.createFlow(session, "q", flow));
    ASSERT_TRUE(harness.waitForEvent(true, SOLCLIENT_FLOW_EVENT_UP_NOTICE));
    int const wouldBlock = SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT;
    EXPECT_EQ(std::vector<int>({wouldBlock, wouldBlock, DONE, wouldBlock, wouldBlock, wouldBlock}),
              inCallback);
    EXPECT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&flow));  // both still there
    EXPECT_EQ(DONE, failure(harness.sendGuaranteed(session, "q", "3", nullptr)));

    auto nonBlocking = harness.connected(
        hostPort, {{"SESSION_PUB_WINDOW_SIZE", "1"}, {"SESSION_SEND_BLOCKING", "0"}});
    solEmu_holdDeliveries(1);
    EXPECT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(nonBlocking, "q", "3", nullptr));
    EXPECT_EQ(SOLCLIENT_WOULD_BLOCK, harness.sendGuaranteed(nonBlocking, "q", "4", nullptr));
    solEmu_holdDeliveries(0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_CAN_SEND));
    EXPECT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(nonBlocking, "q", "4", nullptr));
}

// A drop fails the confirmations in flight; calls made while reconnecting (BLOCK_WHILE_CONNECTING
// at its default) return once up. The session ended outright, or the reserved topic, raises
// DOWN_ERROR and fails every blocked call.
TEST_F(Blocking, BlockedCallsThroughAReconnectAndTheSessionGoingDown) {
    // From a callback, not even a subscribe that does not wait for its confirmation can wait.
    int inCallback = 0;
    harness.inEvent = [&](void*, bool isFlow, int event) {
        if (!isFlow && event == SOLCLIENT_SESSION_EVENT_RECONNECTING_NOTICE) {
            inCallback = failure(harness.subscribe(session, "v", &tag, 0));
        }
    };
    ASSERT_EQ(SOLCLIENT_OK, harness.createFlow(session, "q", flow));
    solEmu_holdDeliveries(1);
    auto waiting = onOtherThreads({[&] { return harness.subscribe(session, "a", &tag); }});
    ASSERT_TRUE(blocked(waiting));
    solEmu_setBrokerUp(hostPort.c_str(), 0);
    EXPECT_EQ(std::vector<int>{SOLCLIENT_SUBCODE_COMMUNICATION_ERROR}, outcomes(waiting));
    solEmu_holdDeliveries(0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_RECONNECTING_NOTICE));
    EXPECT_EQ(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT, inCallback);
    waiting = onOtherThreads({[&] { return harness.publish(session, "t", "direct"); },
                              [&] { return harness.sendGuaranteed(session, "q", "kept", 0); },
                              [&] { return harness.subscribe(session, "t", &tag); },
                              [&] { return harness.subscribe(session, "u", &tag, 0); }});
    EXPECT_TRUE(blocked(waiting));
    solEmu_setBrokerUp(hostPort.c_str(), 1);
    EXPECT_EQ(std::vector<int>(4, DONE), outcomes(waiting));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT));
    EXPECT_EQ(1u, harness.countEvents(false, SOLCLIENT_SESSION_EVENT_RECONNECTED_NOTICE));
    EXPECT_EQ(1, solEmu_queueDepth("q"));  // "kept", held by the flow

    solEmu_holdDeliveries(1);
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "q", "fills", nullptr));
    waiting = onOtherThreads({[&] { return harness.sendGuaranteed(session, "q", "waits", 0); },
                              [&] { return harness.subscribe(session, "b", &tag); }});
    ASSERT_TRUE(blocked(waiting));
    solEmu_endSessions(hostPort.c_str());
    EXPECT_EQ(std::vector<int>(2, SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED), outcomes(waiting));
    solEmu_holdDeliveries(0);
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_DOWN_ERROR));
    ASSERT_TRUE(harness.waitForEvent(true, SOLCLIENT_FLOW_EVENT_SESSION_DOWN));

    EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(session));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE, 2));
    EXPECT_EQ(SOLCLIENT_OK, harness.publish(session, "#emulator/down", ""));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_DOWN_ERROR, 2));
    EXPECT_EQ(SOLCLIENT_OK, solClient_flow_destroy(&flow));
}

}  // namespace
