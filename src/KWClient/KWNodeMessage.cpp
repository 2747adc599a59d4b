#include "KWClient/KWNodeMessage.h"

#include <cstdint>

#include "KWClient/KWBoundary.h"
#include "core/DataPacket.h"
#include "core/Exception.h"

namespace {
char const TAG[] = "KWNodeMessage";
char const PATH[] = "src/KWClient/KWNodeMessage";

// Frees the packet reference a payload Buffer holds; the bytes belong to the
// packet.
void releasePacket(char*, void* hint) {
    delete static_cast<std::shared_ptr<KW::DataPacket>*>(hint);
}
}  // namespace

thread_local Nan::Persistent<v8::Function> KWNodeMessage::constructor;
thread_local Nan::Persistent<v8::FunctionTemplate> KWNodeMessage::classTemplate;

KWNodeMessage::KWNodeMessage() = default;

KWNodeMessage::~KWNodeMessage() = default;

void KWNodeMessage::Init(v8::Local<v8::Object> exports) {
    Nan::HandleScope scope;
    v8::Local<v8::FunctionTemplate> tpl = Nan::New<v8::FunctionTemplate>(New);
    tpl->SetClassName(Nan::New("KWNodeMessage").ToLocalChecked());
    tpl->InstanceTemplate()->SetInternalFieldCount(2);
    Nan::SetPrototypeMethod(tpl, "acknowledge", Acknowledge);
    Nan::SetPrototypeMethod(tpl, "topic", Topic);
    Nan::SetPrototypeMethod(tpl, "payload", Payload);
    Nan::SetPrototypeMethod(tpl, "isAckRequired", IsAckRequired);
    Nan::SetPrototypeMethod(tpl, "isRedelivered", IsRedelivered);
    Nan::SetPrototypeMethod(tpl, "qos", Qos);
    v8::Local<v8::Function> fn = Nan::GetFunction(tpl).ToLocalChecked();
    classTemplate.Reset(tpl);
    constructor.Reset(fn);
    Nan::Set(exports, Nan::New("KWNodeMessage").ToLocalChecked(), fn);
}

NAN_METHOD(KWNodeMessage::New) {
    if (KWBoundary::constructIfCalled(constructor, info)) {
        return;
    }
    auto* self = new KWNodeMessage();
    self->Wrap(info.This());
    info.GetReturnValue().Set(info.This());
}

v8::Local<v8::Object> KWNodeMessage::NewInstance(v8::Local<v8::Value> arg) {
    v8::Local<v8::Value> argv[] = {arg};
    return KWBoundary::newInstance(constructor, 1, argv);
}

Nan::MaybeLocal<v8::Object> KWNodeMessage::NewEmpty() {
    return Nan::NewInstance(Nan::New(constructor), 0, nullptr);
}

std::shared_ptr<KW::Message> KWNodeMessage::messageOf(v8::Local<v8::Value> value) {
    if (value.IsEmpty() || classTemplate.IsEmpty() ||
        !Nan::New(classTemplate)->HasInstance(value)) {
        return nullptr;
    }
    return Nan::ObjectWrap::Unwrap<KWNodeMessage>(value.As<v8::Object>())->message;
}

void KWNodeMessage::setMessage(std::shared_ptr<KW::Message> message) {
    this->message = std::move(message);
}

KWNodeMessage* KWNodeMessage::receiver(Nan::FunctionCallbackInfo<v8::Value> const& info) {
    auto* self = Nan::ObjectWrap::Unwrap<KWNodeMessage>(info.This());
    if (self == nullptr || !self->message) {
        Nan::ThrowError("Messaging Message: the object holds no received message");
        return nullptr;
    }
    return self;
}

NAN_METHOD(KWNodeMessage::Acknowledge) {
    KWNodeMessage* self = receiver(info);
    if (self == nullptr) {
        return;
    }
    try {
        self->message->acknowledge();
    } catch (KW::Exception& e) {
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeMessage::Acknowledge error: ", e);
    }
}

NAN_METHOD(KWNodeMessage::Topic) {
    KWNodeMessage* self = receiver(info);
    if (self == nullptr) {
        return;
    }
    try {
        std::string const topic = self->message->getTopic();
        info.GetReturnValue().Set(
            Nan::New(topic.data(), static_cast<int>(topic.size())).ToLocalChecked());
    } catch (KW::Exception& e) {
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeMessage::Topic error: ", e);
    }
}

NAN_METHOD(KWNodeMessage::Payload) {
    KWNodeMessage* self = receiver(info);
    if (self == nullptr) {
        return;
    }
    try {
        std::shared_ptr<KW::DataPacket> packet = self->message->getPayload();
        if (!packet || packet->size() == 0) {
            info.GetReturnValue().Set(Nan::NewBuffer(0).ToLocalChecked());
            return;
        }
        // Zero copy: the Buffer points into the packet and keeps it alive
        // through a heap-held reference released by its free callback.
        auto* data = static_cast<char*>(packet->data());
        auto const length = static_cast<uint32_t>(packet->size());
        auto hint = std::make_unique<std::shared_ptr<KW::DataPacket>>(std::move(packet));
        v8::Local<v8::Object> buffer;
        if (Nan::NewBuffer(data, length, releasePacket, hint.get()).ToLocal(&buffer)) {
            static_cast<void>(hint.release());  // the Buffer's free callback owns it now
            info.GetReturnValue().Set(buffer);
        }
    } catch (KW::Exception& e) {
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeMessage::Payload error: ", e);
    }
}

NAN_METHOD(KWNodeMessage::IsAckRequired) {
    KWNodeMessage* self = receiver(info);
    if (self == nullptr) {
        return;
    }
    try {
        info.GetReturnValue().Set(Nan::New(self->message->isAckRequired()));
    } catch (KW::Exception& e) {
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeMessage::IsAckRequired error: ", e);
    }
}

NAN_METHOD(KWNodeMessage::IsRedelivered) {
    KWNodeMessage* self = receiver(info);
    if (self == nullptr) {
        return;
    }
    try {
        info.GetReturnValue().Set(Nan::New(self->message->isRedelivered()));
    } catch (KW::Exception& e) {
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeMessage::IsRedelivered error: ", e);
    }
}

NAN_METHOD(KWNodeMessage::Qos) {
    KWNodeMessage* self = receiver(info);
    if (self == nullptr) {
        return;
    }
    try {
        info.GetReturnValue().Set(
            Nan::New<v8::Uint32>(static_cast<uint32_t>(self->message->getQOS())));
    } catch (KW::Exception& e) {
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeMessage::Qos error: ", e);
    }
}
