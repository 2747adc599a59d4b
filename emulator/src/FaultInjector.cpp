#include "FaultInjector.h"

#include "ErrorInfo.h"

namespace solemu {

namespace {

char const* const VENDOR_FUNCTIONS[] = {
    "solClient_log_setFilterLevel",
    "solClient_version_get",
    "solClient_initialize",
    "solClient_cleanup",
    "solClient_context_create",
    "solClient_context_destroy",
    "solClient_session_create",
    "solClient_session_destroy",
    "solClient_session_connect",
    "solClient_session_disconnect",
    "solClient_session_sendMsg",
    "solClient_session_topicSubscribeWithDispatch",
    "solClient_session_topicUnsubscribeWithDispatch",
    "solClient_session_createFlow",
    "solClient_flow_start",
    "solClient_flow_stop",
    "solClient_flow_destroy",
    "solClient_flow_sendAck",
    "solClient_msg_alloc",
    "solClient_msg_free",
    "solClient_msg_getMsgId",
    "solClient_msg_getBinaryAttachmentPtr",
    "solClient_msg_getDestination",
    "solClient_msg_setDestination",
    "solClient_msg_setSequenceNumber",
    "solClient_msg_setCorrelationTagPtr",
    "solClient_msg_setBinaryAttachmentPtr",
    "solClient_msg_setTopicPtr",
    "solClient_msg_setDeliveryMode",
};

}  // namespace

FaultInjector& FaultInjector::instance() {
    static FaultInjector injector;
    return injector;
}

bool FaultInjector::isVendorFunction(std::string const& name) {
    for (char const* known : VENDOR_FUNCTIONS) {
        if (name == known) {
            return true;
        }
    }
    return false;
}

bool FaultInjector::failNext(std::string const& function, int count, int returnCode, int subCode,
                             std::string const& text) {
    if (!isVendorFunction(function)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (count <= 0) {
        failures_.erase(function);
    } else {
        failures_[function] = Failure{count, returnCode, subCode, text};
    }
    armed_.store(static_cast<int>(failures_.size()));
    return true;
}

std::optional<solClient_returnCode_t> FaultInjector::check(char const* function) {
    if (armed_.load(std::memory_order_acquire) == 0) {
        return std::nullopt;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = failures_.find(function);
    if (it == failures_.end()) {
        return std::nullopt;
    }
    Failure failure = it->second;
    if (--it->second.count <= 0) {
        failures_.erase(it);
        armed_.store(static_cast<int>(failures_.size()));
    }
    ErrorInfo::set(failure.subCode, 0, failure.text);
    return static_cast<solClient_returnCode_t>(failure.returnCode);
}

void FaultInjector::refuseSubscriptions(std::string const* topic, int subCode) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (topic == nullptr) {
        refuseAllSubCode_ = subCode;
    } else if (subCode == 0) {
        refusedTopics_.erase(*topic);
    } else {
        refusedTopics_[*topic] = subCode;
    }
}

int FaultInjector::subscriptionRefusal(std::string const& topic) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = refusedTopics_.find(topic);
    if (it != refusedTopics_.end()) {
        return it->second;
    }
    return refuseAllSubCode_;
}

void FaultInjector::refuseUser(char const* user) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (user == nullptr) {
        refusedUsers_.clear();
    } else {
        refusedUsers_.insert(user);
    }
}

bool FaultInjector::isUserRefused(std::string const& user) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return refusedUsers_.count(user) != 0;
}

void FaultInjector::reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    failures_.clear();
    armed_.store(0);
    refuseAllSubCode_ = 0;
    refusedTopics_.clear();
    refusedUsers_.clear();
    ackMode_.store(AckMode::ACKNOWLEDGE);
}

}  // namespace solemu
