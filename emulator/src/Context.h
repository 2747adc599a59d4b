#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "HandleTable.h"
#include "Work.h"

namespace SolEmu {

// A solClient context: one thread that runs, in the order they were posted,
// every callback of the sessions and flows created in it. Work is tagged with
// its owner (a session) and, for flows, a second owner, so that destroying a
// session or flow can discard its queued work and wait out a running callback.
class Context {
  public:
    Context();
    ~Context();
    Context(Context const&) = delete;
    Context& operator=(Context const&) = delete;

    void* handle() const { return opaque; }

    // Returns the post's sequence number (0 if the context is stopping). With
    // `wakeLater`, a sleeping thread is not woken: *wakeLater is set and the
    // caller calls wakeUp() once it has let go of its own locks.
    uint64_t post(void const* owner, void const* subOwner, Work work, bool* wakeLater = nullptr);
    void wakeUp() { ready.notify_one(); }
    // Runs `join` under the queue's lock if post `sequence` is still the last
    // one queued and not yet running, so that what `join` adds to that post's
    // work runs in its place in the order; false (nothing run) otherwise. Only
    // with no round trip: a later post would otherwise run before it is due.
    template <typename Join>
    bool joinLast(uint64_t sequence, Join&& join) {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping || !queued() || items.back().sequence != sequence ||
            _roundTripUs.load() != 0) {
            return false;
        }
        join();
        return true;
    }
    // Discard queued work whose owner or sub-owner is `owner`; unless called on
    // this context's thread, also wait until none of it is running.
    void purge(void const* owner);
    bool onThread() const { return std::this_thread::get_id() == threadId; }
    // On this context's thread, inside work of `owner` (as owner or sub-owner): its callbacks.
    // Only this thread writes what it reads.
    bool runningFor(void const* owner) const {
        return onThread() && (runningOwner == owner || runningSubOwner == owner);
    }
    // Stop the thread, dropping queued work. Not from the thread itself.
    void stop();

    // The emulated network round trip: work posted now runs no earlier than
    // this many microseconds later (0: at once). Order is kept.
    static void setRoundTrip(unsigned microseconds) { _roundTripUs.store(microseconds); }
    static unsigned roundTrip() { return _roundTripUs.load(); }

    // From work running on a context's thread: `spent` is let go by the next
    // post (whose thread usually made it) or before the thread sleeps, not
    // here: freeing another thread's block takes that thread's malloc arena
    // lock, which the maker is taking for its next block. Elsewhere: let go now.
    static void releaseLater(std::shared_ptr<void const> spent);

    // Process-wide switch: while held, no context runs queued work.
    static void setHeld(bool held);
    static bool held() { return _held.load(); }
    // Re-check the hold switch (after it was released).
    void wake();

  private:
    struct Item {
        void const* owner;
        void const* subOwner;
        Work work;
        std::chrono::steady_clock::time_point due;
        uint64_t sequence;
    };
    void run();
    bool queued() const { return head < items.size(); }

    static std::atomic<bool> _held;
    static std::atomic<unsigned> _roundTripUs;

    void* const opaque = freshHandle();
    std::mutex mutex;
    std::condition_variable ready;
    std::condition_variable idle;
    // Queued work is items[head..]: a vector keeps its storage once grown, where a deque
    // would allocate a block on the posting thread and free it here every few posts.
    std::vector<Item> items;
    std::size_t head = 0;
    // What work asked to let go: `ran` from the running work (this thread only),
    // `spent` once the work is done (guarded by mutex).
    std::vector<std::shared_ptr<void const>> ran;
    std::vector<std::shared_ptr<void const>> spent;
    // What this thread lets go of itself, before it sleeps (this thread only).
    std::vector<std::shared_ptr<void const>> dropping;
    // Guarded by mutex: the thread sleeps on `ready` (a post needs to wake it).
    bool sleeping = false;
    void const* runningOwner = nullptr;
    void const* runningSubOwner = nullptr;
    bool stopping = false;
    uint64_t posts = 0;
    std::thread thread;
    std::thread::id threadId;
};

}  // namespace SolEmu
