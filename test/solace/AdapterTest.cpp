#include "AdapterTest.h"

#include <thread>

#include "core/Exception.h"

namespace KW {
namespace Solace {
namespace Test {

Data connectionData(std::string const& user) {
    return {{"host", "localhost"},
            {"port", "55555"},
            {"vpn", "default"},
            {"user", user},
            {"password", "secret"}};
}

std::shared_ptr<KW::DataPacket> packet(std::string const& text) {
    return KW::DataPacket::create(text.data(), text.size());
}

Impl::Session& sessionOf(std::shared_ptr<KW::Client> const& client) {
    return std::dynamic_pointer_cast<Impl::Client>(client)->getSession();
}

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
    for (auto* session : sessions) {
        // A notification under way on the context thread holds the client
        // for a moment.
        for (int attempt = 0;; ++attempt) {
            try {
                session->terminate();
                break;
            } catch (KW::Exception const& e) {
                if (attempt == 500) {
                    ADD_FAILURE() << e.what();
                    break;
                }
                std::this_thread::sleep_for(10ms);
            }
        }
    }
    EXPECT_NO_THROW(library->shutdown());
    for (auto& handler : handlers) {
        handler->clear();
    }
    solEmu_reset();
    EXPECT_EQ(solEmu_liveMessages(), 0) << "library messages leaked";
}

std::shared_ptr<KW::Client> AdapterTest::makeClient(Data const& data) {
    clients.push_back(library->createClient("dev", data, events));
    return clients.back();
}

std::shared_ptr<KW::Client> AdapterTest::connectedClient() {
    auto const before = events->of(STATE).size();
    auto client = makeClient();
    EXPECT_EQ(client->connect(5000), 1);
    // The waiter wakes before the handler is told: let the telling happen so
    // that tests start from a settled record.
    EXPECT_TRUE(events->waitFor(STATE, before + 1));
    return client;
}

std::shared_ptr<MessageRecorder> AdapterTest::makeHandler() {
    handlers.push_back(std::make_shared<MessageRecorder>());
    return handlers.back();
}

void AdapterTest::subscribe(std::shared_ptr<KW::Client> const& client,
                            std::shared_ptr<MessageRecorder> const& handler,
                            std::string const& topic) {
    auto const before = events->of(CREATED).size();
    ASSERT_TRUE(client->subscribe(handler, topic, KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    ASSERT_TRUE(events->waitFor(CREATED, before + 1));
}

void AdapterTest::flush(std::shared_ptr<KW::Client> const& client,
                        std::shared_ptr<MessageRecorder> const& handler, std::string const& topic) {
    auto const messages = handler->messages();
    auto const before = std::count_if(messages.begin(), messages.end(),
                                      [](auto const& m) { return text(m) == "marker"; });
    ASSERT_TRUE(client->publish(packet("marker"), topic, KW::QOS::AT_MOST_ONCE, KW::Reference::NONE,
                                false));
    ASSERT_TRUE(handler->waitFor(before + 1, "marker"));
}

}  // namespace Test
}  // namespace Solace
}  // namespace KW
