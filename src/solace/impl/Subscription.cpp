#include "solace/impl/Subscription.h"

#include "core/DroppedFailures.h"
#include "solace/ClientTerminatedException.h"
#include "solace/SolaceAPI.h"
#include "solace/impl/Session.h"
#include "solace/impl/TopicReceiveTask.h"

namespace KW {
namespace Solace {
namespace Impl {

namespace {
// Block until the broker confirms; this runs on the subscribe worker only.
constexpr solClient_subscribeFlags_t SUBSCRIBE_FLAGS =
    SOLCLIENT_SUBSCRIBE_FLAGS_WAITFORCONFIRM | SOLCLIENT_SUBSCRIBE_FLAGS_REQUEST_CONFIRM;
}  // namespace

// Never destroyed: a library thread may still deliver while the process exits and runs static
// destructors.
std::set<Subscription*>& Subscription::messageReceiveCallbackFilter =
    *new std::set<Subscription*>();
std::mutex Subscription::messageReceiveCallbackLock;

Subscription::Subscription(Session& session, std::string const& topic,
                           std::shared_ptr<KW::MessageHandler> handler)
    : session(session), topic(topic), handler(std::move(handler)), state(CREATED), lastSubCode(0) {
    dispatch.dispatchType = SOLCLIENT_DISPATCH_TYPE_CALLBACK;
    dispatch.callback_p = &Subscription::messageReceiveCallback;
    dispatch.user_p = this;
    dispatch.rfu_p = nullptr;
}

Subscription::~Subscription() {
    // Whatever the state: one refused when applied again is still listed from its first time.
    std::lock_guard<std::mutex> lock(messageReceiveCallbackLock);
    messageReceiveCallbackFilter.erase(this);
}

void Subscription::subscribed(unsigned long epoch) {
    std::lock_guard<std::mutex> lock(messageReceiveCallbackLock);
    messageReceiveCallbackFilter.insert(this);
    state = SUBSCRIBED;
    lastSubCode = 0;
    appliedIn = epoch;
}

bool Subscription::apply(unsigned long epoch, solClient_errorInfo*& failure) {
    SolaceAPI const& api = session.getAPI();
    if (api.sessionTopicSubscribeWithDispatch(session.getHandle(), SUBSCRIBE_FLAGS, topic.c_str(),
                                              &dispatch, nullptr) == SOLCLIENT_OK) {
        subscribed(epoch);
        return true;
    }
    failure = api.getLastErrorInfo();
    return false;
}

bool Subscription::start(std::shared_ptr<KW::Reference>& reference) {
    // Read before the call: one that a disconnect overtakes counts as dropped with it.
    unsigned long const epoch = session.getConnectionEpoch();
    solClient_errorInfo* info = nullptr;
    if (apply(epoch, info)) {
        session.notifyHandlerOfTopicSubscribe(topic, reference, nullptr);
        return true;
    }
    int const subCode = info ? static_cast<int>(info->subCode) : 0;
    // Already present counts as subscribed, but this subscription's own
    // callback is not registered, so nothing arrives through it.
    if (subCode == SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT) {
        state = SUBSCRIBED;
    } else if (subCode == SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED) {
        state = REFUSED;
    } else {
        state = FAILED;
    }
    lastSubCode = subCode;
    session.notifyHandlerOfTopicSubscribe(topic, reference, info);
    return false;
}

bool Subscription::resubscribe(solClient_errorInfo*& refusal) {
    unsigned long const epoch = session.getConnectionEpoch();
    solClient_errorInfo* info = nullptr;
    if (apply(epoch, info)) {
        return true;
    }
    int const subCode = info ? static_cast<int>(info->subCode) : 0;
    // Already present: the library re-applied it itself, with this same dispatch callback.
    if (subCode == SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT) {
        subscribed(epoch);
        return true;
    }
    if (session.lostSince(epoch, subCode)) {
        return true;  // still dropped: tried again after the next up
    }
    state = subCode == SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED ? REFUSED : FAILED;
    lastSubCode = subCode;
    refusal = info;
    return false;
}

bool Subscription::stop(std::shared_ptr<KW::Reference>& reference) {
    SolaceAPI const& api = session.getAPI();
    bool done =
        api.sessionTopicUnsubscribeWithDispatch(session.getHandle(), SUBSCRIBE_FLAGS, topic.c_str(),
                                                &dispatch, nullptr) == SOLCLIENT_OK;
    solClient_errorInfo* info = done ? nullptr : api.getLastErrorInfo();
    int const subCode = info ? static_cast<int>(info->subCode) : 0;
    // Dropped with an earlier connection by a library that did not re-apply it: gone already.
    if (subCode == SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND && session.droppedSince(appliedIn)) {
        done = true;
    }
    if (done) {
        state = UNSUBSCRIBED;
        lastSubCode = 0;
        std::lock_guard<std::mutex> lock(messageReceiveCallbackLock);
        messageReceiveCallbackFilter.erase(this);
        session.notifyHandlerOfTopicUnsubscribe(topic, reference, nullptr);
        return true;
    }
    lastSubCode = subCode;
    state = subCode == SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND ? UNSUBSCRIBED : FAILED;
    std::lock_guard<std::mutex> lock(messageReceiveCallbackLock);
    messageReceiveCallbackFilter.erase(this);
    session.notifyHandlerOfTopicUnsubscribe(topic, reference, info);
    return false;
}

solClient_rxMsgCallback_returnCode_t Subscription::messageReceiveCallback(void* /*session*/,
                                                                          void* msg, void* user) {
    std::lock_guard<std::mutex> lock(messageReceiveCallbackLock);
    auto it = messageReceiveCallbackFilter.find(static_cast<Subscription*>(user));
    if (it == messageReceiveCallbackFilter.end()) {
        return SOLCLIENT_CALLBACK_OK;
    }
    Subscription* subscription = *it;
    bool taken = false;
    try {
        auto payload = ReceiveTask::readPayload(subscription->session.getAPI(), msg, taken);
        // A refused push (receive queue full) drops the message.
        if (!subscription->session.enqueue(std::shared_ptr<ReceiveTask>(
                std::make_shared<TopicReceiveTask>(msg, std::move(payload), subscription)))) {
            KW::DroppedFailures::record("Subscription::messageReceiveCallback",
                                        "receive queue full, topic message dropped");
        }
    } catch (ClientTerminatedException const& e) {
        subscription->session.notifyHandlerOfRuntimeError(e.what());
    } catch (...) {
        subscription->session.notifyHandlerOfRuntimeError("failed to receive message");
    }
    // A taken message may already be freed here (a dropped task, a quick
    // consumer): the library no longer touches it once told TAKE_MSG.
    return taken ? SOLCLIENT_CALLBACK_TAKE_MSG : SOLCLIENT_CALLBACK_OK;
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
