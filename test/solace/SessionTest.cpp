// A session's life: the property list it gives the library, its connection
// data, connecting and disconnecting, the session events, and work queued
// while it is down.
#include <sstream>

#include "AdapterTest.h"
#include "solace/ClientTerminatedException.h"
#include "solace/LibraryException.h"
#include "solace/RuntimeException.h"

namespace KW {
namespace Solace {
namespace Test {
namespace {

std::vector<std::string> lastSessionProperties() {
    std::string buffer(8192, '\0');
    std::size_t const length = solEmu_lastSessionProperties(&buffer[0], buffer.size());
    buffer.resize(std::min(length, buffer.size() - 1));
    std::vector<std::string> strings;
    std::stringstream in(buffer);
    std::string line;
    while (std::getline(in, line)) {
        strings.push_back(line);
    }
    // An empty value at the very end leaves no line of its own.
    if (!buffer.empty() && buffer.back() == '\n') {
        strings.push_back("");
    }
    return strings;
}

std::string valueOf(std::vector<std::string> const& properties, std::string const& name) {
    for (std::size_t i = 0; i + 1 < properties.size(); i += 2) {
        if (properties[i] == name) {
            return properties[i + 1];
        }
    }
    return "<absent>";
}

std::vector<int> states(RecordingEventHandler& events) {
    std::vector<int> result;
    for (auto const& e : events.events(Event::STATE)) {
        result.push_back(e.state);
    }
    return result;
}

bool waitForState(RecordingEventHandler& events, int state) {
    return events.waitUntil(
        [state](std::vector<Event> const& all) {
            return std::any_of(all.begin(), all.end(), [state](Event const& e) {
                return e.kind == Event::STATE && e.state == state;
            });
        },
        5s);
}

using SessionProperties = AdapterTest;

TEST_F(SessionProperties, PlainTcpListIsComplete) {
    auto data = connectionData();
    data["user"] = "";  // an empty user is passed as "", never left out
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

TEST_F(SessionProperties, SslAddsTheCertificateBlock) {
    auto data = connectionData();
    data["use_ssl"] = "true";
    data["trust_store"] = "/etc/ssl/certs";
    makeClient(data);
    auto const properties = lastSessionProperties();
    ASSERT_EQ(properties.size(), 40u);
    EXPECT_EQ(valueOf(properties, "SESSION_HOST"), "tcps:localhost:55555");
    EXPECT_EQ(valueOf(properties, "SESSION_SSL_VALIDATE_CERTIFICATE"), "1");
    EXPECT_EQ(valueOf(properties, "SESSION_SSL_VALIDATE_CERTIFICATE_DATE"), "1");
    EXPECT_EQ(valueOf(properties, "SESSION_SSL_EXCLUDED_PROTOCOLS"), "SSLv3");
    EXPECT_EQ(valueOf(properties, "SESSION_SSL_TRUST_STORE_DIR"), "/etc/ssl/certs");
    std::string const ciphers = valueOf(properties, "SESSION_SSL_CIPHER_SUITES");
    EXPECT_EQ(ciphers.rfind("TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384,", 0), 0u);
    EXPECT_EQ(std::count(ciphers.begin(), ciphers.end(), ','), 11);
    // The block sits between the credentials and the connect settings.
    EXPECT_EQ(properties[8], "SESSION_SSL_CIPHER_SUITES");
    EXPECT_EQ(properties[16], "SESSION_SSL_TRUST_STORE_DIR");
    EXPECT_EQ(properties[18], "SESSION_CONNECT_BLOCKING");
}

TEST_F(SessionProperties, OnlyTheFourTrueWordsSwitchSslOn) {
    for (std::string value : {"yes", "on", "true", "1"}) {
        auto data = connectionData();
        data["use_ssl"] = value;
        makeClient(data);
        EXPECT_EQ(sessionOf(clients.back()).getConnection().getProtocol(), "tcps") << value;
    }
    for (std::string value : {"TRUE", "false", "0", "", "Yes"}) {
        auto data = connectionData();
        data["use_ssl"] = value;
        makeClient(data);
        EXPECT_EQ(sessionOf(clients.back()).getConnection().getProtocol(), "tcp") << value;
    }
}

TEST_F(SessionProperties, MissingConnectionKeysAreNamed) {
    auto expectMissing = [this](std::map<std::string, std::string> data, std::string key) {
        try {
            makeClient(data);
            ADD_FAILURE() << "accepted without " << key;
        } catch (RuntimeException const& e) {
            EXPECT_EQ(std::string(e.what()),
                      "invalid destination 'dev', missing parameter '" + key + "'");
            EXPECT_EQ(e.code(), 0);
        }
    };
    auto data = connectionData();
    data.erase("host");
    data.erase("port");
    expectMissing(data, "host");  // host is read before port
    data = connectionData();
    data.erase("port");
    expectMissing(data, "port");
    data = connectionData();
    data["vpn"] = "";  // empty counts as missing
    expectMissing(data, "vpn");
    EXPECT_EQ(solEmu_liveSessions(), 0);

    // Optional keys may be absent altogether.
    makeClient({{"host", HOST}, {"port", PORT}, {"vpn", "default"}});
    EXPECT_EQ(sessionOf(clients.back()).getConnection().getUser(), "");
}

using SessionConnect = AdapterTest;

TEST_F(SessionConnect, WithoutWaitingReturnsAtOnceAndReportsLater) {
    auto client = makeClient();
    EXPECT_EQ(client->connect(0), 1);
    ASSERT_TRUE(waitForState(*events, Impl::Connection::CONNECTED));
    EXPECT_EQ(client->getConnectionState(), Impl::Connection::CONNECTED);
}

TEST_F(SessionConnect, ToAConnectedSessionDoesNotCallTheLibrary) {
    auto client = connectedClient();
    ASSERT_EQ(solEmu_failNext("solClient_session_connect", 1, SOLCLIENT_FAIL,
                              SOLCLIENT_SUBCODE_INTERNAL_ERROR, "must not be called"),
              0);
    EXPECT_EQ(client->connect(1000), 1);
    solEmu_failNext("solClient_session_connect", 0, 0, 0, nullptr);
}

TEST_F(SessionConnect, ALibraryFailureIsThrown) {
    auto client = makeClient();
    ASSERT_EQ(solEmu_failNext("solClient_session_connect", 1, SOLCLIENT_FAIL,
                              SOLCLIENT_SUBCODE_INTERNAL_ERROR, "cannot connect"),
              0);
    try {
        client->connect(1000);
        FAIL() << "connect should have thrown";
    } catch (LibraryException const& e) {
        EXPECT_STREQ(e.what(), "cannot connect");
        EXPECT_EQ(e.getSubCode(), SOLCLIENT_SUBCODE_INTERNAL_ERROR);
    }
}

TEST_F(SessionConnect, ARefusedLoginFailsAfterTheWholeWait) {
    solEmu_refuseUser("mallory");
    auto client = makeClient(connectionData("mallory"));
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(client->connect(400), 0);
    // A failed connection does not end the wait early.
    EXPECT_GE(std::chrono::steady_clock::now() - start, 350ms);
    ASSERT_TRUE(waitForState(*events, Impl::Connection::FAILED));
    EXPECT_EQ(client->getConnectionState(), Impl::Connection::FAILED);
}

TEST_F(SessionConnect, ADownBrokerIsWaitedForUntilItComesUp) {
    solEmu_setBrokerUp(HOST_PORT, 0);
    auto client = makeClient();
    EXPECT_EQ(client->connect(300), 0);
    EXPECT_NE(client->getConnectionState(), Impl::Connection::CONNECTED);
    solEmu_setBrokerUp(HOST_PORT, 1);
    ASSERT_TRUE(waitForState(*events, Impl::Connection::CONNECTED));
    EXPECT_EQ(client->connect(0), 1);
}

TEST_F(SessionConnect, DisconnectNotifiesOnceAndOnlyWhenConnected) {
    auto client = connectedClient();
    events->clear();
    client->disconnect(0);
    EXPECT_EQ(client->getConnectionState(), Impl::Connection::DISCONNECTED);
    client->disconnect(0);
    EXPECT_EQ(states(*events), std::vector<int>{Impl::Connection::DISCONNECTED});
    // And it can connect again.
    EXPECT_EQ(client->connect(5000), 1);
}

TEST_F(SessionConnect, BrokerDropReportsReconnectingThenReconnected) {
    auto client = connectedClient();
    events->clear();
    solEmu_setBrokerUp(HOST_PORT, 0);
    ASSERT_TRUE(waitForState(*events, Impl::Connection::CONNECTING));
    EXPECT_EQ(client->getConnectionState(), Impl::Connection::CONNECTING);
    solEmu_setBrokerUp(HOST_PORT, 1);
    ASSERT_TRUE(waitForState(*events, Impl::Connection::CONNECTED));
    EXPECT_EQ(states(*events),
              (std::vector<int>{Impl::Connection::CONNECTING, Impl::Connection::CONNECTED}));
}

TEST_F(SessionConnect, WorkQueuedWhileDownWaitsAndFlowsOnceUp) {
    auto client = makeClient();
    auto handler = makeHandler();
    auto tag = std::make_shared<Tag>(1);
    ASSERT_TRUE(client->subscribe(handler, "queued/topic", KW::QOS::AT_MOST_ONCE, tag));
    ASSERT_TRUE(client->publish(packet("early"), "queued/topic", KW::QOS::AT_MOST_ONCE, tag, true));
    // Nothing is tried before the session is up.
    EXPECT_FALSE(events->waitFor(Event::SEND_FINALIZE, 1, 200ms));
    EXPECT_TRUE(events->events(Event::SEND_ERROR).empty());
    EXPECT_TRUE(events->events(Event::CREATE_FINALIZE).empty());

    ASSERT_EQ(client->connect(5000), 1);
    ASSERT_TRUE(events->waitFor(Event::CREATE_FINALIZE, 1, 5s));
    ASSERT_TRUE(events->waitFor(Event::SEND_FINALIZE, 1, 5s));
    EXPECT_EQ(events->events(Event::CREATE_FINALIZE)[0].reference, tag);
    EXPECT_EQ(events->events(Event::SEND_FINALIZE)[0].reference, tag);
}

TEST_F(SessionConnect, DisconnectParksQueuedWorkUntilTheNextConnect) {
    auto client = connectedClient();
    client->disconnect(0);
    ASSERT_TRUE(client->publish(packet("later"), "parked", KW::QOS::AT_MOST_ONCE,
                                std::make_shared<Tag>(7), true));
    EXPECT_FALSE(events->waitFor(Event::SEND_FINALIZE, 1, 200ms));
    ASSERT_EQ(client->connect(5000), 1);
    ASSERT_TRUE(events->waitFor(Event::SEND_FINALIZE, 1, 5s));
    EXPECT_EQ(std::dynamic_pointer_cast<Tag>(events->events(Event::SEND_FINALIZE)[0].reference)->id,
              7);
}

using SessionClients = AdapterTest;

TEST_F(SessionClients, OneLiveClientAtATime) {
    auto client = makeClient();
    Impl::Session& session = sessionOf(client);
    EXPECT_EQ(std::static_pointer_cast<KW::Client>(session.createClient()), client);

    clients.clear();
    client.reset();
    EXPECT_THROW(session.getClient(), ClientTerminatedException);
    // Once released, the session hands out a new one; it is told of states.
    clients.push_back(session.createClient());
    EXPECT_EQ(clients.back()->connect(5000), 1);
    EXPECT_TRUE(waitForState(*events, Impl::Connection::CONNECTED));
}

}  // namespace
}  // namespace Test
}  // namespace Solace
}  // namespace KW
