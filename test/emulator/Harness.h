#pragma once

// A small vendor-API program used by the stand-in's tests: it records every
// callback (with the thread it ran on) and lets a test wait for them.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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
    void* user = nullptr;  // the dispatch tag, the flow, or null for the session callback
    std::string destination;
    int destinationType = -1;
    std::string payload;
    bool hasId = false;
    solClient_msgId_t id = 0;
    int redelivered = 0;
    std::thread::id thread;
};

// One exists at a time: the callbacks find it through `active`, so that a
// subscription's user pointer is the test's own tag.
class Harness {
  public:
    static constexpr std::chrono::milliseconds WAIT{5000};

    // Runs on the context thread at the start of every event callback.
    std::function<void(bool flow, int event)> inEvent;
    // Set before the messages concerned are sent: the receive callbacks keep
    // them (TAKE_MSG) and the harness frees them at the end.
    bool takeMessages = false;

    Harness() {
        active = this;
        EXPECT_EQ(SOLCLIENT_OK, solClient_initialize(SOLCLIENT_LOG_NOTICE, nullptr));
        solClient_context_createFuncInfo_t info{};
        EXPECT_EQ(SOLCLIENT_OK,
                  solClient_context_create(SOLCLIENT_CONTEXT_PROPS_DEFAULT_WITH_CREATE_THREAD,
                                           &contextHandle, &info, sizeof(info)));
    }

    // Destroying the context destroys its sessions (the leak check counts them).
    ~Harness() {
        solClient_context_destroy(&contextHandle);
        for (auto msg : taken) {
            solClient_msg_free(&msg);
        }
        active = nullptr;
    }

    // A session for a plain TCP connection, connected without blocking,
    // retrying for ever, with topic dispatch, re-applied subscriptions and
    // duplicate errors; `extra` overrides. Null on failure.
    solClient_opaqueSession_pt createSession(std::string const& hostPort, Props const& extra = {}) {
        Props const base = {{"SESSION_HOST", "tcp:" + hostPort},
                            {"SESSION_CONNECT_BLOCKING", "0"},
                            {"SESSION_CONNECT_RETRIES", "-1"},
                            {"SESSION_RECONNECT_RETRIES", "-1"},
                            {"SESSION_RECONNECT_RETRY_WAIT_MS", "20"},
                            {"SESSION_TOPIC_DISPATCH", "1"},
                            {"SESSION_REAPPLY_SUBSCRIPTIONS", "1"},
                            {"SESSION_IGNORE_DUP_SUBSCRIPTION_ERROR", "0"}};
        auto array = pointers(base, extra);
        solClient_session_createFuncInfo_t funcs{};
        funcs.eventInfo.callback_p = [](auto, auto info, void*) {
            active->recordEvent(false, info->sessionEvent, info->responseCode, info->info_p,
                                info->correlation_p);
        };
        funcs.rxMsgInfo.callback_p = [](auto, auto msg, void*) {
            return active->record(nullptr, msg);
        };
        solClient_opaqueSession_pt session = nullptr;
        solClient_session_create(array.data(), contextHandle, &session, &funcs, sizeof(funcs));
        return session;
    }

    // Create and connect, waiting for UP_NOTICE.
    solClient_opaqueSession_pt connected(std::string const& hostPort, Props const& extra = {}) {
        solClient_opaqueSession_pt session = createSession(hostPort, extra);
        if (session == nullptr) {
            ADD_FAILURE() << "session_create failed: " << solClient_getLastErrorInfo()->errorStr;
            return nullptr;
        }
        const size_t before = countEvents(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE);
        EXPECT_EQ(SOLCLIENT_IN_PROGRESS, solClient_session_connect(session));
        EXPECT_TRUE(waitForEvent(false, SOLCLIENT_SESSION_EVENT_UP_NOTICE, before + 1));
        return session;
    }

    static solClient_returnCode_t subscribe(solClient_opaqueSession_pt session,
                                            std::string const& topic, void* tag,
                                            solClient_subscribeFlags_t flags = 0x12) {
        auto dispatch = dispatchFor(tag);
        return solClient_session_topicSubscribeWithDispatch(session, flags, topic.c_str(),
                                                            &dispatch, tag);
    }

    static solClient_returnCode_t unsubscribe(solClient_opaqueSession_pt session,
                                              std::string const& topic, void* tag,
                                              solClient_subscribeFlags_t flags = 0x12) {
        auto dispatch = dispatchFor(tag);
        return solClient_session_topicUnsubscribeWithDispatch(session, flags, topic.c_str(),
                                                              &dispatch, nullptr);
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
        Props const base = {
            {"FLOW_BIND_ENTITY_ID", "2"}, {"FLOW_BIND_NAME", queue}, {"FLOW_ACKMODE", "2"}};
        auto array = pointers(base, extra);
        solClient_flow_createFuncInfo_t funcs{};
        funcs.eventInfo.callback_p = [](auto, auto info, void*) {
            active->recordEvent(true, info->flowEvent, info->responseCode, info->info_p, nullptr);
        };
        funcs.rxMsgInfo.callback_p = [](auto flow, auto msg, void*) {
            return active->record(flow, msg);
        };
        return solClient_session_createFlow(array.data(), session, &flow, &funcs, sizeof(funcs));
    }

    bool waitForEvent(bool flow, int event, size_t count = 1) {
        return eventually([&] { return countEvents(flow, event) >= count; });
    }

    // Wait for `count` messages, of the dispatch tag or flow `from` if not null.
    bool waitForMessages(size_t count, void* from = nullptr) {
        return eventually([&] {
            auto const seen = messages();
            return std::count_if(seen.begin(), seen.end(), [&](SeenMessage const& m) {
                       return from == nullptr || m.user == from;
                   }) >= static_cast<long>(count);
        });
    }

    // Polls: callbacks run on the context thread, counters in the library.
    static bool eventually(std::function<bool()> const& done) {
        auto const deadline = std::chrono::steady_clock::now() + WAIT;
        while (!done()) {
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    size_t countEvents(bool flow, int event) {
        std::lock_guard<std::mutex> lock(mutex);
        return std::count_if(seenEvents.begin(), seenEvents.end(), [&](SeenEvent const& seen) {
            return seen.flow == flow && seen.event == event;
        });
    }
    std::vector<SeenMessage> messages() { return snapshot(seenMessages); }
    std::vector<SeenEvent> events() { return snapshot(seenEvents); }
    std::vector<solClient_opaqueMsg_pt> takenMessages() { return snapshot(taken); }
    solClient_opaqueContext_pt context() const { return contextHandle; }

  private:
    static inline Harness* active = nullptr;

    // The null-terminated name/value array the library takes, pointing into
    // `base` and then `extra`.
    static std::vector<char const*> pointers(Props const& base, Props const& extra) {
        std::vector<char const*> array;
        for (Props const* props : {&base, &extra}) {
            for (auto const& [name, value] : *props) {
                array.insert(array.end(), {name.c_str(), value.c_str()});
            }
        }
        array.push_back(nullptr);
        return array;
    }

    // The same content for the same tag: unsubscribe matches by content.
    static solClient_session_rxMsgDispatchFuncInfo_t dispatchFor(void* tag) {
        return {SOLCLIENT_DISPATCH_TYPE_CALLBACK,
                [](solClient_opaqueSession_pt, solClient_opaqueMsg_pt msg, void* user) {
                    return active->record(user, msg);
                },
                tag, nullptr};
    }

    // Direct to a topic, or guaranteed with the correlation tag to a queue.
    static solClient_returnCode_t send(solClient_opaqueSession_pt session,
                                       solClient_destination_t dest, std::string const& payload,
                                       void* tag) {
        bool const guaranteed = dest.destType == SOLCLIENT_QUEUE_DESTINATION;
        solClient_opaqueMsg_pt msg = nullptr;
        solClient_msg_alloc(&msg);
        solClient_msg_setDeliveryMode(
            msg, guaranteed ? SOLCLIENT_DELIVERY_MODE_PERSISTENT : SOLCLIENT_DELIVERY_MODE_DIRECT);
        solClient_msg_setBinaryAttachmentPtr(msg, const_cast<char*>(payload.data()),
                                             static_cast<solClient_uint32_t>(payload.size()));
        solClient_msg_setDestination(msg, &dest, sizeof(dest));
        if (guaranteed) {
            solClient_msg_setCorrelationTagPtr(msg, tag, 0);
        } else {
            solClient_msg_setTopicPtr(msg, dest.dest);
        }
        const solClient_returnCode_t rc = solClient_session_sendMsg(session, msg);
        solClient_msg_free(&msg);  // the library copied what it needs
        return rc;
    }

    template <class T>
    std::vector<T> snapshot(std::vector<T> const& recorded) {
        std::lock_guard<std::mutex> lock(mutex);
        return recorded;
    }

    solClient_rxMsgCallback_returnCode_t record(void* user, solClient_opaqueMsg_pt msg) {
        SeenMessage seen;
        seen.user = user;
        seen.redelivered = solEmu_msgIsRedelivered(msg);
        seen.thread = std::this_thread::get_id();
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
        if (takeMessages) {
            taken.push_back(msg);
        }
        return takeMessages ? SOLCLIENT_CALLBACK_TAKE_MSG : SOLCLIENT_CALLBACK_OK;
    }

    void recordEvent(bool flow, int event, unsigned responseCode, char const* info,
                     void* correlation) {
        if (inEvent) {
            inEvent(flow, event);
        }
        std::lock_guard<std::mutex> lock(mutex);
        seenEvents.push_back({flow, event, responseCode, info != nullptr ? info : "", correlation,
                              std::this_thread::get_id()});
    }

    solClient_opaqueContext_pt contextHandle = nullptr;
    std::mutex mutex;
    std::vector<SeenEvent> seenEvents;
    std::vector<SeenMessage> seenMessages;
    std::vector<solClient_opaqueMsg_pt> taken;
};

// Each test gets its own broker address, fresh faults and queues, and a
// harness with one context.
class EmulatorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        solEmu_reset();
        solEmu_setRoundTrip(0);
        auto const* info = ::testing::UnitTest::GetInstance()->current_test_info();
        hostPort = std::string(info->test_suite_name()) + "." + info->name() + ":55555";
    }

    std::string hostPort;
    Harness harness;
};
