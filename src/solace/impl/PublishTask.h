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
    // Borrows the caller's bytes (no packet) until keepBorrowed or dropBorrowed.
    PublishTask(Session& session, KW::QOS::Enum qos, char const* topic, void const* data,
                unsigned long size, std::shared_ptr<KW::Reference> reference);
    ~PublishTask() override;

    std::shared_ptr<KW::DataPacket> getPayload() const override { return payload; }
    void acknowledge() override {}
    void const* borrowedBytes(unsigned long& size) const override {
        size = borrowedSize;
        return borrowed;
    }
    // Copies borrowed bytes into the task's own packet: for a send that outlives the call.
    void keepBorrowed();
    // Forgets borrowed bytes once the library has taken (copied) them.
    void dropBorrowed() { borrowed = nullptr; }

  private:
    std::shared_ptr<KW::DataPacket> payload;
    void const* borrowed = nullptr;
    unsigned long borrowedSize = 0;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
