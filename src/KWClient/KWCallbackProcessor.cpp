#include "KWClient/KWCallbackProcessor.h"

#include "KWClient/KWCallbackItem.h"
#include "KWClient/KWCallbackRelease.h"
#include "KWClient/KWFunction.h"

thread_local KWCallbackProcessor* KWCallbackProcessor::_instance = nullptr;

KWCallbackProcessor* KWCallbackProcessor::getInstance() {
    if (_instance == nullptr) {
        // Per environment rather than per process: a Worker's JavaScript runs
        // on its own thread and loop, and may end while others go on.
        std::shared_ptr<KWCallbackProcessor> processor(new KWCallbackProcessor());
        processor->self = processor;
        _instance = processor.get();
#if NODE_MODULE_VERSION >= 72
        node::AddEnvironmentCleanupHook(v8::Isolate::GetCurrent(), closeEnvironment, _instance);
#endif
    }
    return _instance;
}

KWCallbackProcessor::KWCallbackProcessor() : loopThread(std::this_thread::get_id()) {
    async.data = this;
    uv_async_init(Nan::GetCurrentEventLoop(), &async, kw_item_callback);
    Nan::HandleScope scope;
    resource = std::make_unique<Nan::AsyncResource>("kwnode:callback");
}

void KWCallbackProcessor::closeEnvironment(void* processor) {
    static_cast<KWCallbackProcessor*>(processor)->close();
}

void KWCallbackProcessor::close() {
    std::vector<std::shared_ptr<KWCallbackItem>> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex);
        closed = true;
        items.swap(dropped);
    }
    dropped.clear();  // on this thread, while function handles can still be disposed
    resource.reset();
    released = true;
    if (_instance == this) {
        _instance = nullptr;
    }
    uv_close(reinterpret_cast<uv_handle_t*>(&async), [](uv_handle_t* handle) {
        auto* processor = static_cast<KWCallbackProcessor*>(handle->data);
        std::shared_ptr<KWCallbackProcessor> last = std::move(processor->self);
    });
}

KWCallbackProcessor::~KWCallbackProcessor() = default;

// After close the item is dropped; it is released after the lock, so handles
// it owns are leaked by disposeFunction rather than touched.
void KWCallbackProcessor::pushBackItem(std::shared_ptr<KWCallbackItem> item) {
    std::lock_guard<std::mutex> lock(mutex);
    if (!closed) {
        items.push_back(std::move(item));
    }
}

// Under the lock, unlike a bare uv_async_send, because a Worker's handle may be
// closed at any moment by its environment's cleanup.
void KWCallbackProcessor::triggerCallback() {
    std::lock_guard<std::mutex> lock(mutex);
    if (!closed) {
        uv_async_send(&async);
    }
}

void KWCallbackProcessor::post(std::shared_ptr<KWCallbackItem> item) {
    std::lock_guard<std::mutex> lock(mutex);
    if (closed) {
        return;
    }
    items.push_back(std::move(item));
    if (items.size() == 1) {
        uv_async_send(&async);
    }
}

void KWCallbackProcessor::pullAllItems(std::vector<std::shared_ptr<KWCallbackItem>>& out) {
    std::lock_guard<std::mutex> lock(mutex);
    items.swap(out);
}

size_t KWCallbackProcessor::pendingCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return items.size();
}

std::shared_ptr<KWFunction> KWCallbackProcessor::shareFunction(v8::Local<v8::Function> const& fn) {
    return std::shared_ptr<KWFunction>(
        new KWFunction(fn),
        [processor = shared_from_this()](KWFunction* last) { processor->disposeFunction(last); });
}

void KWCallbackProcessor::disposeFunction(KWFunction* callback) {
    std::unique_ptr<KWFunction> owned(callback);
    if (onLoopThread() && !released) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (closed) {
        // Its isolate is gone (or going, with the handle freed along with
        // it): a dispose now would touch freed memory.
        static_cast<void>(owned.release());  // leaked on purpose
        return;
    }
    // The release item is dropped after its batch, on the loop thread.
    items.push_back(std::make_shared<KWCallbackRelease>(std::move(owned)));
    uv_async_send(&async);
}

void KWCallbackProcessor::call(v8::Local<v8::Function> fn, int argc, v8::Local<v8::Value>* argv) {
    resource->runInAsyncScope(Nan::GetCurrentContext()->Global(), fn, argc, argv);
}

void kw_item_callback(uv_async_s* handle) {
    auto* processor = static_cast<KWCallbackProcessor*>(handle->data);
    if (processor == nullptr) {
        return;
    }
    std::vector<std::shared_ptr<KWCallbackItem>> batch = std::move(processor->spare);
    processor->pullAllItems(batch);
    if (batch.empty()) {
        processor->spare = std::move(batch);
        return;
    }
    processor->countBatch();
    for (auto const& item : batch) {
        item->executeCallback();
    }
    // Every item of the run is released on this thread, only after the whole
    // run; the emptied vector keeps its capacity for a later pull.
    batch.clear();
    processor->spare = std::move(batch);
}
