#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "FlowProperties.h"
#include "HandleTable.h"
#include "solclient/SolClientABI.h"

namespace SolEmu {

class Context;
class Message;
class Queue;

// A flow bound to one queue. Its callbacks run on its session's context
// thread; deliveries are posted there by the queue, events by the flow.
class Flow : public std::enable_shared_from_this<Flow> {
  public:
    Flow(std::shared_ptr<Context> context, void const* sessionOwner, FlowProperties properties,
         solClient_flow_createFuncInfo_t const& funcs);

    void* handle() const { return opaque; }
    std::string const& queueName() const { return properties.queueName; }

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
    bool retired() const { return retiredFlag.load(); }
    // Unbind, discard queued callbacks and wait out a running one.
    void destroy();

    // Called by the queue, under its lock.
    bool canReceive() const { return started.load() && !destroyed.load(); }
    size_t window() const { return windowSize; }
    void deliver(std::shared_ptr<Queue> const& queue, uint64_t id,
                 std::shared_ptr<const Message> const& message, bool redelivered);

  private:
    void postEvent(solClient_flow_event_t event, unsigned responseCode, std::string info);

    const std::shared_ptr<Context> context;
    void const* const sessionOwner;
    const FlowProperties properties;
    const size_t windowSize;
    const solClient_flow_createFuncInfo_t funcs;
    void* const opaque = freshHandle();

    std::mutex mutex;
    std::shared_ptr<Queue> queue;
    std::atomic<bool> started;
    std::atomic<bool> destroyed{false};
    std::atomic<bool> retiredFlag{false};
};

}  // namespace SolEmu
