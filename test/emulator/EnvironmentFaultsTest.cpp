// Runs with the SOLCLIENT_EMULATOR_* variables set by ctest (see
// CMakeLists.txt): the forms a JavaScript test uses instead of solEmu_* calls.

#include "Harness.h"

namespace {

TEST(EnvironmentFaults, VariablesReadAtInitializeShapeTheBrokers) {
    // The first initialize fails as the variable says, the next one works.
    EXPECT_EQ(SOLCLIENT_FAIL, solClient_initialize(SOLCLIENT_LOG_NOTICE, nullptr));
    EXPECT_STREQ("env init failure", solClient_getLastErrorInfo()->errorStr);
    EXPECT_EQ(6, solClient_getLastErrorInfo()->subCode);

    Harness harness;  // initializes again
    EXPECT_EQ(0, solEmu_queueDepth("envq1"));
    EXPECT_EQ(0, solEmu_queueDepth("envq2"));
    EXPECT_EQ(-1, solEmu_queueDepth("other"));

    auto session = harness.connected("env.host:1");
    EXPECT_EQ(SOLCLIENT_FAIL, harness.publish(session, "t", "x"));
    EXPECT_STREQ("env send failure", solClient_getLastErrorInfo()->errorStr);
    EXPECT_EQ(SOLCLIENT_OK, harness.publish(session, "t", "x"));

    int tag = 0;
    EXPECT_EQ(SOLCLIENT_FAIL, harness.subscribe(session, "denied/topic", &tag));
    EXPECT_EQ(SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED, solClient_getLastErrorInfo()->subCode);
    EXPECT_EQ(SOLCLIENT_OK, harness.subscribe(session, "allowed/topic", &tag));

    int sent = 0;
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "envq1", "r", &sent));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR));
    EXPECT_EQ(&sent, harness.events().back().correlation);
    EXPECT_EQ(0, solEmu_queueDepth("envq1"));

    auto refused = harness.createSession("env.host:1", {{"SESSION_USERNAME", "baduser"}});
    EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(refused));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_CONNECT_FAILED_ERROR));

    // A broker listed as down: the connect waits (retries -1) until it is up.
    auto waiting = harness.createSession("down.host:1");
    EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(waiting));
    EXPECT_EQ(1u, harness.countEvents(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE));
    solEmu_setBrokerUp("down.host:1", 1);
    EXPECT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE, 2));
}

}  // namespace
