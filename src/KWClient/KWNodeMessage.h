#pragma once

#include <memory>

#include <nan.h>

#include "core/Message.h"

// The JavaScript view of one received message. Every method asks the
// underlying KW::Message at call time, except in a detached object (see
// NewForDelivery), which answers from what it copied when it was made.
class KWNodeMessage : public Nan::ObjectWrap {
  public:
    static void Init(v8::Local<v8::Object> exports);
    static v8::Local<v8::Object> NewInstance(v8::Local<v8::Value> arg);
    // A new, empty object made through the constructor with no arguments.
    static Nan::MaybeLocal<v8::Object> NewEmpty();
    // A new object holding message: what NewEmpty and setMessage give,
    // without running the constructor function.
    static Nan::MaybeLocal<v8::Object> NewWithMessage(std::shared_ptr<KW::Message> message);
    // The object a subscription handler gets for message: for a topic message
    // with a payload of at most COPIED_PAYLOAD_MAX bytes, a detached object that
    // keeps topic and bytes instead of the message; otherwise NewWithMessage.
    static Nan::MaybeLocal<v8::Object> NewForDelivery(std::shared_ptr<KW::Message> const& message);
    // Payloads up to this size are copied into the Buffer that payload()
    // returns; larger ones are shared with the packet.
    static constexpr unsigned long COPIED_PAYLOAD_MAX = 4096;
    // The message held by value when value is an object of this class that
    // holds one; empty otherwise (plain objects, other classes, script-made
    // objects).
    static std::shared_ptr<KW::Message> messageOf(v8::Local<v8::Value> value);

    ~KWNodeMessage() override;
    void setMessage(std::shared_ptr<KW::Message> message);

    // Per thread: each Node.js environment (main thread, Worker) has its own.
    static thread_local Nan::Persistent<v8::Function> constructor;

  private:
    KWNodeMessage();
    static KWNodeMessage* receiver(Nan::FunctionCallbackInfo<v8::Value> const& info);

    static NAN_METHOD(New);
    static NAN_METHOD(Acknowledge);
    static NAN_METHOD(Topic);
    static NAN_METHOD(Payload);
    static NAN_METHOD(IsAckRequired);
    static NAN_METHOD(IsRedelivered);
    static NAN_METHOD(Qos);

    static thread_local Nan::Persistent<v8::FunctionTemplate> classTemplate;

    std::shared_ptr<KW::Message> message;
};
