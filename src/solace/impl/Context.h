#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "core/Worker.h"
#include "solace/impl/VendorHandle.h"
#include "solclient/SolClientABI.h"

namespace KW {

class EventHandler;

namespace Solace {

namespace Impl {

class Session;

// One vendor context (with the library's own event thread) and the sessions
// created in it, which it owns until they end.
class Context {
  public:
    // Ends the sessions whose clients were released, one at a time.
    using EndWorker = KW::Worker<std::shared_ptr<Session>, Context, false>;

    explicit Context(SolaceAPI const& api);
    // Ends the sessions still here before the vendor context goes.
    ~Context();

    Context(Context const&) = delete;
    Context& operator=(Context const&) = delete;

    solClient_opaqueContext_pt getHandle() const { return handle.get(); }
    SolaceAPI const& getAPI() const { return api; }

    Session* createSession(std::string const& destination,
                           std::map<std::string, std::string> const& connectionData,
                           std::shared_ptr<KW::EventHandler> handler);
    // Ends the session on the calling thread and drops it; unknown ones are ignored.
    void deleteSession(Session* session);
    // Ends the session on the end worker: the caller may be the library's
    // context thread, which must not block, or one of the session's workers.
    void endSession(std::shared_ptr<Session> session);
    // The end worker's processor.
    void process(std::shared_ptr<Session> const& session);
    // Waits for the ends under way, then throws while sessions remain.
    void terminate();

    std::size_t getSessionCount();

  private:
    SolaceAPI const& api;
    ContextHandle handle;
    std::mutex mutex;
    std::map<Session*, std::shared_ptr<Session>> sessions;
    // Guarded by mutex: ends handed to the end worker and not yet done.
    std::size_t ending = 0;
    std::condition_variable ended;
    EndWorker endWorker;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
