#include "solace/impl/QueueReceiveTask.h"

#include "core/DroppedFailures.h"
#include "solace/SolaceAPI.h"
#include "solace/impl/Flow.h"
#include "solace/impl/Session.h"

namespace KW {
namespace Solace {
namespace Impl {

QueueReceiveTask::QueueReceiveTask(void* msg, std::shared_ptr<KW::DataPacket> payload, Flow* flow)
    : ReceiveTask(flow->getSession(), flow->getQOS(), flow->getName().c_str(), msg,
                  std::move(payload), flow->getHandler()),
      flow(flow->shared_from_this()) {}

QueueReceiveTask::~QueueReceiveTask() = default;

void QueueReceiveTask::acknowledge() {
    solClient_opaqueFlow_pt handle = flow->getHandle();
    // A flow already stopped has nothing left to acknowledge on. A refused
    // acknowledgement is not reported: the broker redelivers the message.
    if (handle != nullptr && session.getAPI().flowSendAck(handle, messageID) != SOLCLIENT_OK) {
        KW::DroppedFailures::record("solClient_flow_sendAck", "acknowledgement refused");
    }
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
