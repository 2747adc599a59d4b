#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <nan.h>

#include "core/Message.h"

class KWEventInfo;

// The object a client's event function receives: a read-only snapshot of one
// connection-state change (code 1) or runtime error (code 2).
class KWNodeEvent : public Nan::ObjectWrap {
  public:
    static void Init(v8::Local<v8::Object> exports);
    static NAN_METHOD(New);
    static v8::Local<v8::Object> NewInstance(v8::Local<v8::Value> arg);
    // A new, empty object made through the constructor with no arguments.
    static Nan::MaybeLocal<v8::Object> NewEmpty();

    ~KWNodeEvent() override;
    void setEventInfo(KWEventInfo& info);

    // Per thread: each Node.js environment (main thread, Worker) has its own.
    static thread_local Nan::Persistent<v8::Function> constructor;

  private:
    KWNodeEvent();

    static NAN_METHOD(EventCode);
    static NAN_METHOD(EventSubCode);
    static NAN_METHOD(What);
    static NAN_METHOD(Message);

    std::shared_ptr<KW::Message> message;
    std::string what;
    uint32_t eventCode = 0;
    uint32_t eventSubCode = 0;
};
