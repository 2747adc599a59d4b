// A session's life: the property list it gives the library, its connection
// data, connecting and disconnecting, the session events, and work queued
// while it is down.
#include <sstream>

#include "AdapterTest.h"
#include "solace/LibraryException.h"
#include "solace/RuntimeException.h"

namespace KW {
namespace Solace {
namespace Test {
namespace {

using Session = AdapterTest;

// The strings of the last property list the library was given.
std::vector<std::string> lastSessionProperties() {
    std::string buffer(8192, '\0');
    buffer.resize(std::min(solEmu_lastSessionProperties(&buffer[0], buffer.size()), buffer.size()));
    std::vector<std::string> strings;
    std::stringstream in(buffer + "\n");
    for (std::string line; std::getline(in, line);) {
        strings.push_back(line);
    }
    return strings;
}

std::vector<int> states(EventRecorder& events) {
    std::vector<int> result;
    for (auto const& e : events.of(STATE)) {
        result.push_back(e.number);
    }
    return result;
}

TEST_F(Session, PlainTcpPropertyListIsCompleteAndInOrder) {
    auto data = connectionData();
    data["user"] = "";  // passed as "", never left out
    makeClient(data);
    std::vector<std::string> const expected = {"SESSION_HOST",
                                               "tcp:localhost:55555",
                                               "SESSION_VPN_NAME",
                                               "default",
                                               "SESSION_USERNAME",
                                               "",
                                               "SESSION_PASSWORD",
                                               "secret",
                                               "SESSION_SSL_VALIDATE_CERTIFICATE",
                                               "0",
                                               "SESSION_CONNECT_BLOCKING",
                                               "0",
                                               "SESSION_CONNECT_RETRIES",
                                               "-1",
                                               "SESSION_CONNECT_TIMEOUT_MS",
                                               "10000",
                                               "SESSION_RECONNECT_RETRIES",
                                               "-1",
                                               "SESSION_RECONNECT_RETRY_WAIT_MS",
                                               "1000",
                                               "SESSION_SOCKET_SEND_BUF_SIZE",
                                               "10000000",
                                               "SESSION_SOCKET_RCV_BUF_SIZE",
                                               "10000000",
                                               "SESSION_TOPIC_DISPATCH",
                                               "1",
                                               "SESSION_REAPPLY_SUBSCRIPTIONS",
                                               "1",
                                               "SESSION_SUBSCRIBE_BLOCKING",
                                               "0",
                                               "SESSION_IGNORE_DUP_SUBSCRIPTION_ERROR",
                                               "0"};
    EXPECT_EQ(lastSessionProperties(), expected);
}

TEST_F(Session, SslPutsTheCertificateBlockAfterTheCredentials) {
    for (std::string on : {"yes", "on", "true", "1"}) {
        auto data = connectionData();
        data["use_ssl"] = on;
        data["trust_store"] = "/etc/ssl/certs";
        makeClient(data);
        auto const p = lastSessionProperties();
        ASSERT_EQ(p.size(), 40u) << on;
        EXPECT_EQ(p[1], "tcps:localhost:55555");
        EXPECT_EQ(std::vector<std::string>(p.begin() + 8, p.begin() + 20),
                  (std::vector<std::string>{
                      "SESSION_SSL_CIPHER_SUITES", p[9], "SESSION_SSL_EXCLUDED_PROTOCOLS", "SSLv3",
                      "SESSION_SSL_VALIDATE_CERTIFICATE", "1",
                      "SESSION_SSL_VALIDATE_CERTIFICATE_DATE", "1", "SESSION_SSL_TRUST_STORE_DIR",
                      "/etc/ssl/certs", "SESSION_CONNECT_BLOCKING", "0"}));
        EXPECT_EQ(std::count(p[9].begin(), p[9].end(), ','), 11);
    }
    for (std::string off : {"TRUE", "false", "0", ""}) {
        auto data = connectionData();
        data["use_ssl"] = off;
        makeClient(data);
        EXPECT_EQ(lastSessionProperties().size(), 32u) << off;
    }
}

TEST_F(Session, MissingConnectionKeysAreNamed) {
    auto expectMissing = [this](Data data, std::string const& key) {
        try {
            makeClient(data);
            ADD_FAILURE() << "accepted without " << key;
        } catch (RuntimeException const& e) {
            EXPECT_EQ(std::string(e.what()),
                      "invalid destination 'dev', missing parameter '" + key + "'");
        }
    };
    auto data = connectionData();
    data.erase("host");
    data.erase("port");
    expectMissing(data, "host");  // host is read before port
    data["host"] = "localhost";
    expectMissing(data, "port");
    data = connectionData();
    data["vpn"] = "";  // empty counts as missing
    expectMissing(data, "vpn");
    EXPECT_EQ(solEmu_liveSessions(), 0);
    makeClient({{"host", "h"}, {"port", "1"}, {"vpn", "v"}});  // the rest is optional
}

TEST_F(Session, ConnectingWithoutWaitToADownBrokerReportsWhenItComesUp) {
    solEmu_setBrokerUp(HOST_PORT, 0);
    auto client = makeClient();
    EXPECT_EQ(client->connect(0), 1);
    EXPECT_EQ(client->connect(300), 0);
    EXPECT_NE(client->getConnectionState(), CONNECTED);
    solEmu_setBrokerUp(HOST_PORT, 1);
    EXPECT_TRUE(events->waitForState(CONNECTED));
    // Connected: connect returns at once without calling the library.
    solEmu_failNext("solClient_session_connect", 1, SOLCLIENT_FAIL, 6, "must not be called");
    EXPECT_EQ(client->connect(1000), 1);
    client->disconnect(0);
    EXPECT_THROW(client->connect(0), LibraryException);
}

TEST_F(Session, ARefusedLoginFailsOnlyAfterTheWholeWait) {
    solEmu_refuseUser("mallory");
    auto client = makeClient(connectionData("mallory"));
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(client->connect(400), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 350ms);
    EXPECT_TRUE(events->waitForState(Impl::Connection::FAILED));
    EXPECT_EQ(client->getConnectionState(), Impl::Connection::FAILED);
}

TEST_F(Session, StateChangesAreReportedOnceEach) {
    auto client = connectedClient();
    events->clear();
    solEmu_setBrokerUp(HOST_PORT, 0);
    EXPECT_TRUE(events->waitForState(Impl::Connection::CONNECTING));
    solEmu_setBrokerUp(HOST_PORT, 1);
    EXPECT_TRUE(events->waitFor(STATE, 2));
    client->disconnect(0);
    client->disconnect(0);  // already disconnected: nobody is told
    EXPECT_EQ(states(*events), (std::vector<int>{Impl::Connection::CONNECTING, CONNECTED,
                                                 Impl::Connection::DISCONNECTED}));
}

TEST_F(Session, WorkQueuedWhileDownWaitsAndFlowsOnceUp) {
    auto client = makeClient();
    auto tag = std::make_shared<Tag>(1);
    ASSERT_TRUE(client->subscribe(makeHandler(), "queued", KW::QOS::AT_MOST_ONCE, tag));
    ASSERT_TRUE(client->publish(packet("early"), "queued", KW::QOS::AT_MOST_ONCE, tag, true));
    ASSERT_TRUE(client->forward(nullptr, "queued", KW::QOS::AT_MOST_ONCE, tag, true));
    EXPECT_FALSE(events->waitFor(SENT, 1, 200ms));  // nothing is tried while down
    EXPECT_EQ(events->all().size(), 0u);
    ASSERT_EQ(client->connect(5000), 1);
    EXPECT_TRUE(events->waitFor(CREATED, 1));
    EXPECT_TRUE(events->waitFor(SENT, 2));
    client->disconnect(0);  // parks new work again
    client->publish(packet("late"), "queued", KW::QOS::AT_MOST_ONCE, tag, true);
    EXPECT_FALSE(events->waitFor(SENT, 3, 200ms));
    ASSERT_EQ(client->connect(5000), 1);
    EXPECT_TRUE(events->waitFor(SENT, 3));
}

}  // namespace
}  // namespace Test
}  // namespace Solace
}  // namespace KW
