#include "AdapterTest.h"

#include "solace/RuntimeException.h"

namespace KW {
namespace Solace {
namespace Test {

void AdapterTest::SetUp() {
    solEmu_reset();
    library = std::make_shared<Impl::Library>();
    library->start();
}

void AdapterTest::TearDown() {
    std::vector<Impl::Session*> sessions;
    for (auto& client : clients) {
        sessions.push_back(&sessionOf(client));
    }
    clients.clear();
    events->clear();
    for (auto* session : sessions) {
        try {
            session->terminate();
        } catch (KW::Exception const& e) {
            ADD_FAILURE() << "session left alive: " << e.what();
        }
    }
    try {
        library->shutdown();
    } catch (KW::Exception const& e) {
        ADD_FAILURE() << "shutdown failed: " << e.what();
    }
    // Received messages hold their handler: break the cycle.
    for (auto& handler : handlers) {
        handler->clear();
    }
    handlers.clear();
    solEmu_reset();
    EXPECT_EQ(solEmu_liveMessages(), 0) << "library messages leaked";
}

std::map<std::string, std::string> AdapterTest::connectionData(std::string const& user) {
    return {
        {"host", HOST}, {"port", PORT}, {"vpn", "default"}, {"user", user}, {"password", "secret"}};
}

std::shared_ptr<KW::Client> AdapterTest::makeClient(std::map<std::string, std::string> const& data,
                                                    std::string const& destination) {
    auto client = library->createClient(destination, data, events);
    clients.push_back(client);
    return client;
}

std::shared_ptr<KW::Client> AdapterTest::connectedClient(
    std::map<std::string, std::string> const& data) {
    auto client = makeClient(data);
    EXPECT_EQ(client->connect(5000), 1);
    EXPECT_EQ(client->getConnectionState(), Impl::Connection::CONNECTED);
    return client;
}

Impl::Session& AdapterTest::sessionOf(std::shared_ptr<KW::Client> const& client) {
    return std::dynamic_pointer_cast<Impl::Client>(client)->getSession();
}

std::shared_ptr<RecordingMessageHandler> AdapterTest::makeHandler() {
    handlers.push_back(std::make_shared<RecordingMessageHandler>());
    return handlers.back();
}

void AdapterTest::subscribeTopic(std::shared_ptr<KW::Client> const& client,
                                 std::shared_ptr<RecordingMessageHandler> const& handler,
                                 std::string const& topic) {
    std::size_t const before = events->count(Event::CREATE_FINALIZE);
    ASSERT_TRUE(client->subscribe(handler, topic, KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    ASSERT_TRUE(events->waitFor(Event::CREATE_FINALIZE, before + 1, 5s));
}

std::shared_ptr<KW::DataPacket> AdapterTest::packet(std::string const& text) {
    return KW::DataPacket::create(text.data(), text.size());
}

std::string AdapterTest::text(std::shared_ptr<KW::Message> const& message) {
    auto payload = message->getPayload();
    if (!payload) {
        return "<null>";
    }
    return std::string(static_cast<char const*>(payload->data()), payload->size());
}

}  // namespace Test
}  // namespace Solace
}  // namespace KW
