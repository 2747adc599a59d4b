#pragma once

#include "solace/impl/SubscribeTask.h"

namespace KW {
namespace Solace {
namespace Impl {

class Subscription;

// Starts or stops one subscription. An UNSUBSCRIBE task owns its target: the
// session hands it over when it drops the subscription from its map, and the
// subscription lives until its stop has run.
class TopicSubscribeTask : public SubscribeTask {
  public:
    // A target that stays owned by the session's map.
    TopicSubscribeTask(Action action, Subscription* subscription,
                       std::shared_ptr<KW::Reference> reference);
    // A target handed over to the task.
    TopicSubscribeTask(Action action, std::unique_ptr<Subscription> subscription,
                       std::shared_ptr<KW::Reference> reference);
    ~TopicSubscribeTask() override;

    void execute() override;

    Subscription* getSubscription() const { return subscription; }

  private:
    Subscription* subscription;
    std::unique_ptr<Subscription> owned;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
