#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "FlowProperties.h"
#include "solclient/SolClientABI.h"

namespace solemu {

class Context;
class Message;
class Queue;

// A flow bound to one queue. Its callbacks run on its session's context
// thread; deliveries are posted there by the queue, events by the flow.
class Flow : public std::enable_shared_from_this<Flow> {
  public:
    Flow(std::shared_ptr<Context> context, void const* sessionOwner, FlowProperties properties,
         solClient_flow_createFuncInfo_t const& funcs);

    void* handle() { return this; }
    std::string const& queueName() const { return properties_.queueName; }

    // Bind to `queue`; null means the queue does not exist. Raises UP_NOTICE
    // or BIND_FAILED_ERROR. False when not bound.
    bool bind(std::shared_ptr<Queue> const& queue);
    solClient_returnCode_t start();
    solClient_returnCode_t stop();
    solClient_returnCode_t acknowledge(uint64_t id);

    // The session's connection went away: messages held go back to the queue.
    void connectionLost();
    // The session is down for good (or disconnected): unbound and never
    // rebound; `event` (if >= 0) is raised.
    void retire(int event);
    bool retired() const { return retired_.load(); }
    // Unbind, discard queued callbacks and wait out a running one.
    void destroy();

    // Called by the queue, under its lock.
    bool canReceive() const { return started_.load() && !destroyed_.load(); }
    size_t window() const { return window_; }
    void deliver(std::shared_ptr<Queue> const& queue, uint64_t id,
                 std::shared_ptr<const Message> const& message, bool redelivered);

  private:
    void postEvent(solClient_flow_event_t event, unsigned responseCode, std::string info);

    const std::shared_ptr<Context> context_;
    void const* const sessionOwner_;
    const FlowProperties properties_;
    const size_t window_;
    const solClient_flow_createFuncInfo_t funcs_;

    std::mutex mutex_;
    std::shared_ptr<Queue> queue_;
    std::atomic<bool> started_;
    std::atomic<bool> destroyed_{false};
    std::atomic<bool> retired_{false};
};

}  // namespace solemu
