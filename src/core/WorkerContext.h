#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

namespace KW {

// The queue of a worker pool, its locks, tuning values and running threads.
// Threads are started on demand as the queue grows past `jobThresholds` and
// end after `idleTimeoutMs` without work. The owner sets the tuning values
// before the first push and never changes them afterwards.
//
// Lock order: processorMutex before queueMutex. queueMutex guards the queue,
// `processor`, `jobCount`, `jobs` and the bookkeeping below them.
template <typename Task, typename Owner, typename Queue = std::queue<Task, std::deque<Task>>>
class WorkerContext {
  public:
    using TaskType = Task;
    using OwnerType = Owner;
    using Clock = std::chrono::system_clock;

    WorkerContext() = default;
    virtual ~WorkerContext() = default;
    WorkerContext(WorkerContext const&) = delete;
    WorkerContext& operator=(WorkerContext const&) = delete;

    std::uint64_t batchSize = 0;
    std::uint64_t maxQueueSize = 0;  // 0: unbounded
    Queue queue;
    std::uint64_t pushTimeoutMs = 0;
    std::uint64_t idleTimeoutMs = 0;
    std::condition_variable notFull;
    std::condition_variable notEmpty;
    std::condition_variable drained;
    std::mutex queueMutex;
    std::mutex processorMutex;
    Owner* processor = nullptr;  // null: stopped
    std::uint8_t jobCount = 0;
    std::vector<std::shared_ptr<std::thread>> jobs;
    std::vector<std::uint64_t> jobThresholds;

    // Bumped by every stop. A thread remembers the generation it was started
    // in, so that a thread outliving its stop (one that stopped its own pool)
    // neither keeps processing for a later processor nor miscounts jobCount.
    std::uint64_t generation = 0;
    // Threads of the current generation that have ended but are not joined yet.
    std::vector<std::thread::id> endedJobs;
    // Threads that stopped their own pool and were detached; the destructor
    // waits for them so that they never touch a destroyed context.
    std::vector<std::thread::id> detachedJobs;
    std::condition_variable detachedEnded;
    // Threads stopped by releaseProcessor, not joined yet, and how many of
    // them are still running.
    std::vector<std::shared_ptr<std::thread>> retiredJobs;
    std::size_t retiredRunning = 0;

    // How long an idle thread watches the queue before it sleeps on notEmpty
    // (0: it sleeps at once). A thread that keeps running through a burst of
    // pushes costs the producer no wake-up system call and the burst no
    // scheduler round trip per task. Longer than a 100k/s stream's gaps; a
    // longer spin mostly burns the core between a driver's bursts.
    std::uint64_t spinMicros = 25;
    // A thread is spinning (under queueMutex).
    bool spinning = false;
    // What the pool's threads are called in ps, top, perf and debuggers (at
    // most 15 characters); empty leaves the name they inherit.
    char const* threadName = "";
    // The pool's threads ask for a short scheduler slice (see ThreadSlice):
    // for a pool on a latency path, whose woken thread should not queue
    // behind a busy one.
    bool shortSlice = false;
    // The queue length as last seen under queueMutex: what a spinning thread
    // watches without taking the lock.
    std::atomic<std::size_t> queuedHint{0};
    // Takes by the threads so far, and the count at which a producer last
    // found them not taking anything while it gave way (see giveWay).
    std::uint64_t takes = 0;
    std::uint64_t stalledAtTakes = ~std::uint64_t(0);

    // A snapshot: whether tasks wait in the queue (callers use it to keep their order).
    bool hasQueuedTasks() const { return queuedHint.load(std::memory_order_acquire) != 0; }

    // With queueMutex held, after a thread took tasks off the queue.
    void tookTasks() {
        queuedHint.store(queue.size(), std::memory_order_relaxed);
        ++takes;
        if (queue.empty()) {
            drained.notify_all();
        }
    }

    // Queues a copy of the task; false (task not queued) when a bounded queue
    // stayed full for the push time-out.
    bool pushTask(Task& task) {
        std::unique_lock<std::mutex> lock(queueMutex, std::defer_lock);
        lockQueue(lock);
        giveWay(lock);
        if (maxQueueSize != 0 && queue.size() >= maxQueueSize) {
            auto deadline = Clock::now() + std::chrono::milliseconds(pushTimeoutMs);
            while (true) {
                notFull.wait_until(lock, deadline);
                if (Clock::now() >= deadline) {
                    break;
                }
                if (queue.size() < maxQueueSize) {
                    break;
                }
            }
            if (queue.size() >= maxQueueSize) {
                return false;
            }
        }
        queue.push(task);
        queuedHint.store(queue.size(), std::memory_order_release);
        initJobs(lock);
        lock.unlock();
        notEmpty.notify_one();
        return true;
    }

    // Takes queueMutex through `lock`, retrying briefly before it sleeps: the
    // lock is held for a push's or a take's time, far less than the futex
    // sleep and the wake-up between two CPUs that a contended lock() costs.
    static void lockQueue(std::unique_lock<std::mutex>& lock) {
        for (unsigned round = 0; round < 64; ++round) {
            if (lock.try_lock()) {
                return;
            }
            relax();
        }
        lock.lock();
    }

    // A spin-wait hint to the CPU.
    static void relax() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    // Starts (owner) or stops (null) the pool; a running pool is first given
    // up to timeoutMs to drain its queue.
    void setProcessor(Owner* owner, unsigned long timeoutMs) {
        std::lock_guard<std::mutex> processorLock(processorMutex);
        bool running;
        {
            std::lock_guard<std::mutex> queueLock(queueMutex);
            if (processor == owner) {
                return;
            }
            running = processor != nullptr;
        }
        if (running) {
            freeJobs(timeoutMs);
        }
        if (owner != nullptr) {
            std::unique_lock<std::mutex> queueLock(queueMutex);
            processor = owner;
            initJobs(queueLock);
        }
    }

    // Stops the pool like setProcessor(nullptr, timeoutMs) but joins no running
    // thread: the threads are retired and end on their own once their current
    // task returns. For callers that must not wait for a worker that may itself be
    // waiting for them (the library's context thread, the JavaScript thread).
    void releaseProcessor(unsigned long timeoutMs) {
        // Drained before the processor lock is taken, so that a start on
        // another thread never waits out the drain.
        if (timeoutMs != 0) {
            std::unique_lock<std::mutex> lock(queueMutex);
            auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
            while (!queue.empty() && processor != nullptr) {
                if (drained.wait_until(lock, deadline) == std::cv_status::timeout) {
                    break;
                }
            }
        }
        std::lock_guard<std::mutex> processorLock(processorMutex);
        {
            std::lock_guard<std::mutex> lock(queueMutex);
            if (processor == nullptr) {
                return;
            }
            processor = nullptr;
            jobCount = 0;
            ++generation;
            // Threads that already ended idle would never discount themselves as retired.
            pruneJobs();
            for (auto& job : jobs) {
                retiredJobs.push_back(job);
                ++retiredRunning;
            }
            jobs.clear();
        }
        notEmpty.notify_all();
    }

    // Starts as many threads as the queue length calls for. queueMutex is held.
    // Retired threads still running count against the limit, so that a pool
    // of one thread never runs two tasks at once across a stop and a start.
    void initJobs([[maybe_unused]] std::unique_lock<std::mutex>& lock) {
        if (processor == nullptr) {
            return;
        }
        bool firstPass = true;
        while (jobCount + retiredRunning < jobThresholds.size() &&
               queue.size() > jobThresholds[jobCount + retiredRunning]) {
            if (firstPass) {
                firstPass = false;
                pruneJobs();
            }
            jobs.push_back(startJob(processor));
            ++jobCount;
            if (processor == nullptr) {
                break;
            }
        }
    }

    // Stops all threads after waiting up to timeoutMs (0: not at all) for the
    // queue to drain. Tasks still queued stay queued. The caller holds
    // processorMutex.
    void freeJobs(unsigned long& timeoutMs) {
        std::vector<std::shared_ptr<std::thread>> stopping;
        {
            std::unique_lock<std::mutex> lock(queueMutex);
            if (timeoutMs != 0) {
                auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
                while (!queue.empty()) {
                    drained.wait_until(lock, deadline);
                    if (Clock::now() >= deadline) {
                        break;
                    }
                }
            }
            processor = nullptr;
            jobCount = 0;
            ++generation;
            endedJobs.clear();
            stopping.swap(jobs);
            // A worker stopping its own pool from inside process() cannot join
            // itself; it is detached and ends on its own once process() returns.
            auto self = std::this_thread::get_id();
            for (auto& job : stopping) {
                if (job->get_id() == self) {
                    job->detach();
                    detachedJobs.push_back(self);
                }
            }
        }
        notEmpty.notify_all();
        for (auto& job : stopping) {
            if (job->joinable()) {
                job->join();
            }
        }
    }

    // Waits until no retired or detached thread can touch this context any
    // more. A thread that is itself detached cannot wait for itself.
    void awaitDetachedJobs() {
        std::unique_lock<std::mutex> lock(queueMutex);
        auto self = std::this_thread::get_id();
        std::vector<std::shared_ptr<std::thread>> retired;
        retired.swap(retiredJobs);
        lock.unlock();
        for (auto& job : retired) {
            if (job->get_id() == self) {
                job->detach();  // a retired thread that destroys its own pool
            } else if (job->joinable()) {
                job->join();
            }
        }
        lock.lock();
        detachedEnded.wait(lock, [this, self] {
            return std::all_of(detachedJobs.begin(), detachedJobs.end(),
                               [self](std::thread::id id) { return id == self; });
        });
    }

  protected:
    // Creates one thread running the worker body for `owner`.
    virtual std::shared_ptr<std::thread> startJob(Owner* owner) = 0;

  private:
    // A producer that finds a bounded queue three quarters full lets the
    // threads catch up (yielding its core, then napping) for up to 5 ms
    // before it pushes, so that a thread that lost its core to the producer
    // does not let the queue fill: a full queue costs the producer its whole
    // push time-out, as a batch thread never signals notFull. This only
    // delays the push; bound, time-out and signalling stay as they are. When
    // the threads took nothing while it waited (a blocked handler), later
    // pushes skip this until they take again. queueMutex is held.
    void giveWay(std::unique_lock<std::mutex>& lock) {
        std::uint64_t const highWater = maxQueueSize - maxQueueSize / 4;
        if (maxQueueSize == 0 || queue.size() < highWater || takes == stalledAtTakes) {
            return;
        }
        std::uint64_t const takesBefore = takes;
        auto const until = std::chrono::steady_clock::now() + std::chrono::milliseconds(5);
        for (unsigned round = 0; queue.size() >= highWater && processor != nullptr; ++round) {
            if (std::chrono::steady_clock::now() >= until) {
                if (takes == takesBefore) {
                    stalledAtTakes = takes;
                }
                return;
            }
            lock.unlock();
            if (round < 8) {
                std::this_thread::yield();
            } else {
                std::this_thread::sleep_for(std::chrono::microseconds(50));
            }
            lock.lock();
        }
    }

    // Joins threads of the current generation that have already ended, so that
    // an elastic pool does not pile up finished thread objects.
    void pruneJobs() {
        for (auto it = jobs.begin(); it != jobs.end();) {
            std::thread& job = **it;
            bool ended =
                std::find(endedJobs.begin(), endedJobs.end(), job.get_id()) != endedJobs.end();
            if (ended && job.joinable()) {
                // It has left the lock for good; joining does not wait for us.
                job.join();
            }
            if (!job.joinable()) {
                it = jobs.erase(it);
            } else {
                ++it;
            }
        }
        endedJobs.clear();
        for (auto it = retiredJobs.begin(); it != retiredJobs.end();) {
            std::thread& job = **it;
            if (std::find(retiredEnded.begin(), retiredEnded.end(), job.get_id()) !=
                retiredEnded.end()) {
                job.join();
                it = retiredJobs.erase(it);
            } else {
                ++it;
            }
        }
        retiredEnded.clear();
    }

  public:
    // Retired threads that have ended but are not joined yet.
    std::vector<std::thread::id> retiredEnded;
};

}  // namespace KW
