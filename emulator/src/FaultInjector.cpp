#include "FaultInjector.h"

#include "ErrorInfo.h"

namespace SolEmu {

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
    // Never destroyed: context threads still consult it while the process exits.
    static FaultInjector* injector = new FaultInjector();
    return *injector;
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
    std::lock_guard<std::mutex> lock(mutex);
    if (count <= 0) {
        failures.erase(function);
    } else {
        failures[function] = Failure{count, returnCode, subCode, text};
    }
    armed.store(static_cast<int>(failures.size()));
    return true;
}

std::optional<solClient_returnCode_t> FaultInjector::checkArmed(char const* function) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = failures.find(function);
    if (it == failures.end()) {
        return std::nullopt;
    }
    Failure failure = it->second;
    if (--it->second.count <= 0) {
        failures.erase(it);
        armed.store(static_cast<int>(failures.size()));
    }
    ErrorInfo::set(failure.subCode, 0, failure.text);
    return static_cast<solClient_returnCode_t>(failure.returnCode);
}

void FaultInjector::refuseSubscriptions(std::string const* topic, int subCode) {
    std::lock_guard<std::mutex> lock(mutex);
    if (topic == nullptr) {
        refuseAllSubCode = subCode;
    } else if (subCode == 0) {
        refusedTopics.erase(*topic);
    } else {
        refusedTopics[*topic] = subCode;
    }
}

int FaultInjector::subscriptionRefusal(std::string const& topic) const {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = refusedTopics.find(topic);
    if (it != refusedTopics.end()) {
        return it->second;
    }
    return refuseAllSubCode;
}

void FaultInjector::refuseUser(char const* user) {
    std::lock_guard<std::mutex> lock(mutex);
    if (user == nullptr) {
        refusedUsers.clear();
    } else {
        refusedUsers.insert(user);
    }
}

bool FaultInjector::isUserRefused(std::string const& user) const {
    std::lock_guard<std::mutex> lock(mutex);
    return refusedUsers.count(user) != 0;
}

void FaultInjector::reset() {
    std::lock_guard<std::mutex> lock(mutex);
    failures.clear();
    armed.store(0);
    refuseAllSubCode = 0;
    refusedTopics.clear();
    refusedUsers.clear();
    ackPolicy.store(AckMode::ACKNOWLEDGE);
    reapplyOnConnect.store(false);
}

}  // namespace SolEmu
