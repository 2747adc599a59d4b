#include "KWProbeItem.h"

#include "KWClient/KWCallbackProcessor.h"

KWProbeItem::KWProbeItem(std::shared_ptr<KWFunction> callback, uint32_t threadIndex, uint32_t seq)
    : callback(std::move(callback)), threadIndex(threadIndex), seq(seq) {}

KWProbeItem::~KWProbeItem() = default;

void KWProbeItem::executeCallback() {
    Nan::HandleScope scope;
    KWCallbackProcessor* processor = KWCallbackProcessor::getInstance();
    v8::Local<v8::Value> argv[] = {Nan::New(threadIndex), Nan::New(seq),
                                   Nan::New(static_cast<double>(processor->batchCount()))};
    processor->call(callback->GetFunction(), 3, argv);
}
