#include "Queue.h"

#include "Flow.h"
#include "Message.h"

namespace SolEmu {

std::atomic<uint64_t> Queue::_nextId{0};

void Queue::spool(std::shared_ptr<const Message> message) {
    std::lock_guard<std::mutex> lock(mutex);
    available.emplace(++_nextId, Entry{std::move(message), false});
    pumpLocked();
}

void Queue::bind(std::shared_ptr<Flow> const& flow) {
    std::lock_guard<std::mutex> lock(mutex);
    for (Binding const& binding : bindings) {
        if (binding.key == flow.get()) {
            return;
        }
    }
    bindings.push_back(Binding{flow.get(), flow, {}});
    pumpLocked();
}

void Queue::unbind(Flow const* flow) {
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = bindings.begin(); it != bindings.end(); ++it) {
        if (it->key != flow) {
            continue;
        }
        for (auto& [id, entry] : it->unacked) {
            entry.redelivered = true;
            available.emplace(id, std::move(entry));
        }
        bindings.erase(it);
        pumpLocked();
        return;
    }
}

void Queue::acknowledge(Flow const* flow, uint64_t id) {
    std::shared_ptr<const Message> released;  // freed outside the lock
    std::lock_guard<std::mutex> lock(mutex);
    for (Binding& binding : bindings) {
        if (binding.key != flow) {
            continue;
        }
        auto it = binding.unacked.find(id);
        if (it != binding.unacked.end()) {
            released = std::move(it->second.message);
            binding.unacked.erase(it);
            pumpLocked();
        }
        return;
    }
}

void Queue::pump() {
    std::lock_guard<std::mutex> lock(mutex);
    pumpLocked();
}

void Queue::pumpLocked() {
    while (!available.empty() && !bindings.empty()) {
        bool handedOut = false;
        for (size_t tried = 0; tried < bindings.size() && !available.empty(); ++tried) {
            Binding& binding = bindings[nextBinding % bindings.size()];
            nextBinding = (nextBinding + 1) % bindings.size();
            std::shared_ptr<Flow> flow = binding.flow.lock();
            if (!flow || !flow->canReceive() || binding.unacked.size() >= flow->window()) {
                continue;
            }
            auto first = available.begin();
            const uint64_t id = first->first;
            Entry& entry = binding.unacked.emplace(id, std::move(first->second)).first->second;
            available.erase(first);
            flow->deliver(shared_from_this(), id, entry.message, entry.redelivered);
            handedOut = true;
        }
        if (!handedOut) {
            return;
        }
    }
}

long Queue::depth() const {
    std::lock_guard<std::mutex> lock(mutex);
    long total = static_cast<long>(available.size());
    for (Binding const& binding : bindings) {
        total += static_cast<long>(binding.unacked.size());
    }
    return total;
}

void Queue::clear() {
    std::map<uint64_t, Entry> dropped;
    std::lock_guard<std::mutex> lock(mutex);
    dropped.swap(available);
    for (Binding& binding : bindings) {
        binding.unacked.clear();
    }
}

}  // namespace SolEmu
