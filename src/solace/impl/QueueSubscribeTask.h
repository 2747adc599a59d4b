#pragma once

#include "solace/impl/SubscribeTask.h"

namespace KW {
namespace Solace {
namespace Impl {

class Flow;

// Starts or stops one flow. An UNSUBSCRIBE task owns its target: the
// session hands it over when it drops the flow from its map, and the
// flow lives until its stop has run.
class QueueSubscribeTask : public SubscribeTask {
  public:
    QueueSubscribeTask(Action action, Flow* flow, std::shared_ptr<KW::Reference> reference);
    ~QueueSubscribeTask() override;

    void execute() override;

    Flow* getFlow() const { return flow; }

  private:
    Flow* flow;
    std::unique_ptr<Flow> owned;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
