#include "KWClient/KWNodeMessage.h"

#include <cstdint>
#include <cstring>
#include <string>

#include "KWClient/KWBoundary.h"
#include "KWClient/KWDetachedMessage.h"
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

// Internal fields. 0 is the wrapped KWNodeMessage (null in a detached
// object). 1: in a wrapped object, the Buffer its first payload() call copied
// the bytes into; in a detached one, the slab holding its payload (undefined
// when the message has none). 2: a detached object's topic (undefined in a
// wrapped one, which is how the two are told apart). 3 and 4: where in the
// slab a detached object's payload lies.
constexpr int PAYLOAD_FIELD = 1;
constexpr int TOPIC_FIELD = 2;
constexpr int OFFSET_FIELD = 3;
constexpr int LENGTH_FIELD = 4;
constexpr int FIELD_COUNT = 5;

v8::Local<v8::Value> internalField(v8::Local<v8::Object> object, int index) {
#if V8_MAJOR_VERSION >= 11
    return object->GetInternalField(index).As<v8::Value>();
#else
    return object->GetInternalField(index);
#endif
}

bool isDetached(v8::Local<v8::Object> object) {
    return internalField(object, TOPIC_FIELD)->IsString();
}

char* contentsOf(v8::Local<v8::ArrayBuffer> ab) {
#if NODE_MODULE_VERSION >= NODE_14_0_MODULE_VERSION
    return static_cast<char*>(ab->GetBackingStore()->Data());
#else
    return static_cast<char*>(ab->GetContents().Data());
#endif
}

// A Buffer over n bytes of ab from offset; empty once ab's bytes were
// moved away (detached), as a view of it then reads.
Nan::MaybeLocal<v8::Object> bufferOver(v8::Local<v8::ArrayBuffer> ab, size_t offset, size_t n) {
    if (offset + n > ab->ByteLength()) {
        return Nan::NewBuffer(0);
    }
#if NODE_MODULE_VERSION >= NODE_14_0_MODULE_VERSION
    // Some lines give a MaybeLocal<Uint8Array>, others a MaybeLocal<Object>.
    auto made = node::Buffer::New(v8::Isolate::GetCurrent(), ab, offset, n);
    if (made.IsEmpty()) {
        return Nan::MaybeLocal<v8::Object>();
    }
    return made.ToLocalChecked().template As<v8::Object>();
#else
    // What node::Buffer::New over an ArrayBuffer does on later lines.
    static Nan::Persistent<v8::Value> prototype;
    if (prototype.IsEmpty()) {
        prototype.Reset(Nan::NewBuffer(0).ToLocalChecked()->GetPrototype());
    }
    v8::Local<v8::Uint8Array> view = v8::Uint8Array::New(ab, offset, n);
    if (!view->SetPrototype(Nan::GetCurrentContext(), Nan::New(prototype)).FromMaybe(false)) {
        return Nan::MaybeLocal<v8::Object>();
    }
    return view;
#endif
}

// Small payloads are copied into a shared slab, as Buffer.allocUnsafe does
// with its pool: one ArrayBuffer per 32 KiB of payloads instead of one
// backing store per message. One per JavaScript thread.
class PayloadSlab {
  public:
    static constexpr size_t SIZE = size_t{32} * 1024;

    Nan::MaybeLocal<v8::Object> copy(char const* data, size_t n) {
        size_t offset = 0;
        v8::Local<v8::ArrayBuffer> ab = place(data, n, offset);
        return bufferOver(ab, offset, n);
    }

    // Copies n bytes (n at most SIZE) into the slab; returns the slab and
    // sets offset to where they went.
    v8::Local<v8::ArrayBuffer> place(char const* data, size_t n, size_t& offset) {
        v8::Local<v8::ArrayBuffer> ab;
        if (!slab.IsEmpty()) {
            ab = Nan::New(slab);
        }
        // A slab whose bytes were moved away (detached: a transfer got past
        // the guard) is not written again; only script code can detach it,
        // and none runs between this check and the copy.
        if (ab.IsEmpty() || used + n > SIZE || ab->ByteLength() != SIZE) {
            ab = refill();
        }
        if (n != 0) {
            std::memcpy(base + used, data, n);
        }
        offset = used;
        used = (used + n + 7) & ~static_cast<size_t>(7);
        return ab;
    }

    // Node's own guard for its Buffer pool, where the line has one: a
    // transfer list then copies the slab (Node 20) or refuses it (22 and
    // later) instead of moving other messages' bytes to another thread.
    void guardWith(v8::Local<v8::Function> markAsUntransferable) {
        guard.Reset(markAsUntransferable);
    }

  private:
    v8::Local<v8::ArrayBuffer> refill() {
        v8::Local<v8::ArrayBuffer> ab = v8::ArrayBuffer::New(v8::Isolate::GetCurrent(), SIZE);
        base = contentsOf(ab);
        if (!guard.IsEmpty()) {
            Nan::TryCatch failed;
            v8::Local<v8::Value> argv[] = {ab};
            static_cast<void>(
                Nan::Call(Nan::New(guard), Nan::GetCurrentContext()->Global(), 1, argv));
        }
        // Buffers and messages already carved keep the old slab alive.
        slab.Reset(ab);
        used = 0;
        return ab;
    }

    // Persistent handles are not reset on destruction, so a thread that
    // ends after its isolate leaves nothing to dispose.
    Nan::Persistent<v8::ArrayBuffer> slab;
    Nan::Persistent<v8::Function> guard;
    char* base = nullptr;
    size_t used = 0;
};

thread_local PayloadSlab payloadSlab;

bool property(v8::Local<v8::Value> from, char const* name, v8::Local<v8::Value>& out) {
    return from->IsObject() &&
           Nan::Get(from.As<v8::Object>(), Nan::New(name).ToLocalChecked()).ToLocal(&out);
}

// worker_threads.markAsUntransferable, reached through
// process.getBuiltinModule (Node 20.16 and 22.3 on); empty where there is none.
v8::Local<v8::Function> untransferableMarker() {
    Nan::TryCatch failed;
    v8::Local<v8::Value> process, load, module, mark;
    if (!property(Nan::GetCurrentContext()->Global(), "process", process) ||
        !property(process, "getBuiltinModule", load) || !load->IsFunction()) {
        return {};
    }
    v8::Local<v8::Value> argv[] = {Nan::New("worker_threads").ToLocalChecked()};
    if (!Nan::Call(load.As<v8::Function>(), process.As<v8::Object>(), 1, argv).ToLocal(&module) ||
        !property(module, "markAsUntransferable", mark) || !mark->IsFunction()) {
        return {};
    }
    return mark.As<v8::Function>();
}

// The string of the last topic delivered on this thread: a stream of messages
// on one topic shares one string instead of making one per message.
class TopicCache {
  public:
    v8::Local<v8::String> get(std::string const& topic) {
        if (cached.IsEmpty() || topic != text) {
            cached.Reset(Nan::New(topic.data(), static_cast<int>(topic.size())).ToLocalChecked());
            text = topic;
        }
        return Nan::New(cached);
    }

  private:
    // Not reset on destruction, as for the slab.
    Nan::Persistent<v8::String> cached;
    std::string text;
};

thread_local TopicCache topicCache;

// A new Buffer over the same bytes as an earlier one.
Nan::MaybeLocal<v8::Object> bufferLike(v8::Local<v8::Uint8Array> earlier) {
    return bufferOver(earlier->Buffer(), earlier->ByteOffset(), earlier->ByteLength());
}

// payload() of a detached message: every call a new Buffer over the message's
// bytes in the slab, as later calls on a wrapped message give.
void detachedPayload(Nan::FunctionCallbackInfo<v8::Value> const& info) {
    v8::Local<v8::Value> slab = internalField(info.This(), PAYLOAD_FIELD);
    v8::Local<v8::Object> buffer;
    if (!slab->IsArrayBuffer()) {
        buffer = Nan::NewBuffer(0).ToLocalChecked();
    } else if (!bufferOver(slab.As<v8::ArrayBuffer>(),
                           Nan::To<uint32_t>(internalField(info.This(), OFFSET_FIELD)).FromJust(),
                           Nan::To<uint32_t>(internalField(info.This(), LENGTH_FIELD)).FromJust())
                    .ToLocal(&buffer)) {
        return;
    }
    info.GetReturnValue().Set(buffer);
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
    tpl->InstanceTemplate()->SetInternalFieldCount(FIELD_COUNT);
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
    payloadSlab.guardWith(untransferableMarker());
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

// Equivalent to NewEmpty plus setMessage: New reads no argument and only
// wraps, and an instance of the class template has the constructor's
// prototype; skipping the call into New saves a JavaScript function call per
// delivered message.
Nan::MaybeLocal<v8::Object> KWNodeMessage::NewWithMessage(std::shared_ptr<KW::Message> message) {
    Nan::EscapableHandleScope scope;
    v8::Local<v8::Object> object;
    if (!Nan::NewInstance(Nan::New(classTemplate)->InstanceTemplate()).ToLocal(&object)) {
        return Nan::MaybeLocal<v8::Object>();
    }
    auto* self = new KWNodeMessage();
    self->Wrap(object);
    self->message = std::move(message);
    return scope.Escape(object);
}

// A topic message with a small payload needs nothing native once its bytes
// are in the slab: its object keeps topic and bytes and no native message, so
// it costs no weak handle, and the message is freed as soon as the handler
// returns instead of when the object is collected. Every method answers as it
// would for the wrapped message.
Nan::MaybeLocal<v8::Object> KWNodeMessage::NewForDelivery(
    std::shared_ptr<KW::Message> const& message) {
    std::shared_ptr<KW::DataPacket> packet = message->getPayload();
    if (message->getQOS() != KW::QOS::AT_MOST_ONCE || message->isAckRequired() ||
        message->isRedelivered() || (packet && packet->size() > COPIED_PAYLOAD_MAX)) {
        return NewWithMessage(message);
    }
    Nan::EscapableHandleScope scope;
    v8::Local<v8::Object> object;
    if (!Nan::NewInstance(Nan::New(classTemplate)->InstanceTemplate()).ToLocal(&object)) {
        return Nan::MaybeLocal<v8::Object>();
    }
    Nan::SetInternalFieldPointer(object, 0, nullptr);  // NAN's form: V8 14.3+ wants a tag
    object->SetInternalField(TOPIC_FIELD, topicCache.get(message->getTopic()));
    if (packet) {
        size_t const n = packet->size();
        size_t offset = 0;
        char const* data = n != 0 ? static_cast<char const*>(packet->data()) : nullptr;
        object->SetInternalField(PAYLOAD_FIELD, payloadSlab.place(data, n, offset));
        object->SetInternalField(OFFSET_FIELD, Nan::New(static_cast<uint32_t>(offset)));
        object->SetInternalField(LENGTH_FIELD, Nan::New(static_cast<uint32_t>(n)));
    }
    return scope.Escape(object);
}

std::shared_ptr<KW::Message> KWNodeMessage::messageOf(v8::Local<v8::Value> value) {
    if (value.IsEmpty() || classTemplate.IsEmpty() ||
        !Nan::New(classTemplate)->HasInstance(value)) {
        return nullptr;
    }
    v8::Local<v8::Object> object = value.As<v8::Object>();
    if (isDetached(object)) {
        // A copy of the bytes: the slab is the engine's memory, and the send
        // runs on other threads.
        std::shared_ptr<KW::DataPacket> packet;
        v8::Local<v8::Value> slab = internalField(object, PAYLOAD_FIELD);
        if (slab->IsArrayBuffer()) {
            auto const ab = slab.As<v8::ArrayBuffer>();
            size_t const offset = Nan::To<uint32_t>(internalField(object, OFFSET_FIELD)).FromJust();
            size_t const n = Nan::To<uint32_t>(internalField(object, LENGTH_FIELD)).FromJust();
            // Bytes moved away (see bufferOver) forward as an empty payload.
            if (offset + n <= ab->ByteLength()) {
                packet = KW::DataPacket::create(contentsOf(ab) + offset, n);
            }
        }
        Nan::Utf8String topic(internalField(object, TOPIC_FIELD));
        return std::make_shared<KWDetachedMessage>(std::string(*topic, topic.length()),
                                                   std::move(packet));
    }
    return Nan::ObjectWrap::Unwrap<KWNodeMessage>(object)->message;
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
    if (isDetached(info.This())) {
        // As for any topic message: there is nothing to acknowledge.
        return;
    }
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
    if (isDetached(info.This())) {
        info.GetReturnValue().Set(internalField(info.This(), TOPIC_FIELD));
        return;
    }
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
    if (isDetached(info.This())) {
        detachedPayload(info);
        return;
    }
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
        if (packet->size() <= COPIED_PAYLOAD_MAX) {
            // A small payload is copied once into an ordinary Buffer carved
            // from a slab (far cheaper for the engine than an external
            // Buffer with its own backing store); later calls give
            // new Buffers over those same bytes, so Buffers of one message
            // still share their memory.
            v8::Local<v8::Object> buffer;
            v8::Local<v8::Value> earlier = internalField(info.This(), PAYLOAD_FIELD);
            if (earlier->IsUint8Array()) {
                if (bufferLike(earlier.As<v8::Uint8Array>()).ToLocal(&buffer)) {
                    info.GetReturnValue().Set(buffer);
                }
                return;
            }
            auto const* data = static_cast<char const*>(packet->data());
            if (payloadSlab.copy(data, packet->size()).ToLocal(&buffer)) {
                info.This()->SetInternalField(PAYLOAD_FIELD, buffer);
                info.GetReturnValue().Set(buffer);
            }
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
    if (isDetached(info.This())) {
        info.GetReturnValue().Set(Nan::False());
        return;
    }
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
    if (isDetached(info.This())) {
        info.GetReturnValue().Set(Nan::False());
        return;
    }
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
    if (isDetached(info.This())) {
        info.GetReturnValue().Set(Nan::New(static_cast<uint32_t>(KW::QOS::AT_MOST_ONCE)));
        return;
    }
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
