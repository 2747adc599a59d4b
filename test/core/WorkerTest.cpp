#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "core/Worker.h"

namespace {

using namespace std::chrono_literals;

struct Job {
    explicit Job(int id) : id(id) {}
    int id;
};
using Task = std::shared_ptr<Job>;

// Records every call; can hold callers at a gate and throw on chosen ids.
class Recorder {
  public:
    void process(Task& task) { handle({task}); }
    void process(std::vector<Task>& batch) { handle(batch); }

    void open() {
        std::lock_guard<std::mutex> lock(mutex);
        gateOpen = true;
        changed.notify_all();
    }

    // Waits (bounded) until `predicate` holds over the recorded state.
    template <typename Predicate>
    bool waitUntil(Predicate predicate, std::chrono::milliseconds limit = 10s) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return predicate(*this); });
    }

    std::mutex mutex;
    std::condition_variable changed;
    bool gateOpen = true;
    int throwOn = -1;
    std::vector<int> processed;
    std::vector<std::size_t> batchSizes;
    std::set<std::thread::id> threads;
    int entered = 0;
    std::function<void(int)> onTask;  // called outside the lock

  private:
    void handle(std::vector<Task> const& tasks) {
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
        bool fail = false;
        for (auto const& task : tasks) {
            fail = fail || task->id == throwOn;
        }
        auto hook = onTask;
        lock.unlock();
        if (hook) {
            for (auto const& task : tasks) {
                hook(task->id);
            }
        }
        if (fail) {
            throw std::runtime_error("process failed");
        }
    }
};

using SingleWorker = KW::Worker<Task, Recorder, false>;
using BatchWorker = KW::Worker<Task, Recorder, true>;

// Tuning of the publish and receive pools.
void tuneSingle(SingleWorker& worker, std::uint64_t maxQueue = 256) {
    worker.maxQueueSize = maxQueue;
    worker.pushTimeoutMs = 100;
    worker.idleTimeoutMs = 100;
    worker.jobThresholds = {0, 100};
}

void tuneBatch(BatchWorker& worker) {
    worker.batchSize = 50;
    worker.maxQueueSize = 512;
    worker.pushTimeoutMs = 100;
    worker.idleTimeoutMs = 100;
    worker.jobThresholds = {0, 200};
}

template <typename W, typename F>
auto underLock(W& worker, F read) {
    std::lock_guard<std::mutex> lock(worker.queueMutex);
    return read();
}

template <typename W>
void push(W& worker, int first, int count) {
    for (int id = first; id < first + count; ++id) {
        Task task = std::make_shared<Job>(id);
        ASSERT_TRUE(worker.pushTask(task));
    }
}

template <typename F>
bool eventually(F condition, std::chrono::milliseconds limit = 10s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

TEST(WorkerThreads, StartOnDemandAndSecondOnlyPastTheThreshold) {
    Recorder owner;
    BatchWorker worker;
    tuneBatch(worker);
    worker.setProcessor(&owner, 0);
    EXPECT_EQ(underLock(worker, [&] { return worker.jobCount; }), 0);
    EXPECT_TRUE(underLock(worker, [&] { return worker.jobs.empty(); }));

    owner.gateOpen = false;
    push(worker, 0, 1);
    ASSERT_TRUE(owner.waitUntil([](Recorder& r) { return r.entered == 1; }));
    EXPECT_EQ(underLock(worker, [&] { return worker.jobCount; }), 1);

    // The first thread is held; 200 waiting tasks are not yet "more than 200".
    push(worker, 1, 200);
    EXPECT_EQ(underLock(worker, [&] { return worker.jobCount; }), 1);
    push(worker, 201, 1);
    EXPECT_EQ(underLock(worker, [&] { return worker.jobCount; }), 2);
    ASSERT_TRUE(owner.waitUntil([](Recorder& r) { return r.entered == 2; }));
    EXPECT_EQ(owner.threads.size(), 2u);

    owner.open();
    ASSERT_TRUE(owner.waitUntil([](Recorder& r) { return r.processed.size() == 202; }));
    std::set<int> ids(owner.processed.begin(), owner.processed.end());
    EXPECT_EQ(ids.size(), 202u);
    // Two threads at most, however long the queue.
    push(worker, 202, 300);
    EXPECT_LE(underLock(worker, [&] { return worker.jobCount; }), 2);
}

TEST(WorkerThreads, IdleThreadsEndAndDoNotPileUp) {
    Recorder owner;
    SingleWorker worker;
    tuneSingle(worker);
    worker.idleTimeoutMs = 5;
    worker.setProcessor(&owner, 0);
    for (int round = 0; round < 20; ++round) {
        push(worker, round, 1);
        ASSERT_TRUE(owner.waitUntil(
            [&](Recorder& r) { return r.processed.size() == std::size_t(round + 1); }));
        ASSERT_TRUE(eventually([&] {
            return underLock(worker, [&] { return worker.jobCount; }) == 0;
        })) << "idle thread did not end";
    }
    EXPECT_EQ(owner.processed.size(), 20u);
    EXPECT_LE(underLock(worker, [&] { return worker.jobs.size(); }), 2u);
}

TEST(WorkerBatches, QueuedTasksArriveInBatchesOfFifty) {
    Recorder owner;
    BatchWorker worker;
    tuneBatch(worker);
    push(worker, 0, 120);  // stopped: they wait
    EXPECT_EQ(underLock(worker, [&] { return worker.jobs.size(); }), 0u);
    worker.setProcessor(&owner, 0);
    ASSERT_TRUE(owner.waitUntil([](Recorder& r) { return r.processed.size() == 120; }));
    EXPECT_EQ(owner.batchSizes, (std::vector<std::size_t>{50, 50, 20}));
    for (int i = 0; i < 120; ++i) {
        ASSERT_EQ(owner.processed[i], i) << "one thread keeps queue order";
    }

    // A batch worker whose size was never set must not spin on empty batches.
    Recorder unsetOwner;
    BatchWorker unset;
    tuneBatch(unset);
    unset.batchSize = 0;
    push(unset, 0, 3);
    unset.setProcessor(&unsetOwner, 0);
    ASSERT_TRUE(unsetOwner.waitUntil([](Recorder& r) { return r.processed.size() == 3; }));
    EXPECT_EQ(unsetOwner.batchSizes, (std::vector<std::size_t>{1, 1, 1}));
}

TEST(WorkerQueue, FullBoundedQueueRefusesAfterThePushTimeout) {
    SingleWorker worker;
    tuneSingle(worker);
    push(worker, 0, 256);  // nobody takes them

    Task extra = std::make_shared<Job>(999);
    auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(worker.pushTask(extra));
    auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(waited, 90ms);
    EXPECT_EQ(extra.use_count(), 1) << "a refused task must not be kept";
    EXPECT_EQ(underLock(worker, [&] { return worker.queue.size(); }), 256u);
}

TEST(WorkerStop, WithoutDrainingQueuedTasksStayAndAreDroppedWithTheWorker) {
    Recorder owner;
    std::vector<std::weak_ptr<Job>> left;
    {
        SingleWorker worker;
        tuneSingle(worker);
        worker.setProcessor(&owner, 0);
        owner.gateOpen = false;
        push(worker, 0, 5);
        ASSERT_TRUE(owner.waitUntil([](Recorder& r) { return r.entered == 1; }));
        underLock(worker, [&] {
            for (auto copy = worker.queue; !copy.empty(); copy.pop()) {
                left.push_back(copy.front());
            }
            return 0;
        });
        ASSERT_EQ(left.size(), 4u);

        std::thread stopper([&] { worker.setProcessor(nullptr, 0); });
        ASSERT_TRUE(eventually(
            [&] { return underLock(worker, [&] { return worker.processor == nullptr; }); }));
        owner.open();  // the running task finishes, nothing else starts
        stopper.join();
        EXPECT_EQ(owner.processed, std::vector<int>{0});
        EXPECT_EQ(underLock(worker, [&] { return worker.queue.size(); }), 4u);
        EXPECT_TRUE(underLock(worker, [&] { return worker.jobs.empty(); }));
        for (auto& task : left) {
            EXPECT_FALSE(task.expired());
        }
    }
    for (auto& task : left) {
        EXPECT_TRUE(task.expired()) << "the destructor drops queued tasks";
    }
    EXPECT_EQ(owner.processed.size(), 1u);
}

TEST(WorkerStop, WithDrainingEveryQueuedTaskIsProcessed) {
    Recorder owner;
    SingleWorker worker;
    tuneSingle(worker);
    owner.onTask = [](int) { std::this_thread::sleep_for(1ms); };
    push(worker, 0, 150);
    worker.setProcessor(&owner, 0);
    auto begin = std::chrono::steady_clock::now();
    worker.setProcessor(nullptr, 60000);
    // The stop ends when the queue is empty, long before the drain time-out.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 30s);
    EXPECT_EQ(owner.processed.size(), 150u);
    EXPECT_TRUE(worker.queue.empty());
    EXPECT_EQ(worker.processor, nullptr);

    // A stopped pool can be started again.
    push(worker, 150, 3);
    worker.setProcessor(&owner, 0);
    ASSERT_TRUE(owner.waitUntil([](Recorder& r) { return r.processed.size() == 153; }));
}

TEST(WorkerFailures, ExceptionInProcessDoesNotEndTheThread) {
    Recorder owner;
    owner.throwOn = 0;
    SingleWorker worker;
    tuneSingle(worker);
    push(worker, 0, 3);
    worker.setProcessor(&owner, 0);
    ASSERT_TRUE(owner.waitUntil([](Recorder& r) { return r.processed.size() == 3; }));
    EXPECT_EQ(owner.processed, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(owner.threads.size(), 1u);

    BatchWorker batchWorker;
    tuneBatch(batchWorker);
    batchWorker.batchSize = 2;
    Recorder batchOwner;
    batchOwner.throwOn = 1;
    push(batchWorker, 0, 5);
    batchWorker.setProcessor(&batchOwner, 0);
    ASSERT_TRUE(batchOwner.waitUntil([](Recorder& r) { return r.processed.size() == 5; }));
    EXPECT_EQ(batchOwner.batchSizes, (std::vector<std::size_t>{2, 2, 1}));
}

TEST(WorkerStop, WorkerCanStopItsOwnPoolFromProcess) {
    Recorder owner;
    auto worker = std::make_unique<SingleWorker>();
    tuneSingle(*worker);
    owner.onTask = [&](int id) {
        if (id == 2) {
            worker->setProcessor(nullptr, 0);
        }
    };
    push(*worker, 0, 6);
    worker->setProcessor(&owner, 0);
    ASSERT_TRUE(owner.waitUntil([](Recorder& r) { return r.processed.size() == 3; }));
    ASSERT_TRUE(eventually(
        [&] { return underLock(*worker, [&] { return worker->processor == nullptr; }); }));
    // The rest stays queued until the pool is started again.
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(owner.processed, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(underLock(*worker, [&] { return worker->queue.size(); }), 3u);

    owner.onTask = nullptr;
    worker->setProcessor(&owner, 0);
    ASSERT_TRUE(owner.waitUntil([](Recorder& r) { return r.processed.size() == 6; }));
    worker.reset();  // must wait for the detached thread, not crash
    EXPECT_EQ(owner.processed, (std::vector<int>{0, 1, 2, 3, 4, 5}));
}

// Producers push while the processor is switched on and off; every accepted
// task is processed exactly once after the final drain and no refused task is
// processed at all.
template <typename W>
void stress(W& worker) {
    constexpr int producers = 4;
    constexpr int perProducer = 1500;
    Recorder owner;
    std::vector<std::atomic<int>> seen(producers * perProducer);
    for (auto& count : seen) {
        count = 0;
    }
    owner.onTask = [&](int id) { ++seen[id]; };
    std::vector<char> accepted(seen.size(), 0);

    std::atomic<bool> producing{true};
    std::thread toggler([&] {
        std::mt19937 rng(12345);
        while (producing) {
            worker.setProcessor(&owner, rng() % 2);
            std::this_thread::sleep_for(std::chrono::microseconds(rng() % 500));
            worker.setProcessor(nullptr, rng() % 2);
        }
    });
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < perProducer; ++i) {
                int id = p * perProducer + i;
                Task task = std::make_shared<Job>(id);
                accepted[id] = worker.pushTask(task) ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    producing = false;
    toggler.join();
    worker.setProcessor(&owner, 0);
    worker.setProcessor(nullptr, 30000);

    int acceptedCount = 0;
    for (std::size_t id = 0; id < seen.size(); ++id) {
        acceptedCount += accepted[id];
        ASSERT_EQ(seen[id].load(), accepted[id]) << "task " << id;
    }
    EXPECT_GT(acceptedCount, 0);
    EXPECT_TRUE(worker.queue.empty());
}

TEST(WorkerStress, ProducersAgainstASwitchingProcessor) {
    SingleWorker single;
    tuneSingle(single, 64);
    single.pushTimeoutMs = 2;
    single.jobThresholds = {0, 8};
    stress(single);

    BatchWorker batch;
    tuneBatch(batch);
    batch.maxQueueSize = 64;
    batch.pushTimeoutMs = 2;
    batch.batchSize = 7;
    batch.jobThresholds = {0, 8};
    stress(batch);
}

}  // namespace
