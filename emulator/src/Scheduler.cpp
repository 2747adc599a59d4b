#include "Scheduler.h"

namespace SolEmu {

Scheduler& Scheduler::instance() {
    static Scheduler scheduler;
    return scheduler;
}

Scheduler::~Scheduler() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
        timers.clear();
    }
    wake.notify_all();
    if (thread.joinable()) {
        thread.join();
    }
}

void Scheduler::after(std::chrono::milliseconds delay, std::function<void()> action) {
    std::lock_guard<std::mutex> lock(mutex);
    if (stopping) {
        return;
    }
    if (!thread.joinable()) {
        thread = std::thread([this] {
            pthread_setname_np(pthread_self(), "solemu-timers");
            run();
        });
    }
    timers.emplace(std::make_pair(Clock::now() + delay, ++sequence), std::move(action));
    wake.notify_all();
}

void Scheduler::run() {
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
        if (timers.empty()) {
            wake.wait(lock);
            continue;
        }
        auto first = timers.begin();
        if (Clock::now() < first->first.first) {
            wake.wait_until(lock, first->first.first);
            continue;
        }
        std::function<void()> action = std::move(first->second);
        timers.erase(first);
        lock.unlock();
        action();
        lock.lock();
    }
}

}  // namespace SolEmu
