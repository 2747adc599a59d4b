#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "HandleTable.h"
#include "SessionProperties.h"
#include "solclient/SolClientABI.h"
#include "TopicMatcher.h"

namespace SolEmu {

class Broker;
class Context;
class Flow;
class FlowProperties;
class Message;
class MessageVpn;

// A client session: its connection to one broker VPN, its topic
// subscriptions, its flows and its guaranteed sends awaiting an answer. Every
// callback runs on the context thread; everything that posts a callback does
// so under the lock that destroy() takes, so none runs after destroy().
class Session : public std::enable_shared_from_this<Session> {
  public:
    // The largest binary attachment a send accepts.
    static constexpr uint32_t MAX_MESSAGE_SIZE = 30u * 1024u * 1024u;
    // Direct messages to this topic take the broker down for N ms (payload).
    static constexpr char const* DROP_TOPIC = "#emulator/drop";
    // Direct messages to this topic make the broker end every session on it
    // outright (DOWN_ERROR).
    static constexpr char const* DOWN_TOPIC = "#emulator/down";

    Session(std::shared_ptr<Context> context, SessionProperties properties,
            solClient_session_createFuncInfo_t const& funcs);
    ~Session();

    void* handle() const { return opaque; }
    std::shared_ptr<Context> const& context() const { return eventContext; }

    // Calls blocked in any session now, and sends that have waited for room in
    // a full publish window so far (for tests that want to know they hit it).
    static long blockedNow() { return _blocked.load(); }
    static long windowWaits() { return _windowWaits.load(); }
    // Guaranteed sends whose lent attachment changed before their answer reached the application.
    static long changedAttachments() { return _changedAttachments.load(); }

    solClient_returnCode_t connect();
    solClient_returnCode_t disconnect();
    solClient_returnCode_t send(Message const& message);
    solClient_returnCode_t changeSubscription(
        bool add, solClient_subscribeFlags_t flags, char const* topic,
        solClient_session_rxMsgDispatchFuncInfo_t const* dispatch, void* correlationTag);
    solClient_returnCode_t createFlow(
        FlowProperties const& properties, solClient_flow_createFuncInfo_t const& funcs,
        std::shared_ptr<Flow>& flow,
        std::function<void(std::shared_ptr<Flow> const&)> const& known);
    // Forget a flow that flow_destroy has destroyed.
    void forgetFlow(Flow const* flow);
    // Stop everything and discard queued callbacks; the flows it had are
    // returned (already destroyed) so that their handles can be dropped.
    std::vector<std::shared_ptr<Flow>> destroy();

    // Broker side.
    // last: the publisher's final call; its final delivery takes `message`
    // over, so that the payload need not be copied for it (see deliveryCopy).
    void deliverDirect(std::string const& topic, std::shared_ptr<const Message>& message,
                       bool last);
    void brokerWentDown();
    void brokerCameUp();
    void releaseWithheld();
    // The broker ends the session outright: DOWN_ERROR, no reconnecting.
    void endedByBroker();
    std::string const& hostPort() const { return properties.hostPort; }

  private:
    enum State : int { IDLE, CONNECTING, UP, RECONNECTING, DOWN, DESTROYED };
    struct Subscription {
        TopicMatcher matcher;
        solClient_session_rxMsgCallbackFunc_t callback;
        void* user;
    };
    // The outcome a blocking call waits for; completed on the context thread
    // (the broker's answer processed) or by the session going away.
    struct Answer {
        bool done = false;
        solClient_returnCode_t rc = SOLCLIENT_OK;
        int subCode = 0;
        std::string text;
    };
    using TimePoint = std::chrono::steady_clock::time_point;
    struct Settled {
        solClient_session_event_t event;
        unsigned responseCode;
        char const* info;
        std::shared_ptr<const Message> sent;  // held to check its lent bytes at the answer
    };
    using Frame = std::vector<Settled>;
    struct PendingSend {
        std::shared_ptr<const Message> message;
        bool spooled;  // the broker has it; a retransmission is only acknowledged
    };

    // Takes a settled send out of `pending`, keeping its node for a later send.
    void retireLocked(std::list<PendingSend>::iterator entry);
    void attempt(uint64_t epoch);
    void scheduleConnectTimeout(uint64_t epoch);
    void connectTimedOut(uint64_t epoch);
    void reconnectTick(uint64_t epoch);
    void scheduleReconnectLocked();
    void failConnectLocked(int subCode, unsigned responseCode, std::string const& text);
    void goUpLocked(bool reconnected);
    void goDownLocked(std::string const& reason);
    // Posts the completion of `answer` to the context thread and waits for
    // it (mutex held by `lock`); a time-out fails with TIMEOUT.
    solClient_returnCode_t awaitAnswer(std::unique_lock<std::mutex>& lock, void const* subOwner,
                                       std::shared_ptr<Answer> const& answer, long long timeoutMs,
                                       std::string const& what);
    // Wakes every caller waiting for an answer with FAIL.
    void failWaitersLocked(int subCode, std::string const& text);
    // Blocks while the session (re)connects: OK once it is up.
    solClient_returnCode_t awaitUpLocked(std::unique_lock<std::mutex>& lock, TimePoint deadline,
                                         char const* what);
    // A send that finds the session connecting waits for it only off the
    // context thread and with SEND_BLOCKING on; otherwise it is refused:
    // CANNOT_BLOCK_IN_CONTEXT, or WOULD_BLOCK with a CAN_SEND owed.
    bool sendMayWaitForUp() const;
    solClient_returnCode_t refuseSendWhileConnectingLocked();
    // The guaranteed publish window: FAIL, WOULD_BLOCK or OK once it has room.
    solClient_returnCode_t awaitWindowLocked(std::unique_lock<std::mutex>& lock,
                                             TimePoint deadline);
    size_t unackedLocked() const { return pending.size() + answersInFlight; }
    // The context thread has processed a frame of `count` answers: their window slots are free.
    void freeWindowSlots(size_t count);
    // `info` is a literal. Answers posted back to back travel as one frame, as
    // a broker acknowledges several sends at once.
    void postSettled(solClient_session_event_t event, unsigned responseCode, char const* info,
                     std::shared_ptr<const Message> const& sent, bool* wakeLater);
    void detachLocked(bool clearSubscriptions);
    // With `wakeLater`, see Context::post.
    void transmitLocked(std::list<PendingSend>::iterator entry, bool* wakeLater = nullptr);
    void postEvent(solClient_session_event_t event, unsigned responseCode, std::string info,
                   void* correlation = nullptr);
    std::string loginRefusal() const;

    // Counts a blocked call for as long as it lives.
    struct Blocked {
        Blocked() { ++_blocked; }
        ~Blocked() { --_blocked; }
        Blocked(Blocked const&) = delete;
        Blocked& operator=(Blocked const&) = delete;
    };
    static std::atomic<long> _blocked;
    static std::atomic<long> _windowWaits;
    static std::atomic<long> _changedAttachments;

    const std::shared_ptr<Context> eventContext;
    const SessionProperties properties;
    const solClient_session_createFuncInfo_t funcs;
    void* const opaque = freshHandle();
    const std::shared_ptr<Broker> broker;
    const std::shared_ptr<MessageVpn> vpn;

    std::mutex mutex;
    std::condition_variable stateChanged;
    std::atomic<State> state{State::IDLE};
    uint64_t epoch = 0;  // bumped on every connection change; stale timers see it
    long long attempts = 0;
    int lastSubCode = 0;
    std::string lastError;
    std::map<Flow const*, std::shared_ptr<Flow>> flows;
    std::list<PendingSend> pending;
    // Nodes of settled sends, spliced back into `pending` by later sends: a send
    // answered at once takes no list allocation.
    std::list<PendingSend> spareSends;
    // Acknowledgements posted, not yet processed; freed by the context thread without the lock.
    std::atomic<size_t> answersInFlight{0};
    // The last frame of answers posted, and its post; later answers join it
    // while it is the context's last post.
    std::shared_ptr<Frame> openFrame;
    uint64_t openFramePost = 0;
    std::atomic<int> windowWaiters{0};     // sends waiting for room in the publish window
    std::atomic<bool> canSendOwed{false};  // a WOULD_BLOCK was returned; CAN_SEND follows
    std::vector<std::shared_ptr<Answer>> waiting;

    mutable std::shared_mutex subscriptionsMutex;
    std::vector<Subscription> subscriptions;
    bool receiving = false;
};

}  // namespace SolEmu
