#include "solace/impl/Context.h"

#include "solace/LibraryException.h"
#include "solace/RuntimeException.h"
#include "solace/SolaceAPI.h"
#include "solace/impl/Session.h"

namespace KW {
namespace Solace {
namespace Impl {

Context::Context(SolaceAPI const& api) : api(api), handle(api) {
    solClient_context_createFuncInfo_t funcInfo{};
    solClient_opaqueContext_pt created = nullptr;
    if (api.contextCreate(api.contextPropsDefaultWithCreateThread, &created, &funcInfo,
                          sizeof(funcInfo)) != SOLCLIENT_OK) {
        throw LibraryException(api.getLastErrorInfo(), LibraryException::DEFAULT_TEXT);
    }
    handle.adopt(created);
}

// The handle's owner destroys the vendor context.
Context::~Context() = default;

Session* Context::createSession(std::string const& destination,
                                std::map<std::string, std::string> const& connectionData,
                                std::shared_ptr<KW::EventHandler> handler) {
    auto session = std::make_unique<Session>(destination, connectionData, handler, *this);
    std::lock_guard<std::mutex> lock(mutex);
    sessions.insert(session.get());
    return session.release();
}

void Context::deleteSession(Session* session) {
    std::lock_guard<std::mutex> lock(mutex);
    sessions.erase(session);
    // The context owns its sessions; this is where one ends.
    std::unique_ptr<Session> owned(session);
}

void Context::terminate() {
    std::lock_guard<std::mutex> lock(mutex);
    if (!sessions.empty()) {
        throw RuntimeException("context terminate failure, still active sessions runnning");
    }
}

std::size_t Context::getSessionCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return sessions.size();
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
