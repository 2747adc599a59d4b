#pragma once

#include "solace/impl/ReceiveTask.h"

namespace KW {
namespace Solace {
namespace Impl {

class Flow;

// A message of a queue flow; acknowledging it removes it from the queue. It
// keeps its flow alive: once the flow is stopped there is nothing to
// acknowledge on and the acknowledgement is dropped.
class QueueReceiveTask : public ReceiveTask {
  public:
    QueueReceiveTask(void* msg, std::shared_ptr<KW::DataPacket> payload, Flow* flow);
    ~QueueReceiveTask() override;

    void acknowledge() override;

  private:
    std::shared_ptr<Flow> flow;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
