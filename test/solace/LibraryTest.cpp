// Bringing the vendor library up and down, and how its failures become
// exceptions.
#include <cstring>

#include "AdapterTest.h"
#include "core/ClientLibraryRegistry.h"
#include "solace/ClientLibrary.h"
#include "solace/ClientTerminatedException.h"
#include "solace/LibraryException.h"
#include "solace/RuntimeException.h"

namespace KW {
namespace Solace {
namespace Test {
namespace {

using Library = AdapterTest;

// Arms the stand-in to fail the next call of a vendor function.
void failNext(char const* function, int subCode, char const* text) {
    ASSERT_EQ(solEmu_failNext(function, 1, SOLCLIENT_FAIL, subCode, text), 0);
}

TEST_F(Library, StartingAgainInitialisesAgainAndAFailureLeavesNoTable) {
    failNext("solClient_initialize", SOLCLIENT_SUBCODE_INIT_NOT_CALLED, "second initialize");
    try {
        library->start();
        FAIL() << "start should have failed";
    } catch (LibraryException const& e) {
        EXPECT_STREQ(e.what(), "second initialize");
        EXPECT_EQ(e.getSubCode(), SOLCLIENT_SUBCODE_INIT_NOT_CALLED);
        EXPECT_EQ(e.code(), 0);
    }
    EXPECT_EQ(library->getAPI(), nullptr);
    EXPECT_THROW(makeClient(), RuntimeException);
    library->start();
    EXPECT_EQ(connectedClient()->getConnectionState(), CONNECTED);
}

TEST_F(Library, ShutdownAndTerminateAreRefusedWhileAClientLives) {
    auto client = makeClient();
    try {
        library->shutdown();
        FAIL() << "shutdown should have been refused";
    } catch (RuntimeException const& e) {
        EXPECT_STREQ(e.what(), "context terminate failure, still active sessions runnning");
    }
    EXPECT_EQ(client->connect(5000), 1);  // still initialised
    try {
        sessionOf(client).terminate();
        FAIL() << "terminate should have been refused";
    } catch (RuntimeException const& e) {
        EXPECT_STREQ(e.what(), "session terminate failure, corresponding client not expired");
    }
    EXPECT_EQ(std::static_pointer_cast<KW::Client>(sessionOf(client).createClient()), client);
}

TEST_F(Library, ContextAndSessionCreateFailuresAreThrownAndLeaveNothingBehind) {
    failNext("solClient_context_create", SOLCLIENT_SUBCODE_OUT_OF_RESOURCES, "no context");
    try {
        makeClient();
        FAIL() << "createClient should have failed";
    } catch (LibraryException const& e) {
        EXPECT_STREQ(e.what(), "no context");
        EXPECT_EQ(e.getSubCode(), SOLCLIENT_SUBCODE_OUT_OF_RESOURCES);
    }
    failNext("solClient_session_create", SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "bad property");
    EXPECT_THROW(makeClient(), LibraryException);
    EXPECT_EQ(solEmu_liveSessions(), 0);
    // One destination, one context, a session per client.
    auto a = makeClient();
    auto b = makeClient();
    clients.push_back(library->createClient("prod", connectionData(), events));
    EXPECT_EQ(library->getContextCount(), 2u);
    EXPECT_NE(&sessionOf(a), &sessionOf(b));
    EXPECT_EQ(solEmu_liveSessions(), 3);
}

TEST(LibraryExceptionText, FollowsTheErrorRecordAndItsQuirks) {
    solClient_errorInfo_t info{};
    info.subCode = SOLCLIENT_SUBCODE_LOGIN_FAILURE;
    info.responseCode = 401;
    std::strcpy(info.errorStr, "Connection refused");
    LibraryException refused(&info, "solace library exception");
    EXPECT_STREQ(refused.what(), "Connection refused");
    EXPECT_EQ(refused.getSubCode(), SOLCLIENT_SUBCODE_LOGIN_FAILURE);
    EXPECT_EQ(refused.getResponseCode(), 401);
    EXPECT_EQ(info.errorStr[SOLCLIENT_ERRORINFO_STR_SIZE - 1], '0');

    std::strcpy(info.errorStr, "0 leading digit");
    EXPECT_STREQ(LibraryException(&info, "solace library exception").what(),
                 "solace library exception");
    info.errorStr[0] = '\0';
    EXPECT_STREQ(LibraryException(&info, "solace library exception").what(), "");
    // A full buffer ends in the '0' and is not read beyond.
    std::memset(info.errorStr, 'x', sizeof(info.errorStr));
    std::string const full = LibraryException(&info, "fallback").what();
    EXPECT_EQ(full, std::string(SOLCLIENT_ERRORINFO_STR_SIZE - 1, 'x') + "0");
}

TEST(ClientLibraryRegistration, RegistersUnderSolaceUntilShutDown) {
    solEmu_reset();
    auto* registry = KW::ClientLibraryRegistry::getInstance();
    ClientLibrary::start();
    std::string type = ClientLibrary::DESTINATION_TYPE;
    Data data = connectionData();
    auto events = std::make_shared<EventRecorder>();
    auto client = registry->createClient("dev", type, data, events);
    Impl::Session* session = &sessionOf(client);
    client.reset();
    EXPECT_THROW(session->getClient(), ClientTerminatedException);
    session->terminate();
    ClientLibrary::shutdown();
    EXPECT_THROW(registry->createClient("dev", type, data, events), KW::Exception);
}

}  // namespace
}  // namespace Test
}  // namespace Solace
}  // namespace KW
