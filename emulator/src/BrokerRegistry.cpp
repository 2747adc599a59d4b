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

std::shared_ptr<Broker> BrokerRegistry::broker(std::string const& hostPort) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& entry = brokers_[hostPort];
    if (!entry) {
        entry = std::make_shared<Broker>(hostPort);
    }
    return entry;
}

bool BrokerRegistry::addQueue(std::string const& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    return queues_.insert(name).second;
}

bool BrokerRegistry::removeQueue(std::string const& name) {
    std::vector<std::shared_ptr<Broker>> brokers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (queues_.erase(name) == 0) {
            return false;
        }
        for (auto const& entry : brokers_) {
            brokers.push_back(entry.second);
        }
    }
    for (auto const& broker : brokers) {
        for (auto const& vpn : broker->vpns()) {
            vpn->removeQueue(name);
        }
    }
    return true;
}

bool BrokerRegistry::isProvisioned(std::string const& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return queues_.count(name) != 0;
}

long BrokerRegistry::queueDepth(std::string const& name) const {
    std::vector<std::shared_ptr<Broker>> brokers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (queues_.count(name) == 0) {
            return -1;
        }
        for (auto const& entry : brokers_) {
            brokers.push_back(entry.second);
        }
    }
    long total = 0;
    for (auto const& broker : brokers) {
        for (auto const& vpn : broker->vpns()) {
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
        for (auto const& entry : brokers_) {
            brokers.push_back(entry.second);
        }
    }
    for (auto const& broker : brokers) {
        broker->reset();
    }
}

}  // namespace solemu
