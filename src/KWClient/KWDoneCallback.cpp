#include "KWClient/KWDoneCallback.h"

#include "KWClient/KWCallbackProcessor.h"

KWDoneCallback::KWDoneCallback(v8::Local<v8::Function> const& fn)
    : function(KWCallbackProcessor::getInstance()->shareFunction(fn)) {}

KWDoneCallback::~KWDoneCallback() = default;

void KWDoneCallback::setCompleted() {
    std::lock_guard<std::mutex> lock(mutex);
    error.clear();
    errorCode = 0;
}

void KWDoneCallback::setFailed(char const* text, int code) {
    std::lock_guard<std::mutex> lock(mutex);
    error = text != nullptr ? text : "";
    errorCode = code;
}

void KWDoneCallback::executeCallback() {
    Nan::HandleScope scope;
    if (function->IsEmpty()) {
        return;
    }
    std::string text;
    int32_t code;
    {
        std::lock_guard<std::mutex> lock(mutex);
        text = error;
        code = errorCode;
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
