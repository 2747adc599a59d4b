#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "core/QOS.h"
#include "core/Reference.h"
#include "core/Worker.h"
#include "solclient/SolClientABI.h"
#include "solace/impl/Connection.h"
#include "solace/impl/VendorHandle.h"

namespace KW {

class EventHandler;
class MessageHandler;

namespace Solace {

class SolaceAPI;

namespace Impl {

class Client;
class Context;
class Flow;
class ForwardTask;
class MessageTask;
class PublishTask;
class ReceiveTask;
class SubscribeTask;
class Subscription;

// One vendor session: one broker connection for one destination id. It
// hands out at most one live client at a time, receives the session events
// on the library's context thread, and runs four worker pools that take
// receiving, publishing, forwarding and (un)subscribing off the calling
// threads. Publish, forward and subscribe work only flows while the session
// is up; what is queued before waits.
//
// Shared: its context owns it until it ends, and every message task holds it,
// so that a message a script keeps after its client has gone still finds the
// (ended) session rather than freed memory. The release of its client ends it
// unless it is connected or connecting (a first attempt included).
class Session : public std::enable_shared_from_this<Session> {
  public:
    using ReceiveWorker = KW::Worker<std::shared_ptr<ReceiveTask>, Session, true>;
    using PublishWorker = KW::Worker<std::shared_ptr<PublishTask>, Session, false>;
    using ForwardWorker = KW::Worker<std::shared_ptr<ForwardTask>, Session, false>;
    using SubscribeWorker = KW::Worker<std::shared_ptr<SubscribeTask>, Session, false>;

    Session(std::string const& destination,
            std::map<std::string, std::string> const& connectionData,
            std::shared_ptr<KW::EventHandler> handler, Context& context);
    ~Session();

    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    // ---- lifecycle ----
    bool connect(unsigned long timeoutMs);
    void disconnect(unsigned long timeoutMs);
    int getConnectionState() const { return connection.getState(); }
    solClient_opaqueSession_pt getHandle() const { return handle.get(); }
    SolaceAPI const& getAPI() const { return api; }
    Connection const& getConnection() const { return connection; }
    std::shared_ptr<Client> createClient();
    // Throws ClientTerminatedException once the client has been released.
    std::shared_ptr<Client> getClient() const;
    // Ends and drops the session now, on the calling thread; refused while its client lives.
    void terminate();
    // Called by the client's destructor, on whatever thread let go of it last
    // (the library's context thread included): hands the end of a session
    // that is not connected or connecting to the context.
    void clientReleased();
    // Disconnects and destroys the vendor session, stops the workers, fails
    // every unanswered send and lets go of the event handler. Runs once; never
    // on the library's context thread nor on one of this session's workers.
    void end();

    static void sessionEventCallback(void* opaqueSession, solClient_session_eventCallbackInfo* info,
                                     void* user);
    static solClient_rxMsgCallback_returnCode_t messageReceiveCallback(void* opaqueSession,
                                                                       void* message, void* user);
    void handleEvent(solClient_session_eventCallbackInfo* info);

    void notifyHandlerOfConnectState();
    void notifyHandlerOfRuntimeError(char const* text);
    void notifyHandlerOfRuntimeError(solClient_errorInfo* info);

    // ---- sending ----
    bool enqueue(std::shared_ptr<PublishTask> task);
    bool enqueue(std::shared_ptr<ForwardTask> task);
    // True when the library took the message; the outcome is reported either way.
    bool process(std::shared_ptr<PublishTask> task);
    bool process(std::shared_ptr<ForwardTask> task);
    // A send on the caller's thread, handed to the worker while the session (re)connects.
    bool send(std::shared_ptr<PublishTask> task);
    bool send(std::shared_ptr<ForwardTask> task);
    bool sendMessageAtMostOnce(std::shared_ptr<MessageTask> task);
    bool sendMessageGuaranteed(std::shared_ptr<MessageTask> task);
    void notifyHandlerOfSendFinalize(std::shared_ptr<MessageTask>& task);
    void notifyHandlerOfSendRejected(std::shared_ptr<MessageTask>& task, char const* text);
    void notifyHandlerOfSendError(std::shared_ptr<MessageTask>& task, char const* text);
    std::size_t getPendingCount();

    // ---- subscriptions and receiving ----
    bool subscribeTopic(std::shared_ptr<KW::MessageHandler> handler, std::string const& topic,
                        std::shared_ptr<KW::Reference> reference);
    bool unsubscribeTopic(std::string const& topic, std::shared_ptr<KW::Reference> reference);
    bool unsubscribeTopics(std::shared_ptr<KW::MessageHandler> handler,
                           std::shared_ptr<KW::Reference> reference);
    bool unsubscribeTopics(std::shared_ptr<KW::Reference> reference);
    bool subscribeQueue(std::shared_ptr<KW::MessageHandler> handler, std::string const& queue,
                        KW::QOS::Enum qos, std::shared_ptr<KW::Reference> reference);
    bool unsubscribeQueue(std::string const& queue, std::shared_ptr<KW::Reference> reference);
    bool unsubscribeQueues(std::shared_ptr<KW::MessageHandler> handler,
                           std::shared_ptr<KW::Reference> reference);
    bool unsubscribeQueues(std::shared_ptr<KW::Reference> reference);

    void process(std::shared_ptr<SubscribeTask> task);
    bool enqueue(std::shared_ptr<ReceiveTask> task);
    void process(std::vector<std::shared_ptr<ReceiveTask>>& batch);
    void process(std::shared_ptr<ReceiveTask> task);

    void notifyHandlerOfTopicSubscribe(std::string const& topic,
                                       std::shared_ptr<KW::Reference> const& reference,
                                       solClient_errorInfo* info);
    void notifyHandlerOfTopicUnsubscribe(std::string const& topic,
                                         std::shared_ptr<KW::Reference> const& reference,
                                         solClient_errorInfo* info);
    void notifyHandlerOfQueueSubscribe(std::string const& queue, KW::QOS::Enum qos,
                                       std::shared_ptr<KW::Reference> const& reference,
                                       solClient_errorInfo* info);
    void notifyHandlerOfQueueUnsubscribe(std::string const& queue, KW::QOS::Enum qos,
                                         std::shared_ptr<KW::Reference> const& reference,
                                         solClient_errorInfo* info);

    // Inspection, for diagnostics and tests: null when not present.
    Subscription* findSubscription(std::string const& topic);
    Flow* findFlow(std::string const& queue);

    // ---- subscriptions across connections ----
    // The library connection this session is on, counted from 1: an explicit
    // disconnect or a final down starts a new one, since the library (the
    // stand-in at least) drops a session's subscriptions and flows with it.
    unsigned long getConnectionEpoch() const { return connectionEpoch.load(); }
    // Taken by the library in an earlier connection than the current one
    // (0: never taken).
    bool droppedSince(unsigned long appliedIn) const;
    // Holds a flow whose library flow refused to be destroyed: the library may still call it
    // back, until the session's own destroy takes its flows.
    void keepUndestroyed(std::shared_ptr<Flow> flow);
    // A call begun in this connection that failed with this sub-code failed
    // because the connection went, not because the library refused it.
    bool lostSince(unsigned long epoch, int subCode) const;
    // On the subscribe worker, after a new connection is up: subscribes and
    // binds again, in map order, what the library dropped with an earlier one.
    void reestablish();

  private:
    template <typename Worker>
    bool sendLater(Worker& worker, MessageTask const& task);
    void stopSendingWorkers(unsigned long timeoutMs);
    void startSendingWorkers();
    // They run from each up until a disconnect or a final down.
    bool sendingWorkersStarted();
    void awaitWindowRoom();
    void settlePending(solClient_session_eventCallbackInfo* info, char const* rejectedText);
    void failUnsent(char const* text);
    // The hot end of the receive path: one message to its handler.
    void deliver(std::shared_ptr<ReceiveTask> const& task);
    void notifyHandlerOfSubscription(bool create, std::string const& name, KW::QOS::Enum qos,
                                     std::shared_ptr<KW::Reference> const& reference,
                                     solClient_errorInfo* info);

    SolaceAPI const& api;
    Context& context;
    Connection connection;
    SessionHandle handle;
    std::weak_ptr<Client> client;
    std::shared_ptr<KW::EventHandler> eventHandler;

    std::mutex subscriptionsMutex;
    std::map<std::string, std::unique_ptr<Subscription>> subscriptions;
    std::map<std::string, std::shared_ptr<Flow>> flows;
    std::vector<std::shared_ptr<Flow>> undestroyedFlows;
    // Topics the broker refused when a connect applied them again: gone from the map, so that
    // subscribing again is no duplicate, yet an unsubscribe of one is still answered.
    std::set<std::string> refusedTopics;

    std::map<unsigned long long, std::shared_ptr<MessageTask>> pending;
    std::mutex pendingMutex;
    // Guarded by pendingMutex: emptied nodes of settled sends, reused by later
    // inserts (the map and its order are unchanged; only its allocations go).
    std::vector<decltype(pending)::node_type> spareNodes;
    // pending.size(), set under pendingMutex and read without it: every send on
    // the caller's thread asks it, and a snapshot is all a caller gets either way.
    std::atomic<std::size_t> pendingSize{0};
    // Guarded by pendingMutex: workers waiting in awaitWindowRoom.
    std::condition_variable windowRoom;
    int windowWaiters = 0;

    ReceiveWorker receiveWorker;
    PublishWorker publishWorker;
    ForwardWorker forwardWorker;
    SubscribeWorker subscribeWorker;

    std::once_flag endOnce;
    std::atomic<bool> ended{false};
    // Orders the end against an up event on the context thread: once ended,
    // no event starts a worker again.
    std::mutex lifecycleMutex;
    // connect() was called and neither disconnect() nor a final failure
    // followed: a first attempt still reads disconnected, yet is connecting.
    std::atomic<bool> connectRequested{false};
    // The library disconnected at the script's request and no connect() followed: a reconnect
    // notice already on its way to the context thread is stale.
    std::atomic<bool> disconnected{false};
    // See getConnectionEpoch.
    std::atomic<unsigned long> connectionEpoch{1};
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
