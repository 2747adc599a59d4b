#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "EventRecorder.h"
#include "MessageRecorder.h"
#include "SolClientEmulator.h"
#include "solace/impl/Client.h"
#include "solace/impl/Connection.h"
#include "solace/impl/Library.h"
#include "solace/impl/Session.h"

namespace KW {
namespace Solace {
namespace Test {

using namespace std::chrono_literals;
using Data = std::map<std::string, std::string>;

constexpr char const* HOST_PORT = "localhost:55555";
constexpr int CONNECTED = Impl::Connection::CONNECTED;

Data connectionData(std::string const& user = "alice");
std::shared_ptr<KW::DataPacket> packet(std::string const& text);
Impl::Session& sessionOf(std::shared_ptr<KW::Client> const& client);

// A started library on a fresh stand-in. Clients and handlers made through
// the fixture are released and their sessions terminated afterwards, and no
// library message may be left alive.
class AdapterTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    std::shared_ptr<KW::Client> makeClient(Data const& data = connectionData());
    std::shared_ptr<KW::Client> connectedClient();
    std::shared_ptr<MessageRecorder> makeHandler();
    // Subscribes to a topic and waits for the broker's confirmation.
    void subscribe(std::shared_ptr<KW::Client> const& client,
                   std::shared_ptr<MessageRecorder> const& handler, std::string const& topic);
    // Publishes a marker to a topic the handler receives and waits for it.
    void flush(std::shared_ptr<KW::Client> const& client,
               std::shared_ptr<MessageRecorder> const& handler, std::string const& topic);

    std::shared_ptr<Impl::Library> library;
    std::shared_ptr<EventRecorder> events = std::make_shared<EventRecorder>();
    std::vector<std::shared_ptr<KW::Client>> clients;
    std::vector<std::shared_ptr<MessageRecorder>> handlers;
};

}  // namespace Test
}  // namespace Solace
}  // namespace KW
