// Test-only add-on kwbridge_probe.node: drives the callback bridge from native
// threads without a broker. Used by the bridge tests and by the benchmarks.

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <nan.h>
#include <node.h>

#include "KWClient/KWCallbackProcessor.h"
#include "KWClient/KWDoneCallback.h"
#include "KWClient/KWEventHandler.h"
#include "KWClient/KWMessageHandler.h"
#include "KWClient/KWNodeEvent.h"
#include "KWClient/KWNodeMessage.h"
#include "KWProbeItem.h"
#include "core/QOS.h"

namespace {

// Runs body on a new native thread and waits for it. body is moved into the
// thread, so what it captures is released there.
template <typename Body>
void onForeignThread(Body&& body) {
    std::thread thread(std::forward<Body>(body));
    thread.join();
}

// pushFromThreads(threads, itemsPerThread, fn): starts `threads` native
// threads, each pushing itemsPerThread items (push + trigger per item, as the
// handlers do), and joins them before returning. The items then run on the
// JavaScript thread as fn(threadIndex, seq, batch), seq counting from 0 per
// thread. This is the bridge's floor: one minimal item per call, no message
// or event object.
NAN_METHOD(PushFromThreads) {
    uint32_t const threads = Nan::To<uint32_t>(info[0]).FromMaybe(0);
    uint32_t const perThread = Nan::To<uint32_t>(info[1]).FromMaybe(0);
    if (!info[2]->IsFunction()) {
        return Nan::ThrowTypeError("pushFromThreads: fn must be a function");
    }
    KWCallbackProcessor* processor = KWCallbackProcessor::getInstance();
    std::shared_ptr<Nan::Callback> callback = processor->shareFunction(info[2].As<v8::Function>());
    std::vector<std::thread> workers;
    for (uint32_t t = 0; t < threads; ++t) {
        workers.emplace_back([processor, callback, t, perThread] {
            for (uint32_t seq = 0; seq < perThread; ++seq) {
                processor->pushBackItem(std::make_shared<KWProbeItem>(callback, t, seq));
                processor->triggerCallback();
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }
}

// pushDuringBatch(fn): one item that, while it runs, queues a second one;
// fn(0, 0, batch) then fn(0, 1, batch').
NAN_METHOD(PushDuringBatch) {
    if (!info[0]->IsFunction()) {
        return Nan::ThrowTypeError("pushDuringBatch: fn must be a function");
    }
    KWCallbackProcessor* processor = KWCallbackProcessor::getInstance();
    auto item =
        std::make_shared<KWProbeItem>(processor->shareFunction(info[0].As<v8::Function>()), 0, 0);
    item->pushNext = true;
    processor->pushBackItem(item);
    processor->triggerCallback();
}

// reportTwice(fn): a library thread reports one send's completion twice.
NAN_METHOD(ReportTwice) {
    if (!info[0]->IsFunction()) {
        return Nan::ThrowTypeError("reportTwice: fn must be a function");
    }
    auto handler = std::make_shared<KWEventHandler>(v8::Local<v8::Function>());
    std::shared_ptr<KW::Reference> done =
        std::make_shared<KWDoneCallback>(info[0].As<v8::Function>());
    onForeignThread([handler, done] {
        handler->messageSendFinalize(nullptr, done);
        handler->messageSendFinalize(nullptr, done);
    });
}

// completeWith(text, code, fn): a library thread reports a failed subscribe.
NAN_METHOD(CompleteWith) {
    if (!info[2]->IsFunction()) {
        return Nan::ThrowTypeError("completeWith: fn must be a function");
    }
    std::string const text = *Nan::Utf8String(info[0]);
    int const code = Nan::To<int32_t>(info[1]).FromMaybe(0);
    auto handler = std::make_shared<KWEventHandler>(v8::Local<v8::Function>());
    std::shared_ptr<KW::Reference> done =
        std::make_shared<KWDoneCallback>(info[2].As<v8::Function>());
    onForeignThread([handler, done, text, code] {
        handler->subscriptionCreateError("probe/topic", KW::QOS::AT_MOST_ONCE, done, text.c_str(),
                                         code);
    });
}

// rejectWith(text, fn): a library thread reports a rejected send.
NAN_METHOD(RejectWith) {
    if (!info[1]->IsFunction()) {
        return Nan::ThrowTypeError("rejectWith: fn must be a function");
    }
    std::string const text = *Nan::Utf8String(info[0]);
    auto handler = std::make_shared<KWEventHandler>(v8::Local<v8::Function>());
    std::shared_ptr<KW::Reference> done =
        std::make_shared<KWDoneCallback>(info[1].As<v8::Function>());
    onForeignThread(
        [handler, done, text] { handler->messageSendRejected(nullptr, text.c_str(), done); });
}

// runtimeError(fn, text[, code]): a library thread raises a runtime error on
// an event handler bound to fn; without code the one-argument form is used.
NAN_METHOD(RuntimeError) {
    if (!info[0]->IsFunction()) {
        return Nan::ThrowTypeError("runtimeError: fn must be a function");
    }
    std::string const text = *Nan::Utf8String(info[1]);
    bool const withCode = info.Length() > 2;
    int const code = Nan::To<int32_t>(info[2]).FromMaybe(0);
    auto handler = std::make_shared<KWEventHandler>(info[0].As<v8::Function>());
    onForeignThread([handler, text, withCode, code] {
        if (withCode) {
            handler->runtimeErrorOccurred(text.c_str(), code);
        } else {
            handler->runtimeErrorOccurred(text.c_str());
        }
    });
}

// releaseHandlerOnThread(fn): makes a message handler for fn and drops its
// last reference on a native thread, as a library's subscribe worker may.
// Returns the number of items that queued: the handed-over function handle,
// to be disposed on this thread by the next run.
NAN_METHOD(ReleaseHandlerOnThread) {
    if (!info[0]->IsFunction()) {
        return Nan::ThrowTypeError("releaseHandlerOnThread: fn must be a function");
    }
    KWCallbackProcessor* processor = KWCallbackProcessor::getInstance();
    size_t const before = processor->pendingCount();
    auto handler = std::make_shared<KWMessageHandler>(info[0].As<v8::Function>());
    onForeignThread([owned = std::move(handler)]() mutable { owned.reset(); });
    info.GetReturnValue().Set(Nan::New(static_cast<double>(processor->pendingCount() - before)));
}

NAN_METHOD(PendingCount) {
    info.GetReturnValue().Set(
        Nan::New(static_cast<double>(KWCallbackProcessor::getInstance()->pendingCount())));
}

NAN_METHOD(BatchCount) {
    info.GetReturnValue().Set(
        Nan::New(static_cast<double>(KWCallbackProcessor::getInstance()->batchCount())));
}

NAN_MODULE_INIT(InitProbe) {
    // Messages and events made by the bridge need their classes.
    KWNodeEvent::Init(target);
    KWNodeMessage::Init(target);
    Nan::SetMethod(target, "pushFromThreads", PushFromThreads);
    Nan::SetMethod(target, "pushDuringBatch", PushDuringBatch);
    Nan::SetMethod(target, "reportTwice", ReportTwice);
    Nan::SetMethod(target, "completeWith", CompleteWith);
    Nan::SetMethod(target, "rejectWith", RejectWith);
    Nan::SetMethod(target, "runtimeError", RuntimeError);
    Nan::SetMethod(target, "releaseHandlerOnThread", ReleaseHandlerOnThread);
    Nan::SetMethod(target, "batchCount", BatchCount);
    Nan::SetMethod(target, "pendingCount", PendingCount);
}

}  // namespace

NODE_MODULE(kwbridge_probe, InitProbe)
