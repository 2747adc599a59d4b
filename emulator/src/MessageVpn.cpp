#include "MessageVpn.h"

#include <algorithm>

#include "BrokerRegistry.h"
#include "Queue.h"
#include "Session.h"

namespace SolEmu {

void MessageVpn::attach(std::shared_ptr<Session> const& session) {
    std::lock_guard<std::mutex> lock(mutex);
    auto next = std::make_shared<SessionList>(*sessionList);
    if (std::find(next->begin(), next->end(), session) == next->end()) {
        next->push_back(session);
    }
    sessionList = std::move(next);
}

void MessageVpn::detach(Session const* session) {
    std::shared_ptr<const SessionList> previous;  // released outside the lock
    std::lock_guard<std::mutex> lock(mutex);
    auto next = std::make_shared<SessionList>();
    for (auto const& each : *sessionList) {
        if (each.get() != session) {
            next->push_back(each);
        }
    }
    previous = std::move(sessionList);
    sessionList = std::move(next);
}

std::shared_ptr<const MessageVpn::SessionList> MessageVpn::sessions() const {
    std::lock_guard<std::mutex> lock(mutex);
    return sessionList;
}

void MessageVpn::publish(std::string const& topic, std::shared_ptr<const Message> message) const {
    auto const snapshot = sessions();  // a concurrent detach may replace the list
    for (std::size_t i = 0; i < snapshot->size(); ++i) {
        (*snapshot)[i]->deliverDirect(topic, message, i + 1 == snapshot->size());
    }
}

std::shared_ptr<Queue> MessageVpn::queue(std::string const& name) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = queues.find(name);
    if (it != queues.end()) {
        return it->second;
    }
    if (!BrokerRegistry::instance().isProvisioned(name)) {
        return nullptr;
    }
    auto created = std::make_shared<Queue>(name);
    queues.emplace(name, created);
    return created;
}

void MessageVpn::removeQueue(std::string const& name) {
    std::shared_ptr<Queue> removed;
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = queues.find(name);
        if (it == queues.end()) {
            return;
        }
        removed = it->second;
        queues.erase(it);
    }
    removed->clear();
}

long MessageVpn::queueDepth(std::string const& name) const {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = queues.find(name);
    return it == queues.end() ? -1 : it->second->depth();
}

void MessageVpn::clearQueues() {
    std::map<std::string, std::shared_ptr<Queue>> removed;
    {
        std::lock_guard<std::mutex> lock(mutex);
        removed.swap(queues);
    }
    for (auto& entry : removed) {
        entry.second->clear();
    }
}

}  // namespace SolEmu
