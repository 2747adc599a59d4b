#include "solace/impl/QueueSubscribeTask.h"

#include "solace/impl/Flow.h"

namespace KW {
namespace Solace {
namespace Impl {

QueueSubscribeTask::QueueSubscribeTask(Action action, std::shared_ptr<Flow> flow,
                                       std::shared_ptr<KW::Reference> reference)
    : SubscribeTask(action, std::move(reference)), flow(std::move(flow)) {}

QueueSubscribeTask::~QueueSubscribeTask() = default;

void QueueSubscribeTask::execute() {
    if (!flow) {
        return;
    }
    switch (action) {
        case SUBSCRIBE:
            flow->start(reference);
            break;
        case UNSUBSCRIBE:
            flow->stop(reference);
            break;
    }
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
