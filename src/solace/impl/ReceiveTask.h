#pragma once

#include "core/DataPacket.h"
#include "core/MessageHandler.h"
#include "solace/impl/MessageTask.h"

namespace KW {
namespace Solace {

class SolaceAPI;

namespace Impl {

// A message received from the library. Its fields are read on the context
// thread; a small payload is copied out, a large one stays in the library's
// message, which the payload then owns (see readPayload).
class ReceiveTask : public MessageTask {
  public:
    // Payloads up to this size are copied: their packet, room included,
    // stays within the allocator's per-thread cache. A larger copy would take
    // an arena lock here and again on the JavaScript thread that frees it, so
    // a larger payload stays in the library's message.
    static constexpr unsigned long COPIED_MAX = 256;

    ReceiveTask(Session& session, KW::QOS::Enum qos, char const* topic, void* msg,
                std::shared_ptr<KW::DataPacket> payload,
                std::shared_ptr<KW::MessageHandler> handler);
    ~ReceiveTask() override;

    std::shared_ptr<KW::DataPacket> getPayload() const override { return payload; }
    std::shared_ptr<KW::MessageHandler> const& getHandler() const { return handler; }

    // The message id, or 0 when the message has none.
    static unsigned long long readId(SolaceAPI const& api, void* msg);
    // The binary attachment, or null when there is none. Above COPIED_MAX
    // the packet points into the attachment and owns `msg` (freed with
    // msg_free when the last reference goes, on whatever thread), and `taken`
    // is set: from then on the receive callback must answer TAKE_MSG,
    // whatever else fails.
    static std::shared_ptr<KW::DataPacket> readPayload(SolaceAPI const& api, void* msg,
                                                       bool& taken);
    // The destination name; valid while the library message lives.
    static char const* readTopic(SolaceAPI const& api, void* msg);

  protected:
    std::shared_ptr<KW::DataPacket> payload;
    std::shared_ptr<KW::MessageHandler> handler;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
