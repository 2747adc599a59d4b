#include "solace/SolaceAPI.h"

namespace KW {
namespace Solace {

SolaceAPI::SolaceAPI()
    : KW::SharedLibraryHandle("libsolclient.so"),
      getLastErrorInfo(resolve<decltype(getLastErrorInfo)>("solClient_getLastErrorInfo")),
      logSetFilterLevel(resolve<decltype(logSetFilterLevel)>("solClient_log_setFilterLevel")),
      versionGet(resolve<decltype(versionGet)>("solClient_version_get")),
      initialize(resolve<decltype(initialize)>("solClient_initialize")),
      cleanup(resolve<decltype(cleanup)>("solClient_cleanup")),
      contextCreate(resolve<decltype(contextCreate)>("solClient_context_create")),
      contextDestroy(resolve<decltype(contextDestroy)>("solClient_context_destroy")),
      sessionCreate(resolve<decltype(sessionCreate)>("solClient_session_create")),
      sessionDestroy(resolve<decltype(sessionDestroy)>("solClient_session_destroy")),
      sessionConnect(resolve<decltype(sessionConnect)>("solClient_session_connect")),
      sessionDisconnect(resolve<decltype(sessionDisconnect)>("solClient_session_disconnect")),
      sessionSendMsg(resolve<decltype(sessionSendMsg)>("solClient_session_sendMsg")),
      sessionTopicSubscribeWithDispatch(resolve<decltype(sessionTopicSubscribeWithDispatch)>(
          "solClient_session_topicSubscribeWithDispatch")),
      sessionTopicUnsubscribeWithDispatch(resolve<decltype(sessionTopicUnsubscribeWithDispatch)>(
          "solClient_session_topicUnsubscribeWithDispatch")),
      sessionCreateFlow(resolve<decltype(sessionCreateFlow)>("solClient_session_createFlow")),
      flowStart(resolve<decltype(flowStart)>("solClient_flow_start")),
      flowStop(resolve<decltype(flowStop)>("solClient_flow_stop")),
      flowDestroy(resolve<decltype(flowDestroy)>("solClient_flow_destroy")),
      flowSendAck(resolve<decltype(flowSendAck)>("solClient_flow_sendAck")),
      msgAlloc(resolve<decltype(msgAlloc)>("solClient_msg_alloc")),
      msgFree(resolve<decltype(msgFree)>("solClient_msg_free")),
      msgGetMsgId(resolve<decltype(msgGetMsgId)>("solClient_msg_getMsgId")),
      msgGetBinaryAttachmentPtr(
          resolve<decltype(msgGetBinaryAttachmentPtr)>("solClient_msg_getBinaryAttachmentPtr")),
      msgGetDestination(resolve<decltype(msgGetDestination)>("solClient_msg_getDestination")),
      msgSetDestination(resolve<decltype(msgSetDestination)>("solClient_msg_setDestination")),
      msgSetSequenceNumber(
          resolve<decltype(msgSetSequenceNumber)>("solClient_msg_setSequenceNumber")),
      msgSetCorrelationTagPtr(
          resolve<decltype(msgSetCorrelationTagPtr)>("solClient_msg_setCorrelationTagPtr")),
      msgSetBinaryAttachmentPtr(
          resolve<decltype(msgSetBinaryAttachmentPtr)>("solClient_msg_setBinaryAttachmentPtr")),
      msgSetTopicPtr(resolve<decltype(msgSetTopicPtr)>("solClient_msg_setTopicPtr")),
      msgSetDeliveryMode(resolve<decltype(msgSetDeliveryMode)>("solClient_msg_setDeliveryMode")),
      contextPropsDefaultWithCreateThread(
          resolve<solClient_propertyArray_pt>("_solClient_contextPropsDefaultWithCreateThread")) {}

SolaceAPI::~SolaceAPI() = default;

}  // namespace Solace
}  // namespace KW
