#pragma once

#include <nan.h>

// A persistent handle on a script function, made and used on the JavaScript
// thread. Strong unless parked: a parked handle is weak and reads as empty
// once the collector has taken its function.
class KWFunction {
  public:
    // An empty fn gives an empty handle.
    explicit KWFunction(v8::Local<v8::Function> const& fn);
    ~KWFunction();
    KWFunction(KWFunction const&) = delete;
    KWFunction& operator=(KWFunction const&) = delete;

    bool IsEmpty() const { return handle.IsEmpty(); }
    v8::Local<v8::Function> GetFunction() const { return Nan::New(handle); }

    void park();
    void hold();

  private:
    static void collected(v8::WeakCallbackInfo<KWFunction> const& info);

    Nan::Persistent<v8::Function> handle;
};
