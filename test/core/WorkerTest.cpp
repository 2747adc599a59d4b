#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "../Eventually.h"
#include "core/ThreadSlice.h"
#include "core/Worker.h"

namespace {

using namespace std::chrono_literals;

struct Job {
    int id;
};
using Task = std::shared_ptr<Job>;
using Ids = std::vector<int>;
using Sizes = std::vector<std::size_t>;

// A stopped pool that records every call, tuned by default like the publish
// pool (single tasks) or the receive pool (batches). It holds its threads
// while the gate is shut and runs `onTask` (which may throw) outside its lock.
template <bool batch>
struct Pool {
    explicit Pool(std::uint64_t batchSize = batch ? 50 : 0,
                  std::uint64_t maxQueue = batch ? 512 : 256,
                  std::uint64_t threshold = batch ? 200 : 100) {
        worker.batchSize = batchSize;
        worker.maxQueueSize = maxQueue;
        worker.pushTimeoutMs = worker.idleTimeoutMs = 100;
        worker.jobThresholds = {0, threshold};
    }

    void process(Task& task) { process(std::vector<Task>{task}); }
    void process(std::vector<Task> const& tasks) {
        std::unique_lock<std::mutex> lock(mutex);
        ++entered;
        threads.insert(std::this_thread::get_id());
        changed.notify_all();
        changed.wait(lock, [this] { return gateOpen; });
        batchSizes.push_back(tasks.size());
        for (auto const& task : tasks) {
            processed.push_back(task->id);
        }
        changed.notify_all();
        auto hook = onTask;
        lock.unlock();
        for (auto const& task : tasks) {
            if (hook) {
                hook(task->id);
            }
        }
    }

    void setGate(bool open) {
        std::lock_guard<std::mutex> lock(mutex);
        gateOpen = open;
        changed.notify_all();
    }
    template <typename Predicate>
    bool waitUntil(Predicate predicate) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 10s, predicate);
    }
    bool waitProcessed(std::size_t n) {
        return waitUntil([&] { return processed.size() == n; });
    }
    bool waitEntered(int n) {
        return waitUntil([&] { return entered == n; });
    }
    // Pushes tasks first..first+count-1, keeping watch on them in `kept`.
    void push(int first, int count, std::vector<std::weak_ptr<Job>>* kept = nullptr) {
        for (int id = first; id < first + count; ++id) {
            Task task = std::make_shared<Job>(Job{id});
            if (kept != nullptr) {
                kept->push_back(task);
            }
            ASSERT_TRUE(worker.pushTask(task));
        }
    }
    void start() { worker.setProcessor(this, 0); }
    template <typename F>
    auto locked(F read) {
        std::lock_guard<std::mutex> lock(worker.queueMutex);
        return read(worker);
    }
    std::size_t queued() {
        return locked([](auto& w) { return w.queue.size(); });
    }
    bool stopped() {
        return locked([](auto& w) { return w.processor == nullptr; });
    }
    int jobCount() {
        return locked([](auto& w) { return int(w.jobCount); });
    }

    std::mutex mutex;
    std::condition_variable changed;
    bool gateOpen = true;
    int entered = 0;
    Ids processed;
    Sizes batchSizes;
    std::set<std::thread::id> threads;
    std::function<void(int)> onTask;
    // Last, so that its destructor stops the threads before the rest goes.
    KW::Worker<Task, Pool, batch> worker;
};

TEST(WorkerThreads, StartOnDemandSecondOnlyPastTheThresholdAndEndWhenIdle) {
    Pool<true> pool;
    pool.start();
    EXPECT_EQ(pool.jobCount(), 0);
    pool.setGate(false);
    pool.push(0, 1);
    ASSERT_TRUE(pool.waitEntered(1));
    EXPECT_EQ(pool.jobCount(), 1);
    // The first thread is held; 200 waiting tasks are not yet "more than 200".
    pool.push(1, 200);
    EXPECT_EQ(pool.jobCount(), 1);
    pool.push(201, 1);
    EXPECT_EQ(pool.jobCount(), 2);
    ASSERT_TRUE(pool.waitEntered(2));

    pool.setGate(true);
    pool.push(202, 300);
    EXPECT_LE(pool.jobCount(), 2) << "two threads at most, however long the queue";
    ASSERT_TRUE(pool.waitProcessed(502));
    EXPECT_EQ(std::set<int>(pool.processed.begin(), pool.processed.end()).size(), 502u);
    // Idle threads end, and ended ones are cleared before new ones start.
    ASSERT_TRUE(eventually([&] { return pool.jobCount() == 0; }, 10s));
    pool.push(502, 1);
    EXPECT_LE(pool.locked([](auto& w) { return w.jobs.size(); }), 2u);
}

// A batch whose process() throws does not end the thread either.
TEST(WorkerBatches, QueuedTasksArriveInBatchesOfFifty) {
    Pool<true> pool;
    pool.onTask = [](int id) {
        if (id == 1) {
            throw std::runtime_error("process failed");
        }
    };
    pool.push(0, 120);  // stopped: they wait
    EXPECT_TRUE(pool.locked([](auto& w) { return w.jobs.empty(); }));
    pool.start();
    ASSERT_TRUE(pool.waitProcessed(120));
    EXPECT_EQ(pool.batchSizes, (Sizes{50, 50, 20}));
    for (int i = 0; i < 120; ++i) {
        ASSERT_EQ(pool.processed[i], i) << "one thread keeps queue order";
    }
    EXPECT_EQ(pool.threads.size(), 1u);

    // A batch worker whose size was never set must not spin on empty batches.
    // Its thread, asleep with no end in sight, wakes for the next push.
    Pool<true> unset(0);
    unset.worker.idleTimeoutMs = 600000;
    unset.worker.spinMicros = 0;
    unset.push(0, 3);
    unset.start();
    ASSERT_TRUE(unset.waitProcessed(3));
    std::this_thread::sleep_for(20ms);  // room for it to fall asleep
    unset.push(3, 1);
    ASSERT_TRUE(unset.waitProcessed(4));
    EXPECT_EQ(unset.batchSizes, (Sizes{1, 1, 1, 1}));
}

TEST(WorkerQueue, FullQueueRefusesAfterThePushTimeoutAndDrainsOnStop) {
    Pool<false> pool;
    pool.push(0, 256);  // nobody takes them
    Task extra = std::make_shared<Job>(Job{999});
    auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(pool.worker.pushTask(extra));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 90ms);
    EXPECT_EQ(extra.use_count(), 1) << "a refused task must not be kept";
    EXPECT_EQ(pool.queued(), 256u);

    // A producer waiting for room, with no end in sight, is woken by a take.
    pool.worker.pushTimeoutMs = 600000;
    auto waiting = std::async(std::launch::async, [&] { pool.push(256, 1); });
    std::this_thread::sleep_for(20ms);  // room for it to start waiting
    pool.onTask = [](int) { std::this_thread::sleep_for(1ms); };
    pool.start();
    waiting.get();
    pool.worker.setProcessor(nullptr, 60000);  // returns once the queue is empty
    EXPECT_EQ(pool.processed.size(), 257u);
}

// Released (not joined), a restart waits for the retired thread, keeping the order. Stopped
// without draining, what stays queued is dropped with the worker.
TEST(WorkerStop, ReleasedOrStoppedTheRunningTaskFinishesAndTheRestWaits) {
    std::vector<std::weak_ptr<Job>> left;
    {
        Pool<false> pool(0, 0);
        pool.worker.jobThresholds = {0};
        pool.start();
        pool.setGate(false);
        pool.push(0, 3);
        ASSERT_TRUE(pool.waitEntered(1));
        pool.worker.releaseProcessor(0);
        EXPECT_TRUE(pool.stopped());
        pool.start();
        std::this_thread::sleep_for(30ms);  // room for a wrong second thread to enter
        EXPECT_TRUE(pool.waitUntil([&] { return pool.entered == 1; }))
            << "a second thread ran beside the retired one";
        pool.setGate(true);
        ASSERT_TRUE(pool.waitProcessed(3));
        EXPECT_EQ(pool.processed, (Ids{0, 1, 2}));

        pool.setGate(false);
        pool.push(3, 5, &left);
        ASSERT_TRUE(pool.waitEntered(4));
        std::thread stopper([&] { pool.worker.setProcessor(nullptr, 0); });
        ASSERT_TRUE(eventually([&] { return pool.stopped(); }, 10s));
        pool.setGate(true);
        stopper.join();
        EXPECT_EQ(pool.processed, (Ids{0, 1, 2, 3}));
        EXPECT_EQ(pool.queued(), 4u);
        EXPECT_TRUE(pool.locked([](auto& w) { return w.jobs.empty(); }));
    }
    for (auto& task : left) {
        EXPECT_TRUE(task.expired()) << "the destructor drops queued tasks";
    }
}

// Released (a disconnect) and started again (the next up), whatever its thresholds.
TEST(WorkerStop, ReleasedAfterItsThreadsEndedIdleItStartsAgain) {
    for (auto const& thresholds : {std::vector<std::uint64_t>{0}, {0, 100}}) {
        SCOPED_TRACE(thresholds.size());
        Pool<false> pool;
        pool.worker.jobThresholds = thresholds;
        pool.start();
        pool.push(0, 1);
        ASSERT_TRUE(pool.waitProcessed(1));
        ASSERT_TRUE(eventually([&] { return pool.jobCount() == 0; }, 10s));
        pool.worker.releaseProcessor(0);
        pool.start();
        pool.push(1, 1);
        EXPECT_TRUE(pool.waitProcessed(2)) << "no thread runs the started pool's task";
    }
}

// Task 1 throws, task 2 stops the pool from process().
TEST(WorkerStop, WorkerCanStopItsOwnPoolFromProcess) {
    auto pool = std::make_unique<Pool<false>>();
    pool->onTask = [&](int id) {
        if (id == 1) {
            throw std::runtime_error("process failed");
        }
        if (id == 2) {
            pool->worker.setProcessor(nullptr, 0);
        }
    };
    pool->push(0, 6);
    pool->start();
    ASSERT_TRUE(pool->waitProcessed(3));
    ASSERT_TRUE(eventually([&] { return pool->stopped(); }, 10s));
    // The rest stays queued until the pool is started again.
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(pool->processed, (Ids{0, 1, 2}));
    EXPECT_EQ(pool->queued(), 3u);
    EXPECT_EQ(pool->threads.size(), 1u);

    pool->onTask = nullptr;
    pool->start();
    ASSERT_TRUE(pool->waitProcessed(6));
    EXPECT_EQ(pool->processed, (Ids{0, 1, 2, 3, 4, 5}));
    pool.reset();  // must wait for the detached thread, not crash
}

// After a final drain every accepted task was processed exactly once, no refused one at all.
template <bool batch>
void stress() {
    constexpr int producers = 4, perProducer = 1500;
    Pool<batch> pool(batch ? 7 : 0, 64, 8);
    pool.worker.pushTimeoutMs = 2;
    std::vector<int> accepted(std::size_t{producers} * perProducer, 0), seen(accepted.size(), 0);
    std::atomic<bool> producing{true};
    std::thread toggler([&] {
        std::mt19937 rng(12345);
        while (producing) {
            pool.worker.setProcessor(&pool, rng() % 2);
            std::this_thread::sleep_for(std::chrono::microseconds(rng() % 500));
            pool.worker.setProcessor(nullptr, rng() % 2);
        }
    });
    std::vector<std::thread> threads;
    threads.reserve(producers);
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            for (int id = p * perProducer; id < (p + 1) * perProducer; ++id) {
                Task task = std::make_shared<Job>(Job{id});
                accepted[id] = pool.worker.pushTask(task) ? 1 : 0;
            }
        });
    }
    std::for_each(threads.begin(), threads.end(), [](auto& thread) { thread.join(); });
    producing = false;
    toggler.join();
    pool.start();
    pool.worker.setProcessor(nullptr, 30000);

    EXPECT_EQ(pool.queued(), 0u);
    for (int id : pool.processed) {
        ++seen[id];
    }
    EXPECT_EQ(seen, accepted);
    EXPECT_GT(std::count(accepted.begin(), accepted.end(), 1), 0);
}

TEST(WorkerStress, ProducersAgainstASwitchingProcessor) {
    stress<false>();
    stress<true>();
}

struct Attr {
    std::uint32_t size, policy;
    std::uint64_t flags;
    std::int32_t nice;
    std::uint32_t priority;
    std::uint64_t runtime, deadline, period;
};

Attr current() {
    Attr attr{};
    EXPECT_EQ(0, syscall(SYS_sched_getattr, 0, &attr, sizeof attr, 0));
    return attr;
}

// A thread's nice value and policy are the operator's choice. In threads of their own, so that
// the test process keeps its settings.
TEST(ThreadSlice, KeepsNiceValueAndLeavesOtherPoliciesAlone) {
    std::thread([] {
        ASSERT_EQ(0, setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 5));
        bool const taken = KW::ThreadSlice::requestShort();
        Attr const after = current();
        EXPECT_EQ(5, after.nice);
        EXPECT_EQ(static_cast<std::uint32_t>(SCHED_OTHER), after.policy);
        if (taken && after.runtime != 0) {  // older kernels ignore the slice
            EXPECT_EQ(100000u, after.runtime);
        }
    }).join();
    std::thread([] {
        sched_param param{};
        ASSERT_EQ(0, sched_setscheduler(0, SCHED_BATCH, &param));
        EXPECT_FALSE(KW::ThreadSlice::requestShort());
        EXPECT_EQ(static_cast<std::uint32_t>(SCHED_BATCH), current().policy);
    }).join();
}

}  // namespace
