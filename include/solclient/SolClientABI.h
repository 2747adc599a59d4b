#pragma once

// The part of the vendor's C API (libsolclient.so, x86-64 Linux) that this
// project uses, declared to match the vendor's ABI exactly. The adapter never
// links against the library: it only takes the types below (and decltype of
// the prototypes) and resolves the symbols at run time. The stand-in library
// in emulator/ defines the same symbols.

#include <cstddef>

extern "C" {

// ---- Scalars and handles -------------------------------------------------
typedef unsigned int solClient_uint32_t;
typedef unsigned long long solClient_uint64_t;
typedef unsigned char solClient_bool_t;
typedef solClient_uint64_t solClient_msgId_t;
typedef solClient_uint32_t solClient_subscribeFlags_t;
typedef solClient_uint32_t solClient_session_responseCode_t;

typedef void* solClient_opaqueContext_pt;
typedef void* solClient_opaqueSession_pt;
typedef void* solClient_opaqueFlow_pt;
typedef void* solClient_opaqueMsg_pt;
typedef void** solClient_opaquePointer_pt;

// Name/value string pairs ending in NULL. The vendor offers this const form
// under SOLCLIENT_CONST_PROPERTIES; the ABI is the same either way.
typedef char const** solClient_propertyArray_pt;

// ---- Enumerations (all 4 bytes, signed) -----------------------------------
typedef enum solClient_returnCode : int {
    SOLCLIENT_OK = 0,
    SOLCLIENT_WOULD_BLOCK = 1,
    SOLCLIENT_IN_PROGRESS = 2,
    SOLCLIENT_NOT_READY = 3,
    SOLCLIENT_EOS = 4,
    SOLCLIENT_NOT_FOUND = 5,
    SOLCLIENT_NOEVENT = 6,
    SOLCLIENT_INCOMPLETE = 7,
    SOLCLIENT_ROLLBACK = 8,
    SOLCLIENT_FAIL = -1
} solClient_returnCode_t;

// Sub-codes run to 129 or 153 depending on the release; only the ones this
// project names are listed, the fixed underlying type holds the rest.
typedef enum solClient_subCode : int {
    SOLCLIENT_SUBCODE_OK = 0,
    SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE = 1,
    SOLCLIENT_SUBCODE_PARAM_NULL_PTR = 2,
    SOLCLIENT_SUBCODE_PARAM_CONFLICT = 3,
    SOLCLIENT_SUBCODE_OUT_OF_RESOURCES = 5,
    SOLCLIENT_SUBCODE_INTERNAL_ERROR = 6,
    SOLCLIENT_SUBCODE_OUT_OF_MEMORY = 7,
    SOLCLIENT_SUBCODE_INIT_NOT_CALLED = 9,
    SOLCLIENT_SUBCODE_TIMEOUT = 10,
    SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED = 12,
    SOLCLIENT_SUBCODE_OS_ERROR = 13,
    SOLCLIENT_SUBCODE_COMMUNICATION_ERROR = 14,
    SOLCLIENT_SUBCODE_INVALID_TOPIC_SYNTAX = 17,
    SOLCLIENT_SUBCODE_LOGIN_FAILURE = 19,
    SOLCLIENT_SUBCODE_INVALID_VIRTUAL_ADDRESS = 20,
    SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT = 23,
    SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND = 24,
    SOLCLIENT_SUBCODE_SUBSCRIPTION_INVALID = 25,
    SOLCLIENT_SUBCODE_MESSAGE_TOO_LARGE = 30,
    SOLCLIENT_SUBCODE_INVALID_SESSION_OPERATION = 32,
    SOLCLIENT_SUBCODE_TOPIC_MISSING = 33,
    SOLCLIENT_SUBCODE_ASSURED_MESSAGING_NOT_ESTABLISHED = 34,
    SOLCLIENT_SUBCODE_MSG_VPN_NOT_ALLOWED = 45,
    SOLCLIENT_SUBCODE_MSG_VPN_UNAVAILABLE = 47,
    SOLCLIENT_SUBCODE_CANNOT_BIND_TO_QUEUE = 59,
    SOLCLIENT_SUBCODE_UNKNOWN_QUEUE_NAME = 61,
    SOLCLIENT_SUBCODE_MAX_CLIENTS_FOR_QUEUE = 63,
    SOLCLIENT_SUBCODE_QUEUE_NOT_FOUND = 66,
    SOLCLIENT_SUBCODE_CLIENT_ACL_DENIED = 67,
    SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED = 68,
    SOLCLIENT_SUBCODE_PUBLISH_ACL_DENIED = 69,
    SOLCLIENT_SUBCODE_SPOOL_OVER_QUOTA = 71,
    SOLCLIENT_SUBCODE_QUEUE_SHUTDOWN = 72,
    SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT = 87,
    SOLCLIENT_SUBCODE_UNRESOLVED_HOST = 89
} solClient_subCode_t;

typedef enum solClient_log_level : int {
    SOLCLIENT_LOG_EMERGENCY = 0,
    SOLCLIENT_LOG_ALERT = 1,
    SOLCLIENT_LOG_CRITICAL = 2,
    SOLCLIENT_LOG_ERROR = 3,
    SOLCLIENT_LOG_WARNING = 4,
    SOLCLIENT_LOG_NOTICE = 5,
    SOLCLIENT_LOG_INFO = 6,
    SOLCLIENT_LOG_DEBUG = 7
} solClient_log_level_t;
#define SOLCLIENT_LOG_DEFAULT_FILTER SOLCLIENT_LOG_NOTICE

typedef enum solClient_log_category : int {
    SOLCLIENT_LOG_CATEGORY_ALL = 0,
    SOLCLIENT_LOG_CATEGORY_SDK = 1,
    SOLCLIENT_LOG_CATEGORY_APP = 2
} solClient_log_category_t;

typedef enum solClient_session_event : int {
    SOLCLIENT_SESSION_EVENT_UP_NOTICE = 0,
    SOLCLIENT_SESSION_EVENT_DOWN_ERROR = 1,
    SOLCLIENT_SESSION_EVENT_CONNECT_FAILED_ERROR = 2,
    SOLCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR = 3,
    SOLCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR = 4,
    SOLCLIENT_SESSION_EVENT_RX_MSG_TOO_BIG_ERROR = 5,
    SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT = 6,
    SOLCLIENT_SESSION_EVENT_ASSURED_PUBLISHING_UP = 7,
    SOLCLIENT_SESSION_EVENT_ASSURED_CONNECT_FAILED = 8,
    SOLCLIENT_SESSION_EVENT_ASSURED_DELIVERY_DOWN = 8,
    SOLCLIENT_SESSION_EVENT_TE_UNSUBSCRIBE_ERROR = 9,
    SOLCLIENT_SESSION_EVENT_DTE_UNSUBSCRIBE_ERROR = 9,
    SOLCLIENT_SESSION_EVENT_TE_UNSUBSCRIBE_OK = 10,
    SOLCLIENT_SESSION_EVENT_DTE_UNSUBSCRIBE_OK = 10,
    SOLCLIENT_SESSION_EVENT_CAN_SEND = 11,
    SOLCLIENT_SESSION_EVENT_RECONNECTING_NOTICE = 12,
    SOLCLIENT_SESSION_EVENT_RECONNECTED_NOTICE = 13,
    SOLCLIENT_SESSION_EVENT_PROVISION_ERROR = 14,
    SOLCLIENT_SESSION_EVENT_PROVISION_OK = 15,
    SOLCLIENT_SESSION_EVENT_SUBSCRIPTION_OK = 16,
    SOLCLIENT_SESSION_EVENT_VIRTUAL_ROUTER_NAME_CHANGED = 17,
    SOLCLIENT_SESSION_EVENT_MODIFYPROP_OK = 18,
    SOLCLIENT_SESSION_EVENT_MODIFYPROP_FAIL = 19,
    SOLCLIENT_SESSION_EVENT_REPUBLISH_UNACKED_MESSAGES = 20
} solClient_session_event_t;

// Newer libraries may add flow events; readers must accept unknown values.
typedef enum solClient_flow_event : int {
    SOLCLIENT_FLOW_EVENT_UP_NOTICE = 0,
    SOLCLIENT_FLOW_EVENT_DOWN_ERROR = 1,
    SOLCLIENT_FLOW_EVENT_BIND_FAILED_ERROR = 2,
    SOLCLIENT_FLOW_EVENT_REJECTED_MSG_ERROR = 3,
    SOLCLIENT_FLOW_EVENT_SESSION_DOWN = 4,
    SOLCLIENT_FLOW_EVENT_ACTIVE = 5,
    SOLCLIENT_FLOW_EVENT_INACTIVE = 6
} solClient_flow_event_t;

typedef enum solClient_destinationType : int {
    SOLCLIENT_NULL_DESTINATION = -1,
    SOLCLIENT_TOPIC_DESTINATION = 0,
    SOLCLIENT_QUEUE_DESTINATION = 1,
    SOLCLIENT_TOPIC_TEMP_DESTINATION = 2,
    SOLCLIENT_QUEUE_TEMP_DESTINATION = 3
} solClient_destinationType_t;

typedef enum solClient_dispatchType : int {
    SOLCLIENT_DISPATCH_TYPE_CALLBACK = 1
} solClient_dispatchType_t;

typedef enum solClient_rxMsgCallback_returnCode : int {
    SOLCLIENT_CALLBACK_OK = 0,
    SOLCLIENT_CALLBACK_TAKE_MSG = 1
} solClient_rxMsgCallback_returnCode_t;

// ---- Flags and values -------------------------------------------------------
#define SOLCLIENT_DELIVERY_MODE_DIRECT 0x00
#define SOLCLIENT_DELIVERY_MODE_PERSISTENT 0x10
#define SOLCLIENT_DELIVERY_MODE_NONPERSISTENT 0x20

#define SOLCLIENT_SUBSCRIBE_FLAGS_WAITFORCONFIRM 0x02
#define SOLCLIENT_SUBSCRIBE_FLAGS_RX_ALL_DELIVER_TO_ONE 0x04
#define SOLCLIENT_SUBSCRIBE_FLAGS_LOCAL_DISPATCH_ONLY 0x08
#define SOLCLIENT_SUBSCRIBE_FLAGS_REQUEST_CONFIRM 0x10

#define SOLCLIENT_ERRORINFO_STR_SIZE 256

#define SOLCLIENT_PROP_ENABLE_VAL "1"
#define SOLCLIENT_PROP_DISABLE_VAL "0"
#define SOLCLIENT_FLOW_PROP_ACKMODE_AUTO "1"
#define SOLCLIENT_FLOW_PROP_ACKMODE_CLIENT "2"
#define SOLCLIENT_FLOW_PROP_BIND_ENTITY_SUB "1"
#define SOLCLIENT_FLOW_PROP_BIND_ENTITY_QUEUE "2"
#define SOLCLIENT_FLOW_PROP_BIND_ENTITY_TE "3"
#define SOLCLIENT_FLOW_PROP_BIND_ENTITY_DTE "3"

// ---- Property names ---------------------------------------------------------
#define SOLCLIENT_SESSION_PROP_HOST "SESSION_HOST"
#define SOLCLIENT_SESSION_PROP_VPN_NAME "SESSION_VPN_NAME"
#define SOLCLIENT_SESSION_PROP_USERNAME "SESSION_USERNAME"
#define SOLCLIENT_SESSION_PROP_PASSWORD "SESSION_PASSWORD"
#define SOLCLIENT_SESSION_PROP_SSL_CIPHER_SUITES "SESSION_SSL_CIPHER_SUITES"
#define SOLCLIENT_SESSION_PROP_SSL_EXCLUDED_PROTOCOLS "SESSION_SSL_EXCLUDED_PROTOCOLS"
#define SOLCLIENT_SESSION_PROP_SSL_VALIDATE_CERTIFICATE "SESSION_SSL_VALIDATE_CERTIFICATE"
#define SOLCLIENT_SESSION_PROP_SSL_VALIDATE_CERTIFICATE_DATE "SESSION_SSL_VALIDATE_CERTIFICATE_DATE"
#define SOLCLIENT_SESSION_PROP_SSL_TRUST_STORE_DIR "SESSION_SSL_TRUST_STORE_DIR"
#define SOLCLIENT_SESSION_PROP_CONNECT_BLOCKING "SESSION_CONNECT_BLOCKING"
#define SOLCLIENT_SESSION_PROP_CONNECT_RETRIES "SESSION_CONNECT_RETRIES"
#define SOLCLIENT_SESSION_PROP_CONNECT_TIMEOUT_MS "SESSION_CONNECT_TIMEOUT_MS"
#define SOLCLIENT_SESSION_PROP_RECONNECT_RETRIES "SESSION_RECONNECT_RETRIES"
#define SOLCLIENT_SESSION_PROP_RECONNECT_RETRY_WAIT_MS "SESSION_RECONNECT_RETRY_WAIT_MS"
#define SOLCLIENT_SESSION_PROP_SOCKET_SEND_BUF_SIZE "SESSION_SOCKET_SEND_BUF_SIZE"
#define SOLCLIENT_SESSION_PROP_SOCKET_RCV_BUF_SIZE "SESSION_SOCKET_RCV_BUF_SIZE"
#define SOLCLIENT_SESSION_PROP_TOPIC_DISPATCH "SESSION_TOPIC_DISPATCH"
#define SOLCLIENT_SESSION_PROP_REAPPLY_SUBSCRIPTIONS "SESSION_REAPPLY_SUBSCRIPTIONS"
#define SOLCLIENT_SESSION_PROP_SUBSCRIBE_BLOCKING "SESSION_SUBSCRIBE_BLOCKING"
#define SOLCLIENT_SESSION_PROP_IGNORE_DUP_SUBSCRIPTION_ERROR "SESSION_IGNORE_DUP_SUBSCRIPTION_ERROR"

#define SOLCLIENT_FLOW_PROP_BIND_BLOCKING "FLOW_BIND_BLOCKING"
#define SOLCLIENT_FLOW_PROP_BIND_ENTITY_DURABLE "FLOW_BIND_ENTITY_DURABLE"
#define SOLCLIENT_FLOW_PROP_ACKMODE "FLOW_ACKMODE"
#define SOLCLIENT_FLOW_PROP_MAX_BIND_TRIES "FLOW_MAX_BIND_TRIES"
#define SOLCLIENT_FLOW_PROP_WINDOWSIZE "FLOW_WINDOWSIZE"
#define SOLCLIENT_FLOW_PROP_MAX_UNACKED_MESSAGES "FLOW_MAX_UNACKED_MESSAGES"
#define SOLCLIENT_FLOW_PROP_BIND_ENTITY_ID "FLOW_BIND_ENTITY_ID"
#define SOLCLIENT_FLOW_PROP_BIND_NAME "FLOW_BIND_NAME"
#define SOLCLIENT_FLOW_PROP_START_STATE "FLOW_START_STATE"

#define SOLCLIENT_CONTEXT_PROP_CREATE_THREAD "CONTEXT_CREATE_THREAD"

// ---- Records -----------------------------------------------------------------
typedef struct solClient_errorInfo {
    solClient_subCode_t subCode;
    solClient_session_responseCode_t responseCode;
    char errorStr[SOLCLIENT_ERRORINFO_STR_SIZE];
} solClient_errorInfo_t, *solClient_errorInfo_pt;

typedef struct solClient_session_eventCallbackInfo {
    solClient_session_event_t sessionEvent;
    solClient_session_responseCode_t responseCode;
    char const* info_p;
    void* correlation_p;
} solClient_session_eventCallbackInfo_t, *solClient_session_eventCallbackInfo_pt;

typedef struct solClient_flow_eventCallbackInfo {
    solClient_flow_event_t flowEvent;
    solClient_session_responseCode_t responseCode;
    char const* info_p;
} solClient_flow_eventCallbackInfo_t, *solClient_flow_eventCallbackInfo_pt;

typedef solClient_rxMsgCallback_returnCode_t (*solClient_session_rxMsgCallbackFunc_t)(
    solClient_opaqueSession_pt opaqueSession_p, solClient_opaqueMsg_pt msg_p, void* user_p);
typedef void (*solClient_session_eventCallbackFunc_t)(
    solClient_opaqueSession_pt opaqueSession_p, solClient_session_eventCallbackInfo_pt eventInfo_p,
    void* user_p);
typedef solClient_rxMsgCallback_returnCode_t (*solClient_flow_rxMsgCallbackFunc_t)(
    solClient_opaqueFlow_pt opaqueFlow_p, solClient_opaqueMsg_pt msg_p, void* user_p);
typedef void (*solClient_flow_eventCallbackFunc_t)(solClient_opaqueFlow_pt opaqueFlow_p,
                                                   solClient_flow_eventCallbackInfo_pt eventInfo_p,
                                                   void* user_p);

// File-descriptor registration callbacks are never used here (the library runs
// its own context thread); only their pointer size matters.
typedef void (*solClient_context_registerFdFunc_t)(void);
typedef void (*solClient_context_unregisterFdFunc_t)(void);

typedef struct solClient_context_createRegisterFdFuncInfo {
    solClient_context_registerFdFunc_t regFdFunc_p;
    solClient_context_unregisterFdFunc_t unregFdFunc_p;
    void* user_p;
} solClient_context_createRegisterFdFuncInfo_t;

typedef struct solClient_context_createFuncInfo {
    solClient_context_createRegisterFdFuncInfo_t regFdInfo;
} solClient_context_createFuncInfo_t;

typedef struct solClient_session_createRxCallbackFuncInfo {
    void* callback_p;  // deprecated receive callback; always NULL
    void* user_p;
} solClient_session_createRxCallbackFuncInfo_t;

typedef struct solClient_session_createEventCallbackFuncInfo {
    solClient_session_eventCallbackFunc_t callback_p;
    void* user_p;
} solClient_session_createEventCallbackFuncInfo_t;

typedef struct solClient_session_createRxMsgCallbackFuncInfo {
    solClient_session_rxMsgCallbackFunc_t callback_p;
    void* user_p;
} solClient_session_createRxMsgCallbackFuncInfo_t;

typedef struct solClient_session_createFuncInfo {
    solClient_session_createRxCallbackFuncInfo_t rxInfo;
    solClient_session_createEventCallbackFuncInfo_t eventInfo;
    solClient_session_createRxMsgCallbackFuncInfo_t rxMsgInfo;
} solClient_session_createFuncInfo_t;

typedef struct solClient_flow_createRxCallbackFuncInfo {
    void* callback_p;  // deprecated receive callback; always NULL
    void* user_p;
} solClient_flow_createRxCallbackFuncInfo_t;

typedef struct solClient_flow_createEventCallbackFuncInfo {
    solClient_flow_eventCallbackFunc_t callback_p;
    void* user_p;
} solClient_flow_createEventCallbackFuncInfo_t;

typedef struct solClient_flow_createRxMsgCallbackFuncInfo {
    solClient_flow_rxMsgCallbackFunc_t callback_p;
    void* user_p;
} solClient_flow_createRxMsgCallbackFuncInfo_t;

typedef struct solClient_flow_createFuncInfo {
    solClient_flow_createRxCallbackFuncInfo_t rxInfo;
    solClient_flow_createEventCallbackFuncInfo_t eventInfo;
    solClient_flow_createRxMsgCallbackFuncInfo_t rxMsgInfo;
} solClient_flow_createFuncInfo_t;

typedef struct solClient_session_rxMsgDispatchFuncInfo {
    solClient_dispatchType_t dispatchType;
    solClient_session_rxMsgCallbackFunc_t callback_p;
    void* user_p;
    void* rfu_p;  // reserved; NULL
} solClient_session_rxMsgDispatchFuncInfo_t;

typedef struct solClient_destination {
    solClient_destinationType_t destType;
    char const* dest;
} solClient_destination_t;

typedef struct solClient_version_info {
    char const* version_p;
    char const* dateTime_p;
    char const* variant_p;
} solClient_version_info_t, *solClient_version_info_pt;

// ---- The 30 functions and the data symbol -------------------------------------
solClient_errorInfo_pt solClient_getLastErrorInfo(void);
solClient_returnCode_t solClient_log_setFilterLevel(solClient_log_category_t category,
                                                    solClient_log_level_t level);
solClient_returnCode_t solClient_version_get(solClient_version_info_pt* version_p);
solClient_returnCode_t solClient_initialize(solClient_log_level_t initialLogLevel,
                                            solClient_propertyArray_pt props);
solClient_returnCode_t solClient_cleanup(void);
solClient_returnCode_t solClient_context_create(solClient_propertyArray_pt props,
                                                solClient_opaqueContext_pt* opaqueContext_p,
                                                solClient_context_createFuncInfo_t* funcInfo_p,
                                                size_t funcInfoSize);
solClient_returnCode_t solClient_context_destroy(solClient_opaqueContext_pt* opaqueContext_p);
solClient_returnCode_t solClient_session_create(solClient_propertyArray_pt props,
                                                solClient_opaqueContext_pt opaqueContext_p,
                                                solClient_opaqueSession_pt* opaqueSession_p,
                                                solClient_session_createFuncInfo_t* funcInfo_p,
                                                size_t funcInfoSize);
solClient_returnCode_t solClient_session_destroy(solClient_opaqueSession_pt* opaqueSession_p);
solClient_returnCode_t solClient_session_connect(solClient_opaqueSession_pt opaqueSession_p);
solClient_returnCode_t solClient_session_disconnect(solClient_opaqueSession_pt opaqueSession_p);
solClient_returnCode_t solClient_session_sendMsg(solClient_opaqueSession_pt opaqueSession_p,
                                                 solClient_opaqueMsg_pt msg_p);
solClient_returnCode_t solClient_session_topicSubscribeWithDispatch(
    solClient_opaqueSession_pt opaqueSession_p, solClient_subscribeFlags_t flags,
    char const* topicSubscription_p, solClient_session_rxMsgDispatchFuncInfo_t* dispatchInfo_p,
    void* correlationTag);
solClient_returnCode_t solClient_session_topicUnsubscribeWithDispatch(
    solClient_opaqueSession_pt opaqueSession_p, solClient_subscribeFlags_t flags,
    char const* topicSubscription_p, solClient_session_rxMsgDispatchFuncInfo_t* dispatchInfo_p,
    void* correlationTag);
solClient_returnCode_t solClient_session_createFlow(solClient_propertyArray_pt props,
                                                    solClient_opaqueSession_pt opaqueSession_p,
                                                    solClient_opaqueFlow_pt* opaqueFlow_p,
                                                    solClient_flow_createFuncInfo_t* funcInfo_p,
                                                    size_t funcInfoSize);
solClient_returnCode_t solClient_flow_start(solClient_opaqueFlow_pt opaqueFlow_p);
solClient_returnCode_t solClient_flow_stop(solClient_opaqueFlow_pt opaqueFlow_p);
solClient_returnCode_t solClient_flow_destroy(solClient_opaqueFlow_pt* opaqueFlow_p);
solClient_returnCode_t solClient_flow_sendAck(solClient_opaqueFlow_pt opaqueFlow_p,
                                              solClient_msgId_t msgId);
solClient_returnCode_t solClient_msg_alloc(solClient_opaqueMsg_pt* msg_p);
solClient_returnCode_t solClient_msg_free(solClient_opaqueMsg_pt* msg_p);
solClient_returnCode_t solClient_msg_getMsgId(solClient_opaqueMsg_pt msg_p,
                                              solClient_msgId_t* msgId_p);
solClient_returnCode_t solClient_msg_getBinaryAttachmentPtr(solClient_opaqueMsg_pt msg_p,
                                                            solClient_opaquePointer_pt bufPtr_p,
                                                            solClient_uint32_t* size_p);
solClient_returnCode_t solClient_msg_getDestination(solClient_opaqueMsg_pt msg_p,
                                                    solClient_destination_t* dest_p,
                                                    size_t destSize);
solClient_returnCode_t solClient_msg_setDestination(solClient_opaqueMsg_pt msg_p,
                                                    solClient_destination_t* dest_p,
                                                    size_t destSize);
solClient_returnCode_t solClient_msg_setSequenceNumber(solClient_opaqueMsg_pt msg_p,
                                                       solClient_uint64_t seqNum);
solClient_returnCode_t solClient_msg_setCorrelationTagPtr(solClient_opaqueMsg_pt msg_p,
                                                          void* correlation_p,
                                                          solClient_uint32_t size);
solClient_returnCode_t solClient_msg_setBinaryAttachmentPtr(solClient_opaqueMsg_pt msg_p,
                                                            void* buf_p, solClient_uint32_t size);
solClient_returnCode_t solClient_msg_setTopicPtr(solClient_opaqueMsg_pt msg_p, char const* topic_p);
solClient_returnCode_t solClient_msg_setDeliveryMode(solClient_opaqueMsg_pt msg_p,
                                                     solClient_uint32_t mode);

// The library's default context properties {"CONTEXT_CREATE_THREAD","1",NULL}.
// The address dlsym returns is the array itself.
extern char const* _solClient_contextPropsDefaultWithCreateThread[];
#define SOLCLIENT_CONTEXT_PROPS_DEFAULT_WITH_CREATE_THREAD \
    ((solClient_propertyArray_pt)_solClient_contextPropsDefaultWithCreateThread)

}  // extern "C"

// ---- Layout checks against the vendor's records ---------------------------------
static_assert(sizeof(solClient_returnCode_t) == 4, "return code is 4 bytes");
static_assert(sizeof(solClient_subCode_t) == 4, "sub-code is 4 bytes");
static_assert(sizeof(solClient_session_event_t) == 4, "session event is 4 bytes");
static_assert(sizeof(solClient_flow_event_t) == 4, "flow event is 4 bytes");
static_assert(sizeof(solClient_bool_t) == 1, "bool is 1 byte");
static_assert(sizeof(solClient_msgId_t) == 8, "message id is 8 bytes");

static_assert(sizeof(solClient_errorInfo_t) == 264, "errorInfo size");
static_assert(alignof(solClient_errorInfo_t) == 4, "errorInfo alignment");
static_assert(offsetof(solClient_errorInfo_t, subCode) == 0, "errorInfo.subCode");
static_assert(offsetof(solClient_errorInfo_t, responseCode) == 4, "errorInfo.responseCode");
static_assert(offsetof(solClient_errorInfo_t, errorStr) == 8, "errorInfo.errorStr");

static_assert(sizeof(solClient_session_eventCallbackInfo_t) == 24, "session event info size");
static_assert(offsetof(solClient_session_eventCallbackInfo_t, responseCode) == 4, "responseCode");
static_assert(offsetof(solClient_session_eventCallbackInfo_t, info_p) == 8, "info_p");
static_assert(offsetof(solClient_session_eventCallbackInfo_t, correlation_p) == 16,
              "correlation_p");

static_assert(sizeof(solClient_flow_eventCallbackInfo_t) == 16, "flow event info size");
static_assert(offsetof(solClient_flow_eventCallbackInfo_t, info_p) == 8, "flow info_p");

static_assert(sizeof(solClient_context_createFuncInfo_t) == 24, "context funcInfo size");

static_assert(sizeof(solClient_session_createFuncInfo_t) == 48, "session funcInfo size");
static_assert(offsetof(solClient_session_createFuncInfo_t, eventInfo) == 16, "eventInfo");
static_assert(offsetof(solClient_session_createFuncInfo_t, rxMsgInfo) == 32, "rxMsgInfo");

static_assert(sizeof(solClient_flow_createFuncInfo_t) == 48, "flow funcInfo size");
static_assert(offsetof(solClient_flow_createFuncInfo_t, eventInfo) == 16, "flow eventInfo");
static_assert(offsetof(solClient_flow_createFuncInfo_t, rxMsgInfo) == 32, "flow rxMsgInfo");

static_assert(sizeof(solClient_session_rxMsgDispatchFuncInfo_t) == 32, "dispatch info size");
static_assert(offsetof(solClient_session_rxMsgDispatchFuncInfo_t, callback_p) == 8,
              "dispatch callback_p");
static_assert(offsetof(solClient_session_rxMsgDispatchFuncInfo_t, user_p) == 16, "dispatch user_p");
static_assert(offsetof(solClient_session_rxMsgDispatchFuncInfo_t, rfu_p) == 24, "dispatch rfu_p");

static_assert(sizeof(solClient_destination_t) == 16, "destination size");
static_assert(offsetof(solClient_destination_t, dest) == 8, "destination.dest");

static_assert(sizeof(solClient_version_info_t) == 24, "version info size");
