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
    for (const auto& vpn : vpns()) {
        // Hold the snapshot: each session detaches itself, which replaces the
        // VPN's list while we walk this one.
        const auto sessions = vpn->sessions();
        for (const auto& session : *sessions) {
            session->brokerWentDown();
        }
    }
}

std::shared_ptr<MessageVpn> Broker::vpn(const std::string& name) {
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
    for (const auto& entry : vpns_) {
        all.push_back(entry.second);
    }
    return all;
}

void Broker::waitForUp(const std::shared_ptr<Session>& session) {
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
    for (const auto& vpn : vpns()) {
        vpn->clearQueues();
    }
}

}  // namespace solemu
