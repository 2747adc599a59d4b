// The vendor entry points. They check their arguments, consult the fault
// injector, and hand over to the library's classes.

// Declarations first and with default visibility: these are the exports.
#pragma GCC visibility push(default)
#include "solclient/SolClientABI.h"
#include "SolClientEmulator.h"
#pragma GCC visibility pop

#include <cstring>

#include "ErrorInfo.h"
#include "FaultInjector.h"
#include "Flow.h"
#include "Library.h"
#include "Message.h"
#include "Session.h"

using SolEmu::ErrorInfo;
using SolEmu::FaultInjector;
using SolEmu::Library;
using SolEmu::Message;

namespace {

// Every call but getLastErrorInfo empties the thread's error record, then takes an injected
// failure of `function`.
#define KW_EMU_INJECT(function)                                          \
    do {                                                                 \
        ErrorInfo::clear();                                              \
        if (auto injected = FaultInjector::instance().check(function)) { \
            return *injected;                                            \
        }                                                                \
    } while (false)

// The same, then the initialisation check.
#define KW_EMU_ENTER(function)                         \
    do {                                               \
        KW_EMU_INJECT(function);                       \
        if (!Library::instance().checkInitialized()) { \
            return SOLCLIENT_FAIL;                     \
        }                                              \
    } while (false)

solClient_returnCode_t nullArgument(char const* what) {
    return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, std::string(what) + " is NULL");
}

Message* message(void* handle) {
    Message* found = Message::fromHandle(handle);
    if (found == nullptr) {
        ErrorInfo::set(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, 0, "invalid message handle");
    }
    return found;
}

}  // namespace

extern "C" {

char const* _solClient_contextPropsDefaultWithCreateThread[] = {"CONTEXT_CREATE_THREAD", "1",
                                                                nullptr};

solClient_errorInfo_pt solClient_getLastErrorInfo(void) {
    return ErrorInfo::current();
}

solClient_returnCode_t solClient_log_setFilterLevel(solClient_log_category_t category,
                                                    solClient_log_level_t level) {
    KW_EMU_INJECT("solClient_log_setFilterLevel");
    if (category < SOLCLIENT_LOG_CATEGORY_ALL || category > SOLCLIENT_LOG_CATEGORY_APP ||
        level < SOLCLIENT_LOG_EMERGENCY || level > SOLCLIENT_LOG_DEBUG) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "log category or level");
    }
    return SOLCLIENT_OK;  // the emulator does not log
}

solClient_returnCode_t solClient_version_get(solClient_version_info_pt* version_p) {
    KW_EMU_INJECT("solClient_version_get");
    static solClient_version_info_t version{"7.99.0 (kwnode emulator)", __DATE__ " " __TIME__,
                                            "kwnode in-process broker emulator"};
    if (version_p == nullptr) {
        return nullArgument("version_p");
    }
    *version_p = &version;
    return SOLCLIENT_OK;
}

solClient_returnCode_t solClient_initialize(solClient_log_level_t initialLogLevel,
                                            solClient_propertyArray_pt props) {
    ErrorInfo::clear();
    return Library::instance().initialize();
}

solClient_returnCode_t solClient_cleanup(void) {
    KW_EMU_INJECT("solClient_cleanup");
    return Library::instance().cleanup();
}

solClient_returnCode_t solClient_context_create(solClient_propertyArray_pt props,
                                                solClient_opaqueContext_pt* opaqueContext_p,
                                                solClient_context_createFuncInfo_t* funcInfo_p,
                                                size_t funcInfoSize) {
    KW_EMU_ENTER("solClient_context_create");
    if (opaqueContext_p == nullptr) {
        return nullArgument("opaqueContext_p");
    }
    if (funcInfo_p != nullptr && funcInfoSize != sizeof(solClient_context_createFuncInfo_t)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                               "context funcInfo size must be 24");
    }
    return Library::instance().createContext(props, opaqueContext_p);
}

solClient_returnCode_t solClient_context_destroy(solClient_opaqueContext_pt* opaqueContext_p) {
    KW_EMU_ENTER("solClient_context_destroy");
    if (opaqueContext_p == nullptr || *opaqueContext_p == nullptr) {
        return nullArgument("context");
    }
    const solClient_returnCode_t rc = Library::instance().destroyContext(*opaqueContext_p);
    if (rc == SOLCLIENT_OK) {
        *opaqueContext_p = nullptr;
    }
    return rc;
}

solClient_returnCode_t solClient_session_create(solClient_propertyArray_pt props,
                                                solClient_opaqueContext_pt opaqueContext_p,
                                                solClient_opaqueSession_pt* opaqueSession_p,
                                                solClient_session_createFuncInfo_t* funcInfo_p,
                                                size_t funcInfoSize) {
    KW_EMU_ENTER("solClient_session_create");
    if (opaqueSession_p == nullptr || funcInfo_p == nullptr) {
        return nullArgument(opaqueSession_p == nullptr ? "opaqueSession_p" : "funcInfo_p");
    }
    if (funcInfoSize != sizeof(solClient_session_createFuncInfo_t)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                               "session funcInfo size must be 48");
    }
    return Library::instance().createSession(props, opaqueContext_p, opaqueSession_p, *funcInfo_p);
}

solClient_returnCode_t solClient_session_destroy(solClient_opaqueSession_pt* opaqueSession_p) {
    KW_EMU_ENTER("solClient_session_destroy");
    if (opaqueSession_p == nullptr || *opaqueSession_p == nullptr) {
        return nullArgument("session");
    }
    const solClient_returnCode_t rc = Library::instance().destroySession(*opaqueSession_p);
    if (rc == SOLCLIENT_OK) {
        *opaqueSession_p = nullptr;
    }
    return rc;
}

solClient_returnCode_t solClient_session_connect(solClient_opaqueSession_pt opaqueSession_p) {
    KW_EMU_ENTER("solClient_session_connect");
    auto session = Library::instance().session(opaqueSession_p);
    return session ? session->connect() : SOLCLIENT_FAIL;
}

solClient_returnCode_t solClient_session_disconnect(solClient_opaqueSession_pt opaqueSession_p) {
    KW_EMU_ENTER("solClient_session_disconnect");
    auto session = Library::instance().session(opaqueSession_p);
    return session ? session->disconnect() : SOLCLIENT_FAIL;
}

solClient_returnCode_t solClient_session_sendMsg(solClient_opaqueSession_pt opaqueSession_p,
                                                 solClient_opaqueMsg_pt msg_p) {
    KW_EMU_ENTER("solClient_session_sendMsg");
    auto session = Library::instance().session(opaqueSession_p);
    if (!session) {
        return SOLCLIENT_FAIL;
    }
    Message* msg = message(msg_p);
    return msg != nullptr ? session->send(*msg) : SOLCLIENT_FAIL;
}

solClient_returnCode_t solClient_session_topicSubscribeWithDispatch(
    solClient_opaqueSession_pt opaqueSession_p, solClient_subscribeFlags_t flags,
    char const* topicSubscription_p, solClient_session_rxMsgDispatchFuncInfo_t* dispatchInfo_p,
    void* correlationTag) {
    KW_EMU_ENTER("solClient_session_topicSubscribeWithDispatch");
    auto session = Library::instance().session(opaqueSession_p);
    return session ? session->changeSubscription(true, flags, topicSubscription_p, dispatchInfo_p,
                                                 correlationTag)
                   : SOLCLIENT_FAIL;
}

solClient_returnCode_t solClient_session_topicUnsubscribeWithDispatch(
    solClient_opaqueSession_pt opaqueSession_p, solClient_subscribeFlags_t flags,
    char const* topicSubscription_p, solClient_session_rxMsgDispatchFuncInfo_t* dispatchInfo_p,
    void* correlationTag) {
    KW_EMU_ENTER("solClient_session_topicUnsubscribeWithDispatch");
    auto session = Library::instance().session(opaqueSession_p);
    return session ? session->changeSubscription(false, flags, topicSubscription_p, dispatchInfo_p,
                                                 correlationTag)
                   : SOLCLIENT_FAIL;
}

solClient_returnCode_t solClient_session_createFlow(solClient_propertyArray_pt props,
                                                    solClient_opaqueSession_pt opaqueSession_p,
                                                    solClient_opaqueFlow_pt* opaqueFlow_p,
                                                    solClient_flow_createFuncInfo_t* funcInfo_p,
                                                    size_t funcInfoSize) {
    KW_EMU_ENTER("solClient_session_createFlow");
    if (opaqueFlow_p == nullptr || funcInfo_p == nullptr) {
        return nullArgument(opaqueFlow_p == nullptr ? "opaqueFlow_p" : "funcInfo_p");
    }
    if (funcInfoSize != sizeof(solClient_flow_createFuncInfo_t)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                               "flow funcInfo size must be 48");
    }
    return Library::instance().createFlow(props, opaqueSession_p, opaqueFlow_p, *funcInfo_p);
}

solClient_returnCode_t solClient_flow_start(solClient_opaqueFlow_pt opaqueFlow_p) {
    KW_EMU_ENTER("solClient_flow_start");
    auto flow = Library::instance().flow(opaqueFlow_p);
    return flow ? flow->start() : SOLCLIENT_FAIL;
}

solClient_returnCode_t solClient_flow_stop(solClient_opaqueFlow_pt opaqueFlow_p) {
    KW_EMU_ENTER("solClient_flow_stop");
    auto flow = Library::instance().flow(opaqueFlow_p);
    return flow ? flow->stop() : SOLCLIENT_FAIL;
}

solClient_returnCode_t solClient_flow_destroy(solClient_opaqueFlow_pt* opaqueFlow_p) {
    KW_EMU_ENTER("solClient_flow_destroy");
    if (opaqueFlow_p == nullptr || *opaqueFlow_p == nullptr) {
        return nullArgument("flow");
    }
    const solClient_returnCode_t rc = Library::instance().destroyFlow(*opaqueFlow_p);
    if (rc == SOLCLIENT_OK) {
        *opaqueFlow_p = nullptr;
    }
    return rc;
}

solClient_returnCode_t solClient_flow_sendAck(solClient_opaqueFlow_pt opaqueFlow_p,
                                              solClient_msgId_t msgId) {
    KW_EMU_ENTER("solClient_flow_sendAck");
    auto flow = Library::instance().flow(opaqueFlow_p);
    return flow ? flow->acknowledge(msgId) : SOLCLIENT_FAIL;
}

solClient_returnCode_t solClient_msg_alloc(solClient_opaqueMsg_pt* msg_p) {
    KW_EMU_ENTER("solClient_msg_alloc");
    if (msg_p == nullptr) {
        return nullArgument("msg_p");
    }
    *msg_p = std::make_unique<Message>().release();  // owned by the caller until msg_free
    return SOLCLIENT_OK;
}

solClient_returnCode_t solClient_msg_free(solClient_opaqueMsg_pt* msg_p) {
    KW_EMU_ENTER("solClient_msg_free");
    if (msg_p == nullptr) {
        return nullArgument("msg_p");
    }
    Message* msg = message(*msg_p);
    if (msg == nullptr) {
        return SOLCLIENT_FAIL;
    }
    std::unique_ptr<Message> owned(msg);
    *msg_p = nullptr;
    return SOLCLIENT_OK;
}

solClient_returnCode_t solClient_msg_getMsgId(solClient_opaqueMsg_pt msg_p,
                                              solClient_msgId_t* msgId_p) {
    KW_EMU_ENTER("solClient_msg_getMsgId");
    Message* msg = message(msg_p);
    if (msg == nullptr) {
        return SOLCLIENT_FAIL;
    }
    if (msgId_p == nullptr) {
        return nullArgument("msgId_p");
    }
    if (!msg->hasMsgId()) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_OK, "message has no id", SOLCLIENT_NOT_FOUND);
    }
    *msgId_p = msg->msgId();
    return SOLCLIENT_OK;
}

solClient_returnCode_t solClient_msg_getBinaryAttachmentPtr(solClient_opaqueMsg_pt msg_p,
                                                            solClient_opaquePointer_pt bufPtr_p,
                                                            solClient_uint32_t* size_p) {
    KW_EMU_ENTER("solClient_msg_getBinaryAttachmentPtr");
    Message* msg = message(msg_p);
    if (msg == nullptr) {
        return SOLCLIENT_FAIL;
    }
    if (bufPtr_p == nullptr || size_p == nullptr) {
        return nullArgument(bufPtr_p == nullptr ? "bufPtr_p" : "size_p");
    }
    if (!msg->hasAttachment()) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_OK, "message has no binary attachment",
                               SOLCLIENT_NOT_FOUND);
    }
    *bufPtr_p = const_cast<void*>(msg->attachmentData());
    *size_p = msg->attachmentSize();
    return SOLCLIENT_OK;
}

solClient_returnCode_t solClient_msg_getDestination(solClient_opaqueMsg_pt msg_p,
                                                    solClient_destination_t* dest_p,
                                                    size_t destSize) {
    KW_EMU_ENTER("solClient_msg_getDestination");
    Message* msg = message(msg_p);
    if (msg == nullptr) {
        return SOLCLIENT_FAIL;
    }
    if (dest_p == nullptr) {
        return nullArgument("dest_p");
    }
    if (destSize != sizeof(solClient_destination_t)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "destination size must be 16");
    }
    if (msg->hasDestinationRecord()) {
        dest_p->destType = msg->destinationRecordType();
        dest_p->dest = msg->destinationRecordName();
    } else if (msg->topicPtr() != nullptr) {
        dest_p->destType = SOLCLIENT_TOPIC_DESTINATION;
        dest_p->dest = msg->topicPtr();
    } else {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_OK, "message has no destination",
                               SOLCLIENT_NOT_FOUND);
    }
    return SOLCLIENT_OK;
}

solClient_returnCode_t solClient_msg_setDestination(solClient_opaqueMsg_pt msg_p,
                                                    solClient_destination_t* dest_p,
                                                    size_t destSize) {
    KW_EMU_ENTER("solClient_msg_setDestination");
    Message* msg = message(msg_p);
    if (msg == nullptr) {
        return SOLCLIENT_FAIL;
    }
    if (dest_p == nullptr || dest_p->dest == nullptr) {
        return nullArgument("destination");
    }
    if (destSize != sizeof(solClient_destination_t)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "destination size must be 16");
    }
    if (dest_p->destType < SOLCLIENT_TOPIC_DESTINATION ||
        dest_p->destType > SOLCLIENT_QUEUE_TEMP_DESTINATION) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "destination type");
    }
    msg->setDestination(dest_p->destType, dest_p->dest);
    return SOLCLIENT_OK;
}

solClient_returnCode_t solClient_msg_setSequenceNumber(solClient_opaqueMsg_pt msg_p,
                                                       solClient_uint64_t seqNum) {
    KW_EMU_ENTER("solClient_msg_setSequenceNumber");
    Message* msg = message(msg_p);
    if (msg == nullptr) {
        return SOLCLIENT_FAIL;
    }
    msg->setSequenceNumber(seqNum);
    return SOLCLIENT_OK;
}

solClient_returnCode_t solClient_msg_setCorrelationTagPtr(solClient_opaqueMsg_pt msg_p,
                                                          void* correlation_p,
                                                          solClient_uint32_t size) {
    KW_EMU_ENTER("solClient_msg_setCorrelationTagPtr");
    Message* msg = message(msg_p);
    if (msg == nullptr) {
        return SOLCLIENT_FAIL;
    }
    msg->setCorrelationTag(correlation_p);
    return SOLCLIENT_OK;
}

solClient_returnCode_t solClient_msg_setBinaryAttachmentPtr(solClient_opaqueMsg_pt msg_p,
                                                            void* buf_p, solClient_uint32_t size) {
    KW_EMU_ENTER("solClient_msg_setBinaryAttachmentPtr");
    Message* msg = message(msg_p);
    if (msg == nullptr) {
        return SOLCLIENT_FAIL;
    }
    if (buf_p == nullptr && size != 0) {
        return nullArgument("buf_p");
    }
    msg->setAttachmentPtr(buf_p, size);
    return SOLCLIENT_OK;
}

solClient_returnCode_t solClient_msg_setTopicPtr(solClient_opaqueMsg_pt msg_p,
                                                 char const* topic_p) {
    KW_EMU_ENTER("solClient_msg_setTopicPtr");
    Message* msg = message(msg_p);
    if (msg == nullptr) {
        return SOLCLIENT_FAIL;
    }
    if (topic_p == nullptr) {
        return nullArgument("topic_p");
    }
    msg->setTopicPtr(topic_p);
    return SOLCLIENT_OK;
}

solClient_returnCode_t solClient_msg_setDeliveryMode(solClient_opaqueMsg_pt msg_p,
                                                     solClient_uint32_t mode) {
    KW_EMU_ENTER("solClient_msg_setDeliveryMode");
    Message* msg = message(msg_p);
    if (msg == nullptr) {
        return SOLCLIENT_FAIL;
    }
    if (mode != SOLCLIENT_DELIVERY_MODE_DIRECT && mode != SOLCLIENT_DELIVERY_MODE_PERSISTENT &&
        mode != SOLCLIENT_DELIVERY_MODE_NONPERSISTENT) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "delivery mode");
    }
    msg->setDeliveryMode(mode);
    return SOLCLIENT_OK;
}

}  // extern "C"
