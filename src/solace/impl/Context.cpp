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
    // One thread while there are ends to run, none when idle.
    endWorker.threadName = "kw-session-end";
    endWorker.jobThresholds = {0};
    endWorker.idleTimeoutMs = 100;
    endWorker.spinMicros = 0;
    endWorker.setProcessor(this, 0);
}

Context::~Context() {
    {
        std::unique_lock<std::mutex> lock(mutex);
        ended.wait(lock, [this] { return ending == 0; });
    }
    endWorker.setProcessor(nullptr, 0);
    std::map<Session*, std::shared_ptr<Session>> left;
    {
        std::lock_guard<std::mutex> lock(mutex);
        left.swap(sessions);
    }
    for (auto& entry : left) {
        entry.second->end();
    }
}

Session* Context::createSession(std::string const& destination,
                                std::map<std::string, std::string> const& connectionData,
                                std::shared_ptr<KW::EventHandler> handler) {
    auto session = std::make_shared<Session>(destination, connectionData, handler, *this);
    std::lock_guard<std::mutex> lock(mutex);
    sessions.emplace(session.get(), session);
    return session.get();
}

void Context::deleteSession(Session* session) {
    std::shared_ptr<Session> owned;
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto found = sessions.find(session);
        if (found == sessions.end()) {
            return;
        }
        owned = found->second;
    }
    // Ended outside the lock: the end waits for a callback under way on the
    // context thread, which may itself release a client and queue its end.
    owned->end();
    std::lock_guard<std::mutex> lock(mutex);
    sessions.erase(session);
}

void Context::endSession(std::shared_ptr<Session> session) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++ending;
    }
    endWorker.pushTask(session);
}

void Context::process(std::shared_ptr<Session> const& session) {
    deleteSession(session.get());
    std::lock_guard<std::mutex> lock(mutex);
    --ending;
    ended.notify_all();
}

void Context::terminate() {
    std::unique_lock<std::mutex> lock(mutex);
    // Sessions whose clients were released are on their way out, not active.
    ended.wait(lock, [this] { return ending == 0; });
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
