#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/Client.h"
#include "core/ClientLibrary.h"
#include "core/ClientLibraryRegistry.h"
#include "core/Configuration.h"
#include "core/Exception.h"

namespace {

using Properties = std::map<std::string, std::string>;

class StubClient : public KW::Client {
  public:
    StubClient(std::string destination, Properties properties)
        : destination(std::move(destination)), properties(std::move(properties)) {}
    int getConnectionState() override { return 1; }
    int connect(unsigned long) override { return 0; }
    void disconnect(unsigned long) override {}
    bool publish(std::shared_ptr<KW::DataPacket>, std::string const&, KW::QOS::Enum,
                 std::shared_ptr<KW::Reference>, bool) override {
        return false;
    }
    bool forward(std::shared_ptr<KW::Message>, std::string const&, KW::QOS::Enum,
                 std::shared_ptr<KW::Reference>, bool) override {
        return false;
    }
    bool subscribe(std::shared_ptr<KW::MessageHandler>, std::string const&, KW::QOS::Enum,
                   std::shared_ptr<KW::Reference>) override {
        return false;
    }
    bool unsubscribe(std::string const&, KW::QOS::Enum, std::shared_ptr<KW::Reference>) override {
        return false;
    }
    bool unsubscribe(std::shared_ptr<KW::MessageHandler>, std::shared_ptr<KW::Reference>) override {
        return false;
    }
    bool unsubscribe(std::shared_ptr<KW::Reference>) override { return false; }

    std::string destination;
    Properties properties;
};

class CountingLibrary : public KW::ClientLibrary {
  public:
    void start() override {
        ++starts;
        if (failStart) {
            throw KW::Exception("start failed");
        }
    }
    void shutdown() override {
        ++shutdowns;
        if (failShutdown) {
            throw std::runtime_error("shutdown failed");
        }
    }
    std::shared_ptr<KW::Client> createClient(std::string const& destination,
                                             Properties const& properties,
                                             std::shared_ptr<KW::EventHandler>) override {
        ++creates;
        return std::make_shared<StubClient>(destination, properties);
    }

    std::atomic<int> starts{0};
    std::atomic<int> shutdowns{0};
    std::atomic<int> creates{0};
    bool failStart = false;
    bool failShutdown = false;
};

class MapConfiguration : public KW::Configuration {
  public:
    bool resolveDestination(std::string const& data, std::string& destinationType,
                            Properties& properties) override {
        auto found = types.find(data);
        if (found != types.end()) {
            destinationType = found->second;
        }
        properties = {{"data", data}};
        return true;
    }
    std::map<std::string, std::string> types;
};

std::string invalidDestinationText(std::function<void()> action) {
    try {
        action();
    } catch (KW::Exception const& e) {
        EXPECT_EQ(e.code(), 0);
        return e.what();
    }
    return "(nothing thrown)";
}

// The registry is one per process: each test uses its own destination types
// and removes what it registered.
class ClientLibraryRegistryTest : public ::testing::Test {
  protected:
    void TearDown() override {
        for (auto const& type : registered) {
            registry->shutdownClientLibrary(type);
        }
        registry->registerConfiguration(nullptr);
    }

    void add(std::string const& type, std::shared_ptr<KW::ClientLibrary> library) {
        registered.push_back(type);
        registry->registerClientLibrary(type, std::move(library));
    }

    std::shared_ptr<KW::Client> create(std::string const& destination, std::string type,
                                       Properties properties = {}) {
        return registry->createClient(destination, type, properties, nullptr);
    }

    KW::ClientLibraryRegistry* registry = KW::ClientLibraryRegistry::getInstance();
    std::vector<std::string> registered;
};

TEST_F(ClientLibraryRegistryTest, FirstRegistrationWinsAndStartsOnce) {
    auto first = std::make_shared<CountingLibrary>();
    auto second = std::make_shared<CountingLibrary>();
    add("FIRST_WINS", first);
    add("FIRST_WINS", second);
    add("FIRST_WINS_EMPTY", nullptr);
    EXPECT_EQ(first->starts, 1);
    EXPECT_EQ(second->starts, 0);

    auto client = std::dynamic_pointer_cast<StubClient>(create("dest-1", "FIRST_WINS"));
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(first->creates, 1);
    EXPECT_EQ(second->creates, 0);
    EXPECT_EQ(first->starts, 1) << "creating a client never starts a library";
}

TEST_F(ClientLibraryRegistryTest, ClientGetsDestinationAndPropertiesNotTheType) {
    auto library = std::make_shared<CountingLibrary>();
    add("ROUTED", library);
    auto client = std::dynamic_pointer_cast<StubClient>(
        create("the-destination", "ROUTED", {{"host", "h"}, {"port", "1"}}));
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->destination, "the-destination");
    EXPECT_EQ(client->properties, (Properties{{"host", "h"}, {"port", "1"}}));
}

TEST_F(ClientLibraryRegistryTest, UnknownTypesAreInvalidDestinations) {
    add("CASED", std::make_shared<CountingLibrary>());
    EXPECT_EQ(invalidDestinationText([&] { create("d", "NEVER_REGISTERED"); }),
              "Invalid destination data");
    EXPECT_EQ(invalidDestinationText([&] { create("d", "cased"); }), "Invalid destination data");
    EXPECT_EQ(invalidDestinationText([&] { create("d", ""); }), "Invalid destination data");
}

TEST_F(ClientLibraryRegistryTest, ShutdownOnceThenTypeIsGoneUntilReregistered) {
    auto library = std::make_shared<CountingLibrary>();
    add("CYCLED", library);
    registry->shutdownClientLibrary("CYCLED");
    registry->shutdownClientLibrary("CYCLED");
    registry->shutdownClientLibrary("CYCLED_NEVER_KNOWN");
    EXPECT_EQ(library->shutdowns, 1);
    EXPECT_EQ(invalidDestinationText([&] { create("d", "CYCLED"); }), "Invalid destination data");

    auto replacement = std::make_shared<CountingLibrary>();
    add("CYCLED", replacement);
    EXPECT_EQ(replacement->starts, 1);
    EXPECT_NE(create("d", "CYCLED"), nullptr);
    EXPECT_EQ(library->starts, 1);
}

TEST_F(ClientLibraryRegistryTest, FailedStartOrShutdownLeavesTheTableAsItWas) {
    auto failing = std::make_shared<CountingLibrary>();
    failing->failStart = true;
    EXPECT_THROW(add("FLAKY_START", failing), KW::Exception);
    EXPECT_EQ(invalidDestinationText([&] { create("d", "FLAKY_START"); }),
              "Invalid destination data");

    // Nothing was stored, so the next registration is attempted for real.
    auto working = std::make_shared<CountingLibrary>();
    add("FLAKY_START", working);
    EXPECT_EQ(working->starts, 1);
    EXPECT_NE(create("d", "FLAKY_START"), nullptr);

    auto stubborn = std::make_shared<CountingLibrary>();
    stubborn->failShutdown = true;
    add("FLAKY_SHUTDOWN", stubborn);
    EXPECT_THROW(registry->shutdownClientLibrary("FLAKY_SHUTDOWN"), std::runtime_error);
    EXPECT_NE(create("d", "FLAKY_SHUTDOWN"), nullptr) << "entry stays after a failed shutdown";
    stubborn->failShutdown = false;
}

TEST_F(ClientLibraryRegistryTest, ConfigurationResolvesDataIntoTypeAndProperties) {
    EXPECT_EQ(invalidDestinationText([&] { registry->createClient("any", nullptr); }),
              "Invalid destination data");

    auto library = std::make_shared<CountingLibrary>();
    add("CONFIGURED", library);
    auto configuration = std::make_shared<MapConfiguration>();
    configuration->types = {{"known-data", "CONFIGURED"}, {"stray-data", "NOT_A_LIBRARY"}};
    registry->registerConfiguration(configuration);

    auto client =
        std::dynamic_pointer_cast<StubClient>(registry->createClient("known-data", nullptr));
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->destination, "known-data");
    EXPECT_EQ(client->properties, (Properties{{"data", "known-data"}}));

    EXPECT_EQ(invalidDestinationText([&] { registry->createClient("stray-data", nullptr); }),
              "Invalid destination data");
    EXPECT_EQ(invalidDestinationText([&] { registry->createClient("unmapped", nullptr); }),
              "Invalid destination data");

    registry->registerConfiguration(nullptr);
    EXPECT_EQ(invalidDestinationText([&] { registry->createClient("known-data", nullptr); }),
              "Invalid destination data");
}

TEST_F(ClientLibraryRegistryTest, ConcurrentRegistrationStartsExactlyOneLibrary) {
    std::vector<std::shared_ptr<CountingLibrary>> libraries;
    for (int i = 0; i < 8; ++i) {
        libraries.push_back(std::make_shared<CountingLibrary>());
    }
    registered.push_back("RACED");
    std::vector<std::thread> threads;
    for (auto& library : libraries) {
        threads.emplace_back([this, library] {
            registry->registerClientLibrary("RACED", library);
            registry->getInstance();
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    int started = 0;
    for (auto& library : libraries) {
        started += library->starts;
    }
    EXPECT_EQ(started, 1);
}

}  // namespace
