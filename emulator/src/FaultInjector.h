#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "solclient/SolClientABI.h"

namespace SolEmu {

// Faults a test asks for: failing calls, refused subscriptions and users, and
// how the brokers answer guaranteed messages. Process-wide.
class FaultInjector {
  public:
    enum AckMode : int { ACKNOWLEDGE = 0, REJECT = 1, WITHHOLD = 2 };

    static FaultInjector& instance();

    // False for a name that is not one of the vendor functions.
    bool failNext(std::string const& function, int count, int returnCode, int subCode,
                  std::string const& text);
    // Consumes one armed failure of `function`; fills the error record and
    // returns the code to give back. Cheap when nothing is armed.
    std::optional<solClient_returnCode_t> check(char const* function) {
        if (armed.load(std::memory_order_acquire) == 0) {
            return std::nullopt;
        }
        return checkArmed(function);
    }

    void refuseSubscriptions(std::string const* topic, int subCode);
    // The sub-code to refuse `topic` with, 0 if it is allowed.
    int subscriptionRefusal(std::string const& topic) const;

    void refuseUser(char const* user);
    bool isUserRefused(std::string const& user) const;

    void setAckMode(AckMode mode) { ackPolicy.store(mode); }
    AckMode ackMode() const { return ackPolicy.load(); }

    // Whether an explicit disconnect keeps a session's topic subscriptions for
    // its next connect (with REAPPLY_SUBSCRIPTIONS "1"), as a library that
    // re-applies them then too would; off by default.
    void setReapplyAfterDisconnect(bool on) { reapplyOnConnect.store(on); }
    bool reapplyAfterDisconnect() const { return reapplyOnConnect.load(); }

    void reset();

    static bool isVendorFunction(std::string const& name);

  private:
    std::optional<solClient_returnCode_t> checkArmed(char const* function);

    struct Failure {
        int count;
        int returnCode;
        int subCode;
        std::string text;
    };
    mutable std::mutex mutex;
    std::atomic<int> armed{0};
    std::map<std::string, Failure> failures;
    int refuseAllSubCode = 0;
    std::map<std::string, int> refusedTopics;
    std::set<std::string> refusedUsers;
    std::atomic<AckMode> ackPolicy{AckMode::ACKNOWLEDGE};
    std::atomic<bool> reapplyOnConnect{false};
};

}  // namespace SolEmu
