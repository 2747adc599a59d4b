#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Recorders.h"
#include "SolClientEmulator.h"
#include "core/Client.h"
#include "core/DataPacket.h"
#include "solace/impl/Client.h"
#include "solace/impl/Library.h"
#include "solace/impl/Session.h"

namespace KW {
namespace Solace {
namespace Test {

using namespace std::chrono_literals;

// A started library on a fresh stand-in, with clients made through it and
// everything torn down (and checked for leaked library messages) afterwards.
class AdapterTest : public ::testing::Test {
  public:
    static std::map<std::string, std::string> connectionData(std::string const& user = "alice");

  protected:
    static constexpr char const* HOST = "localhost";
    static constexpr char const* PORT = "55555";
    static constexpr char const* HOST_PORT = "localhost:55555";

    void SetUp() override;
    void TearDown() override;

    std::shared_ptr<KW::Client> makeClient(
        std::map<std::string, std::string> const& data = connectionData(),
        std::string const& destination = "dev");
    // A client connected within a few seconds.
    std::shared_ptr<KW::Client> connectedClient(
        std::map<std::string, std::string> const& data = connectionData());
    static Impl::Session& sessionOf(std::shared_ptr<KW::Client> const& client);
    std::shared_ptr<RecordingMessageHandler> makeHandler();
    // Subscribes and waits for the broker's answer.
    void subscribeTopic(std::shared_ptr<KW::Client> const& client,
                        std::shared_ptr<RecordingMessageHandler> const& handler,
                        std::string const& topic);
    static std::shared_ptr<KW::DataPacket> packet(std::string const& text);
    static std::string text(std::shared_ptr<KW::Message> const& message);

    std::shared_ptr<Impl::Library> library;
    std::shared_ptr<RecordingEventHandler> events = std::make_shared<RecordingEventHandler>();
    std::vector<std::shared_ptr<KW::Client>> clients;
    std::vector<std::shared_ptr<RecordingMessageHandler>> handlers;
};

}  // namespace Test
}  // namespace Solace
}  // namespace KW
