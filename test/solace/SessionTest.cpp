#include <cstring>
#include <future>
#include <type_traits>

#include "AdapterTest.h"
#include "core/ClientLibraryRegistry.h"
#include "solace/ClientLibrary.h"
#include "solace/LibraryException.h"
#include "solace/RuntimeException.h"

namespace KW::Solace::Test {

using Library = AdapterTest;
using Session = AdapterTest;

// Runs the call and expects an E with this text. For a LibraryException the
// stand-in is first armed to fail `function` with this text and sub-code.
template <typename E, typename Call>
void expectThrown(Call call, std::string const& text, char const* function = nullptr,
                  int subCode = 0) {
    if (function != nullptr) {
        ASSERT_EQ(solEmu_failNext(function, 1, SOLCLIENT_FAIL, subCode, text.c_str()), 0);
    }
    try {
        call();
        ADD_FAILURE() << "not thrown: " << text;
    } catch (E const& e) {
        EXPECT_EQ(e.what(), text);
        if constexpr (std::is_same_v<E, LibraryException>) {
            EXPECT_EQ(e.getSubCode(), subCode);
            EXPECT_EQ(e.code(), 0);
        }
    }
}

// One context per destination, a session per client; nothing ends while a client lives.
TEST_F(Library, FailuresLeaveNothingBehindAndNothingEndsWhileItsClientLives) {
    library->shutdown();
    expectThrown<LibraryException>([&] { library->start(); }, "refused initialize",
                                   "solClient_initialize", SOLCLIENT_SUBCODE_INIT_NOT_CALLED);
    EXPECT_EQ(library->getAPI(), nullptr);
    expectThrown<RuntimeException>([&] { makeClient(); }, "solace library not started");
    library->start();
    expectThrown<LibraryException>([&] { makeClient(); }, "no context", "solClient_context_create",
                                   SOLCLIENT_SUBCODE_OUT_OF_RESOURCES);
    expectThrown<LibraryException>([&] { makeClient(); }, "bad property",
                                   "solClient_session_create",
                                   SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE);
    EXPECT_EQ(solEmu_liveSessions(), 0);
    auto a = connectedClient();
    auto b = makeClient();
    clients.push_back(library->createClient("prod", connectionData(), events));
    EXPECT_EQ(library->getContextCount(), 2u);
    SolaceAPI const* const api = library->getAPI();
    library->start();  // again: the live contexts keep the table they call through
    EXPECT_EQ(library->getAPI(), api);
    EXPECT_NE(&sessionOf(a), &sessionOf(b));
    EXPECT_EQ(solEmu_liveSessions(), 3);
    expectThrown<RuntimeException>([&] { library->shutdown(); },
                                   "context terminate failure, still active sessions runnning");
    expectThrown<RuntimeException>([&] { sessionOf(a).terminate(); },
                                   "session terminate failure, corresponding client not expired");
    EXPECT_EQ(std::static_pointer_cast<Client>(sessionOf(a).createClient()), a);
    EXPECT_EQ(a->getConnectionState(), CONNECTED);
}

TEST(LibraryExceptionText, FollowsTheErrorRecordAndItsQuirks) {
    solClient_errorInfo_t info{};
    std::strcpy(info.errorStr, "Connection refused");
    EXPECT_STREQ(LibraryException(&info, "fallback").what(), "Connection refused");
    std::strcpy(info.errorStr, "0 leading digit");
    EXPECT_STREQ(LibraryException(&info, "fallback").what(), "fallback");
    info.errorStr[0] = '\0';
    EXPECT_STREQ(LibraryException(&info, "fallback").what(), "");
    // A full record ends in the '0' and is not read beyond.
    std::memset(info.errorStr, 'x', sizeof(info.errorStr));
    EXPECT_EQ(std::string(LibraryException(&info, "fallback").what()),
              std::string(SOLCLIENT_ERRORINFO_STR_SIZE - 1, 'x') + "0");
}

TEST(ClientLibraryRegistration, RegistersUnderSolaceUntilShutDown) {
    solEmu_reset();
    ClientLibrary::start();
    auto* registry = ClientLibraryRegistry::getInstance();
    std::string type = ClientLibrary::DESTINATION_TYPE;
    Data data = connectionData();
    EXPECT_NE(registry->createClient("dev", type, data, nullptr), nullptr);
    ClientLibrary::shutdown();  // the released client's session is on its way out
    EXPECT_THROW(registry->createClient("dev", type, data, nullptr), KW::Exception);
}

// The last property list the library was given (names and values each on a line), as
// "NAME=value" pairs separated by spaces.
std::string sessionProperties() {
    std::string pairs(8192, '\0');
    pairs.resize(std::min(solEmu_lastSessionProperties(&pairs[0], pairs.size()), pairs.size()));
    bool value = false;
    for (char& c : pairs) {
        c = c != '\n' ? c : (value = !value) ? '=' : ' ';
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
    std::pair<char const*, bool> const values[] = {
        {"", false},   {"TRUE", false}, {"false", false}, {"0", false},
        {"yes", true}, {"on", true},    {"true", true},   {"1", true}};
    for (auto const& [value, ssl] : values) {
        data["use_ssl"] = value;
        makeClient(data);
        auto p = sessionProperties();
        if (ssl) {  // twelve suites
            auto const from = p.find("SUITES=") + 7, to = p.find(' ', from);
            EXPECT_EQ(std::count(p.begin() + from, p.begin() + to, ','), 11) << p;
            p.replace(from, to - from, "*");
        }
        EXPECT_EQ(p, ssl ? tcps : tcp) << value;
    }
}

TEST_F(Session, MissingConnectionKeysAreNamed) {
    std::pair<Data, std::string> const cases[] = {
        {{{"vpn", "v"}}, "host"},  // host is read before port
        {{{"host", "h"}, {"vpn", "v"}}, "port"},
        {{{"host", "h"}, {"port", "1"}, {"vpn", ""}}, "vpn"}};  // empty counts as missing
    for (auto const& c : cases) {
        expectThrown<RuntimeException>(
            [&] { makeClient(c.first); },
            "invalid destination 'dev', missing parameter '" + c.second + "'");
    }
    EXPECT_EQ(solEmu_liveSessions(), 0);
    makeClient({{"host", "h"}, {"port", "1"}, {"vpn", "v"}});  // the rest is optional
}

// Connected, connect returns without calling the library: the armed failure is still there for
// the next real call.
TEST_F(Session, ConnectAgainstADownARefusingAndAReachableBroker) {
    auto client = makeClient();
    auto tag = std::make_shared<Tag>(1);
    ASSERT_TRUE(client->subscribe(makeHandler(), "queued", AMO, tag));
    ASSERT_TRUE(client->publish(packet("early"), "queued", AMO, tag, true));
    ASSERT_TRUE(client->forward(nullptr, "queued", AMO, tag, true));
    solEmu_setBrokerUp(HOST_PORT, 0);
    EXPECT_EQ(client->connect(0), 1);
    // A first attempt reads disconnected, but a send in it must not wait in the library (on
    // the JavaScript thread) for the broker: it goes out once up.
    auto during = std::async(std::launch::async, [&] {
        return client->publish(packet("during"), "queued", AMO, tag, false);
    });
    EXPECT_EQ(during.wait_for(5s), std::future_status::ready) << "the send waited for the broker";
    EXPECT_EQ(client->connect(300), 0);
    EXPECT_NE(client->getConnectionState(), CONNECTED);
    EXPECT_EQ(events->all().size(), 0u);  // nothing is tried while down
    // A connect still waiting ends with the up notice, not with its time-out.
    auto up = std::async(std::launch::async, [&] { return client->connect(60000); });
    EXPECT_EQ(up.wait_for(200ms), std::future_status::timeout);
    solEmu_setBrokerUp(HOST_PORT, 1);
    EXPECT_EQ(up.wait_for(30s), std::future_status::ready) << "connect waited out its time-out";
    EXPECT_EQ(up.get(), 1);
    EXPECT_TRUE(during.get());
    EXPECT_TRUE(events->waitFor(CREATED, 1));
    EXPECT_TRUE(events->waitFor(SENT, 3));
    solEmu_failNext("solClient_session_connect", 1, SOLCLIENT_FAIL, 6, "must not be called");
    EXPECT_EQ(client->connect(1000), 1);
    client->disconnect(0);  // parks new work again
    client->publish(packet("late"), "queued", AMO, tag, true);
    EXPECT_THROW(client->connect(0), LibraryException);
    EXPECT_FALSE(events->waitFor(SENT, 4, 200ms));
    ASSERT_EQ(client->connect(5000), 1);
    EXPECT_TRUE(events->waitFor(SENT, 4));

    solEmu_setBrokerUp(HOST_PORT, 0);
    EXPECT_TRUE(events->waitFor(STATE, 4));
    solEmu_setBrokerUp(HOST_PORT, 1);
    EXPECT_TRUE(events->waitFor(STATE, 5));
    client->disconnect(0);
    client->disconnect(0);
    std::vector<int> states;
    for (auto const& e : events->of(STATE)) {
        states.push_back(e.number);
    }
    using Connection = Impl::Connection;
    EXPECT_EQ(states,
              (std::vector<int>{CONNECTED, Connection::DISCONNECTED, CONNECTED,
                                Connection::CONNECTING, CONNECTED, Connection::DISCONNECTED}));

    // A refused login fails only after the whole wait.
    solEmu_refuseUser("mallory");
    auto refused = makeClient(connectionData("mallory"));
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(refused->connect(400), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 350ms);
    EXPECT_TRUE(events->waitForState(Impl::Connection::FAILED));
    EXPECT_EQ(refused->getConnectionState(), Impl::Connection::FAILED);
}

// A client in a first attempt reads disconnected, yet is not ended by its release either.
TEST_F(Session, ADroppedConnectedOrConnectingClientKeepsReceivingUntilTerminated) {
    auto publisher = connectedClient();
    auto lateHandler = makeHandler();
    auto dropped = connectedClient();
    auto handler = subscribed(dropped, "kept");
    Impl::Session* session = &sessionOf(dropped);
    solEmu_setBrokerUp(HOST_PORT, 0);
    auto connecting = makeClient();
    connecting->connect(0);
    ASSERT_TRUE(connecting->subscribe(lateHandler, "late", AMO, Reference::NONE));  // waits for up
    Impl::Session* late = &sessionOf(connecting);
    clients.resize(1);
    dropped.reset();
    connecting.reset();
    std::this_thread::sleep_for(200ms);  // time for a wrongly queued end to run
    EXPECT_EQ(solEmu_liveSessions(), 3);
    solEmu_setBrokerUp(HOST_PORT, 1);
    // Each session comes back on its own next retry (up to a second, more on a
    // loaded machine), the publisher's maybe first.
    for (auto const& [topic, receiver] :
         {std::pair{"kept", handler}, std::pair{"late", lateHandler}}) {
        SCOPED_TRACE(topic);
        EXPECT_TRUE(eventually(
            [&, topic = topic, receiver = receiver] {
                publisher->publish(packet("up?"), topic, AMO, Reference::NONE, false);
                return receiver->count("up?") > 0;
            },
            20s));
    }
    session->terminate();
    late->terminate();
    EXPECT_EQ(solEmu_liveSessions(), 1);
}

// Read as reconnecting, the client's sends would wait unanswered on a stopped worker; read as
// connected, connect() would return without connecting and every send fail.
TEST_F(Session, ALateNoticeAfterADisconnectLeavesItDisconnected) {
    // When the disconnect comes: while the first attempt is under way (-1), or
    // after a drop, before it is told (300 ms round trip) or after the retry a
    // second later, before its answer.
    for (auto const wait : {-1ms, 0ms, 1150ms}) {
        SCOPED_TRACE(wait.count());
        auto client = wait < 0ms ? makeClient() : connectedClient();
        solEmu_setRoundTrip(300000);
        if (wait < 0ms) {
            ASSERT_EQ(client->connect(0), 1);
        } else {
            auto const dropped = std::chrono::steady_clock::now();
            solEmu_setBrokerUp(HOST_PORT, 0);
            solEmu_setBrokerUp(HOST_PORT, 1);  // back on the library's retry
            std::this_thread::sleep_until(dropped + wait);
        }
        client->disconnect(0);
        std::this_thread::sleep_for(600ms);  // the notice has arrived
        solEmu_setRoundTrip(0);
        EXPECT_EQ(client->getConnectionState(), Impl::Connection::DISCONNECTED);
        auto unsent = std::make_shared<Tag>(1), sent = std::make_shared<Tag>(2);
        client->publish(packet("x"), "t", AMO, unsent, false);
        EXPECT_EQ(outcomeOf(unsent).kind, UNSENT);
        ASSERT_EQ(client->connect(5000), 1);
        client->publish(packet("x"), "t", AMO, sent, false);
        EXPECT_EQ(outcomeOf(sent).kind, SENT);
        client->disconnect(0);
    }
}

}  // namespace KW::Solace::Test
