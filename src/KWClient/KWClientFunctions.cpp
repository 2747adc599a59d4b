#include "KWClient/KWClientFunctions.h"

#include <algorithm>
#include <utility>

#include "KWClient/KWCallbackItem.h"
#include "KWClient/KWCallbackProcessor.h"
#include "KWClient/KWFunction.h"
#include "core/Client.h"
#include "core/Exception.h"

namespace {
// The connection states in which a client delivers nothing.
constexpr uint32_t DISCONNECTED = 1;
constexpr uint32_t FAILED = 4;

bool idle(uint32_t state) {
    return state == DISCONNECTED || state == FAILED;
}

// The client object's private property holding its parked functions.
v8::Local<v8::String> parkedKey() {
    return Nan::New("kwnode:parked").ToLocalChecked();
}

class ParkRequest : public KWCallbackItem {
  public:
    ParkRequest(std::shared_ptr<KWClientFunctions> functions, uint64_t epoch)
        : functions(std::move(functions)), epoch(epoch) {}
    void executeCallback() override { functions->parkIfIdle(epoch); }

  private:
    std::shared_ptr<KWClientFunctions> functions;
    uint64_t epoch;
};
}  // namespace

// Visits the functions still alive and forgets the others.
template <typename Visit>
void KWClientFunctions::forEachLive(Visit visit) {
    auto end = std::remove_if(functions.begin(), functions.end(),
                              [&visit](std::weak_ptr<KWFunction> const& entry) {
                                  std::shared_ptr<KWFunction> fn = entry.lock();
                                  if (fn) {
                                      visit(*fn);
                                  }
                                  return !fn;
                              });
    functions.erase(end, functions.end());
}

KWClientFunctions::KWClientFunctions()
    : processor(KWCallbackProcessor::getInstance()->shared_from_this()) {}

KWClientFunctions::~KWClientFunctions() = default;

std::shared_ptr<KWFunction> KWClientFunctions::share(v8::Local<v8::Function> const& fn) {
    std::shared_ptr<KWFunction> handle = processor->shareFunction(fn);
    if (fn.IsEmpty()) {
        return handle;
    }
    if (functions.size() >= pruneAt) {
        forEachLive([](KWFunction&) {});
        pruneAt = std::max<std::size_t>(16, 2 * functions.size());
    }
    functions.push_back(handle);
    v8::Local<v8::Value> kept;
    if (parked && object != nullptr &&
        Nan::GetPrivate(object->handle(), parkedKey()).ToLocal(&kept) && kept->IsArray()) {
        v8::Local<v8::Array> list = kept.As<v8::Array>();
        Nan::Set(list, list->Length(), fn);
        handle->park();
    }
    return handle;
}

void KWClientFunctions::attach(Nan::ObjectWrap* wrapper, KW::Client* library) {
    object = wrapper;
    client = library;
    park();
}

void KWClientFunctions::detach() {
    object = nullptr;
    client = nullptr;
}

void KWClientFunctions::requested(bool connect) {
    current.fetch_add(1);
    if (connect) {
        hold();
    } else {
        parkLater();
    }
}

void KWClientFunctions::reported(uint32_t state, uint64_t raisedAt) {
    if (raisedAt != current.load()) {
        return;
    }
    if (idle(state)) {
        parkLater();
    } else {
        hold();
    }
}

void KWClientFunctions::parkLater() {
    processor->post(std::make_shared<ParkRequest>(shared_from_this(), current.load()));
}

void KWClientFunctions::parkIfIdle(uint64_t requestedAt) {
    if (parked || object == nullptr || requestedAt != current.load()) {
        return;
    }
    try {
        // A stale report may still have asked: never park a client that is up or reconnecting.
        if (!idle(static_cast<uint32_t>(client->getConnectionState()))) {
            return;
        }
    } catch (KW::Exception const&) {
        return;
    }
    park();
}

void KWClientFunctions::park() {
    if (parked || object == nullptr) {
        return;
    }
    Nan::HandleScope scope;
    // Held for the scope: an allocation below may collect an unreachable client, whose
    // release detaches it from here.
    v8::Local<v8::Object> self = object->handle();
    v8::Local<v8::Array> kept = Nan::New<v8::Array>();
    uint32_t count = 0;
    forEachLive([&](KWFunction& fn) {
        if (!fn.IsEmpty()) {
            Nan::Set(kept, count++, fn.GetFunction());
            fn.park();
        }
    });
    Nan::SetPrivate(self, parkedKey(), kept);
    parked = true;
}

void KWClientFunctions::hold() {
    if (!parked || object == nullptr) {
        return;
    }
    Nan::HandleScope scope;
    v8::Local<v8::Object> self = object->handle();  // as in park()
    forEachLive([](KWFunction& fn) { fn.hold(); });
    Nan::SetPrivate(self, parkedKey(), Nan::Undefined());
    parked = false;
}
