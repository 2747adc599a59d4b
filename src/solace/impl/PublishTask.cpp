#include "solace/impl/PublishTask.h"

namespace KW {
namespace Solace {
namespace Impl {

PublishTask::PublishTask(Session& session, KW::QOS::Enum qos, char const* topic,
                         std::shared_ptr<KW::DataPacket> payload,
                         std::shared_ptr<KW::Reference> reference)
    : MessageTask(session, qos, topic, nextID(), std::move(reference)),
      payload(std::move(payload)) {}

PublishTask::PublishTask(Session& session, KW::QOS::Enum qos, char const* topic, void const* data,
                         unsigned long size, std::shared_ptr<KW::Reference> reference)
    : MessageTask(session, qos, topic, nextID(), std::move(reference)),
      borrowed(data),
      borrowedSize(size) {}

PublishTask::~PublishTask() = default;

void PublishTask::keepBorrowed() {
    if (borrowed != nullptr) {
        payload = KW::DataPacket::create(borrowed, borrowedSize);
        borrowed = nullptr;
    }
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
