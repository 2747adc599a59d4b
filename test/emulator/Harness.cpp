#include "Harness.h"

#include <gtest/gtest.h>

namespace {

// The session property list the adapter builds for a plain TCP connection.
std::vector<std::string> adapterProperties(const std::string& hostPort) {
    return {"SESSION_HOST",
            "tcp:" + hostPort,
            "SESSION_VPN_NAME",
            "default",
            "SESSION_USERNAME",
            "user",
            "SESSION_PASSWORD",
            "",
            "SESSION_SSL_VALIDATE_CERTIFICATE",
            "0",
            "SESSION_CONNECT_BLOCKING",
            "0",
            "SESSION_CONNECT_RETRIES",
            "-1",
            "SESSION_CONNECT_TIMEOUT_MS",
            "10000",
            "SESSION_RECONNECT_RETRIES",
            "-1",
            "SESSION_RECONNECT_RETRY_WAIT_MS",
            "20",
            "SESSION_SOCKET_SEND_BUF_SIZE",
            "10000000",
            "SESSION_SOCKET_RCV_BUF_SIZE",
            "10000000",
            "SESSION_TOPIC_DISPATCH",
            "1",
            "SESSION_REAPPLY_SUBSCRIPTIONS",
            "1",
            "SESSION_SUBSCRIBE_BLOCKING",
            "0",
            "SESSION_IGNORE_DUP_SUBSCRIPTION_ERROR",
            "0"};
}

// Later pairs replace earlier ones of the same name; the rest are appended.
std::vector<std::string> merged(std::vector<std::string> base,
                                const std::vector<std::string>& extra) {
    for (size_t i = 0; i + 1 < extra.size(); i += 2) {
        bool replaced = false;
        for (size_t j = 0; j + 1 < base.size(); j += 2) {
            if (base[j] == extra[i]) {
                base[j + 1] = extra[i + 1];
                replaced = true;
            }
        }
        if (!replaced) {
            base.push_back(extra[i]);
            base.push_back(extra[i + 1]);
        }
    }
    return base;
}

std::vector<const char*> pointers(const std::vector<std::string>& strings) {
    std::vector<const char*> array;
    for (const auto& s : strings) {
        array.push_back(s.c_str());
    }
    array.push_back(nullptr);
    return array;
}

}  // namespace

Harness::Harness() {
    EXPECT_EQ(SOLCLIENT_OK, solClient_initialize(SOLCLIENT_LOG_NOTICE, nullptr));
    solClient_context_createFuncInfo_t info{};
    EXPECT_EQ(SOLCLIENT_OK,
              solClient_context_create(SOLCLIENT_CONTEXT_PROPS_DEFAULT_WITH_CREATE_THREAD,
                                       &context_, &info, sizeof(info)));
}

Harness::~Harness() {
    for (auto& session : sessions_) {
        if (session != nullptr) {
            solClient_session_destroy(&session);
        }
    }
    if (context_ != nullptr) {
        solClient_context_destroy(&context_);
    }
    for (auto msg : taken_) {
        solClient_msg_free(&msg);
    }
}

solClient_opaqueSession_pt Harness::createSession(const std::string& hostPort,
                                                  std::vector<std::string> extra) {
    const std::vector<std::string> props = merged(adapterProperties(hostPort), extra);
    std::vector<const char*> array = pointers(props);
    solClient_session_createFuncInfo_t funcs{};
    funcs.eventInfo.callback_p = &Harness::sessionEvent;
    funcs.eventInfo.user_p = this;
    funcs.rxMsgInfo.callback_p = &Harness::sessionRx;
    funcs.rxMsgInfo.user_p = this;
    solClient_opaqueSession_pt session = nullptr;
    const solClient_returnCode_t rc =
        solClient_session_create(array.data(), context_, &session, &funcs, sizeof(funcs));
    if (rc != SOLCLIENT_OK) {
        return nullptr;
    }
    sessions_.push_back(session);
    return session;
}

solClient_opaqueSession_pt Harness::connected(const std::string& hostPort,
                                              std::vector<std::string> extra) {
    solClient_opaqueSession_pt session = createSession(hostPort, std::move(extra));
    if (session == nullptr) {
        ADD_FAILURE() << "session_create failed: " << solClient_getLastErrorInfo()->errorStr;
        return nullptr;
    }
    const size_t before = countEvents(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE);
    EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(session));
    EXPECT_TRUE(waitForEvent(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE, before + 1));
    return session;
}

void* Harness::dispatchUser(void* tag) {
    for (const auto& user : users_) {
        if (user->tag == tag) {
            return user.get();
        }
    }
    users_.push_back(std::make_unique<DispatchUser>(DispatchUser{this, tag}));
    return users_.back().get();
}

solClient_returnCode_t Harness::subscribe(solClient_opaqueSession_pt session,
                                          const std::string& topic, void* user,
                                          solClient_subscribeFlags_t flags) {
    solClient_session_rxMsgDispatchFuncInfo_t dispatch{
        SOLCLIENT_DISPATCH_TYPE_CALLBACK, &Harness::dispatchRx, dispatchUser(user), nullptr};
    return solClient_session_topicSubscribeWithDispatch(session, flags, topic.c_str(), &dispatch,
                                                        user);
}

solClient_returnCode_t Harness::unsubscribe(solClient_opaqueSession_pt session,
                                            const std::string& topic, void* user) {
    // A fresh record with the same content: unsubscribe matches by content.
    solClient_session_rxMsgDispatchFuncInfo_t dispatch{
        SOLCLIENT_DISPATCH_TYPE_CALLBACK, &Harness::dispatchRx, dispatchUser(user), nullptr};
    return solClient_session_topicUnsubscribeWithDispatch(session, 0x12, topic.c_str(), &dispatch,
                                                          nullptr);
}

solClient_returnCode_t Harness::publish(solClient_opaqueSession_pt session,
                                        const std::string& topic, const std::string& payload) {
    solClient_opaqueMsg_pt msg = nullptr;
    solClient_msg_alloc(&msg);
    solClient_msg_setDeliveryMode(msg, SOLCLIENT_DELIVERY_MODE_DIRECT);
    solClient_msg_setBinaryAttachmentPtr(msg, const_cast<char*>(payload.data()),
                                         static_cast<solClient_uint32_t>(payload.size()));
    solClient_destination_t dest{SOLCLIENT_TOPIC_DESTINATION, topic.c_str()};
    solClient_msg_setDestination(msg, &dest, sizeof(dest));
    solClient_msg_setTopicPtr(msg, topic.c_str());
    const solClient_returnCode_t rc = solClient_session_sendMsg(session, msg);
    solClient_msg_free(&msg);
    return rc;
}

solClient_returnCode_t Harness::sendGuaranteed(solClient_opaqueSession_pt session,
                                               const std::string& queue, const std::string& payload,
                                               void* tag) {
    solClient_opaqueMsg_pt msg = nullptr;
    solClient_msg_alloc(&msg);
    solClient_msg_setDeliveryMode(msg, SOLCLIENT_DELIVERY_MODE_PERSISTENT);
    solClient_msg_setBinaryAttachmentPtr(msg, const_cast<char*>(payload.data()),
                                         static_cast<solClient_uint32_t>(payload.size()));
    solClient_destination_t dest{SOLCLIENT_QUEUE_DESTINATION, queue.c_str()};
    solClient_msg_setDestination(msg, &dest, sizeof(dest));
    solClient_msg_setCorrelationTagPtr(msg, tag, 0);
    const solClient_returnCode_t rc = solClient_session_sendMsg(session, msg);
    solClient_msg_free(&msg);  // the library copied what it needs
    return rc;
}

solClient_returnCode_t Harness::createFlow(solClient_opaqueSession_pt session,
                                           const std::string& queue, solClient_opaqueFlow_pt& flow,
                                           std::vector<std::string> extra) {
    const std::vector<std::string> props =
        merged({"FLOW_BIND_BLOCKING", "1", "FLOW_BIND_ENTITY_DURABLE", "1", "FLOW_ACKMODE", "2",
                "FLOW_MAX_BIND_TRIES", "1", "FLOW_WINDOWSIZE", "255", "FLOW_MAX_UNACKED_MESSAGES",
                "-1", "FLOW_BIND_ENTITY_ID", "2", "FLOW_BIND_NAME", queue, "FLOW_START_STATE", "1"},
               extra);
    std::vector<const char*> array = pointers(props);
    solClient_flow_createFuncInfo_t funcs{};
    funcs.eventInfo.callback_p = &Harness::flowEvent;
    funcs.eventInfo.user_p = this;
    funcs.rxMsgInfo.callback_p = &Harness::flowRx;
    funcs.rxMsgInfo.user_p = this;
    return solClient_session_createFlow(array.data(), session, &flow, &funcs, sizeof(funcs));
}

bool Harness::waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, done);
}

bool Harness::eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool Harness::waitForEvent(bool flow, int event, size_t count) {
    return waitUntil([&] {
        size_t n = 0;
        for (const auto& seen : events_) {
            n += seen.flow == flow && seen.event == event ? 1 : 0;
        }
        return n >= count;
    });
}

bool Harness::waitForMessages(size_t count) {
    return waitUntil([&] { return messages_.size() >= count; });
}

bool Harness::waitForMessageFrom(void* user, size_t count) {
    return waitUntil([&] {
        size_t n = 0;
        for (const auto& seen : messages_) {
            n += seen.user == user ? 1 : 0;
        }
        return n >= count;
    });
}

size_t Harness::countEvents(bool flow, int event) {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const auto& seen : events_) {
        n += seen.flow == flow && seen.event == event ? 1 : 0;
    }
    return n;
}

std::vector<SeenMessage> Harness::messages() {
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
}

std::vector<SeenEvent> Harness::events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

std::vector<solClient_opaqueMsg_pt> Harness::takenMessages() {
    std::lock_guard<std::mutex> lock(mutex_);
    return taken_;
}

solClient_rxMsgCallback_returnCode_t Harness::record(void* user, solClient_opaqueMsg_pt msg,
                                                     solClient_opaqueFlow_pt flow) {
    SeenMessage seen{user,
                     "",
                     -1,
                     false,
                     "",
                     false,
                     0,
                     solEmu_msgIsRedelivered(msg),
                     std::this_thread::get_id()};
    solClient_destination_t dest{};
    if (solClient_msg_getDestination(msg, &dest, sizeof(dest)) == SOLCLIENT_OK) {
        seen.destination = dest.dest;
        seen.destinationType = dest.destType;
    }
    void* data = nullptr;
    solClient_uint32_t size = 0;
    if (solClient_msg_getBinaryAttachmentPtr(msg, &data, &size) == SOLCLIENT_OK) {
        seen.hasPayload = true;
        seen.payload.assign(static_cast<char*>(data), size);
    }
    solClient_msgId_t id = 0;
    if (solClient_msg_getMsgId(msg, &id) == SOLCLIENT_OK) {
        seen.hasId = true;
        seen.id = id;
    }
    const bool take = take_;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        messages_.push_back(seen);
        if (take) {
            taken_.push_back(msg);
        }
    }
    if (flow != nullptr && onFlowMessage) {
        onFlowMessage(flow, seen);
    }
    changed_.notify_all();
    return take ? SOLCLIENT_CALLBACK_TAKE_MSG : SOLCLIENT_CALLBACK_OK;
}

solClient_rxMsgCallback_returnCode_t Harness::sessionRx(solClient_opaqueSession_pt,
                                                        solClient_opaqueMsg_pt msg, void* user) {
    return static_cast<Harness*>(user)->record(nullptr, msg, nullptr);
}

solClient_rxMsgCallback_returnCode_t Harness::dispatchRx(solClient_opaqueSession_pt,
                                                         solClient_opaqueMsg_pt msg, void* user) {
    auto* dispatch = static_cast<DispatchUser*>(user);
    return dispatch->harness->record(dispatch->tag, msg, nullptr);
}

solClient_rxMsgCallback_returnCode_t Harness::flowRx(solClient_opaqueFlow_pt flow,
                                                     solClient_opaqueMsg_pt msg, void* user) {
    return static_cast<Harness*>(user)->record(flow, msg, flow);
}

void Harness::sessionEvent(solClient_opaqueSession_pt, solClient_session_eventCallbackInfo_pt info,
                           void* user) {
    auto* self = static_cast<Harness*>(user);
    {
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->events_.push_back(SeenEvent{false, info->sessionEvent, info->responseCode,
                                          info->info_p != nullptr ? info->info_p : "",
                                          info->correlation_p, std::this_thread::get_id()});
    }
    self->changed_.notify_all();
}

void Harness::flowEvent(solClient_opaqueFlow_pt, solClient_flow_eventCallbackInfo_pt info,
                        void* user) {
    auto* self = static_cast<Harness*>(user);
    {
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->events_.push_back(SeenEvent{true, info->flowEvent, info->responseCode,
                                          info->info_p != nullptr ? info->info_p : "", nullptr,
                                          std::this_thread::get_id()});
    }
    self->changed_.notify_all();
}
