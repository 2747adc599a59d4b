#pragma once

#include "solace/impl/ReceiveTask.h"

namespace KW {
namespace Solace {
namespace Impl {

class Flow;

// A message of a queue flow; acknowledging it removes it from the queue.
class QueueReceiveTask : public ReceiveTask {
  public:
    QueueReceiveTask(void* msg, Flow* flow);
    ~QueueReceiveTask() override;

    void acknowledge() override;

  private:
    Flow* flow;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
