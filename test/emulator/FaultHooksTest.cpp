#include "Harness.h"

namespace {

using FaultHooks = EmulatorTest;

TEST_F(FaultHooks, FailNextAndRefusedSubscriptions) {
    auto session = harness.connected(hostPort);
    EXPECT_EQ(-1, solEmu_failNext("solClient_no_such_function", 1, -1, 6, "x"));
    ASSERT_EQ(0, solEmu_failNext("solClient_session_sendMsg", 2, SOLCLIENT_NOT_READY, 14,
                                 "injected failure"));
    EXPECT_EQ(SOLCLIENT_NOT_READY, harness.publish(session, "t", "1"));
    EXPECT_EQ(14, solClient_getLastErrorInfo()->subCode);
    EXPECT_STREQ("injected failure", solClient_getLastErrorInfo()->errorStr);
    EXPECT_EQ(SOLCLIENT_NOT_READY, harness.publish(session, "t", "2"));
    EXPECT_EQ(SOLCLIENT_OK, harness.publish(session, "t", "3"));

    // Count 0 disarms. (Create failures are armed by the adapter's library tests.)
    ASSERT_EQ(0, solEmu_failNext("solClient_msg_alloc", 5, -1, 7, "no memory"));
    ASSERT_EQ(0, solEmu_failNext("solClient_msg_alloc", 0, 0, 0, nullptr));
    solClient_opaqueMsg_pt msg = nullptr;
    ASSERT_EQ(SOLCLIENT_OK, solClient_msg_alloc(&msg));
    ASSERT_EQ(SOLCLIENT_OK, solClient_msg_free(&msg));

    // A refused subscription fails, or with REQUEST_CONFIRM raises SUBSCRIPTION_ERROR.
    solEmu_refuseSubscriptions("secret/>", SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED);
    int tag = 0;
    EXPECT_EQ(SOLCLIENT_FAIL, harness.subscribe(session, "secret/>", &tag));
    EXPECT_EQ(SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED, solClient_getLastErrorInfo()->subCode);
    EXPECT_EQ(SOLCLIENT_OK, harness.subscribe(session, "public", &tag));
    EXPECT_EQ(SOLCLIENT_IN_PROGRESS, harness.subscribe(session, "secret/>", &tag,
                                                       SOLCLIENT_SUBSCRIBE_FLAGS_REQUEST_CONFIRM));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR));
    EXPECT_EQ(&tag, harness.events().back().correlation);

    solEmu_refuseSubscriptions(nullptr, SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT);
    EXPECT_EQ(SOLCLIENT_FAIL, harness.unsubscribe(session, "public", &tag));
    EXPECT_EQ(SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT,
              solClient_getLastErrorInfo()->subCode);
    solEmu_refuseSubscriptions(nullptr, 0);
    EXPECT_EQ(SOLCLIENT_OK, harness.unsubscribe(session, "public", &tag));
}

TEST_F(FaultHooks, CallsBeforeInitializeAndAfterCleanupFail) {
    ASSERT_EQ(SOLCLIENT_OK, solClient_cleanup());  // also destroys the harness's context
    solClient_opaqueMsg_pt msg = nullptr;
    EXPECT_EQ(SOLCLIENT_FAIL, solClient_msg_alloc(&msg));
    EXPECT_EQ(SOLCLIENT_SUBCODE_INIT_NOT_CALLED, solClient_getLastErrorInfo()->subCode);
    ASSERT_EQ(0, solEmu_failNext("solClient_initialize", 1, -1, 6, "init refused"));
    EXPECT_EQ(SOLCLIENT_FAIL, solClient_initialize(SOLCLIENT_LOG_NOTICE, nullptr));
    EXPECT_EQ(SOLCLIENT_OK, solClient_initialize(SOLCLIENT_LOG_NOTICE, nullptr));
    EXPECT_EQ(0, solEmu_liveSessions());
}

}  // namespace
