#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "solace/impl/VendorHandle.h"
#include "solclient/SolClientABI.h"

namespace KW {

class EventHandler;

namespace Solace {

namespace Impl {

class Session;

// One vendor context (with the library's own event thread) and the sessions
// created in it, which it owns.
class Context {
  public:
    explicit Context(SolaceAPI const& api);
    ~Context();

    Context(Context const&) = delete;
    Context& operator=(Context const&) = delete;

    solClient_opaqueContext_pt getHandle() const { return handle.get(); }
    SolaceAPI const& getAPI() const { return api; }

    Session* createSession(std::string const& destination,
                           std::map<std::string, std::string> const& connectionData,
                           std::shared_ptr<KW::EventHandler> handler);
    void deleteSession(Session* session);
    // Throws while sessions remain.
    void terminate();

    std::size_t getSessionCount();

  private:
    SolaceAPI const& api;
    ContextHandle handle;
    std::mutex mutex;
    std::set<Session*> sessions;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
