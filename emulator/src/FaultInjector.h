#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "solclient/SolClientABI.h"

namespace solemu {

// Faults a test asks for: failing calls, refused subscriptions and users, and
// how the brokers answer guaranteed messages. Process-wide.
class FaultInjector {
  public:
    enum class AckMode { Acknowledge = 0, Reject = 1, Withhold = 2 };

    static FaultInjector& instance();

    // False for a name that is not one of the vendor functions.
    bool failNext(const std::string& function, int count, int returnCode, int subCode,
                  const std::string& text);
    // Consumes one armed failure of `function`; fills the error record and
    // returns the code to give back. Cheap when nothing is armed.
    std::optional<solClient_returnCode_t> check(const char* function);

    void refuseSubscriptions(const std::string* topic, int subCode);
    // The sub-code to refuse `topic` with, 0 if it is allowed.
    int subscriptionRefusal(const std::string& topic) const;

    void refuseUser(const char* user);
    bool isUserRefused(const std::string& user) const;

    void setAckMode(AckMode mode) { ackMode_.store(mode); }
    AckMode ackMode() const { return ackMode_.load(); }

    void reset();

    static bool isVendorFunction(const std::string& name);

  private:
    struct Failure {
        int count;
        int returnCode;
        int subCode;
        std::string text;
    };
    mutable std::mutex mutex_;
    std::atomic<int> armed_{0};
    std::map<std::string, Failure> failures_;
    int refuseAllSubCode_ = 0;
    std::map<std::string, int> refusedTopics_;
    std::set<std::string> refusedUsers_;
    std::atomic<AckMode> ackMode_{AckMode::Acknowledge};
};

}  // namespace solemu
