#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace SolEmu {

class MessageVpn;
class Session;

// One emulated broker, named by its "host:port". Sessions connect to one of
// its VPNs. Taking it down drops every connected session; bringing it up lets
// sessions that wait for it connect.
class Broker : public std::enable_shared_from_this<Broker> {
  public:
    explicit Broker(std::string hostPort) : endpoint(std::move(hostPort)) {}

    std::string const& hostPort() const { return endpoint; }
    bool isUp() const { return up.load(); }
    void setUp(bool up);

    std::shared_ptr<MessageVpn> vpn(std::string const& name);
    std::vector<std::shared_ptr<MessageVpn>> vpns() const;

    // A connecting session that found the broker down; it is told when the
    // broker comes up.
    void waitForUp(std::shared_ptr<Session> const& session);

    void reset();

  private:
    const std::string endpoint;
    std::atomic<bool> up{true};
    mutable std::mutex mutex;
    std::map<std::string, std::shared_ptr<MessageVpn>> vpnsByName;
    std::vector<std::weak_ptr<Session>> waiting;
};

}  // namespace SolEmu
