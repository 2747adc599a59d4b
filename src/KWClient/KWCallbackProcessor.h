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
class KWFunction;

// The queue between library threads and one JavaScript thread. Producers
// push items and wake the loop; kw_item_callback runs everything pending, in
// push order, as one batch. There is one per Node.js environment (the main
// thread, each Worker), on that environment's loop; when the environment ends
// it closes, and items or function handles arriving later are dropped
// without touching JavaScript.
class KWCallbackProcessor : public std::enable_shared_from_this<KWCallbackProcessor> {
    friend void kw_item_callback(uv_async_s* handle);

  public:
    virtual ~KWCallbackProcessor();

    // The calling environment's processor, made on first use. Must be called
    // on the environment's JavaScript thread (it initialises the async handle
    // there).
    static KWCallbackProcessor* getInstance();

    void pushBackItem(std::shared_ptr<KWCallbackItem> item);
    void triggerCallback();
    // pushBackItem plus triggerCallback under one lock; the loop is woken
    // only by the push that finds the queue empty, as a wake already on its
    // way pulls every item pushed before the pull.
    void post(std::shared_ptr<KWCallbackItem> item);
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
    std::shared_ptr<KWFunction> shareFunction(v8::Local<v8::Function> const& fn);

    // Calls fn(argv...) with the global object as receiver, through node's
    // callback scope: microtasks run afterwards and an exception thrown by fn
    // is reported as uncaught, as for any callback from native code.
    void call(v8::Local<v8::Function> fn, int argc, v8::Local<v8::Value>* argv);

  private:
    KWCallbackProcessor();
    void disposeFunction(KWFunction* callback);
    // Environment cleanup: drops what is pending while the isolate still
    // lives, refuses later pushes and closes the async handle.
    void close();
    static void closeEnvironment(void* processor);

    std::mutex mutex;
    std::vector<std::shared_ptr<KWCallbackItem>> items;
    // The previous batch's vector, emptied on the loop thread: swapped in for
    // the next pull, so that neither side grows a fresh vector per batch.
    std::vector<std::shared_ptr<KWCallbackItem>> spare;
    bool closed = false;  // guarded by mutex
    std::atomic<bool> released{false};
    // Keeps the processor alive until its handle has closed; handlers and
    // function handles hold it beyond that.
    std::shared_ptr<KWCallbackProcessor> self;
    uv_async_t async;
    std::thread::id const loopThread;
    uint64_t batches = 0;
    // One async context for every call; created on the loop thread and, like
    // the processor, never destroyed.
    std::unique_ptr<Nan::AsyncResource> resource;

    // Every environment runs on its own thread.
    static thread_local KWCallbackProcessor* _instance;
};

void kw_item_callback(uv_async_s* handle);
