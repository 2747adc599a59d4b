#include "AdapterTest.h"

#include <algorithm>
#include <thread>

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
        // A notification in progress on the context thread holds the client
        // for a moment; give it that moment before calling it a leak.
        auto const deadline = std::chrono::steady_clock::now() + 5s;
        for (;;) {
            try {
                session->terminate();
                break;
            } catch (KW::Exception const& e) {
                if (std::chrono::steady_clock::now() > deadline) {
                    ADD_FAILURE() << "session left alive: " << e.what();
                    break;
                }
                std::this_thread::sleep_for(5ms);
            }
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
    auto connectedEvents = [](std::vector<Event> const& all) {
        return std::count_if(all.begin(), all.end(), [](Event const& e) {
            return e.kind == Event::STATE && e.state == Impl::Connection::CONNECTED;
        });
    };
    auto const before = connectedEvents(events->events());
    auto client = makeClient(data);
    EXPECT_EQ(client->connect(5000), 1);
    EXPECT_EQ(client->getConnectionState(), Impl::Connection::CONNECTED);
    // The waiter wakes before the handler is told; let the telling happen
    // so that tests start from a settled event record.
    EXPECT_TRUE(events->waitUntil(
        [&](std::vector<Event> const& all) { return connectedEvents(all) > before; }, 5s));
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
