#include "BrokerRegistry.h"

#include <vector>

#include "Broker.h"
#include "MessageVpn.h"

namespace solemu {

BrokerRegistry& BrokerRegistry::instance() {
    // Never destroyed: context threads may still reach it while the process exits.
    static BrokerRegistry* registry = new BrokerRegistry();
    return *registry;
}

std::shared_ptr<Broker> BrokerRegistry::broker(const std::string& hostPort) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& entry = brokers_[hostPort];
    if (!entry) {
        entry = std::make_shared<Broker>(hostPort);
    }
    return entry;
}

bool BrokerRegistry::addQueue(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    return queues_.insert(name).second;
}

bool BrokerRegistry::removeQueue(const std::string& name) {
    std::vector<std::shared_ptr<Broker>> brokers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (queues_.erase(name) == 0) {
            return false;
        }
        for (const auto& entry : brokers_) {
            brokers.push_back(entry.second);
        }
    }
    for (const auto& broker : brokers) {
        for (const auto& vpn : broker->vpns()) {
            vpn->removeQueue(name);
        }
    }
    return true;
}

bool BrokerRegistry::isProvisioned(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return queues_.count(name) != 0;
}

long BrokerRegistry::queueDepth(const std::string& name) const {
    std::vector<std::shared_ptr<Broker>> brokers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (queues_.count(name) == 0) {
            return -1;
        }
        for (const auto& entry : brokers_) {
            brokers.push_back(entry.second);
        }
    }
    long total = 0;
    for (const auto& broker : brokers) {
        for (const auto& vpn : broker->vpns()) {
            total += std::max(0L, vpn->queueDepth(name));
        }
    }
    return total;
}

void BrokerRegistry::reset() {
    std::vector<std::shared_ptr<Broker>> brokers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queues_.clear();
        for (const auto& entry : brokers_) {
            brokers.push_back(entry.second);
        }
    }
    for (const auto& broker : brokers) {
        broker->reset();
    }
}

}  // namespace solemu
