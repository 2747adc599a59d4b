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
using Strings = std::vector<std::string>;

// Records what it is asked and can fail on request; creates no real clients.
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

    int starts = 0, shutdowns = 0;
    bool failStart = false, failShutdown = false;
    Strings destinations;
    Properties lastProperties;
};

// Maps data to a type when it knows the data; always answers with properties.
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

    std::shared_ptr<FakeLibrary> add(std::string const& type,
                                     std::shared_ptr<FakeLibrary> library = make()) {
        registered.push_back(type);
        registry->registerClientLibrary(type, library);
        return library;
    }
    static std::shared_ptr<FakeLibrary> make() { return std::make_shared<FakeLibrary>(); }

    void create(std::string const& destination, std::string type, Properties properties = {}) {
        registry->createClient(destination, type, properties, nullptr);
    }
    std::string createFails(std::string const& type) {
        return thrownText([&] { create("d", type); });
    }

    KW::ClientLibraryRegistry* registry = KW::ClientLibraryRegistry::getInstance();
    Strings registered;
};

TEST_F(ClientLibraryRegistryTest, FirstRegistrationWinsAndOnlyExactTypesMatch) {
    EXPECT_EQ(KW::ClientFactory::getInstance(), registry);
    auto first = add("FIRST_WINS");
    auto second = add("FIRST_WINS");
    add("FIRST_WINS_EMPTY", nullptr);
    EXPECT_EQ(first->starts, 1);
    EXPECT_EQ(second->starts, 0);

    create("dest-1", "FIRST_WINS", {{"host", "h"}});
    EXPECT_EQ(first->destinations, Strings{"dest-1"});
    EXPECT_EQ(first->lastProperties, (Properties{{"host", "h"}}));
    EXPECT_TRUE(second->destinations.empty());
    EXPECT_EQ(first->starts, 1) << "creating a client never starts a library";

    for (std::string type : {"NEVER_REGISTERED", "first_wins", "FIRST_WINS ", ""}) {
        EXPECT_EQ(createFails(type), "Invalid destination data") << type;
    }
}

TEST_F(ClientLibraryRegistryTest, ShutdownOnceThenTypeIsGoneUntilReregistered) {
    auto library = add("CYCLED");
    registry->shutdownClientLibrary("CYCLED");
    registry->shutdownClientLibrary("CYCLED");
    registry->shutdownClientLibrary("CYCLED_NEVER_KNOWN");
    EXPECT_EQ(library->shutdowns, 1);
    EXPECT_EQ(createFails("CYCLED"), "Invalid destination data");

    auto replacement = add("CYCLED");
    EXPECT_EQ(replacement->starts, 1);
    create("d", "CYCLED");
    EXPECT_EQ(replacement->destinations.size(), 1u);
}

TEST_F(ClientLibraryRegistryTest, FailedStartOrShutdownLeavesTheTableAsItWas) {
    auto failing = make();
    failing->failStart = true;
    EXPECT_THROW(add("FLAKY_START", failing), KW::Exception);
    EXPECT_EQ(createFails("FLAKY_START"), "Invalid destination data");
    // Nothing was stored, so the next registration is attempted for real.
    EXPECT_EQ(add("FLAKY_START")->starts, 1);

    auto stubborn = add("FLAKY_SHUTDOWN");
    stubborn->failShutdown = true;
    EXPECT_THROW(registry->shutdownClientLibrary("FLAKY_SHUTDOWN"), std::runtime_error);
    create("d", "FLAKY_SHUTDOWN");
    EXPECT_EQ(stubborn->destinations.size(), 1u) << "entry stays after a failed shutdown";
    stubborn->failShutdown = false;
}

TEST_F(ClientLibraryRegistryTest, ConfigurationResolvesDataIntoTypeAndProperties) {
    auto invalid = [&](std::string const& data) {
        return thrownText([&] { registry->createClient(data, nullptr); });
    };
    EXPECT_EQ(invalid("any"), "Invalid destination data") << "no configuration";

    auto library = add("CONFIGURED");
    auto configuration = std::make_shared<MapConfiguration>();
    configuration->types = {{"known-data", "CONFIGURED"}, {"stray-data", "NOT_A_LIBRARY"}};
    registry->registerConfiguration(configuration);
    registry->createClient("known-data", nullptr);
    EXPECT_EQ(library->destinations, Strings{"known-data"});
    EXPECT_EQ(library->lastProperties, (Properties{{"data", "known-data"}}));
    EXPECT_EQ(invalid("stray-data"), "Invalid destination data");
    EXPECT_EQ(invalid("unmapped"), "Invalid destination data");

    registry->registerConfiguration(nullptr);
    EXPECT_EQ(invalid("known-data"), "Invalid destination data");
}

}  // namespace
