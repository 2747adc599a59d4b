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

// Records what it is asked and fails its start or shutdown on request.
struct FakeLibrary : KW::ClientLibrary {
    void start() override { step(starts); }
    void shutdown() override { step(shutdowns); }
    std::shared_ptr<KW::Client> createClient(std::string const& destination,
                                             Properties const& properties,
                                             std::shared_ptr<KW::EventHandler>) override {
        destinations.push_back(destination);
        lastProperties = properties;
        return nullptr;
    }
    void step(int& count) {
        ++count;
        if (fail) {
            throw KW::Exception("failed on request");
        }
    }

    int starts = 0, shutdowns = 0;
    bool fail = false;
    Strings destinations;
    Properties lastProperties;
};

// Maps the data it knows to a type; always answers with properties.
struct MapConfiguration : KW::Configuration {
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

// The registry is one per process: each test uses destination types of its own.
KW::ClientLibraryRegistry* registry() {
    return KW::ClientLibraryRegistry::getInstance();
}

std::shared_ptr<FakeLibrary> add(std::string const& type, bool fail = false) {
    auto library = std::make_shared<FakeLibrary>();
    library->fail = fail;
    registry()->registerClientLibrary(type, library);
    return library;
}
// Creates a client by type, or from data through the configuration; false
// when refused as invalid destination data.
template <typename Call>
bool accepted(Call call) {
    try {
        call();
    } catch (KW::Exception const& e) {
        EXPECT_EQ(e.code(), 0);
        EXPECT_STREQ(e.what(), "Invalid destination data");
        return false;
    }
    return true;
}
bool create(std::string type, Properties properties = {}) {
    return accepted([&] { registry()->createClient("dest", type, properties, nullptr); });
}
bool createFrom(std::string const& data) {
    return accepted([&] { registry()->createClient(data, nullptr); });
}

// The first registration of a type wins and a shut-down type can be registered
// again. A failed start stores nothing, so the next registration is attempted
// for real; a failed shutdown keeps the entry.
TEST(ClientLibraryRegistry, FirstRegistrationWinsExactTypesOnlyAndFailuresChangeNothing) {
    EXPECT_EQ(KW::ClientFactory::getInstance(), registry());
    auto first = add("FIRST_WINS");
    auto second = add("FIRST_WINS");
    registry()->registerClientLibrary("FIRST_WINS_EMPTY", nullptr);
    EXPECT_EQ(second->starts, 0);
    EXPECT_TRUE(create("FIRST_WINS", {{"host", "h"}}));
    EXPECT_EQ(first->destinations, Strings{"dest"});
    EXPECT_EQ(first->lastProperties, (Properties{{"host", "h"}}));
    EXPECT_TRUE(second->destinations.empty());
    EXPECT_EQ(first->starts, 1) << "started once, by its registration only";
    for (std::string type :
         {"NEVER_REGISTERED", "first_wins", "FIRST_WINS ", "", "FIRST_WINS_EMPTY"}) {
        EXPECT_FALSE(create(type)) << type;
    }
    registry()->shutdownClientLibrary("FIRST_WINS");
    registry()->shutdownClientLibrary("FIRST_WINS");
    registry()->shutdownClientLibrary("NEVER_REGISTERED");
    EXPECT_EQ(first->shutdowns, 1);
    EXPECT_FALSE(create("FIRST_WINS"));
    EXPECT_EQ(add("FIRST_WINS")->starts, 1);

    EXPECT_THROW(add("FLAKY_START", true), KW::Exception);
    EXPECT_FALSE(create("FLAKY_START"));
    EXPECT_EQ(add("FLAKY_START")->starts, 1);
    auto stubborn = add("FLAKY_SHUTDOWN");
    stubborn->fail = true;
    EXPECT_THROW(registry()->shutdownClientLibrary("FLAKY_SHUTDOWN"), KW::Exception);
    EXPECT_TRUE(create("FLAKY_SHUTDOWN"));
}

TEST(ClientLibraryRegistry, ConfigurationResolvesDataIntoTypeAndProperties) {
    EXPECT_FALSE(createFrom("any")) << "no configuration";
    auto library = add("CONFIGURED");
    auto configuration = std::make_shared<MapConfiguration>();
    configuration->types = {{"known-data", "CONFIGURED"}, {"stray-data", "NOT_A_LIBRARY"}};
    registry()->registerConfiguration(configuration);
    EXPECT_TRUE(createFrom("known-data"));
    EXPECT_EQ(library->destinations, Strings{"known-data"});
    EXPECT_EQ(library->lastProperties, (Properties{{"data", "known-data"}}));
    EXPECT_FALSE(createFrom("stray-data"));
    EXPECT_FALSE(createFrom("unmapped"));
    registry()->registerConfiguration(nullptr);
    EXPECT_FALSE(createFrom("known-data"));
}

}  // namespace
