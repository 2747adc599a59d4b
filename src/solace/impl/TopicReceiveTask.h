#pragma once

#include "solace/impl/ReceiveTask.h"

namespace KW {
namespace Solace {
namespace Impl {

class Subscription;

// A message of a topic subscription; its topic is the message's own
// destination, so a wildcard subscription yields the concrete topic.
class TopicReceiveTask : public ReceiveTask {
  public:
    TopicReceiveTask(void* msg, std::shared_ptr<KW::DataPacket> payload,
                     Subscription* subscription);
    ~TopicReceiveTask() override;

    void acknowledge() override {}
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
