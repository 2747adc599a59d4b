#include "Scheduler.h"

namespace solemu {

Scheduler& Scheduler::instance() {
    static Scheduler scheduler;
    return scheduler;
}

Scheduler::~Scheduler() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        timers_.clear();
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Scheduler::after(std::chrono::milliseconds delay, std::function<void()> action) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
        return;
    }
    if (!thread_.joinable()) {
        thread_ = std::thread([this] { run(); });
    }
    timers_.emplace(std::make_pair(Clock::now() + delay, ++sequence_), std::move(action));
    wake_.notify_all();
}

void Scheduler::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        if (timers_.empty()) {
            wake_.wait(lock);
            continue;
        }
        auto first = timers_.begin();
        if (Clock::now() < first->first.first) {
            wake_.wait_until(lock, first->first.first);
            continue;
        }
        std::function<void()> action = std::move(first->second);
        timers_.erase(first);
        lock.unlock();
        action();
        lock.lock();
    }
}

}  // namespace solemu
