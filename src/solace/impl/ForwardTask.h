#pragma once

#include "core/DataPacket.h"
#include "solace/impl/MessageTask.h"

namespace KW {
namespace Solace {
namespace Impl {

// A received message sent on to another destination. Once the send is
// accepted the forwarded message is acknowledged.
class ForwardTask : public MessageTask {
  public:
    ForwardTask(Session& session, KW::QOS::Enum qos, char const* topic,
                std::shared_ptr<KW::Message>& message, std::shared_ptr<KW::Reference> reference);
    ~ForwardTask() override;

    // A null message forwards an empty message (no attachment).
    std::shared_ptr<KW::DataPacket> getPayload() const override;
    void acknowledge() override;

  private:
    std::shared_ptr<KW::Message> message;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
