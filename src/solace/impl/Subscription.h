#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "core/MessageHandler.h"
#include "core/Reference.h"
#include "solclient/SolClientABI.h"

namespace KW {
namespace Solace {
namespace Impl {

class Session;

// One topic subscription of a session with its own dispatch callback. The
// library may call that callback after the subscription has been stopped or
// even destroyed, so every callback first checks a process-wide registry of
// the subscriptions that may receive, under one lock.
class Subscription {
  public:
    enum State : int { CREATED = 0, UNSUBSCRIBED = 1, SUBSCRIBED = 2, REFUSED = 3, FAILED = 4 };

    Subscription(Session& session, std::string const& topic,
                 std::shared_ptr<KW::MessageHandler> handler);
    ~Subscription();

    Subscription(Subscription const&) = delete;
    Subscription& operator=(Subscription const&) = delete;

    bool start(std::shared_ptr<KW::Reference>& reference);
    bool stop(std::shared_ptr<KW::Reference>& reference);
    // Subscribes again after the library dropped it with its connection (see
    // Session::reestablish). False when the library refused: its record, for
    // the caller to tell.
    bool resubscribe(solClient_errorInfo*& refusal);

    static solClient_rxMsgCallback_returnCode_t messageReceiveCallback(void* session, void* msg,
                                                                       void* user);

    Session& getSession() const { return session; }
    std::string const& getTopic() const { return topic; }
    std::shared_ptr<KW::MessageHandler> const& getHandler() const { return handler; }
    int getState() const { return state; }
    int getLastSubCode() const { return lastSubCode; }
    // The connection the library took it in; 0: not taken.
    unsigned long getAppliedIn() const { return appliedIn; }

    static std::set<Subscription*>& messageReceiveCallbackFilter;
    static std::mutex messageReceiveCallbackLock;

  private:
    Session& session;
    std::string topic;
    std::shared_ptr<KW::MessageHandler> handler;
    solClient_session_rxMsgDispatchFuncInfo_t dispatch;
    // Written on the subscribe worker, read anywhere.
    std::atomic<int> state;
    std::atomic<int> lastSubCode;
    std::atomic<unsigned long> appliedIn{0};

    // Taken by the library in the given connection: its callback may receive.
    void subscribed(unsigned long epoch);
    // The library call; on failure, the library's record.
    bool apply(unsigned long epoch, solClient_errorInfo*& failure);
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
