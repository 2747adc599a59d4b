#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <nan.h>

#include "core/EventHandler.h"

class KWCallbackItem;
class KWCallbackProcessor;
class KWEventInfo;
class KWClientFunctions;
class KWFunction;

// Turns a client's notifications into JavaScript calls: request outcomes go to
// the request's own completion function (its KWDoneCallback reference),
// connection and runtime events to the client's event function.
class KWEventHandler : public KW::EventHandler {
  public:
    // JavaScript thread only. An empty fn means events are dropped. With
    // functions, fn is one of a client's and its state reports reach them.
    explicit KWEventHandler(v8::Local<v8::Function> const& fn,
                            std::shared_ptr<KWClientFunctions> functions = nullptr);
    ~KWEventHandler() override;

    void connectionStateChanged(std::shared_ptr<KW::Client> client) override;
    void messageSendFinalize(std::shared_ptr<KW::Message> message,
                             std::shared_ptr<KW::Reference> reference) override;
    void messageSendRejected(std::shared_ptr<KW::Message> message, char const* text,
                             std::shared_ptr<KW::Reference> reference) override;
    void messageSendError(std::shared_ptr<KW::Message> message, char const* text,
                          std::shared_ptr<KW::Reference> reference) override;
    void subscriptionCreateFinalize(std::string const& topic, KW::QOS::Enum qos,
                                    std::shared_ptr<KW::Reference> reference) override;
    void subscriptionCreateError(std::string const& topic, KW::QOS::Enum qos,
                                 std::shared_ptr<KW::Reference> reference, char const* text,
                                 int code) override;
    void subscriptionRemoveFinalize(std::string const& topic, KW::QOS::Enum qos,
                                    std::shared_ptr<KW::Reference> reference) override;
    void subscriptionRemoveError(std::string const& topic, KW::QOS::Enum qos,
                                 std::shared_ptr<KW::Reference> reference, char const* text,
                                 int code) override;
    void runtimeErrorOccurred(char const* text, int code) override;
    void runtimeErrorOccurred(char const* text) override;

    void sendEvent(std::shared_ptr<KWCallbackItem> item);

  private:
    void complete(std::shared_ptr<KW::Reference> const& reference,
                  std::shared_ptr<KW::Message> message = nullptr);
    void fail(std::shared_ptr<KW::Reference> const& reference, char const* text, int code,
              std::shared_ptr<KW::Message> message = nullptr);
    std::shared_ptr<KWEventInfo> event(uint32_t eventCode, uint32_t eventSubCode, char const* text);

    std::shared_ptr<KWClientFunctions> functions;
    std::shared_ptr<KWFunction> callback;
    std::shared_ptr<KWCallbackProcessor> processor;
};
