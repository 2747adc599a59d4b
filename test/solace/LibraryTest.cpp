// Bringing the vendor library up and down, and how its failures become
// exceptions.
#include <cstring>

#include "AdapterTest.h"
#include "core/ClientLibraryRegistry.h"
#include "solace/ClientLibrary.h"
#include "solace/ClientTerminatedException.h"
#include "solace/LibraryException.h"
#include "solace/RuntimeException.h"

namespace KW::Solace::Test {

using Library = AdapterTest;

// Arms the stand-in to fail the next call of a vendor function, runs the call
// and expects a LibraryException carrying the armed text and sub-code.
template <typename Call>
void expectLibraryFailure(char const* function, int subCode, char const* text, Call call) {
    ASSERT_EQ(solEmu_failNext(function, 1, SOLCLIENT_FAIL, subCode, text), 0);
    try {
        call();
        ADD_FAILURE() << function << " failure not thrown";
    } catch (LibraryException const& e) {
        EXPECT_STREQ(e.what(), text);
        EXPECT_EQ(e.getSubCode(), subCode);
        EXPECT_EQ(e.code(), 0);
    }
}

TEST_F(Library, StartingAgainInitialisesAgainAndAFailureLeavesNoTable) {
    expectLibraryFailure("solClient_initialize", SOLCLIENT_SUBCODE_INIT_NOT_CALLED,
                         "second initialize", [&] { library->start(); });
    EXPECT_EQ(library->getAPI(), nullptr);
    EXPECT_THROW(makeClient(), RuntimeException);
    library->start();
    EXPECT_EQ(connectedClient()->getConnectionState(), CONNECTED);
}

TEST_F(Library, ShutdownAndTerminateAreRefusedWhileAClientLives) {
    auto client = makeClient();
    auto expectRefused = [](auto call, char const* text) {
        try {
            call();
            ADD_FAILURE() << "not refused: " << text;
        } catch (RuntimeException const& e) {
            EXPECT_STREQ(e.what(), text);
        }
    };
    expectRefused([&] { library->shutdown(); },
                  "context terminate failure, still active sessions runnning");
    EXPECT_EQ(client->connect(5000), 1);  // still initialised
    expectRefused([&] { sessionOf(client).terminate(); },
                  "session terminate failure, corresponding client not expired");
    EXPECT_EQ(std::static_pointer_cast<Client>(sessionOf(client).createClient()), client);
}

TEST_F(Library, ContextAndSessionCreateFailuresAreThrownAndLeaveNothingBehind) {
    expectLibraryFailure("solClient_context_create", SOLCLIENT_SUBCODE_OUT_OF_RESOURCES,
                         "no context", [&] { makeClient(); });
    expectLibraryFailure("solClient_session_create", SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                         "bad property", [&] { makeClient(); });
    EXPECT_EQ(solEmu_liveSessions(), 0);
    // One context per destination, a session per client.
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
    LibraryException refused(&info, "fallback");
    EXPECT_STREQ(refused.what(), "Connection refused");
    EXPECT_EQ(refused.getSubCode(), SOLCLIENT_SUBCODE_LOGIN_FAILURE);
    EXPECT_EQ(refused.getResponseCode(), 401);
    EXPECT_EQ(info.errorStr[SOLCLIENT_ERRORINFO_STR_SIZE - 1], '0');
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
    auto* registry = ClientLibraryRegistry::getInstance();
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

}  // namespace KW::Solace::Test
