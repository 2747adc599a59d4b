#pragma once

#include <memory>

#include <nan.h>

#include "KWClient/KWCallbackItem.h"
#include "core/Message.h"

class KWFunction;

// One received message on its way to a subscription's JavaScript handler.
class KWMessageInfo : public KWCallbackItem {
  public:
    ~KWMessageInfo() override;
    void executeCallback() override;

    std::shared_ptr<KWFunction> callback;
    std::shared_ptr<KW::Message> message;
};
