#include "Broker.h"

#include "MessageVpn.h"
#include "Session.h"

namespace solemu {

void Broker::setUp(bool up) {
    std::vector<std::weak_ptr<Session>> waiting;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (up_.exchange(up) == up) {
            return;
        }
        if (up) {
            waiting.swap(waiting_);
        }
    }
    if (up) {
        for (auto& weak : waiting) {
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
    std::lock_guard<std::mutex> lock(mutex_);
    auto& entry = vpns_[name];
    if (!entry) {
        entry = std::make_shared<MessageVpn>();
    }
    return entry;
}

std::vector<std::shared_ptr<MessageVpn>> Broker::vpns() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::shared_ptr<MessageVpn>> all;
    for (auto const& entry : vpns_) {
        all.push_back(entry.second);
    }
    return all;
}

void Broker::waitForUp(std::shared_ptr<Session> const& session) {
    bool upNow = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        upNow = up_.load();
        if (!upNow) {
            waiting_.push_back(session);
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

}  // namespace solemu
