#include "Context.h"

#include <pthread.h>

#include <algorithm>

namespace SolEmu {

std::atomic<bool> Context::_held{false};
std::atomic<unsigned> Context::_roundTripUs{0};

Context::Context() {
    std::lock_guard<std::mutex> lock(mutex);
    thread = std::thread([this] {
        pthread_setname_np(pthread_self(), "solemu-context");
        run();
    });
    threadId = thread.get_id();
}

Context::~Context() {
    stop();
}

uint64_t Context::post(void const* owner, void const* subOwner, Work work, bool* wakeLater) {
    bool wake;
    uint64_t sequence;
    {
        std::lock_guard<std::mutex> lock(mutex);
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
    }
    // A thread that is running finds the work when it looks again: no wake-up call.
    if (wake && wakeLater != nullptr) {
        *wakeLater = true;
    } else if (wake) {
        ready.notify_one();
    }
    return sequence;
}

void Context::purge(void const* owner) {
    std::deque<Item> dropped;  // destroyed outside the lock
    std::unique_lock<std::mutex> lock(mutex);
    auto matches = [owner](Item const& item) {
        return item.owner == owner || item.subOwner == owner;
    };
    auto keep = std::stable_partition(items.begin(), items.end(),
                                      [&](Item const& item) { return !matches(item); });
    std::move(keep, items.end(), std::back_inserter(dropped));
    items.erase(keep, items.end());
    if (!onThread()) {
        idle.wait(lock, [&] { return runningOwner != owner && runningSubOwner != owner; });
    }
}

void Context::stop() {
    std::deque<Item> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping) {
            return;
        }
        stopping = true;
        dropped.swap(items);
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
        sleeping = true;
        ready.wait(lock, [this] { return stopping || (!items.empty() && !_held.load()); });
        if (stopping) {
            return;
        }
        // In flight until due; a later post never overtakes an earlier one.
        auto const due = items.front().due;
        if (std::chrono::steady_clock::now() < due) {
            ready.wait_until(lock, due);
            continue;
        }
        sleeping = false;
        Item item = std::move(items.front());
        items.pop_front();
        runningOwner = item.owner;
        runningSubOwner = item.subOwner;
        lock.unlock();
        item.work();
        item.work = nullptr;  // release captures before reporting idle
        lock.lock();
        runningOwner = nullptr;
        runningSubOwner = nullptr;
        idle.notify_all();
    }
}

}  // namespace SolEmu
