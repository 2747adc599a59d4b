#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "core/MessageHandler.h"
#include "core/QOS.h"
#include "core/Reference.h"
#include "solace/impl/VendorHandle.h"
#include "solclient/SolClientABI.h"

namespace KW {
namespace Solace {
namespace Impl {

class Session;

// One session's binding to a durable queue through a library flow. Messages
// are acknowledged by the client, one by one, whatever the flow's qos.
class Flow : public std::enable_shared_from_this<Flow> {
  public:
    enum State : int { CREATED = 0, UP = 1, DOWN = 2, INACTIVE = 3, ACTIVE = 4, FAILED = 5 };

    Flow(Session& session, KW::QOS::Enum qos, std::string const& name,
         std::shared_ptr<KW::MessageHandler> handler);
    // Stop is what destroys the library flow; the handle's owner frees it
    // here only if no stop or session teardown did.
    ~Flow();

    Flow(Flow const&) = delete;
    Flow& operator=(Flow const&) = delete;

    bool start(std::shared_ptr<KW::Reference>& reference);
    // A flow dropped with an earlier connection has only its handle left to free.
    bool stop(std::shared_ptr<KW::Reference>& reference);
    // A new flow for the same queue, qos and handler, standing for this one
    // (dropped with its connection, see Session::reestablish) until it is bound.
    std::shared_ptr<Flow> renew() const;
    // Binds a renewed flow. False when the library refused: its record, for
    // the caller to tell.
    bool rebind(solClient_errorInfo*& refusal);
    // Destroys the library flow, if any, without telling anybody; used when
    // the whole session goes.
    void destroyHandle();
    // Acknowledges one received message. A flow already stopped has nothing
    // left to acknowledge on; a refused acknowledgement is not reported (the
    // broker redelivers the message).
    void acknowledge(unsigned long long messageID);

    int getState() const { return state; }
    int getLastSubCode() const { return lastSubCode; }
    // The connection the library bound it in; 0: not bound.
    unsigned long getAppliedIn() const { return appliedIn; }
    solClient_opaqueFlow_pt getHandle() const { return handle.get(); }
    Session& getSession() const { return session; }
    std::string const& getName() const { return name; }
    KW::QOS::Enum getQOS() const { return qos; }
    std::shared_ptr<KW::MessageHandler> const& getHandler() const { return handler; }
    // The completion of the subscribe that started it: a queue subscribe is answered only when it
    // fails, and that may be on a later connect, when binding it again is refused.
    std::shared_ptr<KW::Reference> const& getSubscribed() const { return subscribed; }

    void handleEvent(solClient_flow_eventCallbackInfo* info);

    static void queueEventCallback(void* flow, solClient_flow_eventCallbackInfo* info, void* user);
    static solClient_rxMsgCallback_returnCode_t queueReceiveCallback(void* flow, void* msg,
                                                                     void* user);

  private:
    // Records a failed library call: state FAILED and its sub-code.
    solClient_errorInfo* recordFailure();
    // Creates the library flow and starts it. On failure, the library's
    // record and whether the flow was created (its start failed).
    bool open(solClient_errorInfo*& failure, bool& created);

    // The owner. A flow outliving the session's end is held only by its
    // messages, which hold the session object too.
    Session& session;
    std::string name;
    KW::QOS::Enum qos;
    std::shared_ptr<KW::MessageHandler> handler;
    std::shared_ptr<KW::Reference> subscribed;  // subscribe worker; published by appliedIn
    // Set on the subscribe worker, read by acknowledging threads.
    FlowHandle handle;
    // Held while acknowledging and while destroying the library flow, so that
    // an acknowledgement (on the script's thread) never reaches a destroyed
    // flow (stopped on the subscribe worker, or ended with its session).
    std::mutex handleMutex;
    std::atomic<int> state;
    std::atomic<int> lastSubCode;
    std::atomic<unsigned long> appliedIn{0};
    // Set once an unsubscribe stops it: what the library still hands over is not delivered.
    std::atomic<bool> stopping{false};
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
