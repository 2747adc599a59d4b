#pragma once

// A small vendor-API program for the stand-in's tests: it records every
// callback, with the thread it ran on, and waits for them.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../Eventually.h"
#include "solclient/SolClientABI.h"
#include "SolClientEmulator.h"

// Property name/value pairs; the library lets a later value of a name win.
using Props = std::vector<std::pair<std::string, std::string>>;

struct SeenEvent {
    bool flow;
    int event;
    unsigned responseCode;
    std::string info;
    void* correlation;
    std::thread::id thread;
};

struct SeenMessage {
    void* user;  // the dispatch tag, the flow, or null for the session callback
    std::string destination, payload;
    int destinationType, redelivered;
    bool hasId;
    solClient_msgId_t id;
    std::thread::id thread;
};

// The sub-code of a failed call; -1 when it did not fail.
inline int failure(solClient_returnCode_t rc) {
    return rc == SOLCLIENT_FAIL ? static_cast<int>(solClient_getLastErrorInfo()->subCode) : -1;
}

// One exists at a time: the callbacks find it through `active`, so that a
// subscription's user pointer is the test's own tag.
class Harness {
  public:
    // Runs on the context thread at the start of every event callback, given its session or flow.
    std::function<void(void* object, bool flow, int event)> inEvent;

    Harness() {
        active = this;
        EXPECT_EQ(SOLCLIENT_OK, solClient_initialize(SOLCLIENT_LOG_NOTICE, nullptr));
        solClient_context_createFuncInfo_t info{};
        EXPECT_EQ(SOLCLIENT_OK,
                  solClient_context_create(SOLCLIENT_CONTEXT_PROPS_DEFAULT_WITH_CREATE_THREAD,
                                           &context, &info, sizeof(info)));
    }
    // Destroying the context destroys its sessions (the leak check counts them).
    ~Harness() {
        for (auto& msg : unsent) {
            solClient_msg_free(&msg);
        }
        solClient_context_destroy(&context);
        active = nullptr;
    }

    // `extra` overrides; null on failure.
    solClient_opaqueSession_pt createSession(std::string const& hostPort, Props const& extra = {}) {
        Props props = {{"SESSION_HOST", "tcp:" + hostPort},
                       {"SESSION_CONNECT_BLOCKING", "0"},
                       {"SESSION_CONNECT_RETRIES", "-1"},
                       {"SESSION_RECONNECT_RETRIES", "-1"},
                       {"SESSION_RECONNECT_RETRY_WAIT_MS", "20"},
                       {"SESSION_TOPIC_DISPATCH", "1"},
                       {"SESSION_REAPPLY_SUBSCRIPTIONS", "1"},
                       {"SESSION_IGNORE_DUP_SUBSCRIPTION_ERROR", "0"}};
        props.insert(props.end(), extra.begin(), extra.end());
        solClient_session_createFuncInfo_t funcs{};
        funcs.eventInfo.callback_p = [](auto session, auto info, void*) {
            active->recordEvent(session, false, info->sessionEvent, info->responseCode,
                                info->info_p, info->correlation_p);
        };
        funcs.rxMsgInfo.callback_p = [](auto, auto msg, void*) {
            return active->record(nullptr, msg);
        };
        solClient_opaqueSession_pt session = nullptr;
        solClient_session_create(pointers(props).data(), context, &session, &funcs, sizeof(funcs));
        return session;
    }

    // Created and connected, once UP_NOTICE has come.
    solClient_opaqueSession_pt connected(std::string const& hostPort, Props const& extra = {}) {
        solClient_opaqueSession_pt session = createSession(hostPort, extra);
        const size_t before = countEvents(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE);
        EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(session));
        EXPECT_TRUE(waitForEvent(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE, before + 1));
        return session;
    }

    // The same callback and tag each time: unsubscribe matches them.
    static solClient_returnCode_t subscribe(solClient_opaqueSession_pt session,
                                            std::string const& topic, void* tag,
                                            solClient_subscribeFlags_t flags = 0x12,
                                            bool add = true) {
        solClient_session_rxMsgDispatchFuncInfo_t dispatch{
            SOLCLIENT_DISPATCH_TYPE_CALLBACK,
            [](solClient_opaqueSession_pt, solClient_opaqueMsg_pt msg, void* user) {
                return active->record(user, msg);
            },
            tag, nullptr};
        return (add ? solClient_session_topicSubscribeWithDispatch
                    : solClient_session_topicUnsubscribeWithDispatch)(session, flags, topic.c_str(),
                                                                      &dispatch, tag);
    }
    static solClient_returnCode_t unsubscribe(solClient_opaqueSession_pt session,
                                              std::string const& topic, void* tag) {
        return subscribe(session, topic, tag, 0x12, false);
    }

    static solClient_returnCode_t publish(solClient_opaqueSession_pt session,
                                          std::string const& topic, std::string const& payload) {
        return send(session, {SOLCLIENT_TOPIC_DESTINATION, topic.c_str()}, payload, nullptr);
    }
    static solClient_returnCode_t sendGuaranteed(solClient_opaqueSession_pt session,
                                                 std::string const& queue,
                                                 std::string const& payload, void* tag) {
        return send(session, {SOLCLIENT_QUEUE_DESTINATION, queue.c_str()}, payload, tag);
    }

    // A started, blocking-bound, client-ack queue flow; `extra` overrides.
    solClient_returnCode_t createFlow(solClient_opaqueSession_pt session, std::string const& queue,
                                      solClient_opaqueFlow_pt& flow, Props const& extra = {}) {
        Props props = {
            {"FLOW_BIND_ENTITY_ID", "2"}, {"FLOW_BIND_NAME", queue}, {"FLOW_ACKMODE", "2"}};
        props.insert(props.end(), extra.begin(), extra.end());
        solClient_flow_createFuncInfo_t funcs{};
        funcs.eventInfo.callback_p = [](auto flow, auto info, void*) {
            active->recordEvent(flow, true, info->flowEvent, info->responseCode, info->info_p,
                                nullptr);
        };
        funcs.rxMsgInfo.callback_p = [](auto flow, auto msg, void*) {
            return active->record(flow, msg);
        };
        return solClient_session_createFlow(pointers(props).data(), session, &flow, &funcs,
                                            sizeof(funcs));
    }

    bool waitForEvent(bool flow, int event, size_t count = 1) {
        return eventually([&] { return countEvents(flow, event) >= count; });
    }
    // Messages of the dispatch tag or flow `from`, or all of them.
    size_t received(void* from = nullptr) {
        auto const seen = messages();
        return std::count_if(seen.begin(), seen.end(), [&](SeenMessage const& m) {
            return from == nullptr || m.user == from;
        });
    }
    bool waitForMessages(size_t count, void* from = nullptr) {
        return eventually([&] { return received(from) >= count; });
    }
    // The last event of the kind; a blank one if none came.
    SeenEvent last(bool flow, int event) {
        auto const seen = events();
        auto found = std::find_if(seen.rbegin(), seen.rend(), [&](SeenEvent const& e) {
            return e.flow == flow && e.event == event;
        });
        return found != seen.rend() ? *found : SeenEvent{};
    }
    size_t countEvents(bool flow, int event) {
        auto const seen = events();
        return std::count_if(seen.begin(), seen.end(), [&](SeenEvent const& e) {
            return e.flow == flow && e.event == event;
        });
    }
    std::vector<SeenMessage> messages() {
        std::lock_guard<std::mutex> lock(mutex);
        return seenMessages;
    }
    std::vector<SeenEvent> events() {
        std::lock_guard<std::mutex> lock(mutex);
        return seenEvents;
    }

    solClient_opaqueContext_pt context = nullptr;

    // Direct to a topic, or guaranteed with the correlation tag to a queue.
    // A guaranteed message's bytes are the library's to read until its answer: kept here.
    static solClient_returnCode_t send(solClient_opaqueSession_pt session,
                                       solClient_destination_t dest, std::string const& payload,
                                       void* tag) {
        std::string const* bytes = &payload;
        if (dest.destType == SOLCLIENT_QUEUE_DESTINATION) {
            std::lock_guard<std::mutex> lock(active->mutex);
            bytes = &active->lent.emplace_back(payload);
        }
        return sendBytes(session, dest, bytes->data(), bytes->size(), tag);
    }
    static solClient_returnCode_t sendBytes(solClient_opaqueSession_pt session,
                                            solClient_destination_t dest, char const* data,
                                            size_t size, void* tag) {
        solClient_opaqueMsg_pt msg = nullptr;
        solClient_msg_alloc(&msg);
        solClient_msg_setDeliveryMode(msg, dest.destType == SOLCLIENT_QUEUE_DESTINATION
                                               ? SOLCLIENT_DELIVERY_MODE_PERSISTENT
                                               : SOLCLIENT_DELIVERY_MODE_DIRECT);
        solClient_msg_setBinaryAttachmentPtr(msg, const_cast<char*>(data),
                                             static_cast<solClient_uint32_t>(size));
        solClient_msg_setDestination(msg, &dest, sizeof(dest));
        solClient_msg_setCorrelationTagPtr(msg, tag, 0);
        const solClient_returnCode_t rc = solClient_session_sendMsg(session, msg);
        if (rc != SOLCLIENT_OK) {
            // Freed at the end: a call now would empty the error record the caller reads next.
            std::lock_guard<std::mutex> lock(active->mutex);
            active->unsent.push_back(msg);
            return rc;
        }
        solClient_msg_free(&msg);  // the library copied the message, not the lent bytes
        return rc;
    }

  private:
    static inline Harness* active = nullptr;

    // The null-terminated name/value array the library takes.
    static std::vector<char const*> pointers(Props const& props) {
        std::vector<char const*> array;
        for (auto const& [name, value] : props) {
            array.insert(array.end(), {name.c_str(), value.c_str()});
        }
        array.push_back(nullptr);
        return array;
    }

    solClient_rxMsgCallback_returnCode_t record(void* user, solClient_opaqueMsg_pt msg) {
        SeenMessage seen{
            user, "", "", -1, solEmu_msgIsRedelivered(msg), false, 0, std::this_thread::get_id()};
        solClient_destination_t dest{};
        if (solClient_msg_getDestination(msg, &dest, sizeof(dest)) == SOLCLIENT_OK) {
            seen.destination = dest.dest;
            seen.destinationType = dest.destType;
        }
        void* data = nullptr;
        solClient_uint32_t size = 0;
        if (solClient_msg_getBinaryAttachmentPtr(msg, &data, &size) == SOLCLIENT_OK) {
            seen.payload.assign(static_cast<char*>(data), size);
        }
        seen.hasId = solClient_msg_getMsgId(msg, &seen.id) == SOLCLIENT_OK;
        std::lock_guard<std::mutex> lock(mutex);
        seenMessages.push_back(seen);
        return SOLCLIENT_CALLBACK_OK;
    }

    void recordEvent(void* object, bool flow, int event, unsigned responseCode, char const* info,
                     void* correlation) {
        if (inEvent) {
            inEvent(object, flow, event);
        }
        std::lock_guard<std::mutex> lock(mutex);
        seenEvents.push_back({flow, event, responseCode, info != nullptr ? info : "", correlation,
                              std::this_thread::get_id()});
    }

    std::mutex mutex;
    std::vector<SeenEvent> seenEvents;
    std::vector<SeenMessage> seenMessages;
    std::deque<std::string> lent;  // outlives the context, destroyed in ~Harness
    std::vector<solClient_opaqueMsg_pt> unsent;
};

// Each test gets its own broker address, fresh faults, an empty queue "q" and
// a harness with one context; once that is gone, nothing may be left alive.
class EmulatorTest : public ::testing::Test {
  protected:
    struct Fresh {
        Fresh() {
            solEmu_reset();
            solEmu_setRoundTrip(0);
            EXPECT_EQ(0, solEmu_addQueue("q"));
        }
        ~Fresh() {
            solEmu_reset();  // drops what queues still spool
            EXPECT_EQ(0, solEmu_liveMessages());
            EXPECT_EQ(0, solEmu_liveSessions());
        }
    } fresh;
    std::string const hostPort =
        std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ":55555";
    Harness harness;
};
