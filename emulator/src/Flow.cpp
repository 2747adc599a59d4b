#include "Flow.h"

#include "Context.h"
#include "Message.h"
#include "Queue.h"

namespace solemu {

Flow::Flow(std::shared_ptr<Context> context, void const* sessionOwner, FlowProperties properties,
           solClient_flow_createFuncInfo_t const& funcs)
    : context_(std::move(context)),
      sessionOwner_(sessionOwner),
      properties_(std::move(properties)),
      window_(properties_.window()),
      funcs_(funcs),
      started_(properties_.startState) {}

bool Flow::bind(std::shared_ptr<Queue> const& queue) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (destroyed_ || retired_) {
            return false;
        }
        if (!queue) {
            postEvent(SOLCLIENT_FLOW_EVENT_BIND_FAILED_ERROR, 503, "Unknown Queue");
            return false;
        }
        queue_ = queue;
        // UP_NOTICE is queued before the queue can hand out anything; binding
        // under the lock keeps a concurrent destroy from missing the binding.
        postEvent(SOLCLIENT_FLOW_EVENT_UP_NOTICE, 200, "OK");
        queue->bind(shared_from_this());
    }
    return true;
}

solClient_returnCode_t Flow::start() {
    started_.store(true);
    if (auto queue = [&] {
            std::lock_guard<std::mutex> lock(mutex_);
            return queue_;
        }()) {
        queue->pump();
    }
    return SOLCLIENT_OK;
}

solClient_returnCode_t Flow::stop() {
    started_.store(false);
    return SOLCLIENT_OK;
}

solClient_returnCode_t Flow::acknowledge(uint64_t id) {
    if (!properties_.clientAck) {
        return SOLCLIENT_OK;  // auto mode acknowledges on delivery
    }
    std::shared_ptr<Queue> queue;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queue = queue_;
    }
    if (queue) {
        queue->acknowledge(this, id);
    }
    return SOLCLIENT_OK;
}

void Flow::connectionLost() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (queue_) {
        queue_->unbind(this);
        queue_.reset();
    }
}

void Flow::retire(int event) {
    connectionLost();
    std::lock_guard<std::mutex> lock(mutex_);
    if (retired_.exchange(true) || destroyed_) {
        return;
    }
    if (event >= 0) {
        postEvent(static_cast<solClient_flow_event_t>(event), 0, "Session down");
    }
}

void Flow::destroy() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        destroyed_.store(true);
    }
    connectionLost();  // after this the queue hands out nothing more
    context_->purge(this);
}

void Flow::deliver(std::shared_ptr<Queue> const& queue, uint64_t id,
                   std::shared_ptr<const Message> const& message, bool redelivered) {
    bool const autoAck = !properties_.clientAck;
    auto callback = funcs_.rxMsgInfo.callback_p;
    void* user = funcs_.rxMsgInfo.user_p;
    void* handle = this;
    context_->post(sessionOwner_, this, [=] {
        std::unique_ptr<Message> copy = Message::deliveryCopy(*message);
        copy->setMessageId(id);
        copy->setRedelivered(redelivered);
        if (callback != nullptr &&
            callback(handle, copy.get(), user) == SOLCLIENT_CALLBACK_TAKE_MSG) {
            static_cast<void>(copy.release());  // the application frees it with msg_free
        }
        if (autoAck && queue) {
            queue->acknowledge(static_cast<Flow*>(handle), id);
        }
    });
}

void Flow::postEvent(solClient_flow_event_t event, unsigned responseCode, std::string info) {
    auto callback = funcs_.eventInfo.callback_p;
    if (callback == nullptr) {
        return;
    }
    void* user = funcs_.eventInfo.user_p;
    void* handle = this;
    context_->post(sessionOwner_, this, [=, info = std::move(info)] {
        solClient_flow_eventCallbackInfo_t record{event, responseCode, info.c_str()};
        callback(handle, &record, user);
    });
}

}  // namespace solemu
