#include "KWClient/KWNodeEvent.h"

#include "KWClient/KWBoundary.h"
#include "KWClient/KWEventInfo.h"
#include "KWClient/KWNodeMessage.h"

thread_local Nan::Persistent<v8::Function> KWNodeEvent::constructor;

KWNodeEvent::KWNodeEvent() = default;

KWNodeEvent::~KWNodeEvent() = default;

void KWNodeEvent::Init(v8::Local<v8::Object> exports) {
    Nan::HandleScope scope;
    v8::Local<v8::FunctionTemplate> tpl = Nan::New<v8::FunctionTemplate>(New);
    tpl->SetClassName(Nan::New("KWNodeEvent").ToLocalChecked());
    tpl->InstanceTemplate()->SetInternalFieldCount(2);
    Nan::SetPrototypeMethod(tpl, "eventCode", EventCode);
    Nan::SetPrototypeMethod(tpl, "eventSubCode", EventSubCode);
    Nan::SetPrototypeMethod(tpl, "what", What);
    Nan::SetPrototypeMethod(tpl, "message", Message);
    v8::Local<v8::Function> fn = Nan::GetFunction(tpl).ToLocalChecked();
    constructor.Reset(fn);
    Nan::Set(exports, Nan::New("KWNodeEvent").ToLocalChecked(), fn);
}

NAN_METHOD(KWNodeEvent::New) {
    if (KWBoundary::constructIfCalled(constructor, info)) {
        return;
    }
    auto* self = new KWNodeEvent();
    self->Wrap(info.This());
    info.GetReturnValue().Set(info.This());
}

v8::Local<v8::Object> KWNodeEvent::NewInstance(v8::Local<v8::Value> arg) {
    v8::Local<v8::Value> argv[] = {arg};
    return KWBoundary::newInstance(constructor, 1, argv);
}

Nan::MaybeLocal<v8::Object> KWNodeEvent::NewEmpty() {
    return Nan::NewInstance(Nan::New(constructor), 0, nullptr);
}

void KWNodeEvent::setEventInfo(KWEventInfo& info) {
    eventCode = info.eventCode;
    eventSubCode = info.eventSubCode;
    what = info.what;
    message = info.message;
}

NAN_METHOD(KWNodeEvent::EventCode) {
    auto* self = Nan::ObjectWrap::Unwrap<KWNodeEvent>(info.This());
    info.GetReturnValue().Set(Nan::New<v8::Uint32>(self->eventCode));
}

NAN_METHOD(KWNodeEvent::EventSubCode) {
    auto* self = Nan::ObjectWrap::Unwrap<KWNodeEvent>(info.This());
    info.GetReturnValue().Set(Nan::New<v8::Uint32>(self->eventSubCode));
}

NAN_METHOD(KWNodeEvent::What) {
    auto* self = Nan::ObjectWrap::Unwrap<KWNodeEvent>(info.This());
    info.GetReturnValue().Set(
        Nan::New(self->what.data(), static_cast<int>(self->what.size())).ToLocalChecked());
}

NAN_METHOD(KWNodeEvent::Message) {
    auto* self = Nan::ObjectWrap::Unwrap<KWNodeEvent>(info.This());
    if (!self->message) {
        info.GetReturnValue().SetNull();
        return;
    }
    v8::Local<v8::Object> object;
    if (KWNodeMessage::NewEmpty().ToLocal(&object)) {
        Nan::ObjectWrap::Unwrap<KWNodeMessage>(object)->setMessage(self->message);
        info.GetReturnValue().Set(object);
    }
}
