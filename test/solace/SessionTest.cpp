// A session's life: the property list it gives the library, its connection
// data, connecting and disconnecting, the session events, and work queued
// while it is down.
#include <sstream>

#include "AdapterTest.h"
#include "solace/LibraryException.h"
#include "solace/RuntimeException.h"

namespace KW::Solace::Test {

using Session = AdapterTest;

// The last property list the library was given, as "NAME=value" pairs
// separated by spaces.
std::string sessionProperties() {
    std::string buffer(8192, '\0');
    buffer.resize(std::min(solEmu_lastSessionProperties(&buffer[0], buffer.size()), buffer.size()));
    std::string pairs;
    std::stringstream in(buffer + "\n");
    for (std::string name, value; std::getline(in, name);) {
        pairs += (pairs.empty() ? "" : " ") + name + (std::getline(in, value) ? "=" + value : "=?");
    }
    return pairs;
}

TEST_F(Session, PropertyListsForTcpAndTcpsAreCompleteAndInOrder) {
    // 16 pairs, 32 strings; the user is passed as "", never left out.
    std::string const tcp =
        "SESSION_HOST=tcp:localhost:55555 SESSION_VPN_NAME=default SESSION_USERNAME= "
        "SESSION_PASSWORD=secret SESSION_SSL_VALIDATE_CERTIFICATE=0 SESSION_CONNECT_BLOCKING=0 "
        "SESSION_CONNECT_RETRIES=-1 SESSION_CONNECT_TIMEOUT_MS=10000 SESSION_RECONNECT_RETRIES=-1 "
        "SESSION_RECONNECT_RETRY_WAIT_MS=1000 SESSION_SOCKET_SEND_BUF_SIZE=10000000 "
        "SESSION_SOCKET_RCV_BUF_SIZE=10000000 SESSION_TOPIC_DISPATCH=1 "
        "SESSION_REAPPLY_SUBSCRIPTIONS=1 SESSION_SUBSCRIBE_BLOCKING=0 "
        "SESSION_IGNORE_DUP_SUBSCRIPTION_ERROR=0";
    // tcps, 20 pairs: the certificate block takes the place of the plain flag.
    std::string tcps = tcp;
    tcps.replace(tcps.find("tcp:"), 3, "tcps");
    std::string const plain = "SESSION_SSL_VALIDATE_CERTIFICATE=0";
    tcps.replace(tcps.find(plain), plain.size(),
                 "SESSION_SSL_CIPHER_SUITES=* SESSION_SSL_EXCLUDED_PROTOCOLS=SSLv3 "
                 "SESSION_SSL_VALIDATE_CERTIFICATE=1 SESSION_SSL_VALIDATE_CERTIFICATE_DATE=1 "
                 "SESSION_SSL_TRUST_STORE_DIR=/etc/ssl/certs");
    auto data = connectionData("");
    data["trust_store"] = "/etc/ssl/certs";
    for (std::string off : {"", "TRUE", "false", "0"}) {
        data["use_ssl"] = off;
        makeClient(data);
        EXPECT_EQ(sessionProperties(), tcp) << off;
    }
    for (std::string on : {"yes", "on", "true", "1"}) {
        data["use_ssl"] = on;
        makeClient(data);
        auto p = sessionProperties();
        auto const from = p.find("SUITES=") + 7, to = p.find(' ', from);
        ASSERT_LT(from, to) << p;
        EXPECT_EQ(std::count(p.begin() + from, p.begin() + to, ','), 11) << p;  // twelve suites
        EXPECT_EQ(p.replace(from, to - from, "*"), tcps) << on;
    }
}

TEST_F(Session, MissingConnectionKeysAreNamed) {
    std::pair<Data, std::string> const cases[] = {
        {{{"vpn", "v"}}, "host"},  // host is read before port
        {{{"host", "h"}, {"vpn", "v"}}, "port"},
        {{{"host", "h"}, {"port", "1"}, {"vpn", ""}}, "vpn"}};  // empty counts as missing
    for (auto const& [data, key] : cases) {
        try {
            makeClient(data);
            ADD_FAILURE() << "accepted without " << key;
        } catch (RuntimeException const& e) {
            EXPECT_EQ(e.what(), "invalid destination 'dev', missing parameter '" + key + "'");
        }
    }
    EXPECT_EQ(solEmu_liveSessions(), 0);
    makeClient({{"host", "h"}, {"port", "1"}, {"vpn", "v"}});  // the rest is optional
}

TEST_F(Session, ConnectAgainstADownARefusingAndAReachableBroker) {
    solEmu_setBrokerUp(HOST_PORT, 0);
    auto client = makeClient();
    EXPECT_EQ(client->connect(0), 1);
    EXPECT_EQ(client->connect(300), 0);
    EXPECT_NE(client->getConnectionState(), CONNECTED);
    solEmu_setBrokerUp(HOST_PORT, 1);
    EXPECT_TRUE(events->waitForState(CONNECTED));
    // Connected: connect returns at once without calling the library, so the
    // armed failure is still there for the next real call.
    solEmu_failNext("solClient_session_connect", 1, SOLCLIENT_FAIL, 6, "must not be called");
    EXPECT_EQ(client->connect(1000), 1);
    client->disconnect(0);
    EXPECT_THROW(client->connect(0), LibraryException);

    // A refused login fails only after the whole wait.
    solEmu_refuseUser("mallory");
    auto refused = makeClient(connectionData("mallory"));
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(refused->connect(400), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 350ms);
    EXPECT_TRUE(events->waitForState(Impl::Connection::FAILED));
    EXPECT_EQ(refused->getConnectionState(), Impl::Connection::FAILED);
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
    std::vector<int> states;
    for (auto const& e : events->all()) {
        states.push_back(e.kind == STATE ? e.number : -1);
    }
    EXPECT_EQ(states, (std::vector<int>{Impl::Connection::CONNECTING, CONNECTED,
                                        Impl::Connection::DISCONNECTED}));
}

TEST_F(Session, WorkQueuedWhileDownWaitsAndFlowsOnceUp) {
    auto client = makeClient();
    auto tag = std::make_shared<Tag>(1);
    ASSERT_TRUE(client->subscribe(makeHandler(), "queued", AMO, tag));
    ASSERT_TRUE(client->publish(packet("early"), "queued", AMO, tag, true));
    ASSERT_TRUE(client->forward(nullptr, "queued", AMO, tag, true));
    EXPECT_FALSE(events->waitFor(SENT, 1, 200ms));  // nothing is tried while down
    EXPECT_EQ(events->all().size(), 0u);
    ASSERT_EQ(client->connect(5000), 1);
    EXPECT_TRUE(events->waitFor(CREATED, 1));
    EXPECT_TRUE(events->waitFor(SENT, 2));
    client->disconnect(0);  // parks new work again
    client->publish(packet("late"), "queued", AMO, tag, true);
    EXPECT_FALSE(events->waitFor(SENT, 3, 200ms));
    ASSERT_EQ(client->connect(5000), 1);
    EXPECT_TRUE(events->waitFor(SENT, 3));
}

}  // namespace KW::Solace::Test
