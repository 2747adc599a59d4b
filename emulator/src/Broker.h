#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace solemu {

class MessageVpn;
class Session;

// One emulated broker, named by its "host:port". Sessions connect to one of
// its VPNs. Taking it down drops every connected session; bringing it up lets
// sessions that wait for it connect.
class Broker : public std::enable_shared_from_this<Broker> {
  public:
    explicit Broker(std::string hostPort) : hostPort_(std::move(hostPort)) {}

    std::string const& hostPort() const { return hostPort_; }
    bool isUp() const { return up_.load(); }
    void setUp(bool up);

    std::shared_ptr<MessageVpn> vpn(std::string const& name);
    std::vector<std::shared_ptr<MessageVpn>> vpns() const;

    // A connecting session that found the broker down; it is told when the
    // broker comes up.
    void waitForUp(std::shared_ptr<Session> const& session);

    void reset();

  private:
    const std::string hostPort_;
    std::atomic<bool> up_{true};
    mutable std::mutex mutex_;
    std::map<std::string, std::shared_ptr<MessageVpn>> vpns_;
    std::vector<std::weak_ptr<Session>> waiting_;
};

}  // namespace solemu
