#include "Broker.h"

#include "MessageVpn.h"
#include "Session.h"

namespace SolEmu {

void Broker::setUp(bool nowUp) {
    std::vector<std::weak_ptr<Session>> toWake;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (up.exchange(nowUp) == nowUp) {
            return;
        }
        if (nowUp) {
            toWake.swap(waiting);
        }
    }
    if (nowUp) {
        for (auto& weak : toWake) {
            if (auto session = weak.lock()) {
                session->brokerCameUp();
            }
        }
        return;
    }
    for (auto const& vpn : vpns()) {
        // Hold the snapshot: each session detaches itself, which replaces the
        // VPN's list while we walk this one.
        auto const sessions = vpn->sessions();
        for (auto const& session : *sessions) {
            session->brokerWentDown();
        }
    }
}

std::shared_ptr<MessageVpn> Broker::vpn(std::string const& name) {
    std::lock_guard<std::mutex> lock(mutex);
    auto& entry = vpnsByName[name];
    if (!entry) {
        entry = std::make_shared<MessageVpn>();
    }
    return entry;
}

std::vector<std::shared_ptr<MessageVpn>> Broker::vpns() const {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::shared_ptr<MessageVpn>> all;
    for (auto const& entry : vpnsByName) {
        all.push_back(entry.second);
    }
    return all;
}

void Broker::waitForUp(std::shared_ptr<Session> const& session) {
    bool upNow = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        upNow = up.load();
        if (!upNow) {
            waiting.push_back(session);
        }
    }
    if (upNow) {
        session->brokerCameUp();  // it came up between the check and now
    }
}

void Broker::reset() {
    setUp(true);
    for (auto const& vpn : vpns()) {
        vpn->clearQueues();
    }
}

}  // namespace SolEmu
