#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <vector>

namespace SolEmu {

// A handle is a number never given out twice, not the object's address: the
// allocator soon hands a destroyed object's memory to the next one, and its
// stale handle must not reach that.
inline void* freshHandle() {
    static std::atomic<uintptr_t> issued{0};
    uintptr_t const number = (issued.fetch_add(1, std::memory_order_relaxed) + 1) << 4;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): opaque, never dereferenced
    return reinterpret_cast<void*>(number);
}

// The live objects behind opaque handles. A handle is only trusted after it
// is found here, so a stale or foreign pointer fails cleanly instead of
// crashing; lookups share the lock.
template <typename Entry>
class HandleTable {
  public:
    void add(void* handle, Entry entry) {
        std::unique_lock<std::shared_mutex> lock(mutex);
        entries[handle] = std::move(entry);
    }
    // False when the handle is unknown.
    bool find(void* handle, Entry& entry) const {
        std::shared_lock<std::shared_mutex> lock(mutex);
        auto it = entries.find(handle);
        if (it == entries.end()) {
            return false;
        }
        entry = it->second;
        return true;
    }
    bool remove(void* handle, Entry& entry) {
        std::unique_lock<std::shared_mutex> lock(mutex);
        auto it = entries.find(handle);
        if (it == entries.end()) {
            return false;
        }
        entry = std::move(it->second);
        entries.erase(it);
        removed.fetch_add(1, std::memory_order_release);
        return true;
    }
    std::vector<Entry> values() const {
        std::shared_lock<std::shared_mutex> lock(mutex);
        std::vector<Entry> all;
        for (auto const& item : entries) {
            all.push_back(item.second);
        }
        return all;
    }
    // Bumped by every removal: a handle found before and unchanged since is still live.
    uint64_t removals() const { return removed.load(std::memory_order_acquire); }
    size_t size() const {
        std::shared_lock<std::shared_mutex> lock(mutex);
        return entries.size();
    }

  private:
    mutable std::shared_mutex mutex;
    std::map<void*, Entry> entries;
    std::atomic<uint64_t> removed{0};
};

}  // namespace SolEmu
