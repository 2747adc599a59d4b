#include "BrokerRegistry.h"

#include <vector>

#include "Broker.h"
#include "MessageVpn.h"

namespace SolEmu {

BrokerRegistry& BrokerRegistry::instance() {
    // Never destroyed: context threads may still reach it while the process exits.
    static BrokerRegistry* registry = new BrokerRegistry();
    return *registry;
}

std::shared_ptr<Broker> BrokerRegistry::broker(std::string const& hostPort) {
    std::lock_guard<std::mutex> lock(mutex);
    auto& entry = brokers[hostPort];
    if (!entry) {
        entry = std::make_shared<Broker>(hostPort);
    }
    return entry;
}

bool BrokerRegistry::addQueue(std::string const& name) {
    std::lock_guard<std::mutex> lock(mutex);
    return queues.insert(name).second;
}

bool BrokerRegistry::removeQueue(std::string const& name) {
    std::vector<std::shared_ptr<Broker>> affected;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (queues.erase(name) == 0) {
            return false;
        }
        for (auto const& entry : brokers) {
            affected.push_back(entry.second);
        }
    }
    for (auto const& broker : affected) {
        for (auto const& vpn : broker->vpns()) {
            vpn->removeQueue(name);
        }
    }
    return true;
}

bool BrokerRegistry::isProvisioned(std::string const& name) const {
    std::lock_guard<std::mutex> lock(mutex);
    return queues.count(name) != 0;
}

long BrokerRegistry::queueDepth(std::string const& name) const {
    std::vector<std::shared_ptr<Broker>> affected;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (queues.count(name) == 0) {
            return -1;
        }
        for (auto const& entry : brokers) {
            affected.push_back(entry.second);
        }
    }
    long total = 0;
    for (auto const& broker : affected) {
        for (auto const& vpn : broker->vpns()) {
            total += std::max(0L, vpn->queueDepth(name));
        }
    }
    return total;
}

void BrokerRegistry::reset() {
    std::vector<std::shared_ptr<Broker>> affected;
    {
        std::lock_guard<std::mutex> lock(mutex);
        queues.clear();
        for (auto const& entry : brokers) {
            affected.push_back(entry.second);
        }
    }
    for (auto const& broker : affected) {
        broker->reset();
    }
}

}  // namespace SolEmu
