#include "KWClient/KWEventInfo.h"

#include "KWClient/KWCallbackProcessor.h"
#include "KWClient/KWClientFunctions.h"
#include "KWClient/KWFunction.h"
#include "KWClient/KWNodeEvent.h"

KWEventInfo::~KWEventInfo() = default;

void KWEventInfo::executeCallback() {
    Nan::HandleScope scope;
    v8::Local<v8::Object> object;
    if (callback && !callback->IsEmpty() && KWNodeEvent::NewEmpty().ToLocal(&object)) {
        Nan::ObjectWrap::Unwrap<KWNodeEvent>(object)->setEventInfo(*this);
        v8::Local<v8::Value> argv[] = {object};
        KWCallbackProcessor::getInstance()->call(callback->GetFunction(), 1, argv);
    }
    // After the call: a connect or disconnect made by the event function makes this report stale.
    if (functions) {
        functions->reported(eventSubCode, epoch);
    }
}
