#pragma once

#include <memory>

#include "core/SharedLibraryHandle.h"
#include "solclient/SolClientABI.h"

namespace KW {
namespace Solace {

// The vendor library, loaded at run time, and the functions of it that the
// adapter calls. Every entry is resolved in the constructor, so a library
// lacking any of them is never half usable. The entries take their types from
// the vendor prototypes, which keeps the signatures from drifting. Shared:
// a received payload that still points into a library message keeps the table
// it frees that message through.
class SolaceAPI : public KW::SharedLibraryHandle, public std::enable_shared_from_this<SolaceAPI> {
  public:
    SolaceAPI();
    ~SolaceAPI();

    SolaceAPI(SolaceAPI const&) = delete;
    SolaceAPI& operator=(SolaceAPI const&) = delete;

  private:
    // Resolves one symbol; declared before the entries that use it.
    template <typename T>
    T resolve(char const* symbolName) {
        return reinterpret_cast<T>(getSymbolAddress(symbolName));
    }

  public:
    // Declaration order is resolution order.
    decltype(&::solClient_getLastErrorInfo) const getLastErrorInfo;
    decltype(&::solClient_log_setFilterLevel) const logSetFilterLevel;
    decltype(&::solClient_version_get) const versionGet;
    decltype(&::solClient_initialize) const initialize;
    decltype(&::solClient_cleanup) const cleanup;
    decltype(&::solClient_context_create) const contextCreate;
    decltype(&::solClient_context_destroy) const contextDestroy;
    decltype(&::solClient_session_create) const sessionCreate;
    decltype(&::solClient_session_destroy) const sessionDestroy;
    decltype(&::solClient_session_connect) const sessionConnect;
    decltype(&::solClient_session_disconnect) const sessionDisconnect;
    decltype(&::solClient_session_sendMsg) const sessionSendMsg;
    decltype(&::solClient_session_topicSubscribeWithDispatch)
        const sessionTopicSubscribeWithDispatch;
    decltype(&::solClient_session_topicUnsubscribeWithDispatch)
        const sessionTopicUnsubscribeWithDispatch;
    decltype(&::solClient_session_createFlow) const sessionCreateFlow;
    decltype(&::solClient_flow_start) const flowStart;
    decltype(&::solClient_flow_stop) const flowStop;
    decltype(&::solClient_flow_destroy) const flowDestroy;
    decltype(&::solClient_flow_sendAck) const flowSendAck;
    decltype(&::solClient_msg_alloc) const msgAlloc;
    decltype(&::solClient_msg_free) const msgFree;
    decltype(&::solClient_msg_getMsgId) const msgGetMsgId;
    decltype(&::solClient_msg_getBinaryAttachmentPtr) const msgGetBinaryAttachmentPtr;
    decltype(&::solClient_msg_getDestination) const msgGetDestination;
    decltype(&::solClient_msg_setDestination) const msgSetDestination;
    decltype(&::solClient_msg_setSequenceNumber) const msgSetSequenceNumber;
    decltype(&::solClient_msg_setCorrelationTagPtr) const msgSetCorrelationTagPtr;
    decltype(&::solClient_msg_setBinaryAttachmentPtr) const msgSetBinaryAttachmentPtr;
    decltype(&::solClient_msg_setTopicPtr) const msgSetTopicPtr;
    decltype(&::solClient_msg_setDeliveryMode) const msgSetDeliveryMode;
    // The library's own default context property list (it makes the library
    // run the context thread itself). The symbol's address is the array.
    solClient_propertyArray_pt const contextPropsDefaultWithCreateThread;
};

}  // namespace Solace
}  // namespace KW
