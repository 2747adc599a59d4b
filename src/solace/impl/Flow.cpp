#include "solace/impl/Flow.h"

#include <cstdio>
#include <exception>

#include "core/DroppedFailures.h"
#include "solace/ClientTerminatedException.h"
#include "solace/SolaceAPI.h"
#include "solace/impl/QueueReceiveTask.h"
#include "solace/impl/Session.h"

namespace KW {
namespace Solace {
namespace Impl {

Flow::Flow(Session& session, KW::QOS::Enum qos, std::string const& name,
           std::shared_ptr<KW::MessageHandler> handler)
    : session(session),
      name(name),
      qos(qos),
      handler(std::move(handler)),
      handle(session.getAPI()),
      state(CREATED),
      lastSubCode(0) {}

Flow::~Flow() = default;

solClient_errorInfo* Flow::recordFailure() {
    solClient_errorInfo* info = session.getAPI().getLastErrorInfo();
    state = FAILED;
    lastSubCode = info ? static_cast<int>(info->subCode) : 0;
    return info;
}

bool Flow::start(std::shared_ptr<KW::Reference>& reference) {
    solClient_errorInfo* failure = nullptr;
    bool created = false;
    subscribed = reference;  // before open() marks it bound, which lets reestablish() read it
    if (open(failure, created)) {
        return true;
    }
    subscribed.reset();
    // A refused start is reported without the error record, unlike a failed creation.
    session.notifyHandlerOfQueueSubscribe(name, qos, reference, created ? nullptr : failure);
    return false;
}

std::shared_ptr<Flow> Flow::renew() const {
    auto renewed = std::make_shared<Flow>(session, qos, name, handler);
    renewed->appliedIn = appliedIn.load();
    renewed->subscribed = subscribed;
    return renewed;
}

bool Flow::rebind(solClient_errorInfo*& refusal) {
    unsigned long const epoch = session.getConnectionEpoch();
    bool created = false;
    // Still dropped when its connection went meanwhile: bound again after the next up.
    return open(refusal, created) || session.lostSince(epoch, lastSubCode);
}

bool Flow::open(solClient_errorInfo*& failure, bool& created) {
    SolaceAPI const& api = session.getAPI();
    // Read before the calls: a bind that a disconnect overtakes counts as dropped with it.
    unsigned long const epoch = session.getConnectionEpoch();
    // Bound blocking to a durable queue, client acknowledgement, created
    // stopped and started below.
    char const* properties[] = {SOLCLIENT_FLOW_PROP_BIND_BLOCKING,
                                SOLCLIENT_PROP_ENABLE_VAL,
                                SOLCLIENT_FLOW_PROP_BIND_ENTITY_DURABLE,
                                SOLCLIENT_PROP_ENABLE_VAL,
                                SOLCLIENT_FLOW_PROP_ACKMODE,
                                SOLCLIENT_FLOW_PROP_ACKMODE_CLIENT,
                                SOLCLIENT_FLOW_PROP_MAX_BIND_TRIES,
                                "1",
                                SOLCLIENT_FLOW_PROP_WINDOWSIZE,
                                "255",
                                SOLCLIENT_FLOW_PROP_MAX_UNACKED_MESSAGES,
                                "-1",
                                SOLCLIENT_FLOW_PROP_BIND_ENTITY_ID,
                                SOLCLIENT_FLOW_PROP_BIND_ENTITY_QUEUE,
                                SOLCLIENT_FLOW_PROP_BIND_NAME,
                                name.c_str(),
                                SOLCLIENT_FLOW_PROP_START_STATE,
                                SOLCLIENT_PROP_DISABLE_VAL,
                                nullptr};
    solClient_flow_createFuncInfo_t funcInfo{};
    funcInfo.rxInfo.callback_p = nullptr;
    funcInfo.rxInfo.user_p = nullptr;
    funcInfo.eventInfo.callback_p = &Flow::queueEventCallback;
    funcInfo.eventInfo.user_p = this;
    funcInfo.rxMsgInfo.callback_p = &Flow::queueReceiveCallback;
    funcInfo.rxMsgInfo.user_p = this;

    solClient_opaqueFlow_pt made = nullptr;
    created = false;
    if (api.sessionCreateFlow(properties, session.getHandle(), &made, &funcInfo,
                              sizeof(funcInfo)) != SOLCLIENT_OK) {
        failure = recordFailure();
        return false;
    }
    handle.adopt(made);
    created = true;
    if (api.flowStart(made) == SOLCLIENT_OK) {
        state = ACTIVE;
        appliedIn = epoch;
        return true;
    }
    failure = recordFailure();
    return false;
}

bool Flow::stop(std::shared_ptr<KW::Reference>& reference) {
    stopping.store(true);
    SolaceAPI const& api = session.getAPI();
    bool const dropped = session.droppedSince(appliedIn);
    if (!handle && !dropped) {
        // Never bound: answered as a failed stop so that the completion runs.
        solClient_errorInfo info{};
        info.subCode = SOLCLIENT_SUBCODE_PARAM_NULL_PTR;
        std::snprintf(info.errorStr, sizeof(info.errorStr), "flow for queue '%s' was never bound",
                      name.c_str());
        state = FAILED;
        lastSubCode = static_cast<int>(info.subCode);
        session.notifyHandlerOfQueueUnsubscribe(name, qos, reference, &info);
        return false;
    }
    bool stopped = true;
    if (!dropped && api.flowStop(handle.get()) != SOLCLIENT_OK) {
        stopped = false;
        solClient_errorInfo* info = recordFailure();
        session.notifyHandlerOfQueueUnsubscribe(name, qos, reference, info);
    }
    solClient_returnCode_t closed;
    {
        std::lock_guard<std::mutex> lock(handleMutex);
        closed = handle.close();
    }
    if (closed != SOLCLIENT_OK) {
        recordFailure();
        if (stopped) {  // a refused stop has given the one answer already
            session.notifyHandlerOfQueueUnsubscribe(name, qos, reference, nullptr);
        }
        session.keepUndestroyed(shared_from_this());
        return false;
    }
    return stopped;
}

void Flow::destroyHandle() {
    std::lock_guard<std::mutex> lock(handleMutex);
    handle.reset();
}

void Flow::acknowledge(unsigned long long messageID) {
    std::lock_guard<std::mutex> lock(handleMutex);
    solClient_opaqueFlow_pt const current = handle.get();
    if (current != nullptr && session.getAPI().flowSendAck(current, messageID) != SOLCLIENT_OK) {
        KW::DroppedFailures::record("solClient_flow_sendAck", "acknowledgement refused");
    }
}

void Flow::handleEvent(solClient_flow_eventCallbackInfo* info) {
    if (info == nullptr) {
        return;
    }
    switch (static_cast<int>(info->flowEvent)) {
        case SOLCLIENT_FLOW_EVENT_UP_NOTICE:
            state = UP;
            break;
        case SOLCLIENT_FLOW_EVENT_DOWN_ERROR:
        case SOLCLIENT_FLOW_EVENT_SESSION_DOWN:
            state = DOWN;
            break;
        case SOLCLIENT_FLOW_EVENT_BIND_FAILED_ERROR:
            state = FAILED;
            break;
        case SOLCLIENT_FLOW_EVENT_ACTIVE:
            state = ACTIVE;
            break;
        case SOLCLIENT_FLOW_EVENT_INACTIVE:
            state = INACTIVE;
            break;
        default:
            break;
    }
}

void Flow::queueEventCallback(void* /*flow*/, solClient_flow_eventCallbackInfo* info, void* user) {
    Flow* flow = static_cast<Flow*>(user);
    try {
        flow->handleEvent(info);
    } catch (std::exception const& e) {
        flow->session.notifyHandlerOfRuntimeError(e.what());
    } catch (...) {
        flow->session.notifyHandlerOfRuntimeError("failed to handle session event");
    }
}

solClient_rxMsgCallback_returnCode_t Flow::queueReceiveCallback(void* /*flow*/, void* msg,
                                                                void* user) {
    Flow* flow = static_cast<Flow*>(user);
    if (flow->stopping.load()) {
        return SOLCLIENT_CALLBACK_OK;  // unsubscribed; the broker gives it to the next consumer
    }
    bool taken = false;
    try {
        auto payload = ReceiveTask::readPayload(flow->session.getAPI(), msg, taken);
        // A refused push (receive queue full) drops the message; the broker
        // redelivers it under its own rules since it was never acknowledged.
        if (!flow->session.enqueue(std::shared_ptr<ReceiveTask>(
                std::make_shared<QueueReceiveTask>(msg, std::move(payload), flow)))) {
            KW::DroppedFailures::record("Flow::queueReceiveCallback",
                                        "receive queue full, queue message dropped");
        }
    } catch (ClientTerminatedException const& e) {
        flow->session.notifyHandlerOfRuntimeError(e.what());
    } catch (...) {
        flow->session.notifyHandlerOfRuntimeError("failed to receive message");
    }
    // As for topic messages: a taken message may already be freed here.
    return taken ? SOLCLIENT_CALLBACK_TAKE_MSG : SOLCLIENT_CALLBACK_OK;
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
