#include "Context.h"

#include <pthread.h>

#include <algorithm>
#include <iterator>

namespace SolEmu {

std::atomic<bool> Context::_held{false};
std::atomic<unsigned> Context::_roundTripUs{0};

namespace {
// Takes the queue's lock, retrying briefly before it sleeps: a post or a take
// holds it far shorter than a futex sleep and a wake-up between two CPUs last.
void acquire(std::unique_lock<std::mutex>& lock) {
    for (unsigned round = 0; round < 64; ++round) {
        if (lock.try_lock()) {
            return;
        }
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
    lock.lock();
}

// The context whose thread this is.
thread_local Context* self = nullptr;

// Moves `from` into `to`, keeping both vectors' storage.
void moveAll(std::vector<std::shared_ptr<void const>>& from,
             std::vector<std::shared_ptr<void const>>& to) {
    for (auto& held : from) {
        to.push_back(std::move(held));
    }
    from.clear();
}
}  // namespace

void Context::releaseLater(std::shared_ptr<void const> spent) {
    if (self != nullptr) {
        self->ran.push_back(std::move(spent));
    }
}

Context::Context() {
    std::lock_guard<std::mutex> lock(mutex);
    thread = std::thread([this] {
        pthread_setname_np(pthread_self(), "solemu-context");
        self = this;
        run();
    });
    threadId = thread.get_id();
}

Context::~Context() {
    stop();
}

uint64_t Context::post(void const* owner, void const* subOwner, Work work, bool* wakeLater) {
    thread_local std::vector<std::shared_ptr<void const>> released;
    bool wake;
    uint64_t sequence;
    {
        std::unique_lock<std::mutex> lock(mutex, std::defer_lock);
        acquire(lock);
        if (stopping) {
            return 0;
        }
        // With no round trip everything is due at once: no clock read per post.
        unsigned const roundTripUs = _roundTripUs.load();
        auto const due = roundTripUs == 0 ? std::chrono::steady_clock::time_point{}
                                          : std::chrono::steady_clock::now() +
                                                std::chrono::microseconds(roundTripUs);
        sequence = ++posts;
        items.push_back(Item{owner, subOwner, std::move(work), due, sequence});
        wake = sleeping;
        moveAll(spent, released);
    }
    released.clear();
    // A thread that is running finds the work when it looks again: no wake-up call.
    if (wake && wakeLater != nullptr) {
        *wakeLater = true;
    } else if (wake) {
        ready.notify_one();
    }
    return sequence;
}

void Context::purge(void const* owner) {
    std::vector<Item> dropped;  // destroyed outside the lock
    std::unique_lock<std::mutex> lock(mutex);
    auto matches = [owner](Item const& item) {
        return item.owner == owner || item.subOwner == owner;
    };
    auto keep =
        std::stable_partition(items.begin() + static_cast<std::ptrdiff_t>(head), items.end(),
                              [&](Item const& item) { return !matches(item); });
    std::move(keep, items.end(), std::back_inserter(dropped));
    items.erase(keep, items.end());
    if (!onThread()) {
        idle.wait(lock, [&] { return runningOwner != owner && runningSubOwner != owner; });
    }
}

void Context::stop() {
    std::vector<Item> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping) {
            return;
        }
        stopping = true;
        dropped.swap(items);
        head = 0;
    }
    ready.notify_all();
    if (thread.joinable()) {
        if (onThread()) {
            thread.detach();  // the last owner let go inside a callback
        } else {
            thread.join();
        }
    }
}

void Context::setHeld(bool held) {
    _held.store(held);
}

void Context::wake() {
    { std::lock_guard<std::mutex> lock(mutex); }
    ready.notify_all();
}

void Context::run() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        if (!spent.empty() && !(queued() && !_held.load())) {
            // Going to sleep with nobody posting: let go here.
            moveAll(spent, dropping);
            lock.unlock();
            dropping.clear();
            lock.lock();
            continue;
        }
        sleeping = true;
        ready.wait(lock, [this] { return stopping || (queued() && !_held.load()); });
        if (stopping) {
            return;
        }
        // In flight until due; a later post never overtakes an earlier one.
        auto const due = items[head].due;
        if (due != std::chrono::steady_clock::time_point{} &&
            std::chrono::steady_clock::now() < due) {
            ready.wait_until(lock, due);
            continue;
        }
        sleeping = false;
        Item item = std::move(items[head++]);
        if (head == items.size()) {
            items.clear();
            head = 0;
        } else if (head >= 256 && 2 * head >= items.size()) {
            items.erase(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(head));
            head = 0;
        }
        runningOwner = item.owner;
        runningSubOwner = item.subOwner;
        lock.unlock();
        item.work();
        item.work = nullptr;  // release captures before reporting idle
        acquire(lock);
        moveAll(ran, spent);
        runningOwner = nullptr;
        runningSubOwner = nullptr;
        idle.notify_all();
    }
}

}  // namespace SolEmu
