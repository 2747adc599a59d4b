#include "solace/impl/TopicReceiveTask.h"

#include "solace/impl/Session.h"
#include "solace/impl/Subscription.h"

namespace KW {
namespace Solace {
namespace Impl {

TopicReceiveTask::TopicReceiveTask(void* msg, std::shared_ptr<KW::DataPacket> payload,
                                   Subscription* subscription)
    : ReceiveTask(subscription->getSession(), KW::QOS::AT_MOST_ONCE,
                  readTopic(subscription->getSession().getAPI(), msg), msg, std::move(payload),
                  subscription->getHandler()) {}

TopicReceiveTask::~TopicReceiveTask() = default;

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
