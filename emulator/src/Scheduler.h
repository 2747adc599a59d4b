#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace SolEmu {

// One process-wide timer thread for retries and timed broker restarts. Timer
// actions must be short: they only post work to context threads or flip a
// broker's state. They hold weak references, so a timer that outlives its
// session does nothing.
class Scheduler {
  public:
    using Clock = std::chrono::steady_clock;

    static Scheduler& instance();
    ~Scheduler();

    void after(std::chrono::milliseconds delay, std::function<void()> action);

  private:
    Scheduler() = default;
    void run();

    std::mutex mutex;
    std::condition_variable wake;
    // Keyed by (due time, sequence) so that equal times keep their order.
    std::map<std::pair<Clock::time_point, uint64_t>, std::function<void()>> timers;
    uint64_t sequence = 0;
    bool stopping = false;
    std::thread thread;
};

}  // namespace SolEmu
