// Bringing the vendor library up and down: start, shutdown, contexts, and the
// way library failures become exceptions.
#include <cstring>

#include "AdapterTest.h"
#include "core/ClientLibraryRegistry.h"
#include "solace/ClientLibrary.h"
#include "solace/LibraryException.h"
#include "solace/RuntimeException.h"
#include "solace/SolaceAPI.h"

namespace KW {
namespace Solace {
namespace Test {
namespace {

using LibraryLifecycle = AdapterTest;

TEST_F(LibraryLifecycle, StartingAgainInitialisesTheLibraryAgain) {
    SolaceAPI const* first = library->getAPI();
    ASSERT_NE(first, nullptr);
    // A failure injected into the next initialize shows that a second start
    // calls it again; the failed start leaves no table behind.
    ASSERT_EQ(solEmu_failNext("solClient_initialize", 1, SOLCLIENT_FAIL,
                              SOLCLIENT_SUBCODE_INIT_NOT_CALLED, "second initialize"),
              0);
    try {
        library->start();
        FAIL() << "start should have failed";
    } catch (LibraryException const& e) {
        EXPECT_STREQ(e.what(), "second initialize");
        EXPECT_EQ(e.getSubCode(), SOLCLIENT_SUBCODE_INIT_NOT_CALLED);
        EXPECT_EQ(e.code(), 0);
    }
    EXPECT_EQ(library->getAPI(), nullptr);

    library->start();
    ASSERT_NE(library->getAPI(), nullptr);
    auto client = connectedClient();
    EXPECT_EQ(client->getConnectionState(), Impl::Connection::CONNECTED);
}

TEST_F(LibraryLifecycle, ShutdownRefusesWhileAClientLivesAndKeepsTheLibraryUsable) {
    auto client = makeClient();
    try {
        library->shutdown();
        FAIL() << "shutdown should have been refused";
    } catch (RuntimeException const& e) {
        EXPECT_STREQ(e.what(), "context terminate failure, still active sessions runnning");
    }
    // Still initialised: the client connects.
    EXPECT_EQ(client->connect(5000), 1);

    Impl::Session& session = sessionOf(client);
    try {
        session.terminate();
        FAIL() << "terminate should have been refused";
    } catch (RuntimeException const& e) {
        EXPECT_STREQ(e.what(), "session terminate failure, corresponding client not expired");
    }
    EXPECT_EQ(session.getClient(), client);
}

TEST_F(LibraryLifecycle, ContextCreateFailureIsALibraryExceptionAndIsRetried) {
    ASSERT_EQ(solEmu_failNext("solClient_context_create", 1, SOLCLIENT_FAIL,
                              SOLCLIENT_SUBCODE_OUT_OF_RESOURCES, "no context for you"),
              0);
    try {
        makeClient();
        FAIL() << "createClient should have failed";
    } catch (LibraryException const& e) {
        EXPECT_STREQ(e.what(), "no context for you");
        EXPECT_EQ(e.getSubCode(), SOLCLIENT_SUBCODE_OUT_OF_RESOURCES);
    }
    // The failed attempt left no half context: the next one makes a new one.
    auto client = makeClient();
    EXPECT_NE(client, nullptr);
    EXPECT_EQ(library->getContextCount(), 1u);
}

TEST_F(LibraryLifecycle, ClientsOfOneDestinationShareAContextButNotASession) {
    auto a = makeClient(connectionData(), "dev");
    auto b = makeClient(connectionData(), "dev");
    auto c = makeClient(connectionData(), "prod");
    EXPECT_EQ(library->getContextCount(), 2u);
    EXPECT_NE(&sessionOf(a), &sessionOf(b));
    EXPECT_NE(a, b);
    EXPECT_EQ(solEmu_liveSessions(), 3);
}

TEST_F(LibraryLifecycle, SessionCreateFailureLeavesNoSession) {
    ASSERT_EQ(solEmu_failNext("solClient_session_create", 1, SOLCLIENT_FAIL,
                              SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "bad property"),
              0);
    EXPECT_THROW(makeClient(), LibraryException);
    EXPECT_EQ(solEmu_liveSessions(), 0);
    // The context stays and serves the next client.
    auto client = makeClient();
    EXPECT_EQ(solEmu_liveSessions(), 1);
}

TEST(LibraryNotStarted, CreatingAClientIsRefused) {
    Impl::Library library;
    EXPECT_THROW(library.createClient("dev", {}, nullptr), RuntimeException);
    EXPECT_NO_THROW(library.shutdown());
}

// The library's error record becomes the exception text, with the record's
// quirks: the last text byte is set to '0', a text starting with '0' gives
// the fallback, an empty text stays empty.
TEST(LibraryExceptionText, FollowsTheErrorRecord) {
    solClient_errorInfo_t info{};
    info.subCode = SOLCLIENT_SUBCODE_LOGIN_FAILURE;
    info.responseCode = 401;
    std::strcpy(info.errorStr, "Connection refused");
    LibraryException refused(&info, "solace library exception");
    EXPECT_STREQ(refused.what(), "Connection refused");
    EXPECT_EQ(refused.getSubCode(), SOLCLIENT_SUBCODE_LOGIN_FAILURE);
    EXPECT_EQ(refused.getResponseCode(), 401);
    EXPECT_EQ(refused.code(), 0);
    EXPECT_EQ(info.errorStr[SOLCLIENT_ERRORINFO_STR_SIZE - 1], '0');

    std::strcpy(info.errorStr, "0 looks like a number");
    EXPECT_STREQ(LibraryException(&info, "solace library exception").what(),
                 "solace library exception");

    info.errorStr[0] = '\0';
    EXPECT_STREQ(LibraryException(&info, "solace library exception").what(), "");

    // A text filling the whole buffer ends in the '0' and is not read beyond.
    std::memset(info.errorStr, 'x', sizeof(info.errorStr));
    std::string const full = LibraryException(&info, "fallback").what();
    EXPECT_EQ(full.size(), static_cast<std::size_t>(SOLCLIENT_ERRORINFO_STR_SIZE));
    EXPECT_EQ(full.back(), '0');
}

// Through the registry, as the module uses it.
TEST(ClientLibraryRegistration, RegistersUnderSolaceAndShutsDown) {
    solEmu_reset();
    auto* registry = KW::ClientLibraryRegistry::getInstance();
    ClientLibrary::start();
    std::string type = ClientLibrary::DESTINATION_TYPE;
    std::map<std::string, std::string> data = AdapterTest::connectionData();
    auto events = std::make_shared<RecordingEventHandler>();
    auto client = registry->createClient("dev", type, data, events);
    ASSERT_NE(std::dynamic_pointer_cast<Impl::Client>(client), nullptr);
    EXPECT_EQ(client->getConnectionState(), Impl::Connection::DISCONNECTED);

    Impl::Session* session = &std::dynamic_pointer_cast<Impl::Client>(client)->getSession();
    client.reset();
    session->terminate();
    ClientLibrary::shutdown();
    EXPECT_THROW(registry->createClient("dev", type, data, events), KW::Exception);
}

}  // namespace
}  // namespace Test
}  // namespace Solace
}  // namespace KW
