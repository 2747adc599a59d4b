#pragma once

// A small vendor-API program used by the stand-in's tests: it records every
// callback (with the thread it ran on) and lets a test wait for them.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "SolClientABI.h"
#include "SolClientEmulator.h"

struct SeenEvent {
    bool flow;
    int event;
    unsigned responseCode;
    std::string info;
    void* correlation;
    std::thread::id thread;
};

struct SeenMessage {
    void* user;  // dispatch user pointer, or the flow
    std::string destination;
    int destinationType;
    bool hasPayload;
    std::string payload;
    bool hasId;
    uint64_t id;
    int redelivered;
    std::thread::id thread;
};

class Harness {
  public:
    static constexpr std::chrono::milliseconds WAIT{5000};

    Harness();
    ~Harness();

    // A session with the adapter's property list and `extra` name/value pairs
    // appended (a later value of the same name wins).
    solClient_opaqueSession_pt createSession(const std::string& hostPort,
                                             std::vector<std::string> extra = {});
    // Create and connect, waiting for UP_NOTICE.
    solClient_opaqueSession_pt connected(const std::string& hostPort,
                                         std::vector<std::string> extra = {});
    solClient_returnCode_t subscribe(solClient_opaqueSession_pt session, const std::string& topic,
                                     void* user, solClient_subscribeFlags_t flags = 0x12);
    solClient_returnCode_t unsubscribe(solClient_opaqueSession_pt session, const std::string& topic,
                                       void* user);
    solClient_returnCode_t publish(solClient_opaqueSession_pt session, const std::string& topic,
                                   const std::string& payload);
    solClient_returnCode_t sendGuaranteed(solClient_opaqueSession_pt session,
                                          const std::string& queue, const std::string& payload,
                                          void* tag);
    // A started client-ack queue flow; `extra` overrides.
    solClient_returnCode_t createFlow(solClient_opaqueSession_pt session, const std::string& queue,
                                      solClient_opaqueFlow_pt& flow,
                                      std::vector<std::string> extra = {});

    // Wait until `done` holds (checked under the recorder's lock).
    bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = WAIT);
    bool waitForEvent(bool flow, int event, size_t count = 1);
    // For state outside the callbacks (counters of the library): re-check
    // until true or the time is up.
    static bool eventually(const std::function<bool()>& done,
                           std::chrono::milliseconds timeout = WAIT);
    bool waitForMessages(size_t count);
    // Messages received for the dispatch tag (or flow) `user`.
    bool waitForMessageFrom(void* user, size_t count = 1);
    size_t countEvents(bool flow, int event);
    std::vector<SeenMessage> messages();
    std::vector<SeenEvent> events();

    solClient_opaqueContext_pt context() const { return context_; }
    // Return value of the receive callbacks from now on.
    void setTakeMessages(bool take) { take_ = take; }
    std::vector<solClient_opaqueMsg_pt> takenMessages();
    // Called on the context thread for every received message, after it is recorded.
    std::function<void(solClient_opaqueFlow_pt flow, const SeenMessage&)> onFlowMessage;

    static solClient_rxMsgCallback_returnCode_t sessionRx(solClient_opaqueSession_pt,
                                                          solClient_opaqueMsg_pt, void*);
    static void sessionEvent(solClient_opaqueSession_pt, solClient_session_eventCallbackInfo_pt,
                             void*);
    static solClient_rxMsgCallback_returnCode_t dispatchRx(solClient_opaqueSession_pt,
                                                           solClient_opaqueMsg_pt, void*);
    static solClient_rxMsgCallback_returnCode_t flowRx(solClient_opaqueFlow_pt,
                                                       solClient_opaqueMsg_pt, void*);
    static void flowEvent(solClient_opaqueFlow_pt, solClient_flow_eventCallbackInfo_pt, void*);

  private:
    // Dispatch users are (harness, tag) pairs so that a test names its own tag.
    struct DispatchUser {
        Harness* harness;
        void* tag;
    };
    void* dispatchUser(void* tag);
    solClient_rxMsgCallback_returnCode_t record(void* user, solClient_opaqueMsg_pt msg,
                                                solClient_opaqueFlow_pt flow);

    solClient_opaqueContext_pt context_ = nullptr;
    std::vector<solClient_opaqueSession_pt> sessions_;
    std::vector<std::unique_ptr<DispatchUser>> users_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<SeenEvent> events_;
    std::vector<SeenMessage> messages_;
    std::vector<solClient_opaqueMsg_pt> taken_;
    bool take_ = false;
};
