#include "Flow.h"

#include "Context.h"
#include "Message.h"
#include "Queue.h"

#include <utility>

namespace SolEmu {

Flow::Flow(std::shared_ptr<Context> sharedContext, void const* owner, FlowProperties parsed,
           solClient_flow_createFuncInfo_t const& callbacks)
    : context(std::move(sharedContext)),
      sessionOwner(owner),
      properties(std::move(parsed)),
      windowSize(properties.window()),
      funcs(callbacks),
      started(properties.startState) {}

bool Flow::bind(std::shared_ptr<Queue> const& target) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (destroyed || retiredFlag) {
            return false;
        }
        if (!target) {
            postEvent(SOLCLIENT_FLOW_EVENT_BIND_FAILED_ERROR, 503, "Unknown Queue");
            return false;
        }
        queue = target;
        // UP_NOTICE is queued before the queue can hand out anything; binding
        // under the lock keeps a concurrent destroy from missing the binding.
        postEvent(SOLCLIENT_FLOW_EVENT_UP_NOTICE, 200, "OK");
        target->bind(shared_from_this());
    }
    return true;
}

solClient_returnCode_t Flow::start() {
    started.store(true);
    if (auto bound = [&] {
            std::lock_guard<std::mutex> lock(mutex);
            return queue;
        }()) {
        bound->pump();
    }
    return SOLCLIENT_OK;
}

solClient_returnCode_t Flow::stop() {
    started.store(false);
    return SOLCLIENT_OK;
}

solClient_returnCode_t Flow::acknowledge(uint64_t id) {
    if (!properties.clientAck) {
        return SOLCLIENT_OK;  // auto mode acknowledges on delivery
    }
    std::shared_ptr<Queue> bound;
    {
        std::lock_guard<std::mutex> lock(mutex);
        bound = queue;
    }
    if (bound) {
        bound->acknowledge(this, id);
    }
    return SOLCLIENT_OK;
}

void Flow::connectionLost() {
    std::lock_guard<std::mutex> lock(mutex);
    if (queue) {
        queue->unbind(this);
        queue.reset();
    }
}

void Flow::retire(int event) {
    connectionLost();
    std::lock_guard<std::mutex> lock(mutex);
    if (retiredFlag.exchange(true) || destroyed) {
        return;
    }
    if (event >= 0) {
        postEvent(static_cast<solClient_flow_event_t>(event), 0, "Session down");
    }
}

void Flow::destroy() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        destroyed.store(true);
    }
    connectionLost();  // after this the queue hands out nothing more
    context->purge(this);
}

void Flow::deliver(std::shared_ptr<Queue> const& source, uint64_t id,
                   std::shared_ptr<const Message> const& message, bool redelivered) {
    bool const autoAck = !properties.clientAck;
    auto callback = funcs.rxMsgInfo.callback_p;
    void* user = funcs.rxMsgInfo.user_p;
    void* handle = opaque;
    Flow* self = this;
    context->post(sessionOwner, this, [=, message = message]() mutable {
        std::unique_ptr<Message> copy = Message::deliveryCopy(message);
        copy->setMessageId(id);
        copy->setRedelivered(redelivered);
        if (callback != nullptr &&
            callback(handle, copy.get(), user) == SOLCLIENT_CALLBACK_TAKE_MSG) {
            static_cast<void>(copy.release());  // the application frees it with msg_free
        }
        if (autoAck && source) {
            source->acknowledge(self, id);
        }
    });
}

void Flow::postEvent(solClient_flow_event_t event, unsigned responseCode, std::string info) {
    auto callback = funcs.eventInfo.callback_p;
    if (callback == nullptr) {
        return;
    }
    void* user = funcs.eventInfo.user_p;
    void* handle = opaque;
    context->post(sessionOwner, this, [=, info = std::move(info)] {
        solClient_flow_eventCallbackInfo_t record{event, responseCode, info.c_str()};
        callback(handle, &record, user);
    });
}

}  // namespace SolEmu
