#pragma once

#include <string>

#include <nan.h>

#include "core/Exception.h"

// What every JavaScript-facing method shares: turning values into text and
// turning a caught KW::Exception into a log line plus a thrown Error.
class KWBoundary {
  public:
    // UTF-8 text of value (invalid surrogates replaced); empty for an empty
    // handle or a failed conversion.
    static std::string toString(v8::Local<v8::Value> value);

    // An object made through constructor with the given arguments, escaped
    // into the caller's scope; empty when the constructor threw.
    static v8::Local<v8::Object> newInstance(Nan::Persistent<v8::Function> const& constructor,
                                             int argc, v8::Local<v8::Value>* argv);

    // For a class constructor called without `new`: builds a proper instance
    // with the same arguments and returns it, instead of wrapping whatever the
    // receiver is. Returns false for a construct call, which the caller
    // handles itself.
    static bool constructIfCalled(Nan::Persistent<v8::Function> const& constructor,
                                  Nan::FunctionCallbackInfo<v8::Value> const& info);

    // Writes "<tag>[e]: <path>:<line> <logText><what>" to standard error and
    // makes Error(what) with integer "code" the pending exception.
    static void report(char const* tag, char const* path, int line, char const* logText,
                       KW::Exception const& e);
};
