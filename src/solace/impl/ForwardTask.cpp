#include "solace/impl/ForwardTask.h"

namespace KW {
namespace Solace {
namespace Impl {

ForwardTask::ForwardTask(Session& session, KW::QOS::Enum qos, char const* topic,
                         std::shared_ptr<KW::Message>& message,
                         std::shared_ptr<KW::Reference> reference)
    : MessageTask(session, qos, topic, nextID(), std::move(reference)), message(message) {}

ForwardTask::~ForwardTask() = default;

std::shared_ptr<KW::DataPacket> ForwardTask::getPayload() const {
    return message ? message->getPayload() : nullptr;
}

void ForwardTask::acknowledge() {
    if (message) {
        message->acknowledge();
    }
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
