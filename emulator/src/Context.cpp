#include "Context.h"

#include <algorithm>

namespace solemu {

std::atomic<bool> Context::held_{false};
std::atomic<unsigned> Context::roundTripUs_{0};

Context::Context() {
    std::lock_guard<std::mutex> lock(mutex_);
    thread_ = std::thread([this] { run(); });
    threadId_ = thread_.get_id();
}

Context::~Context() {
    stop();
}

void Context::post(void const* owner, void const* subOwner, Work work) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            return;
        }
        auto const due =
            std::chrono::steady_clock::now() + std::chrono::microseconds(roundTripUs_.load());
        items_.push_back(Item{owner, subOwner, std::move(work), due});
    }
    ready_.notify_one();
}

void Context::purge(void const* owner) {
    std::deque<Item> dropped;  // destroyed outside the lock
    std::unique_lock<std::mutex> lock(mutex_);
    auto matches = [owner](Item const& item) {
        return item.owner == owner || item.subOwner == owner;
    };
    auto keep = std::stable_partition(items_.begin(), items_.end(),
                                      [&](Item const& item) { return !matches(item); });
    std::move(keep, items_.end(), std::back_inserter(dropped));
    items_.erase(keep, items_.end());
    if (!onThread()) {
        idle_.wait(lock, [&] { return runningOwner_ != owner && runningSubOwner_ != owner; });
    }
}

void Context::stop() {
    std::deque<Item> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            return;
        }
        stopping_ = true;
        dropped.swap(items_);
    }
    ready_.notify_all();
    if (thread_.joinable()) {
        if (onThread()) {
            thread_.detach();  // the last owner let go inside a callback
        } else {
            thread_.join();
        }
    }
}

void Context::setHeld(bool held) {
    held_.store(held);
}

void Context::wake() {
    { std::lock_guard<std::mutex> lock(mutex_); }
    ready_.notify_all();
}

void Context::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        ready_.wait(lock, [this] { return stopping_ || (!items_.empty() && !held_.load()); });
        if (stopping_) {
            return;
        }
        // In flight until due; a later post never overtakes an earlier one.
        auto const due = items_.front().due;
        if (std::chrono::steady_clock::now() < due) {
            ready_.wait_until(lock, due);
            continue;
        }
        Item item = std::move(items_.front());
        items_.pop_front();
        runningOwner_ = item.owner;
        runningSubOwner_ = item.subOwner;
        lock.unlock();
        item.work();
        item.work = nullptr;  // release captures before reporting idle
        lock.lock();
        runningOwner_ = nullptr;
        runningSubOwner_ = nullptr;
        idle_.notify_all();
    }
}

}  // namespace solemu
