#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <nan.h>

#include "KWClient/KWCallbackItem.h"
#include "core/Message.h"

class KWClientFunctions;
class KWFunction;

// One client event (connection state or runtime error) on its way to the
// client's JavaScript event function.
class KWEventInfo : public KWCallbackItem {
  public:
    ~KWEventInfo() override;
    void executeCallback() override;

    std::shared_ptr<KWFunction> callback;
    // Set on a client's connection-state event: told once the event has run.
    std::shared_ptr<KWClientFunctions> functions;
    uint64_t epoch = 0;
    std::shared_ptr<KW::Message> message;
    std::string what;
    uint32_t eventCode = 0;
    uint32_t eventSubCode = 0;
};
