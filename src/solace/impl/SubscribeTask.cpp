#include "solace/impl/SubscribeTask.h"

namespace KW {
namespace Solace {
namespace Impl {

SubscribeTask::SubscribeTask(Action action, std::shared_ptr<KW::Reference> reference)
    : action(action), reference(std::move(reference)) {}

SubscribeTask::~SubscribeTask() = default;

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
