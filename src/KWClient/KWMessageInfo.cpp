#include "KWClient/KWMessageInfo.h"

#include "KWClient/KWCallbackProcessor.h"
#include "KWClient/KWFunction.h"
#include "KWClient/KWNodeMessage.h"

KWMessageInfo::~KWMessageInfo() = default;

void KWMessageInfo::executeCallback() {
    Nan::HandleScope scope;
    if (!callback || callback->IsEmpty()) {
        return;
    }
    v8::Local<v8::Object> object;
    if (!KWNodeMessage::NewForDelivery(message).ToLocal(&object)) {
        return;
    }
    v8::Local<v8::Value> argv[] = {object};
    KWCallbackProcessor::getInstance()->call(callback->GetFunction(), 1, argv);
}
