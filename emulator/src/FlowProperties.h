#pragma once

#include <cstddef>
#include <string>

#include "PropertyList.h"

namespace SolEmu {

// A flow property list, checked and parsed. Only queue flows exist here, so
// FLOW_BIND_ENTITY_ID must be "2" and FLOW_BIND_NAME must name the queue.
class FlowProperties {
  public:
    bool parse(PropertyList const& list, std::string& error);

    // Most messages handed out and not yet acknowledged.
    size_t window() const;

    bool bindBlocking = true;
    bool clientAck = false;
    long long windowSize = 255;
    long long maxUnacked = -1;
    std::string queueName;
    bool startState = true;
    long long bindTimeoutMs = 10000;
};

}  // namespace SolEmu
