#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <nan.h>

#include "KWClient/KWCallbackItem.h"

class KWClientFunctions;
class KWFunction;

// The outcome of one asynchronous request, delivered Node-style: null on
// success, an Error with "errno" on failure. Success is decided by the text
// alone, so a failure reported with an empty text reads as success.
class KWDoneCallback : public KWCallbackItem {
  public:
    // With a client's functions for a completion that may wait for the
    // client's next connect (a subscribe or unsubscribe): its function then
    // parks with the client's others.
    explicit KWDoneCallback(v8::Local<v8::Function> const& fn,
                            KWClientFunctions* functions = nullptr);
    ~KWDoneCallback() override;
    void executeCallback() override;

    // `request`, if any, is let go on the JavaScript thread after the call.
    void setCompleted(std::shared_ptr<void> request = nullptr);
    void setFailed(char const* text, int code, std::shared_ptr<void> request = nullptr);

  private:
    // Shared through the processor so that the handle is disposed on the
    // JavaScript thread even when a library thread drops the last reference.
    std::shared_ptr<KWFunction> function;
    // A library that reports one request twice may update the outcome while
    // the JavaScript thread reads it.
    std::mutex mutex;
    std::string error;
    int32_t errorCode = 0;
    std::shared_ptr<void> request;
};
