#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace SolEmu {

class Flow;
class Message;

// A durable queue of one broker: spooled messages in id order, the flows
// bound to it, and what each flow holds unacknowledged. Several flows share
// the queue round-robin.
class Queue : public std::enable_shared_from_this<Queue> {
  public:
    explicit Queue(std::string name) : queueName(std::move(name)) {}

    std::string const& name() const { return queueName; }

    void spool(std::shared_ptr<const Message> message);
    void bind(std::shared_ptr<Flow> const& flow);
    // The flow's unacknowledged messages go back to the queue, marked
    // redelivered, and are offered to the remaining flows.
    void unbind(Flow const* flow);
    // Removes a message the flow holds; unknown ids are ignored.
    void acknowledge(Flow const* flow, uint64_t id);
    // Hand out messages to flows that are started and have room.
    void pump();
    // Spooled messages, handed out or not.
    long depth() const;
    void clear();

  private:
    struct Entry {
        std::shared_ptr<const Message> message;
        bool redelivered = false;
    };
    struct Binding {
        Flow const* key;
        std::weak_ptr<Flow> flow;
        std::map<uint64_t, Entry> unacked;
    };
    void pumpLocked();

    static std::atomic<uint64_t> _nextId;

    const std::string queueName;
    mutable std::mutex mutex;
    std::map<uint64_t, Entry> available;
    std::vector<Binding> bindings;
    size_t nextBinding = 0;
};

}  // namespace SolEmu
