#pragma once

#include <chrono>
#include <thread>

// Polls, bounded, for what nothing notifies (queue depths, library counters,
// threads ending): true once `done` holds, false if it still does not when
// the time is up.
template <typename Done>
bool eventually(Done done, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}
