#include "MessageVpn.h"

#include <algorithm>

#include "BrokerRegistry.h"
#include "Queue.h"
#include "Session.h"

namespace solemu {

void MessageVpn::attach(const std::shared_ptr<Session>& session) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto next = std::make_shared<SessionList>(*sessions_);
    if (std::find(next->begin(), next->end(), session) == next->end()) {
        next->push_back(session);
    }
    sessions_ = std::move(next);
}

void MessageVpn::detach(const Session* session) {
    std::shared_ptr<const SessionList> previous;  // released outside the lock
    std::lock_guard<std::mutex> lock(mutex_);
    auto next = std::make_shared<SessionList>();
    for (const auto& each : *sessions_) {
        if (each.get() != session) {
            next->push_back(each);
        }
    }
    previous = std::move(sessions_);
    sessions_ = std::move(next);
}

std::shared_ptr<const MessageVpn::SessionList> MessageVpn::sessions() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sessions_;
}

void MessageVpn::publish(const std::string& topic,
                         const std::shared_ptr<const Message>& message) const {
    const auto snapshot = sessions();  // a concurrent detach may replace the list
    for (const auto& session : *snapshot) {
        session->deliverDirect(topic, message);
    }
}

std::shared_ptr<Queue> MessageVpn::queue(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = queues_.find(name);
    if (it != queues_.end()) {
        return it->second;
    }
    if (!BrokerRegistry::instance().isProvisioned(name)) {
        return nullptr;
    }
    auto created = std::make_shared<Queue>(name);
    queues_.emplace(name, created);
    return created;
}

void MessageVpn::removeQueue(const std::string& name) {
    std::shared_ptr<Queue> removed;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = queues_.find(name);
        if (it == queues_.end()) {
            return;
        }
        removed = it->second;
        queues_.erase(it);
    }
    removed->clear();
}

long MessageVpn::queueDepth(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = queues_.find(name);
    return it == queues_.end() ? -1 : it->second->depth();
}

void MessageVpn::clearQueues() {
    std::map<std::string, std::shared_ptr<Queue>> removed;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        removed.swap(queues_);
    }
    for (auto& entry : removed) {
        entry.second->clear();
    }
}

}  // namespace solemu
