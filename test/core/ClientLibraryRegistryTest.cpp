#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/ClientLibrary.h"
#include "core/ClientLibraryRegistry.h"
#include "core/Configuration.h"
#include "core/Exception.h"

namespace {

using Properties = std::map<std::string, std::string>;
using Strings = std::vector<std::string>;

// Records what it is asked and fails its start or shutdown on request;
// creates no real clients.
class FakeLibrary : public KW::ClientLibrary {
  public:
    void start() override { step(starts); }
    void shutdown() override { step(shutdowns); }
    std::shared_ptr<KW::Client> createClient(std::string const& destination,
                                             Properties const& properties,
                                             std::shared_ptr<KW::EventHandler>) override {
        destinations.push_back(destination);
        lastProperties = properties;
        return nullptr;
    }

    int starts = 0, shutdowns = 0;
    bool fail = false;
    Strings destinations;
    Properties lastProperties;

  private:
    void step(int& count) {
        ++count;
        if (fail) {
            throw KW::Exception("failed on request");
        }
    }
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
    Properties types;
};

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

    std::shared_ptr<FakeLibrary> add(std::string const& type, bool fail = false) {
        auto library = std::make_shared<FakeLibrary>();
        library->fail = fail;
        registered.push_back(type);
        registry->registerClientLibrary(type, library);
        return library;
    }
    void create(std::string const& destination, std::string type, Properties properties = {}) {
        registry->createClient(destination, type, properties, nullptr);
    }
    // The text of the exception that creating a client throws.
    template <typename Create>
    static std::string failure(Create create) {
        try {
            create();
        } catch (KW::Exception const& e) {
            EXPECT_EQ(e.code(), 0);
            return e.what();
        }
        return "(nothing thrown)";
    }
    std::string createFails(std::string const& type) {
        return failure([&] { create("d", type); });
    }

    KW::ClientLibraryRegistry* registry = KW::ClientLibraryRegistry::getInstance();
    Strings registered;
};

TEST_F(ClientLibraryRegistryTest, FirstRegistrationWinsAndOnlyExactTypesMatch) {
    EXPECT_EQ(KW::ClientFactory::getInstance(), registry);
    auto first = add("FIRST_WINS");
    auto second = add("FIRST_WINS");
    registry->registerClientLibrary("FIRST_WINS_EMPTY", nullptr);
    EXPECT_EQ(first->starts, 1);
    EXPECT_EQ(second->starts, 0);

    create("dest-1", "FIRST_WINS", {{"host", "h"}});
    EXPECT_EQ(first->destinations, Strings{"dest-1"});
    EXPECT_EQ(first->lastProperties, (Properties{{"host", "h"}}));
    EXPECT_TRUE(second->destinations.empty());
    EXPECT_EQ(first->starts, 1) << "creating a client never starts a library";

    for (std::string type :
         {"NEVER_REGISTERED", "first_wins", "FIRST_WINS ", "", "FIRST_WINS_EMPTY"}) {
        EXPECT_EQ(createFails(type), "Invalid destination data") << type;
    }
}

TEST_F(ClientLibraryRegistryTest, ShutdownOnceAndFailuresLeaveTheTableAsItWas) {
    auto library = add("CYCLED");
    registry->shutdownClientLibrary("CYCLED");
    registry->shutdownClientLibrary("CYCLED");
    registry->shutdownClientLibrary("CYCLED_NEVER_KNOWN");
    EXPECT_EQ(library->shutdowns, 1);
    EXPECT_EQ(createFails("CYCLED"), "Invalid destination data");
    EXPECT_EQ(add("CYCLED")->starts, 1) << "a type shut down can be registered again";

    // A failed start stores nothing, so the next registration is attempted for real.
    EXPECT_THROW(add("FLAKY_START", true), KW::Exception);
    EXPECT_EQ(createFails("FLAKY_START"), "Invalid destination data");
    EXPECT_EQ(add("FLAKY_START")->starts, 1);

    auto stubborn = add("FLAKY_SHUTDOWN");
    stubborn->fail = true;
    EXPECT_THROW(registry->shutdownClientLibrary("FLAKY_SHUTDOWN"), KW::Exception);
    create("d", "FLAKY_SHUTDOWN");
    EXPECT_EQ(stubborn->destinations.size(), 1u) << "entry stays after a failed shutdown";
    stubborn->fail = false;
}

TEST_F(ClientLibraryRegistryTest, ConfigurationResolvesDataIntoTypeAndProperties) {
    auto invalid = [&](std::string const& data) {
        return failure([&] { registry->createClient(data, nullptr); });
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
