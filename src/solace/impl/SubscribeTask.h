#pragma once

#include <memory>

#include "core/Reference.h"

namespace KW {
namespace Solace {
namespace Impl {

// One start or stop of a topic subscription or a queue flow, run in request
// order on the session's subscribe worker.
class SubscribeTask {
  public:
    enum Action : int { SUBSCRIBE = 0, UNSUBSCRIBE = 1 };

    SubscribeTask(Action action, std::shared_ptr<KW::Reference> reference);
    virtual ~SubscribeTask();

    SubscribeTask(SubscribeTask const&) = delete;
    SubscribeTask& operator=(SubscribeTask const&) = delete;

    virtual void execute() = 0;

    Action getAction() const { return action; }

  protected:
    Action action;
    std::shared_ptr<KW::Reference> reference;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
