// Runs with the SOLCLIENT_EMULATOR_* variables set by ctest (see
// CMakeLists.txt) that the JavaScript suites leave out.

#include "Harness.h"

namespace {

TEST(EnvironmentFaults, VariablesReadAtInitializeShapeTheBrokers) {
    // The first initialize fails as the variable says, the next one works.
    EXPECT_EQ(6, failure(solClient_initialize(SOLCLIENT_LOG_NOTICE, nullptr)));
    EXPECT_STREQ("env init failure", solClient_getLastErrorInfo()->errorStr);
    Harness harness;
    auto session = harness.connected("env.host:1");
    EXPECT_EQ(14, failure(harness.publish(session, "t", "x")));
    EXPECT_STREQ("env send failure", solClient_getLastErrorInfo()->errorStr);
    EXPECT_EQ(SOLCLIENT_OK, harness.publish(session, "t", "x"));

    int sent = 0;
    ASSERT_EQ(SOLCLIENT_OK, harness.sendGuaranteed(session, "envq", "r", &sent));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR));
    SeenEvent const rejected = harness.last(false, SOLCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR);
    EXPECT_EQ(&sent, rejected.correlation);
    EXPECT_EQ(400u, rejected.responseCode);  // by the acknowledgement mode, not as unknown
    EXPECT_EQ(0, solEmu_queueDepth("envq"));
}

}  // namespace
