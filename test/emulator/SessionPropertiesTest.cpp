#include <cstring>
#include <filesystem>

#include "Harness.h"

namespace {

using Properties = EmulatorTest;
using FaultHooks = EmulatorTest;

// A refused list is still recorded (the accepted one is compared whole by
// the adapter's session tests).
TEST_F(Properties, MalformedSessionAndFlowPropertiesAreRefusedNamingTheProperty) {
    auto const refused = [](Props::value_type const& property, auto recorded) {
        solClient_errorInfo_t const* info = solClient_getLastErrorInfo();
        EXPECT_EQ(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, info->subCode);
        EXPECT_EQ(0u, info->responseCode);
        EXPECT_NE(nullptr, std::strstr(info->errorStr, property.first.c_str())) << info->errorStr;
        char buffer[2048];
        recorded(buffer, sizeof(buffer));
        EXPECT_NE(nullptr, std::strstr(buffer, (property.first + "\n" + property.second).c_str()));
    };
    const Props session = {
        {"SESSION_HOST", "localhost:55555"},    {"SESSION_HOST", "tcp:localhost"},
        {"SESSION_HOST", "tcp:localhost:port"}, {"SESSION_HOST", "http:localhost:80"},
        {"SESSION_CONNECT_RETRIES", "forever"}, {"SESSION_CONNECT_RETRIES", "-2"},
        {"SESSION_CONNECT_TIMEOUT_MS", "0"},    {"SESSION_RECONNECT_RETRY_WAIT_MS", "1s"},
        {"SESSION_TOPIC_DISPATCH", "true"},     {"SESSION_CONNECT_BLOCKING", ""},
        {"SESSION_SOCKET_RCV_BUF_SIZE", "-5"},  {"SESSION_PUB_WINDOW_SIZE", "256"},
        {"SESSION_SEND_BLOCKING", "yes"},       {"SESSION_SUBCONFIRM_TIMEOUT_MS", "0"},
        {"SESSION_COMPRESSION_LEVEL", "1"}};
    for (auto const& property : session) {
        SCOPED_TRACE(property.first + "=" + property.second);
        EXPECT_EQ(nullptr, harness.createSession(hostPort, {property}));
        refused(property, solEmu_lastSessionProperties);
    }
    // The record is truncated to the buffer, with the terminator in the last
    // byte; a funcInfo of the wrong size is refused.
    std::string whole(4096, '\0');
    char small[8];
    EXPECT_EQ(solEmu_lastSessionProperties(whole.data(), whole.size()),
              solEmu_lastSessionProperties(small, sizeof(small)));
    EXPECT_EQ(whole.substr(0, 7), std::string(small));
    solClient_session_createFuncInfo_t funcs{};
    solClient_opaqueSession_pt other = nullptr;
    char const* props[] = {"SESSION_HOST", "tcp:h:1", nullptr};
    EXPECT_EQ(SOLCLIENT_FAIL, solClient_session_create(props, harness.context, &other, &funcs, 40));
    EXPECT_EQ(nullptr, other);

    auto connected = harness.connected(hostPort);
    const Props flow = {{"FLOW_BIND_ENTITY_ID", "1"}, {"FLOW_ACKMODE", "3"},
                        {"FLOW_WINDOWSIZE", "0"},     {"FLOW_WINDOWSIZE", "ten"},
                        {"FLOW_START_STATE", "yes"},  {"FLOW_NO_SUCH", "1"}};
    for (auto const& property : flow) {
        SCOPED_TRACE(property.first + "=" + property.second);
        solClient_opaqueFlow_pt created = nullptr;
        EXPECT_EQ(SOLCLIENT_FAIL, harness.createFlow(connected, "q", created, {property}));
        EXPECT_EQ(nullptr, created);
        refused(property, solEmu_lastFlowProperties);
    }
}

// A non-blocking connect fails as CONNECT_FAILED, a blocking one by NOT_READY and the event.
TEST_F(Properties, LoginVpnAndTrustStoreFailuresComeAsConnectFailed) {
    solEmu_refuseUser("mallory");
    const Props tls = {{"SESSION_HOST", "tcps:" + hostPort},
                       {"SESSION_SSL_VALIDATE_CERTIFICATE", "1"},
                       {"SESSION_SSL_TRUST_STORE_DIR", "/no/such/dir"}};
    const std::vector<std::pair<Props, int>> cases = {
        {{{"SESSION_USERNAME", "mallory"}}, SOLCLIENT_SUBCODE_LOGIN_FAILURE},
        {{{"SESSION_VPN_NAME", ""}}, SOLCLIENT_SUBCODE_MSG_VPN_NOT_ALLOWED},
        {tls, SOLCLIENT_SUBCODE_COMMUNICATION_ERROR}};
    size_t failures = 0;
    for (auto [props, subCode] : cases) {
        EXPECT_EQ(SOLCLIENT_IN_PROGRESS,
                  solClient_session_connect(harness.createSession(hostPort, props)));
        ASSERT_TRUE(
            harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_CONNECT_FAILED_ERROR, ++failures));
        props.push_back({"SESSION_CONNECT_BLOCKING", "1"});
        EXPECT_EQ(SOLCLIENT_NOT_READY,
                  solClient_session_connect(harness.createSession(hostPort, props)));
        EXPECT_EQ(subCode, solClient_getLastErrorInfo()->subCode);
        ++failures;  // it raises the event as well
    }
    Props trusted = tls;
    trusted.back().second = std::filesystem::temp_directory_path().string();
    trusted.push_back({"SESSION_CONNECT_BLOCKING", "1"});
    auto session = harness.createSession(hostPort, trusted);
    EXPECT_EQ(SOLCLIENT_OK, solClient_session_connect(session));
    EXPECT_EQ(SOLCLIENT_OK, solClient_session_disconnect(session));
    int tag = 0;
    EXPECT_EQ(SOLCLIENT_FAIL, harness.subscribe(session, "a", &tag));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE));
    harness.connected(hostPort);  // its UP_NOTICE comes after anything for the disconnect
    EXPECT_EQ(failures + 2, harness.events().size());  // the UP_NOTICEs only
}

TEST_F(FaultHooks, FailNextRefusedSubscriptionsAndCleanup) {
    auto session = harness.connected(hostPort);
    EXPECT_EQ(-1, solEmu_failNext("solClient_no_such_function", 1, -1, 6, "x"));
    ASSERT_EQ(0, solEmu_failNext("solClient_session_sendMsg", 2, SOLCLIENT_NOT_READY, 14,
                                 "injected failure"));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(SOLCLIENT_NOT_READY, harness.publish(session, "t", "p"));
        EXPECT_EQ(14, solClient_getLastErrorInfo()->subCode);
        EXPECT_STREQ("injected failure", solClient_getLastErrorInfo()->errorStr);
    }
    ASSERT_EQ(0, solEmu_failNext("solClient_msg_alloc", 5, -1, 7, "no memory"));
    ASSERT_EQ(0, solEmu_failNext("solClient_msg_alloc", 0, 0, 0, nullptr));
    EXPECT_EQ(SOLCLIENT_OK, harness.publish(session, "t", "p"));  // allocates a message
    // The record lasts only until the thread's next call.
    EXPECT_EQ(SOLCLIENT_SUBCODE_OK, solClient_getLastErrorInfo()->subCode);
    EXPECT_STREQ("", solClient_getLastErrorInfo()->errorStr);

    int tag = 0;
    solEmu_refuseSubscriptions("secret/>", SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED);
    EXPECT_EQ(SOLCLIENT_OK, harness.subscribe(session, "public", &tag));
    EXPECT_EQ(SOLCLIENT_IN_PROGRESS, harness.subscribe(session, "secret/>", &tag,
                                                       SOLCLIENT_SUBSCRIBE_FLAGS_REQUEST_CONFIRM));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR));
    EXPECT_EQ(&tag, harness.last(false, SOLCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR).correlation);
    solEmu_refuseSubscriptions(nullptr, SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT);
    EXPECT_EQ(SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT,
              failure(harness.unsubscribe(session, "public", &tag)));
    solEmu_refuseSubscriptions(nullptr, 0);
    EXPECT_EQ(SOLCLIENT_OK, harness.unsubscribe(session, "public", &tag));
    // An explicit disconnect drops the subscriptions (by default): subscribing again is new.
    EXPECT_EQ(SOLCLIENT_OK, harness.subscribe(session, "public", &tag));
    EXPECT_EQ(SOLCLIENT_OK, solClient_session_disconnect(session));
    EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(session));
    ASSERT_TRUE(harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE, 2));
    EXPECT_EQ(SOLCLIENT_OK, harness.subscribe(session, "public", &tag));

    ASSERT_EQ(SOLCLIENT_OK, solClient_cleanup());  // also destroys the harness's context
    solClient_opaqueMsg_pt msg = nullptr;
    EXPECT_EQ(SOLCLIENT_SUBCODE_INIT_NOT_CALLED, failure(solClient_msg_alloc(&msg)));
    EXPECT_EQ(SOLCLIENT_OK, solClient_initialize(SOLCLIENT_LOG_NOTICE, nullptr));
    EXPECT_EQ(0, solEmu_liveSessions());
}

}  // namespace
