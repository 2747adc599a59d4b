#include "KWClient/KWNodeClient.h"

#include <optional>

#include "KWClient/KWBoundary.h"
#include "KWClient/KWClientFunctions.h"
#include "KWClient/KWDoneCallback.h"
#include "KWClient/KWEventHandler.h"
#include "KWClient/KWMessageHandler.h"
#include "KWClient/KWNodeMessage.h"
#include "core/ClientLibraryRegistry.h"
#include "core/DataPacket.h"
#include "core/Exception.h"
#include "core/Reference.h"
#include "solace/ClientLibrary.h"

namespace {
char const TAG[] = "KWNode";
char const PAYLOAD_TYPE_ERROR[] =
    "Messaging Client Publish: payload is not a string, an ArrayBuffer or a view of one";
char const PATH[] = "src/KWClient/KWNodeClient";

// QoS argument: Uint32 conversion (1 when it fails), then the 2-or-1 mapping.
KW::QOS::Enum qosOf(v8::Local<v8::Value> value) {
    unsigned int const number = Nan::To<uint32_t>(value).FromMaybe(1u);
    return KWNodeClient::getQOS(number);
}

// The completion reference for a call: a KWDoneCallback when the value is a
// function, otherwise the empty reference. With the client's functions for a
// request that may wait for a connect, so that a dropped client it reaches is
// still collected.
std::shared_ptr<KW::Reference> referenceOf(v8::Local<v8::Value> value,
                                           KWClientFunctions* waiting = nullptr) {
    if (!value->IsFunction()) {
        return KW::Reference::NONE;
    }
    return std::make_shared<KWDoneCallback>(value.As<v8::Function>(), waiting);
}

// Where publish, forward and subscribe find their arguments once there are at
// least two, by count n: (topic, x), (topic, x, done), (topic, qos, x) when
// argument 2 is not a function, (topic, qos, x, done[, ignored...]); x is the
// payload, message or handler.
struct Shape {
    int subject = 1;
    int callback = -1;  // none
    KW::QOS::Enum qos = KW::QOS::AT_MOST_ONCE;

    // Made only when asked for, after the caller's own checks.
    std::shared_ptr<KW::Reference> reference(Nan::FunctionCallbackInfo<v8::Value> const& info,
                                             KWClientFunctions* waiting = nullptr) const {
        return callback >= 1 ? referenceOf(info[callback], waiting) : KW::Reference::NONE;
    }
};

Shape shapeOf(Nan::FunctionCallbackInfo<v8::Value> const& info) {
    int const n = info.Length();
    Shape shape;
    if (n == 3 && info[2]->IsFunction()) {
        shape.callback = 2;
    } else if (n >= 3) {
        shape.subject = 2;
        shape.qos = qosOf(info[1]);
        shape.callback = n >= 4 ? 3 : -1;
    }
    return shape;
}

// Where the bytes of a payload are: a string's UTF-8 (held by `text`), any
// ArrayBuffer view (Buffer, typed array, DataView) or a whole ArrayBuffer;
// false for anything else. Valid until the calling method returns. Node 6
// counts only Uint8Arrays as Buffers, so views are read through V8 for the
// same set on every line.
bool bytesOf(v8::Local<v8::Value> value, std::optional<Nan::Utf8String>& text, char const*& data,
             unsigned long& size) {
    if (value->IsString()) {
        text.emplace(value);
        data = **text;
        size = static_cast<unsigned long>(text->length());
        return true;
    }
    if (value->IsArrayBuffer()) {
        v8::Local<v8::ArrayBuffer> buffer = value.As<v8::ArrayBuffer>();
        value = v8::Uint8Array::New(buffer, 0, buffer->ByteLength());
    }
    if (value->IsArrayBufferView()) {
#if V8_MAJOR_VERSION >= 10
        // As Nan::TypedArrayContents, without the backing store's shared_ptr it makes per call.
        v8::Local<v8::ArrayBufferView> view = value.As<v8::ArrayBufferView>();
        data = static_cast<char const*>(view->Buffer()->Data()) + view->ByteOffset();
        size = static_cast<unsigned long>(view->ByteLength());
#else
        Nan::TypedArrayContents<char> bytes(value);
        data = *bytes;
        size = static_cast<unsigned long>(bytes.length());
#endif
        return true;
    }
    return false;
}

// Throws the error of the last failed argument check, if there was one.
void throwArgumentError(char const* text) {
    if (text != nullptr) {
        Nan::ThrowError(text);
    }
}
}  // namespace

thread_local Nan::Persistent<v8::Function> KWNodeClient::constructor;

void KWNodeClient::startLibrary() {
    try {
        KW::Solace::ClientLibrary::start();
    } catch (KW::Exception& e) {
        // The classes are defined already; the pending error surfaces from require.
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeClient::KWNodeClient error: ", e);
    }
}

void KWNodeClient::Init(v8::Local<v8::Object> exports) {
    Nan::HandleScope scope;
    v8::Local<v8::FunctionTemplate> tpl = Nan::New<v8::FunctionTemplate>(New);
    tpl->SetClassName(Nan::New("KWNodeClient").ToLocalChecked());
    tpl->InstanceTemplate()->SetInternalFieldCount(1);
    Nan::SetPrototypeMethod(tpl, "connect", Connect);
    Nan::SetPrototypeMethod(tpl, "disconnect", Disconnect);
    Nan::SetPrototypeMethod(tpl, "publish", Publish);
    Nan::SetPrototypeMethod(tpl, "subscribe", Subscribe);
    Nan::SetPrototypeMethod(tpl, "forward", Forward);
    Nan::SetPrototypeMethod(tpl, "unsubscribe", Unsubscribe);
    Nan::SetPrototypeMethod(tpl, "getConnectionState", GetConnectionState);
    v8::Local<v8::Function> fn = Nan::GetFunction(tpl).ToLocalChecked();
    constructor.Reset(fn);
    Nan::Set(exports, Nan::New("KWNodeClient").ToLocalChecked(), fn);
}

KWNodeClient::KWNodeClient(std::string const& destinationId, std::string& destinationType,
                           std::map<std::string, std::string>& connectionData,
                           v8::Local<v8::Function> const& eventCallback)
    : functions(std::make_shared<KWClientFunctions>()),
      destinationId(destinationId),
      destinationType(destinationType),
      connectionData(connectionData) {
    auto handler = std::make_shared<KWEventHandler>(eventCallback, functions);
    client = KW::ClientLibraryRegistry::getInstance()->createClient(destinationId, destinationType,
                                                                    connectionData, handler);
}

KWNodeClient::~KWNodeClient() {
    functions->detach();
}

KW::QOS::Enum KWNodeClient::getQOS(unsigned int const& value) {
    return value == 2 ? KW::QOS::GUARANTEED : KW::QOS::AT_MOST_ONCE;
}

v8::Local<v8::Object> KWNodeClient::NewInstance(v8::Local<v8::Value> arg) {
    v8::Local<v8::Value> argv[] = {arg, Nan::Undefined()};
    return KWBoundary::newInstance(constructor, 2, argv);
}

// Each failed check replaces the previous one's error and construction
// carries on, so the script sees the last; the error is thrown once, at the
// end, because V8 calls made with an exception pending misbehave (Node 22
// dropped it and returned the object).
NAN_METHOD(KWNodeClient::New) {
    if (KWBoundary::constructIfCalled(constructor, info)) {
        return;
    }
    int const n = info.Length();
    v8::Local<v8::Object> self = info.This();
    // Field 0 reads as null until the native object exists, so methods of a
    // failed construction can tell.
    Nan::SetInternalFieldPointer(self, 0, nullptr);
    info.GetReturnValue().Set(self);

    char const* argumentError = nullptr;
    if (n < 3) {
        argumentError = "Messaging Client Initialization: insufficient parameter provided";
    }
    if (info[0].IsEmpty()) {
        argumentError = "Messaging Client Initialization: destination id is missing";
    }
    if (info[1].IsEmpty()) {
        argumentError = "Messaging Client Initialization: destination type is missing";
    }
    if (!info[2]->IsObject()) {
        argumentError = "Messaging Client Initialization: connection data is missing or wrong";
    }
    if (info[2]->IsUndefined() || info[2]->IsNull()) {
        Nan::ThrowError(argumentError);  // nothing to read connection data from
        return;
    }

    std::map<std::string, std::string> connectionData;
    std::string destinationId;
    std::string destinationType;
    {
        Nan::TryCatch failure;
        destinationId = KWBoundary::toString(info[0]);
        destinationType = KWBoundary::toString(info[1]);
        v8::Local<v8::Object> data;
        v8::Local<v8::Array> names;
        if (failure.HasCaught() || !Nan::To<v8::Object>(info[2]).ToLocal(&data) ||
            !Nan::GetOwnPropertyNames(data).ToLocal(&names)) {
            failure.ReThrow();
            return;
        }
        for (uint32_t i = 0; i < names->Length(); ++i) {
            v8::Local<v8::Value> name;
            v8::Local<v8::Value> value;
            if (!Nan::Get(names, i).ToLocal(&name) || !Nan::Get(data, name).ToLocal(&value)) {
                failure.ReThrow();
                return;
            }
            std::string key = KWBoundary::toString(name);
            std::string text = KWBoundary::toString(value);
            if (failure.HasCaught()) {
                failure.ReThrow();
                return;
            }
            connectionData[key] = text;
        }
    }

    v8::Local<v8::Function> eventCallback;
    if (info[3]->IsFunction()) {
        eventCallback = info[3].As<v8::Function>();
    }
    try {
        auto* client =
            new KWNodeClient(destinationId, destinationType, connectionData, eventCallback);
        client->Wrap(self);
        client->functions->attach(client, client->client.get());
    } catch (KW::Exception& e) {
        // Thrown after the argument error, so it is the one the script sees.
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeClient::New error: ", e);
        return;
    }
    throwArgumentError(argumentError);
}

KWNodeClient* KWNodeClient::wrapperOf(Nan::FunctionCallbackInfo<v8::Value> const& info,
                                      char const* method) {
    auto* self = static_cast<KWNodeClient*>(Nan::GetInternalFieldPointer(info.This(), 0));
    if (self == nullptr || !self->client) {
        std::string const text =
            std::string("Messaging Client ") + method + ": the client was not created";
        Nan::ThrowError(text.c_str());
        return nullptr;
    }
    return self;
}

KW::Client* KWNodeClient::clientOf(Nan::FunctionCallbackInfo<v8::Value> const& info,
                                   char const* method) {
    KWNodeClient* self = wrapperOf(info, method);
    return self == nullptr ? nullptr : self->client.get();
}

NAN_METHOD(KWNodeClient::Connect) {
    KWNodeClient* self = wrapperOf(info, "Connect");
    if (self == nullptr) {
        return;
    }
    // Before the call: whatever it starts finds the functions held.
    self->functions->requested(true);
    try {
        self->client->connect(0);
    } catch (KW::Exception& e) {
        self->functions->requested(false);
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeClient::Connect error: ", e);
    }
}

NAN_METHOD(KWNodeClient::Disconnect) {
    KWNodeClient* self = wrapperOf(info, "Disconnect");
    if (self == nullptr) {
        return;
    }
    try {
        self->client->disconnect(0);
    } catch (KW::Exception& e) {
        // Refused: the client stays as it was, and so do its functions.
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeClient::Disconnect error: ", e);
        return;
    }
    // After the call, so that the park waits behind its event; no V8 call, it only queues.
    self->functions->requested(false);
}

NAN_METHOD(KWNodeClient::GetConnectionState) {
    KW::Client* client = clientOf(info, "GetConnectionState");
    if (client == nullptr) {
        return;
    }
    try {
        info.GetReturnValue().Set(
            Nan::New<v8::Uint32>(static_cast<uint32_t>(client->getConnectionState())));
    } catch (KW::Exception& e) {
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeClient::GetConnectionState error: ", e);
    }
}

// Argument errors in publish, forward, subscribe and unsubscribe follow the
// constructor's rule: the last failed check is the error seen, and nothing is
// thrown before the last V8 call of the method.

// The shapes of shapeOf, with the payload as x.
NAN_METHOD(KWNodeClient::Publish) {
    int const n = info.Length();
    char const* argumentError = nullptr;
    if (n < 2) {
        argumentError = "Messaging Client Publish: insufficient parameter provided";
    }
    if (info[0].IsEmpty()) {
        argumentError = "Messaging Client Publish: topic is missing";
    }
    std::string const topic = KWBoundary::toString(info[0]);
    std::shared_ptr<KW::Reference> reference = KW::Reference::NONE;
    KW::QOS::Enum qos = KW::QOS::AT_MOST_ONCE;
    std::optional<Nan::Utf8String> text;
    char const* bytes = nullptr;
    unsigned long size = 0;
    if (n < 2) {
        // Carries on with no payload: the library sends a message without one.
        argumentError = "Messaging Client Publish: payload parameter missing";
    } else {
        Shape const shape = shapeOf(info);
        qos = shape.qos;
        if (!bytesOf(info[shape.subject], text, bytes, size)) {
            Nan::ThrowError(PAYLOAD_TYPE_ERROR);
            return;
        }
        reference = shape.reference(info);
    }
    KW::Client* client = clientOf(info, "Publish");
    if (client == nullptr) {
        return;
    }
    try {
        if (size != 0) {
            // Copied only if the send is queued, not for one sent during this call.
            client->publishBytes(bytes, size, topic, qos, reference);
        } else {
            std::shared_ptr<KW::DataPacket> packet;
            if (n >= 2) {
                packet = KW::DataPacket::create(bytes, 0);  // an empty payload, still attached
            }
            client->publish(packet, topic, qos, reference, false);
        }
    } catch (KW::Exception& e) {
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeClient::Publish error: ", e);
        return;
    }
    throwArgumentError(argumentError);
}

// The shapes of publish, with a received KWNodeMessage in place of the payload.
NAN_METHOD(KWNodeClient::Forward) {
    int const n = info.Length();
    if (n < 2) {
        // There is no message object to forward: stop here (this error
        // replaces the count and topic errors).
        Nan::ThrowError("Messaging Client Forward: payload parameter is missing");
        return;
    }
    char const* argumentError =
        info[0].IsEmpty() ? "Messaging Client Forward: topic is missing" : nullptr;
    std::string const topic = KWBoundary::toString(info[0]);
    Shape const shape = shapeOf(info);
    std::shared_ptr<KW::Message> message = KWNodeMessage::messageOf(info[shape.subject]);
    if (!message) {
        Nan::ThrowError("Messaging Client Forward: message is not a received message");
        return;
    }
    std::shared_ptr<KW::Reference> reference = shape.reference(info);
    KW::Client* client = clientOf(info, "Forward");
    if (client == nullptr) {
        return;
    }
    try {
        client->forward(message, topic, shape.qos, reference, false);
    } catch (KW::Exception& e) {
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeClient::Forward error: ", e);
        return;
    }
    throwArgumentError(argumentError);
}

// The shapes of shapeOf, with the handler as x. So a three-argument call with
// a QoS and a function handler reads the QoS as the handler and is refused.
// Without a handler there is nothing to deliver to: the argument error stands
// and no subscription is made.
NAN_METHOD(KWNodeClient::Subscribe) {
    int const n = info.Length();
    if (n < 2) {
        Nan::ThrowError("Messaging Client Subscribe: message handler callback is missing");
        return;
    }
    Shape const shape = shapeOf(info);
    v8::Local<v8::Value> fn = info[shape.subject];
    if (!fn->IsFunction()) {
        Nan::ThrowError("Messaging Client Subscribe: message handler callback is not a function");
        return;
    }
    char const* argumentError =
        info[0].IsEmpty() ? "Messaging Client Subscribe: topic is missing" : nullptr;
    std::string const topic = KWBoundary::toString(info[0]);
    KWNodeClient* self = wrapperOf(info, "Subscribe");
    if (self == nullptr) {
        return;
    }
    std::shared_ptr<KW::Reference> reference = shape.reference(info, self->functions.get());
    std::shared_ptr<KW::MessageHandler> handler =
        std::make_shared<KWMessageHandler>(fn.As<v8::Function>(), self->functions.get());
    try {
        self->client->subscribe(handler, topic, shape.qos, reference);
    } catch (KW::Exception& e) {
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeClient::Subscribe error: ", e);
        return;
    }
    throwArgumentError(argumentError);
}

// Shapes: (topic), (topic, done), (topic, qos), (topic, qos, done).
NAN_METHOD(KWNodeClient::Unsubscribe) {
    int const n = info.Length();
    char const* argumentError =
        info[0].IsEmpty() ? "Messaging Client Unsubscribe: topic is empty" : nullptr;
    std::string const topic = KWBoundary::toString(info[0]);
    KWNodeClient* self = wrapperOf(info, "Unsubscribe");
    if (self == nullptr) {
        return;
    }
    std::shared_ptr<KW::Reference> reference = KW::Reference::NONE;
    KW::QOS::Enum qos = KW::QOS::AT_MOST_ONCE;
    if (n == 2 && info[1]->IsFunction()) {
        reference = referenceOf(info[1], self->functions.get());
    } else if (n >= 2) {
        qos = qosOf(info[1]);
        if (n >= 3) {
            reference = referenceOf(info[2], self->functions.get());
        }
    }
    try {
        self->client->unsubscribe(topic, qos, reference);
    } catch (KW::Exception& e) {
        KWBoundary::report(TAG, PATH, __LINE__, "KWNodeClient::Unsubscribe error: ", e);
        return;
    }
    throwArgumentError(argumentError);
}
