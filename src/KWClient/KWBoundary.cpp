#include "KWClient/KWBoundary.h"

#include <iostream>
#include <mutex>
#include <sstream>
#include <vector>

std::string KWBoundary::toString(v8::Local<v8::Value> value) {
    Nan::Utf8String text(value);
    return std::string(*text, static_cast<size_t>(text.length()));
}

v8::Local<v8::Object> KWBoundary::newInstance(Nan::Persistent<v8::Function> const& constructor,
                                              int argc, v8::Local<v8::Value>* argv) {
    Nan::EscapableHandleScope scope;
    v8::Local<v8::Object> instance;
    if (!Nan::NewInstance(Nan::New(constructor), argc, argv).ToLocal(&instance)) {
        return v8::Local<v8::Object>();
    }
    return scope.Escape(instance);
}

bool KWBoundary::constructIfCalled(Nan::Persistent<v8::Function> const& constructor,
                                   Nan::FunctionCallbackInfo<v8::Value> const& info) {
    if (info.IsConstructCall()) {
        return false;
    }
    std::vector<v8::Local<v8::Value>> argv;
    argv.reserve(static_cast<std::size_t>(info.Length()));
    for (int i = 0; i < info.Length(); ++i) {
        argv.push_back(info[i]);
    }
    v8::Local<v8::Object> instance =
        newInstance(constructor, static_cast<int>(argv.size()), argv.data());
    if (!instance.IsEmpty()) {
        info.GetReturnValue().Set(instance);
    }
    return true;
}

void KWBoundary::report(char const* tag, char const* path, int line, char const* logText,
                        KW::Exception const& e) {
    std::ostringstream out;
    out << tag << "[e]: " << path << ':' << line << ' ' << logText << e.what() << '\n';
    {
        static std::mutex logMutex;
        std::lock_guard<std::mutex> lock(logMutex);
        std::cerr << out.str() << std::flush;
    }
    v8::Local<v8::Value> error = Nan::Error(e.what());
    Nan::Set(error.As<v8::Object>(), Nan::New("code").ToLocalChecked(),
             Nan::New<v8::Int32>(e.code()));
    Nan::ThrowError(error);
}
