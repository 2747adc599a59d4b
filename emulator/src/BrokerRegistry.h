#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace SolEmu {

class Broker;

// Every broker of the process, by "host:port", and the queue names that are
// provisioned on all of them.
class BrokerRegistry {
  public:
    static BrokerRegistry& instance();

    // The broker for `hostPort`, created (up) on first use.
    std::shared_ptr<Broker> broker(std::string const& hostPort);

    bool addQueue(std::string const& name);
    bool removeQueue(std::string const& name);
    bool isProvisioned(std::string const& name) const;
    // Summed over every broker and VPN; -1 when not provisioned.
    long queueDepth(std::string const& name) const;

    // Brokers up, queues gone; broker objects stay so live sessions keep them.
    void reset();

  private:
    BrokerRegistry() = default;
    mutable std::mutex mutex;
    std::map<std::string, std::shared_ptr<Broker>> brokers;
    std::set<std::string> queues;
};

}  // namespace SolEmu
