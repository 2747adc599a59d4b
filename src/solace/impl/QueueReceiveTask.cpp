#include "solace/impl/QueueReceiveTask.h"

#include "solace/impl/Flow.h"

namespace KW {
namespace Solace {
namespace Impl {

QueueReceiveTask::QueueReceiveTask(void* msg, std::shared_ptr<KW::DataPacket> payload, Flow* flow)
    : ReceiveTask(flow->getSession(), flow->getQOS(), flow->getName().c_str(), msg,
                  std::move(payload), flow->getHandler()),
      flow(flow->shared_from_this()) {}

QueueReceiveTask::~QueueReceiveTask() = default;

void QueueReceiveTask::acknowledge() {
    flow->acknowledge(messageID);
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
