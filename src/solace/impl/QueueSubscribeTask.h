#pragma once

#include "solace/impl/SubscribeTask.h"

namespace KW {
namespace Solace {
namespace Impl {

class Flow;

// Starts or stops one flow. The flow is shared: besides the session's map
// and this task, the messages received on it keep it, so that acknowledging
// a message after its queue was unsubscribed finds a stopped flow rather
// than a destroyed one.
class QueueSubscribeTask : public SubscribeTask {
  public:
    QueueSubscribeTask(Action action, std::shared_ptr<Flow> flow,
                       std::shared_ptr<KW::Reference> reference);
    ~QueueSubscribeTask() override;

    void execute() override;

    Flow* getFlow() const { return flow.get(); }

  private:
    std::shared_ptr<Flow> flow;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
