#include <cstring>
#include <filesystem>

#include "Harness.h"

namespace {

using Property = Props::value_type;

class SessionProperties : public EmulatorTest, public ::testing::WithParamInterface<Property> {};

TEST_P(SessionProperties, MalformedValuesAreRefusedNamingTheProperty) {
    auto const& [name, value] = GetParam();
    EXPECT_EQ(nullptr, harness.createSession(hostPort, {GetParam()}));
    solClient_errorInfo_t const* info = solClient_getLastErrorInfo();
    EXPECT_EQ(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, info->subCode);
    EXPECT_EQ(0u, info->responseCode);
    EXPECT_NE(nullptr, std::strstr(info->errorStr, name.c_str())) << info->errorStr;
    // The refused list is still recorded.
    char buffer[2048];
    solEmu_lastSessionProperties(buffer, sizeof(buffer));
    EXPECT_NE(nullptr, std::strstr(buffer, (name + "\n" + value).c_str()));
}

INSTANTIATE_TEST_SUITE_P(Checks, SessionProperties,
                         ::testing::Values(Property{"SESSION_HOST", "localhost:55555"},
                                           Property{"SESSION_HOST", "tcp:localhost"},
                                           Property{"SESSION_HOST", "tcp:localhost:port"},
                                           Property{"SESSION_HOST", "http:localhost:80"},
                                           Property{"SESSION_CONNECT_RETRIES", "forever"},
                                           Property{"SESSION_CONNECT_RETRIES", "-2"},
                                           Property{"SESSION_CONNECT_TIMEOUT_MS", "0"},
                                           Property{"SESSION_RECONNECT_RETRY_WAIT_MS", "1s"},
                                           Property{"SESSION_TOPIC_DISPATCH", "true"},
                                           Property{"SESSION_CONNECT_BLOCKING", ""},
                                           Property{"SESSION_SOCKET_RCV_BUF_SIZE", "-5"},
                                           Property{"SESSION_PUB_WINDOW_SIZE", "256"},
                                           Property{"SESSION_SEND_BLOCKING", "yes"},
                                           Property{"SESSION_SUBCONFIRM_TIMEOUT_MS", "0"},
                                           Property{"SESSION_COMPRESSION_LEVEL", "1"}));

using SessionSetup = EmulatorTest;

// The recorded list itself is compared whole by the adapter's session tests.
TEST_F(SessionSetup, RecordedListIsTruncatedToTheBufferAndRecordSizesAreChecked) {
    ASSERT_NE(nullptr, harness.createSession(hostPort));
    std::string whole(4096, '\0');
    char small[8];
    EXPECT_EQ(solEmu_lastSessionProperties(whole.data(), whole.size()),
              solEmu_lastSessionProperties(small, sizeof(small)));
    EXPECT_EQ(whole.substr(0, 7), std::string(small));  // the terminator in the last byte

    solClient_session_createFuncInfo_t funcs{};
    solClient_opaqueSession_pt other = nullptr;
    char const* props[] = {"SESSION_HOST", "tcp:h:1", nullptr};
    EXPECT_EQ(SOLCLIENT_FAIL,
              solClient_session_create(props, harness.context(), &other, &funcs, 40));
    EXPECT_EQ(nullptr, other);
}

// Each failure comes as CONNECT_FAILED from a non-blocking connect and as the
// return code from a blocking one; a trust store that exists lets TLS up.
TEST_F(SessionSetup, LoginVpnAndTrustStoreFailuresComeAsConnectFailed) {
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
        auto session = harness.createSession(hostPort, props);
        ASSERT_NE(nullptr, session);
        EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(session));
        ASSERT_TRUE(
            harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_CONNECT_FAILED_ERROR, ++failures));
        props.push_back({"SESSION_CONNECT_BLOCKING", "1"});
        EXPECT_EQ(SOLCLIENT_FAIL,
                  solClient_session_connect(harness.createSession(hostPort, props)));
        EXPECT_EQ(subCode, solClient_getLastErrorInfo()->subCode);
        ++failures;  // it raises the event as well
    }
    Props trusted = tls;
    trusted.back().second = std::filesystem::temp_directory_path().string();
    harness.connected(hostPort, trusted);
}

}  // namespace
