// Every symbol the adapter resolves except solClient_flow_sendAck. Only the
// names matter: nothing here is ever called.
#define KW_STUB(name)                                   \
    __attribute__((visibility("default"))) int name() { \
        return -1;                                      \
    }

extern "C" {
// clang-format off
KW_STUB(solClient_getLastErrorInfo) KW_STUB(solClient_log_setFilterLevel)
KW_STUB(solClient_version_get) KW_STUB(solClient_initialize) KW_STUB(solClient_cleanup)
KW_STUB(solClient_context_create) KW_STUB(solClient_context_destroy)
KW_STUB(solClient_session_create) KW_STUB(solClient_session_destroy)
KW_STUB(solClient_session_connect) KW_STUB(solClient_session_disconnect)
KW_STUB(solClient_session_sendMsg) KW_STUB(solClient_session_topicSubscribeWithDispatch)
KW_STUB(solClient_session_topicUnsubscribeWithDispatch) KW_STUB(solClient_session_createFlow)
KW_STUB(solClient_flow_start) KW_STUB(solClient_flow_stop) KW_STUB(solClient_flow_destroy)
KW_STUB(solClient_msg_alloc) KW_STUB(solClient_msg_free) KW_STUB(solClient_msg_getMsgId)
KW_STUB(solClient_msg_getBinaryAttachmentPtr) KW_STUB(solClient_msg_getDestination)
KW_STUB(solClient_msg_setDestination) KW_STUB(solClient_msg_setSequenceNumber)
KW_STUB(solClient_msg_setCorrelationTagPtr) KW_STUB(solClient_msg_setBinaryAttachmentPtr)
KW_STUB(solClient_msg_setTopicPtr) KW_STUB(solClient_msg_setDeliveryMode)
__attribute__((visibility("default"))) const char* _solClient_contextPropsDefaultWithCreateThread[] =
    {"CONTEXT_CREATE_THREAD", "1", nullptr};
// clang-format on
}
