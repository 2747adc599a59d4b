#include "KWClient/KWCallbackProcessor.h"

#include "KWClient/KWCallbackItem.h"
#include "KWClient/KWCallbackRelease.h"

std::atomic<KWCallbackProcessor*> KWCallbackProcessor::_instance{nullptr};
std::mutex KWCallbackProcessor::_instanceMutex;

KWCallbackProcessor* KWCallbackProcessor::getInstance() {
    KWCallbackProcessor* processor = _instance.load(std::memory_order_acquire);
    if (processor != nullptr) {
        return processor;
    }
    std::lock_guard<std::mutex> lock(_instanceMutex);
    processor = _instance.load(std::memory_order_relaxed);
    if (processor == nullptr) {
        // A process-wide singleton, deliberately never deleted: its async
        // handle keeps the loop alive for as long as the process runs.
        processor = new KWCallbackProcessor();
        _instance.store(processor, std::memory_order_release);
    }
    return processor;
}

KWCallbackProcessor::KWCallbackProcessor() : loopThread(std::this_thread::get_id()) {
    async.data = this;
    uv_async_init(uv_default_loop(), &async, kw_item_callback);
    Nan::HandleScope scope;
    resource = std::make_unique<Nan::AsyncResource>("kwnode:callback");
}

KWCallbackProcessor::~KWCallbackProcessor() = default;

void KWCallbackProcessor::pushBackItem(std::shared_ptr<KWCallbackItem> item) {
    std::lock_guard<std::mutex> lock(mutex);
    items.push_back(std::move(item));
}

void KWCallbackProcessor::triggerCallback() {
    uv_async_send(&async);
}

void KWCallbackProcessor::pullAllItems(std::vector<std::shared_ptr<KWCallbackItem>>& out) {
    std::lock_guard<std::mutex> lock(mutex);
    items.swap(out);
}

size_t KWCallbackProcessor::pendingCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return items.size();
}

std::shared_ptr<Nan::Callback> KWCallbackProcessor::shareFunction(
    v8::Local<v8::Function> const& fn) {
    auto callback = std::make_unique<Nan::Callback>();
    if (!fn.IsEmpty()) {
        callback->Reset(fn);
    }
    return std::shared_ptr<Nan::Callback>(
        callback.release(), [this](Nan::Callback* released) { disposeFunction(released); });
}

void KWCallbackProcessor::disposeFunction(Nan::Callback* callback) {
    std::unique_ptr<Nan::Callback> owned(callback);
    if (onLoopThread()) {
        return;
    }
    // The release item is dropped after its batch, on the loop thread.
    pushBackItem(std::make_shared<KWCallbackRelease>(std::move(owned)));
    triggerCallback();
}

void KWCallbackProcessor::call(v8::Local<v8::Function> fn, int argc, v8::Local<v8::Value>* argv) {
    resource->runInAsyncScope(Nan::GetCurrentContext()->Global(), fn, argc, argv);
}

void kw_item_callback(uv_async_s* handle) {
    auto* processor = static_cast<KWCallbackProcessor*>(handle->data);
    if (processor == nullptr) {
        return;
    }
    std::vector<std::shared_ptr<KWCallbackItem>> batch;
    processor->pullAllItems(batch);
    if (batch.empty()) {
        return;
    }
    processor->countBatch();
    for (auto const& item : batch) {
        item->executeCallback();
    }
    // batch goes out of scope here: every item of the run is released on this
    // thread, only after the whole run.
}
