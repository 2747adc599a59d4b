#pragma once

#include <pthread.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "core/DroppedFailures.h"
#include "core/ThreadSlice.h"

namespace KW {

// Body of one worker thread: takes tasks (one at a time, or up to batchSize
// at once for a batch worker) and hands them to the owner's process(), with
// no lock of the pool held during the call. Ends when the pool is stopped or
// after idleTimeoutMs without work.
template <typename Context, typename Owner, bool batch>
class WorkerFunctor {
  public:
    using Task = typename Context::TaskType;

    // Constructed with the context's queueMutex held.
    WorkerFunctor(Context* context, Owner* owner)
        : context(context), owner(owner), generation(context->generation) {}

    void operator()() {
        if (context->threadName[0] != '\0') {
            pthread_setname_np(pthread_self(), context->threadName);
        }
        if (context->shortSlice) {
            ThreadSlice::requestShort();
        }
        std::unique_lock<std::mutex> lock(context->queueMutex, std::defer_lock);
        Context::lockQueue(lock);
        while (awaitTask(lock)) {
            if constexpr (batch) {
                // The previous batch is released here, not earlier.
                batchList.clear();
                // An unset batch size still makes progress, one task at a time.
                std::uint64_t limit = context->batchSize != 0 ? context->batchSize : 1;
                while (!context->queue.empty() && batchList.size() < limit) {
                    batchList.push_back(std::move(context->queue.front()));
                    context->queue.pop();
                }
                context->tookTasks();
                // A batch take never signals notFull: a producer facing a full
                // receive queue re-checks only when its push time-out ends.
                lock.unlock();
                try {
                    owner->process(batchList);
                } catch (...) {
                    // Nothing may leave a worker thread.
                    DroppedFailures::recordCurrent("WorkerFunctor batch");
                }
            } else {
                Task task = std::move(context->queue.front());
                context->queue.pop();
                context->tookTasks();
                bool bounded = context->maxQueueSize != 0;
                lock.unlock();
                if (bounded) {
                    context->notFull.notify_all();
                }
                try {
                    owner->process(task);
                } catch (...) {
                    // Nothing may leave a worker thread.
                    DroppedFailures::recordCurrent("WorkerFunctor task");
                }
            }
            Context::lockQueue(lock);
        }
        finish(lock);
    }

  private:
    bool stopped() const {
        return context->processor == nullptr || context->generation != generation;
    }

    // With queueMutex held: true when a task is waiting for this thread,
    // false when the thread is to end.
    bool awaitTask(std::unique_lock<std::mutex>& lock) {
        if (context->queue.empty()) {
            auto deadline =
                Context::Clock::now() + std::chrono::milliseconds(context->idleTimeoutMs);
            if (stopped()) {
                return false;
            }
            spin(lock);
            // A stop made during the spin found nobody waiting to notify.
            if (stopped()) {
                return false;
            }
            while (context->queue.empty()) {
                context->notEmpty.wait_until(lock, deadline);
                if (stopped()) {
                    return false;
                }
                if (!context->queue.empty()) {
                    break;
                }
                if (Context::Clock::now() >= deadline) {
                    return false;
                }
            }
        }
        return !stopped();
    }

    // With queueMutex held on entry and on return: watches the queue for up
    // to spinMicros before the caller sleeps. The same checks follow under
    // the lock, so a spin that sees nothing changes nothing but the timing.
    void spin(std::unique_lock<std::mutex>& lock) {
        // One watcher per pool: a second spinner would only race the first
        // for the same task and burn the core the producer needs.
        if (context->spinMicros == 0 || context->spinning) {
            return;
        }
        context->spinning = true;
        lock.unlock();
        auto const until =
            std::chrono::steady_clock::now() + std::chrono::microseconds(context->spinMicros);
        for (unsigned round = 0;; ++round) {
            if (context->queuedHint.load(std::memory_order_acquire) != 0) {
                break;
            }
            if ((round & 15) == 15) {
                if (std::chrono::steady_clock::now() >= until) {
                    break;
                }
                // Gives the core to a producer that shares it.
                std::this_thread::yield();
            } else {
                Context::relax();
            }
        }
        Context::lockQueue(lock);
        context->spinning = false;
    }

    // With queueMutex held. A thread of a stopped generation was already
    // discounted by the stop.
    void finish(std::unique_lock<std::mutex>& lock) {
        auto self = std::this_thread::get_id();
        if (context->generation == generation) {
            --context->jobCount;
            context->endedJobs.push_back(self);
        } else if (retired(self)) {
            // Hands over: the pool may have been started again meanwhile, with
            // work waiting for this thread's place.
            --context->retiredRunning;
            context->initJobs(lock);
            context->retiredEnded.push_back(self);
        }
        auto& detached = context->detachedJobs;
        for (auto it = detached.begin(); it != detached.end(); ++it) {
            if (*it == self) {
                detached.erase(it);
                // Notified under the lock: the context may be destroyed as
                // soon as it is released.
                context->detachedEnded.notify_all();
                break;
            }
        }
        lock.unlock();
    }

    bool retired(std::thread::id self) const {
        for (auto const& job : context->retiredJobs) {
            if (job->get_id() == self) {
                return true;
            }
        }
        return false;
    }

    Context* context;
    Owner* owner;
    std::uint64_t generation;
    std::vector<Task> batchList;
};

}  // namespace KW
