#include "solace/impl/TopicSubscribeTask.h"

#include "solace/impl/Subscription.h"

namespace KW {
namespace Solace {
namespace Impl {

TopicSubscribeTask::TopicSubscribeTask(Action action, Subscription* subscription,
                                       std::shared_ptr<KW::Reference> reference)
    : SubscribeTask(action, std::move(reference)), subscription(subscription) {}

TopicSubscribeTask::TopicSubscribeTask(Action action, std::unique_ptr<Subscription> subscription,
                                       std::shared_ptr<KW::Reference> reference)
    : SubscribeTask(action, std::move(reference)),
      subscription(subscription.get()),
      owned(std::move(subscription)) {}

TopicSubscribeTask::~TopicSubscribeTask() = default;

void TopicSubscribeTask::execute() {
    if (subscription == nullptr) {
        return;
    }
    switch (action) {
        case SUBSCRIBE:
            subscription->start(reference);
            break;
        case UNSUBSCRIBE:
            subscription->stop(reference);
            break;
    }
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
