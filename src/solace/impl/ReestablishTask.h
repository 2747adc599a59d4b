#pragma once

#include "solace/impl/SubscribeTask.h"

namespace KW {
namespace Solace {
namespace Impl {

class Session;

// Runs Session::reestablish in the subscribe worker's request order: queued
// when a new connection is up, behind the requests made while it was down.
class ReestablishTask : public SubscribeTask {
  public:
    explicit ReestablishTask(Session& session);

    void execute() override;

  private:
    Session& session;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
