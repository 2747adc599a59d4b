#include <cstring>
#include <filesystem>

#include "EmulatorTest.h"

namespace {

struct BadProperty {
    const char* name;
    const char* value;
};

class SessionProperties : public EmulatorTest, public ::testing::WithParamInterface<BadProperty> {};

TEST_P(SessionProperties, MalformedValuesAreRefusedNamingTheProperty) {
    const BadProperty& bad = GetParam();
    EXPECT_EQ(nullptr, harness.createSession(hostPort, {bad.name, bad.value}));
    const solClient_errorInfo_t* info = solClient_getLastErrorInfo();
    EXPECT_EQ(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, info->subCode);
    EXPECT_EQ(0u, info->responseCode);
    EXPECT_NE(nullptr, std::strstr(info->errorStr, bad.name)) << info->errorStr;
    // The refused list is still recorded.
    char buffer[2048];
    solEmu_lastSessionProperties(buffer, sizeof(buffer));
    EXPECT_NE(nullptr, std::strstr(buffer, (std::string(bad.name) + "\n" + bad.value).c_str()));
}

INSTANTIATE_TEST_SUITE_P(Checks, SessionProperties,
                         ::testing::Values(BadProperty{"SESSION_HOST", "localhost:55555"},
                                           BadProperty{"SESSION_HOST", "tcp:localhost"},
                                           BadProperty{"SESSION_HOST", "tcp:localhost:port"},
                                           BadProperty{"SESSION_HOST", "http:localhost:80"},
                                           BadProperty{"SESSION_CONNECT_RETRIES", "forever"},
                                           BadProperty{"SESSION_CONNECT_RETRIES", "-2"},
                                           BadProperty{"SESSION_CONNECT_TIMEOUT_MS", "0"},
                                           BadProperty{"SESSION_RECONNECT_RETRY_WAIT_MS", "1s"},
                                           BadProperty{"SESSION_TOPIC_DISPATCH", "true"},
                                           BadProperty{"SESSION_CONNECT_BLOCKING", ""},
                                           BadProperty{"SESSION_SOCKET_RCV_BUF_SIZE", "-5"},
                                           BadProperty{"SESSION_COMPRESSION_LEVEL", "1"}));

using SessionSetup = EmulatorTest;

TEST_F(SessionSetup, RecordsTheListAndChecksRecordSizes) {
    auto session = harness.createSession(hostPort, {"SESSION_USERNAME", "alice"});
    ASSERT_NE(nullptr, session);
    std::string recorded(4096, '\0');
    const size_t length = solEmu_lastSessionProperties(recorded.data(), recorded.size());
    recorded.resize(length);
    EXPECT_EQ(0u, recorded.find("SESSION_HOST\ntcp:" + hostPort + "\n"));
    EXPECT_NE(std::string::npos, recorded.find("SESSION_USERNAME\nalice"));
    EXPECT_NE(std::string::npos, recorded.find("SESSION_PASSWORD\n\n"));  // empty value kept
    char small[8];
    EXPECT_EQ(length, solEmu_lastSessionProperties(small, sizeof(small)));
    EXPECT_EQ('\0', small[7]);

    solClient_session_createFuncInfo_t funcs{};
    solClient_opaqueSession_pt other = nullptr;
    const char* props[] = {"SESSION_HOST", "tcp:h:1", nullptr};
    EXPECT_EQ(SOLCLIENT_FAIL,
              solClient_session_create(props, harness.context(), &other, &funcs, 40));
    EXPECT_EQ(nullptr, other);
}

TEST_F(SessionSetup, LoginVpnAndTrustStoreFailuresComeAsConnectFailed) {
    solEmu_refuseUser("mallory");
    const auto tmp = std::filesystem::temp_directory_path().string();
    struct Case {
        std::vector<std::string> props;
        int subCode;
    };
    const std::vector<Case> cases = {
        {{"SESSION_USERNAME", "mallory"}, SOLCLIENT_SUBCODE_LOGIN_FAILURE},
        {{"SESSION_VPN_NAME", ""}, SOLCLIENT_SUBCODE_MSG_VPN_NOT_ALLOWED},
        {{"SESSION_HOST", "tcps:" + hostPort, "SESSION_SSL_VALIDATE_CERTIFICATE", "1",
          "SESSION_SSL_TRUST_STORE_DIR", "/no/such/dir"},
         SOLCLIENT_SUBCODE_COMMUNICATION_ERROR},
    };
    size_t failures = 0;
    for (const auto& c : cases) {
        auto session = harness.createSession(hostPort, c.props);
        ASSERT_NE(nullptr, session);
        EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(session));
        ASSERT_TRUE(
            harness.waitForEvent(false, SOLCLIENT_SESSION_EVENT_CONNECT_FAILED_ERROR, ++failures));
        // Blocking connect reports the same failure directly.
        auto blocking = harness.createSession(hostPort, c.props);
        std::vector<std::string> withBlocking = c.props;
        EXPECT_EQ(SOLCLIENT_OK, solClient_session_destroy(&blocking));
        withBlocking.insert(withBlocking.end(), {"SESSION_CONNECT_BLOCKING", "1"});
        blocking = harness.createSession(hostPort, withBlocking);
        EXPECT_EQ(SOLCLIENT_FAIL, solClient_session_connect(blocking));
        EXPECT_EQ(c.subCode, solClient_getLastErrorInfo()->subCode);
        ++failures;
    }
    // A trust store that exists lets a TLS session up.
    harness.connected(hostPort,
                      {"SESSION_HOST", "tcps:" + hostPort, "SESSION_SSL_VALIDATE_CERTIFICATE", "1",
                       "SESSION_SSL_TRUST_STORE_DIR", tmp});
    const auto version = [] {
        solClient_version_info_pt v = nullptr;
        EXPECT_EQ(SOLCLIENT_OK, solClient_version_get(&v));
        return v;
    }();
    EXPECT_NE(nullptr, std::strstr(version->variant_p, "emulator"));
}

}  // namespace
