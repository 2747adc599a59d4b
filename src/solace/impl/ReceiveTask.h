#pragma once

#include "core/DataPacket.h"
#include "core/MessageHandler.h"
#include "solace/impl/MessageTask.h"

namespace KW {
namespace Solace {

class SolaceAPI;

namespace Impl {

// A message received from the library, copied out of the library's message
// on the context thread so that the library can keep and free its own.
class ReceiveTask : public MessageTask {
  public:
    ReceiveTask(Session& session, KW::QOS::Enum qos, char const* topic, void* msg,
                std::shared_ptr<KW::MessageHandler> handler);
    ~ReceiveTask() override;

    std::shared_ptr<KW::DataPacket> getPayload() const override { return payload; }
    std::shared_ptr<KW::MessageHandler> const& getHandler() const { return handler; }

    // The message id, or 0 when the message has none.
    static unsigned long long readId(SolaceAPI const& api, void* msg);
    // A copy of the binary attachment, or null when there is none.
    static std::shared_ptr<KW::DataPacket> readPayload(SolaceAPI const& api, void* msg);
    // The destination name; valid while the library message lives.
    static char const* readTopic(SolaceAPI const& api, void* msg);

  protected:
    std::shared_ptr<KW::DataPacket> payload;
    std::shared_ptr<KW::MessageHandler> handler;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
