#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>

#include "core/WorkerContext.h"
#include "core/WorkerFunctor.h"

namespace KW {

// A worker pool: the context plus the thread body it runs and a destructor
// that stops the threads. Tasks still queued at destruction are dropped
// unprocessed.
template <typename Task, typename Owner, bool batch,
          typename Queue = std::queue<Task, std::deque<Task>>,
          typename Context = WorkerContext<Task, Owner, Queue>,
          typename Functor = WorkerFunctor<Context, Owner, batch>>
class Worker : public Context {
  public:
    Worker() = default;

    ~Worker() override {
        this->setProcessor(nullptr, 0);
        this->awaitDetachedJobs();
    }

  protected:
    std::shared_ptr<std::thread> startJob(Owner* owner) override {
        return std::make_shared<std::thread>(Functor(this, owner));
    }
};

}  // namespace KW
