#include "KWClient/KWEventInfo.h"

#include "KWClient/KWCallbackProcessor.h"
#include "KWClient/KWNodeEvent.h"

KWEventInfo::~KWEventInfo() = default;

void KWEventInfo::executeCallback() {
    Nan::HandleScope scope;
    if (!callback || callback->IsEmpty()) {
        return;
    }
    v8::Local<v8::Object> object;
    if (!KWNodeEvent::NewEmpty().ToLocal(&object)) {
        return;
    }
    Nan::ObjectWrap::Unwrap<KWNodeEvent>(object)->setEventInfo(*this);
    v8::Local<v8::Value> argv[] = {object};
    KWCallbackProcessor::getInstance()->call(callback->GetFunction(), 1, argv);
}
