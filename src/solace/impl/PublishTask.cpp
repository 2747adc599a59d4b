#include "solace/impl/PublishTask.h"

namespace KW {
namespace Solace {
namespace Impl {

PublishTask::PublishTask(Session& session, KW::QOS::Enum qos, char const* topic,
                         std::shared_ptr<KW::DataPacket> payload,
                         std::shared_ptr<KW::Reference> reference)
    : MessageTask(session, qos, topic, nextID(), std::move(reference)),
      payload(std::move(payload)) {}

PublishTask::~PublishTask() = default;

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
