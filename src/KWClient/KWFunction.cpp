#include "KWClient/KWFunction.h"

KWFunction::KWFunction(v8::Local<v8::Function> const& fn) {
    if (!fn.IsEmpty()) {
        handle.Reset(fn);
    }
}

KWFunction::~KWFunction() {
    handle.Reset();
}

// V8's own weak handle rather than NAN's, which allocates a record per call
// that a later hold() would leak.
void KWFunction::park() {
    if (!handle.IsEmpty()) {
        handle.v8::PersistentBase<v8::Function>::SetWeak(this, collected,
                                                         v8::WeakCallbackType::kParameter);
    }
}

void KWFunction::hold() {
    if (!handle.IsEmpty()) {
        handle.ClearWeak();
    }
}

void KWFunction::collected(v8::WeakCallbackInfo<KWFunction> const& info) {
    info.GetParameter()->handle.Reset();
}
