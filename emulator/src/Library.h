#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "HandleTable.h"
#include "solclient/SolClientABI.h"

namespace SolEmu {

class Context;
class Flow;
class Session;

// The library's process-wide state: initialisation, the handle tables and the
// recorded property lists. The C entry points are thin calls into it.
class Library {
  public:
    static Library& instance();

    solClient_returnCode_t initialize();
    solClient_returnCode_t cleanup();
    // Fills the error record (INIT_NOT_CALLED) when false.
    bool checkInitialized() const;

    solClient_returnCode_t createContext(solClient_propertyArray_pt props, void** handle);
    solClient_returnCode_t destroyContext(void* handle);

    solClient_returnCode_t createSession(solClient_propertyArray_pt props, void* contextHandle,
                                         void** handle,
                                         solClient_session_createFuncInfo_t const& funcs);
    solClient_returnCode_t destroySession(void* handle);
    // Null (and the error record filled) for an unknown handle.
    std::shared_ptr<Session> session(void* handle) const;

    solClient_returnCode_t createFlow(solClient_propertyArray_pt props, void* sessionHandle,
                                      void** handle, solClient_flow_createFuncInfo_t const& funcs);
    solClient_returnCode_t destroyFlow(void* handle);
    std::shared_ptr<Flow> flow(void* handle) const;

    std::string lastSessionProperties() const;
    std::string lastFlowProperties() const;
    long liveSessions() const { return static_cast<long>(sessions.size()); }

    // Answer withheld acknowledgements (the ack mode went back to "acknowledge").
    void releaseWithheld();
    // The broker at hostPort ends every session on it (DOWN_ERROR).
    void endSessions(std::string const& hostPort);
    // Let every context re-check the hold switch.
    void wakeContexts();
    void reset();

  private:
    // Reads a vendor property array, keeps its text in `record` (for
    // solEmu_last*Properties, even when it is refused) and parses it.
    template <typename Properties>
    solClient_returnCode_t readProperties(solClient_propertyArray_pt props, std::string& record,
                                          Properties& parsed);
    struct ContextEntry {
        std::shared_ptr<Context> context;
    };
    struct SessionEntry {
        std::shared_ptr<Session> session;
        void* contextHandle = nullptr;
    };
    struct FlowEntry {
        std::shared_ptr<Flow> flow;
        std::shared_ptr<Session> session;
    };

    Library() = default;
    // Reads the SOLCLIENT_EMULATOR_* variables; false (error record filled)
    // on a malformed one.
    bool loadEnvironment();

    mutable std::mutex mutex;
    // Written under mutex, read without it: every vendor call checks it.
    std::atomic<bool> initialized{false};
    bool environmentLoaded = false;
    std::string lastSessionPropertyText;
    std::string lastFlowPropertyText;

    HandleTable<ContextEntry> contexts;
    HandleTable<SessionEntry> sessions;
    HandleTable<FlowEntry> flows;
};

}  // namespace SolEmu
