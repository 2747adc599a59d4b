#include "solace/impl/ReestablishTask.h"

#include "solace/impl/Session.h"

namespace KW {
namespace Solace {
namespace Impl {

ReestablishTask::ReestablishTask(Session& session)
    : SubscribeTask(SUBSCRIBE, KW::Reference::NONE), session(session) {}

void ReestablishTask::execute() {
    session.reestablish();
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
