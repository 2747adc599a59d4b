// Test-only add-on kwbridge_probe.node: drives the callback bridge from native
// threads without a broker. Used by the bridge tests and by the benchmarks.

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <nan.h>
#include <node.h>

#include "KWClient/KWCallbackItem.h"
#include "KWClient/KWCallbackProcessor.h"
#include "KWClient/KWDoneCallback.h"
#include "KWClient/KWEventHandler.h"
#include "KWClient/KWFunction.h"
#include "KWClient/KWMessageHandler.h"
#include "KWClient/KWNodeEvent.h"
#include "KWClient/KWNodeMessage.h"

namespace {

// The smallest useful callback item: calls fn(threadIndex, seq, batch) on the
// JavaScript thread, batch being the number of the kw_item_callback run that
// executed it.
class ProbeItem : public KWCallbackItem {
  public:
    ProbeItem(std::shared_ptr<KWFunction> callback, uint32_t threadIndex, uint32_t seq)
        : callback(std::move(callback)), threadIndex(threadIndex), seq(seq) {}
    void executeCallback() override {
        Nan::HandleScope scope;
        KWCallbackProcessor* processor = KWCallbackProcessor::getInstance();
        v8::Local<v8::Value> argv[] = {Nan::New(threadIndex), Nan::New(seq),
                                       Nan::New(static_cast<double>(processor->batchCount()))};
        processor->call(callback->GetFunction(), 3, argv);
    }

  private:
    std::shared_ptr<KWFunction> callback;
    uint32_t threadIndex;
    uint32_t seq;
};

bool functionAt(Nan::NAN_METHOD_ARGS_TYPE info, int index) {
    if (info[index]->IsFunction())
        return true;
    Nan::ThrowTypeError("kwbridge_probe: the callback argument must be a function");
    return false;
}

using Done = std::shared_ptr<KW::Reference>;

// Runs report(handler, done) on a native thread, as a library thread would,
// and waits for it. The function at fnIndex becomes done, or with eventFn set
// the handler's event function.
template <typename Report>
void reportFromThread(Nan::NAN_METHOD_ARGS_TYPE info, int fnIndex, bool eventFn, Report report) {
    if (!functionAt(info, fnIndex))
        return;
    v8::Local<v8::Function> fn = info[fnIndex].As<v8::Function>();
    auto handler = std::make_shared<KWEventHandler>(eventFn ? fn : v8::Local<v8::Function>());
    Done done = eventFn ? nullptr : std::make_shared<KWDoneCallback>(fn);
    std::thread([&] { report(*handler, done); }).join();
}

// pushFromThreads(threads, itemsPerThread, fn): `threads` native threads each
// push itemsPerThread items (push + trigger per item, as the handlers do) and
// are joined before returning. The items then run on the JavaScript thread as
// fn(threadIndex, seq, batch), seq counting from 0 per thread. This is the
// bridge's floor: one minimal item per call, no message or event object.
NAN_METHOD(PushFromThreads) {
    uint32_t const threads = Nan::To<uint32_t>(info[0]).FromMaybe(0);
    uint32_t const perThread = Nan::To<uint32_t>(info[1]).FromMaybe(0);
    if (!functionAt(info, 2))
        return;
    KWCallbackProcessor* processor = KWCallbackProcessor::getInstance();
    std::shared_ptr<KWFunction> callback = processor->shareFunction(info[2].As<v8::Function>());
    std::vector<std::thread> workers;
    for (uint32_t t = 0; t < threads; ++t) {
        workers.emplace_back([processor, callback, t, perThread] {
            for (uint32_t seq = 0; seq < perThread; ++seq) {
                processor->pushBackItem(std::make_shared<ProbeItem>(callback, t, seq));
                processor->triggerCallback();
            }
        });
    }
    for (auto& worker : workers)
        worker.join();
}

// reportTwice(fn): one send's completion reported twice.
NAN_METHOD(ReportTwice) {
    reportFromThread(info, 0, false, [](KWEventHandler& handler, Done const& done) {
        handler.messageSendFinalize(nullptr, done);
        handler.messageSendFinalize(nullptr, done);
    });
}

// runtimeError(fn, text[, code]): a runtime error on an event handler bound to
// fn; without code the one-argument form is used.
NAN_METHOD(RuntimeError) {
    std::string const text = *Nan::Utf8String(info[1]);
    int const code = Nan::To<int32_t>(info[2]).FromMaybe(0);
    bool const withCode = info.Length() > 2;
    reportFromThread(info, 0, true, [&](KWEventHandler& handler, Done const&) {
        if (withCode) {
            handler.runtimeErrorOccurred(text.c_str(), code);
        } else {
            handler.runtimeErrorOccurred(text.c_str());
        }
    });
}

// releaseHandlerOnThread(fn): makes a message handler for fn and drops its
// last reference on a native thread, as a library's subscribe worker may.
// Returns how many items that queued: the handed-over function handle, to be
// disposed on this thread by the next run.
NAN_METHOD(ReleaseHandlerOnThread) {
    if (!functionAt(info, 0))
        return;
    KWCallbackProcessor* processor = KWCallbackProcessor::getInstance();
    size_t const before = processor->pendingCount();
    auto handler = std::make_shared<KWMessageHandler>(info[0].As<v8::Function>());
    std::thread([owned = std::move(handler)]() mutable { owned.reset(); }).join();
    info.GetReturnValue().Set(Nan::New(static_cast<double>(processor->pendingCount() - before)));
}

NAN_METHOD(PendingCount) {
    info.GetReturnValue().Set(
        Nan::New(static_cast<double>(KWCallbackProcessor::getInstance()->pendingCount())));
}

NAN_MODULE_INIT(InitProbe) {
    // Messages and events made by the bridge need their classes.
    KWNodeEvent::Init(target);
    KWNodeMessage::Init(target);
    Nan::SetMethod(target, "pushFromThreads", PushFromThreads);
    Nan::SetMethod(target, "reportTwice", ReportTwice);
    Nan::SetMethod(target, "runtimeError", RuntimeError);
    Nan::SetMethod(target, "releaseHandlerOnThread", ReleaseHandlerOnThread);
    Nan::SetMethod(target, "pendingCount", PendingCount);
}

}  // namespace

NODE_MODULE(kwbridge_probe, InitProbe)
