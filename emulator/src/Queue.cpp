#include "Queue.h"

#include "Flow.h"
#include "Message.h"

namespace solemu {

std::atomic<uint64_t> Queue::nextId_{0};

void Queue::spool(std::shared_ptr<const Message> message) {
    std::lock_guard<std::mutex> lock(mutex_);
    available_.emplace(++nextId_, Entry{std::move(message), false});
    pumpLocked();
}

void Queue::bind(std::shared_ptr<Flow> const& flow) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (Binding const& binding : bindings_) {
        if (binding.key == flow.get()) {
            return;
        }
    }
    bindings_.push_back(Binding{flow.get(), flow, {}});
    pumpLocked();
}

void Queue::unbind(Flow const* flow) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = bindings_.begin(); it != bindings_.end(); ++it) {
        if (it->key != flow) {
            continue;
        }
        for (auto& [id, entry] : it->unacked) {
            entry.redelivered = true;
            available_.emplace(id, std::move(entry));
        }
        bindings_.erase(it);
        pumpLocked();
        return;
    }
}

void Queue::acknowledge(Flow const* flow, uint64_t id) {
    std::shared_ptr<const Message> released;  // freed outside the lock
    std::lock_guard<std::mutex> lock(mutex_);
    for (Binding& binding : bindings_) {
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
    std::lock_guard<std::mutex> lock(mutex_);
    pumpLocked();
}

void Queue::pumpLocked() {
    while (!available_.empty() && !bindings_.empty()) {
        bool handedOut = false;
        for (size_t tried = 0; tried < bindings_.size() && !available_.empty(); ++tried) {
            Binding& binding = bindings_[nextBinding_ % bindings_.size()];
            nextBinding_ = (nextBinding_ + 1) % bindings_.size();
            std::shared_ptr<Flow> flow = binding.flow.lock();
            if (!flow || !flow->canReceive() || binding.unacked.size() >= flow->window()) {
                continue;
            }
            auto first = available_.begin();
            const uint64_t id = first->first;
            Entry& entry = binding.unacked.emplace(id, std::move(first->second)).first->second;
            available_.erase(first);
            flow->deliver(shared_from_this(), id, entry.message, entry.redelivered);
            handedOut = true;
        }
        if (!handedOut) {
            return;
        }
    }
}

long Queue::depth() const {
    std::lock_guard<std::mutex> lock(mutex_);
    long total = static_cast<long>(available_.size());
    for (Binding const& binding : bindings_) {
        total += static_cast<long>(binding.unacked.size());
    }
    return total;
}

void Queue::clear() {
    std::map<uint64_t, Entry> dropped;
    std::lock_guard<std::mutex> lock(mutex_);
    dropped.swap(available_);
    for (Binding& binding : bindings_) {
        binding.unacked.clear();
    }
}

}  // namespace solemu
