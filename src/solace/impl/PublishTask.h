#pragma once

#include "core/DataPacket.h"
#include "solace/impl/MessageTask.h"

namespace KW {
namespace Solace {
namespace Impl {

// A payload published by the application.
class PublishTask : public MessageTask {
  public:
    PublishTask(Session& session, KW::QOS::Enum qos, char const* topic,
                std::shared_ptr<KW::DataPacket> payload, std::shared_ptr<KW::Reference> reference);
    ~PublishTask() override;

    std::shared_ptr<KW::DataPacket> getPayload() const override { return payload; }
    void acknowledge() override {}

  private:
    std::shared_ptr<KW::DataPacket> payload;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
