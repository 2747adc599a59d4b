#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <nan.h>
#include <uv.h>

class KWCallbackItem;

// The one queue between library threads and the JavaScript thread. Producers
// push items and wake the loop; kw_item_callback runs everything pending, in
// push order, as one batch.
class KWCallbackProcessor {
  public:
    virtual ~KWCallbackProcessor();

    // The first call must be made on the loop thread (it initialises the async
    // handle there).
    static KWCallbackProcessor* getInstance();

    void pushBackItem(std::shared_ptr<KWCallbackItem> item);
    void triggerCallback();
    void pullAllItems(std::vector<std::shared_ptr<KWCallbackItem>>& out);

    // Diagnostics: items queued and not yet pulled; runs of kw_item_callback
    // that found work (loop thread only).
    size_t pendingCount();
    uint64_t batchCount() const { return batches; }
    void countBatch() { ++batches; }

    bool onLoopThread() const { return std::this_thread::get_id() == loopThread; }

    // A shared persistent handle on fn whose last owner may be on any thread:
    // released elsewhere, the handle is handed to the loop thread and disposed
    // there, as V8 requires.
    std::shared_ptr<Nan::Callback> shareFunction(v8::Local<v8::Function> const& fn);

    // Calls fn(argv...) with the global object as receiver, through node's
    // callback scope: microtasks run afterwards and an exception thrown by fn
    // is reported as uncaught, as for any callback from native code.
    void call(v8::Local<v8::Function> fn, int argc, v8::Local<v8::Value>* argv);

  private:
    KWCallbackProcessor();
    void disposeFunction(Nan::Callback* callback);

    std::mutex mutex;
    std::vector<std::shared_ptr<KWCallbackItem>> items;
    uv_async_t async;
    std::thread::id const loopThread;
    uint64_t batches = 0;
    // One async context for every call; created on the loop thread and, like
    // the processor, never destroyed.
    std::unique_ptr<Nan::AsyncResource> resource;

    static std::atomic<KWCallbackProcessor*> _instance;
    static std::mutex _instanceMutex;
};

void kw_item_callback(uv_async_s* handle);
