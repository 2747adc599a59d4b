#pragma once

#include <memory>

#include <nan.h>

#include "core/MessageHandler.h"

class KWCallbackProcessor;

// Delivers the messages of one subscription to a JavaScript function. Called
// on library threads; it only queues work for the JavaScript thread.
class KWMessageHandler : public KW::MessageHandler {
  public:
    // JavaScript thread only.
    explicit KWMessageHandler(v8::Local<v8::Function> const& fn);
    ~KWMessageHandler() override;
    void handleMessage(std::shared_ptr<KW::Message> message) override;

  private:
    std::shared_ptr<Nan::Callback> callback;
    std::shared_ptr<KWCallbackProcessor> processor;
};
