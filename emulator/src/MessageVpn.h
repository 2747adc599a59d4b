#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace SolEmu {

class Message;
class Queue;
class Session;

// One message VPN of one broker: the sessions connected to it (which receive
// its direct messages) and its queues. Traffic never crosses VPNs.
class MessageVpn {
  public:
    using SessionList = std::vector<std::shared_ptr<Session>>;

    void attach(std::shared_ptr<Session> const& session);
    void detach(Session const* session);
    // The connected sessions; a snapshot, so publishers take no lock while
    // they deliver.
    std::shared_ptr<const SessionList> sessions() const;

    // Deliver a direct message to every matching subscription.
    void publish(std::string const& topic, std::shared_ptr<const Message> message) const;

    // The queue of that name if it is provisioned (created on first use).
    std::shared_ptr<Queue> queue(std::string const& name);
    void removeQueue(std::string const& name);
    // -1 when the queue was never used here.
    long queueDepth(std::string const& name) const;
    void clearQueues();

  private:
    mutable std::mutex mutex;
    std::shared_ptr<const SessionList> sessionList = std::make_shared<SessionList>();
    std::map<std::string, std::shared_ptr<Queue>> queues;
};

}  // namespace SolEmu
