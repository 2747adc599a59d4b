#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/ClientLibrary.h"
#include "core/ClientLibraryRegistry.h"
#include "core/Configuration.h"
#include "core/Exception.h"

namespace {

using Properties = std::map<std::string, std::string>;

// Records what it is asked; creates no real clients.
class FakeLibrary : public KW::ClientLibrary {
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
        destinations.push_back(destination);
        lastProperties = properties;
        return nullptr;
    }

    int starts = 0;
    int shutdowns = 0;
    bool failStart = false;
    bool failShutdown = false;
    std::vector<std::string> destinations;
    Properties lastProperties;
};

class MapConfiguration : public KW::Configuration {
  public:
    bool resolveDestination(std::string const& data, std::string& destinationType,
                            Properties& properties) override {
        if (types.count(data) != 0) {
            destinationType = types[data];
        }
        properties = {{"data", data}};
        return true;
    }
    std::map<std::string, std::string> types;
};

// The text of the KW::Exception that `action` throws.
std::string thrownText(std::function<void()> const& action) {
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

    void create(std::string const& destination, std::string type, Properties properties = {}) {
        registry->createClient(destination, type, properties, nullptr);
    }

    KW::ClientLibraryRegistry* registry = KW::ClientLibraryRegistry::getInstance();
    std::vector<std::string> registered;
};

TEST_F(ClientLibraryRegistryTest, FirstRegistrationWinsAndIsTheFactory) {
    EXPECT_EQ(KW::ClientFactory::getInstance(), registry);
    auto first = std::make_shared<FakeLibrary>();
    auto second = std::make_shared<FakeLibrary>();
    add("FIRST_WINS", first);
    add("FIRST_WINS", second);
    add("FIRST_WINS_EMPTY", nullptr);
    EXPECT_EQ(first->starts, 1);
    EXPECT_EQ(second->starts, 0);

    // The library is chosen by type and receives the destination.
    create("dest-1", "FIRST_WINS", {{"host", "h"}});
    EXPECT_EQ(first->destinations, std::vector<std::string>{"dest-1"});
    EXPECT_EQ(first->lastProperties, (Properties{{"host", "h"}}));
    EXPECT_TRUE(second->destinations.empty());
    EXPECT_EQ(first->starts, 1) << "creating a client never starts a library";
}

TEST_F(ClientLibraryRegistryTest, UnknownTypesAreInvalidDestinations) {
    add("CASED", std::make_shared<FakeLibrary>());
    for (std::string type : {"NEVER_REGISTERED", "cased", "CASED ", ""}) {
        EXPECT_EQ(thrownText([&] { create("d", type); }), "Invalid destination data") << type;
    }
}

TEST_F(ClientLibraryRegistryTest, ShutdownOnceThenTypeIsGoneUntilReregistered) {
    auto library = std::make_shared<FakeLibrary>();
    add("CYCLED", library);
    registry->shutdownClientLibrary("CYCLED");
    registry->shutdownClientLibrary("CYCLED");
    registry->shutdownClientLibrary("CYCLED_NEVER_KNOWN");
    EXPECT_EQ(library->shutdowns, 1);
    EXPECT_EQ(thrownText([&] { create("d", "CYCLED"); }), "Invalid destination data");

    auto replacement = std::make_shared<FakeLibrary>();
    add("CYCLED", replacement);
    EXPECT_EQ(replacement->starts, 1);
    create("d", "CYCLED");
    EXPECT_EQ(replacement->destinations.size(), 1u);
}

TEST_F(ClientLibraryRegistryTest, FailedStartOrShutdownLeavesTheTableAsItWas) {
    auto failing = std::make_shared<FakeLibrary>();
    failing->failStart = true;
    EXPECT_THROW(add("FLAKY_START", failing), KW::Exception);
    EXPECT_EQ(thrownText([&] { create("d", "FLAKY_START"); }), "Invalid destination data");

    // Nothing was stored, so the next registration is attempted for real.
    auto working = std::make_shared<FakeLibrary>();
    add("FLAKY_START", working);
    EXPECT_EQ(working->starts, 1);

    auto stubborn = std::make_shared<FakeLibrary>();
    stubborn->failShutdown = true;
    add("FLAKY_SHUTDOWN", stubborn);
    EXPECT_THROW(registry->shutdownClientLibrary("FLAKY_SHUTDOWN"), std::runtime_error);
    create("d", "FLAKY_SHUTDOWN");
    EXPECT_EQ(stubborn->destinations.size(), 1u) << "entry stays after a failed shutdown";
    stubborn->failShutdown = false;
}

TEST_F(ClientLibraryRegistryTest, ConfigurationResolvesDataIntoTypeAndProperties) {
    auto invalid = [&](std::string const& data) {
        return thrownText([&] { registry->createClient(data, nullptr); });
    };
    EXPECT_EQ(invalid("any"), "Invalid destination data");

    auto library = std::make_shared<FakeLibrary>();
    add("CONFIGURED", library);
    auto configuration = std::make_shared<MapConfiguration>();
    configuration->types = {{"known-data", "CONFIGURED"}, {"stray-data", "NOT_A_LIBRARY"}};
    registry->registerConfiguration(configuration);

    registry->createClient("known-data", nullptr);
    EXPECT_EQ(library->destinations, std::vector<std::string>{"known-data"});
    EXPECT_EQ(library->lastProperties, (Properties{{"data", "known-data"}}));
    EXPECT_EQ(invalid("stray-data"), "Invalid destination data");
    EXPECT_EQ(invalid("unmapped"), "Invalid destination data");

    registry->registerConfiguration(nullptr);
    EXPECT_EQ(invalid("known-data"), "Invalid destination data");
}

}  // namespace
