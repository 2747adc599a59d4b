#pragma once

#include <memory>

#include <nan.h>

#include "core/MessageHandler.h"

class KWCallbackProcessor;
class KWClientFunctions;
class KWFunction;

// Delivers the messages of one subscription to a JavaScript function. Called
// on library threads; it only queues work for the JavaScript thread.
class KWMessageHandler : public KW::MessageHandler {
  public:
    // JavaScript thread only. With functions, fn is one of that client's.
    explicit KWMessageHandler(v8::Local<v8::Function> const& fn,
                              KWClientFunctions* functions = nullptr);
    ~KWMessageHandler() override;
    void handleMessage(std::shared_ptr<KW::Message> message) override;

  private:
    std::shared_ptr<KWFunction> callback;
    std::shared_ptr<KWCallbackProcessor> processor;
};
