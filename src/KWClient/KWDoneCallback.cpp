#include "KWClient/KWDoneCallback.h"

#include "KWClient/KWCallbackProcessor.h"
#include "KWClient/KWClientFunctions.h"
#include "KWClient/KWFunction.h"

namespace {
// The handle on the function most recently given to a completion, for as
// long as some completion still holds it. JavaScript thread only.
thread_local std::weak_ptr<KWFunction> lastFunction;

// Completions of requests made with the same function (one completion
// function for many publishes is the common case) share one persistent
// handle instead of creating and disposing one per request; calling it is
// the same.
std::shared_ptr<KWFunction> handleOn(v8::Local<v8::Function> const& fn) {
    if (fn.IsEmpty()) {
        return KWCallbackProcessor::getInstance()->shareFunction(fn);
    }
    std::shared_ptr<KWFunction> last = lastFunction.lock();
    if (last && !last->IsEmpty() && last->GetFunction() == fn) {
        return last;
    }
    last = KWCallbackProcessor::getInstance()->shareFunction(fn);
    lastFunction = last;
    return last;
}
}  // namespace

KWDoneCallback::KWDoneCallback(v8::Local<v8::Function> const& fn, KWClientFunctions* functions)
    : function(functions != nullptr ? functions->share(fn) : handleOn(fn)) {}

KWDoneCallback::~KWDoneCallback() = default;

void KWDoneCallback::setCompleted(std::shared_ptr<void> settled) {
    std::lock_guard<std::mutex> lock(mutex);
    error.clear();
    errorCode = 0;
    request = std::move(settled);
}

void KWDoneCallback::setFailed(char const* text, int code, std::shared_ptr<void> settled) {
    std::lock_guard<std::mutex> lock(mutex);
    error = text != nullptr ? text : "";
    errorCode = code;
    request = std::move(settled);
}

void KWDoneCallback::executeCallback() {
    Nan::HandleScope scope;
    std::string text;
    int32_t code;
    std::shared_ptr<void> settled;  // let go here, after the call
    {
        std::lock_guard<std::mutex> lock(mutex);
        text = error;
        code = errorCode;
        settled = std::move(request);
    }
    if (function->IsEmpty()) {
        return;
    }
    v8::Local<v8::Value> argv[1];
    if (text.empty()) {
        argv[0] = Nan::Null();
    } else {
        v8::Local<v8::Value> value = Nan::Error(text.c_str());
        Nan::Set(value.As<v8::Object>(), Nan::New("errno").ToLocalChecked(), Nan::New(code));
        argv[0] = value;
    }
    KWCallbackProcessor::getInstance()->call(function->GetFunction(), 1, argv);
}
