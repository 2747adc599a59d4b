#include "solace/impl/Session.h"

#include <exception>
#include <type_traits>

#include "core/DataPacket.h"
#include "core/DroppedFailures.h"
#include "core/EventHandler.h"
#include "core/MessageHandler.h"
#include "solace/ClientTerminatedException.h"
#include "solace/LibraryException.h"
#include "solace/RuntimeException.h"
#include "solace/SolaceAPI.h"
#include "solace/impl/Client.h"
#include "solace/impl/Context.h"
#include "solace/impl/Flow.h"
#include "solace/impl/ForwardTask.h"
#include "solace/impl/PublishTask.h"
#include "solace/impl/ReestablishTask.h"
#include "solace/impl/QueueSubscribeTask.h"
#include "solace/impl/ReceiveTask.h"
#include "solace/impl/Subscription.h"
#include "solace/impl/TopicSubscribeTask.h"

namespace KW {
namespace Solace {
namespace Impl {

namespace {

char const* const CIPHER_SUITES =
    "TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384,TLS_ECDHE_RSA_WITH_AES_256_CBC_SHA384,"
    "TLS_ECDHE_RSA_WITH_AES_256_CBC_SHA,TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256,"
    "TLS_ECDHE_RSA_WITH_AES_128_CBC_SHA256,TLS_ECDHE_RSA_WITH_AES_128_CBC_SHA,"
    "TLS_RSA_WITH_AES_256_GCM_SHA384,TLS_RSA_WITH_AES_256_CBC_SHA256,"
    "TLS_RSA_WITH_AES_256_CBC_SHA,TLS_RSA_WITH_AES_128_GCM_SHA256,"
    "TLS_RSA_WITH_AES_128_CBC_SHA256,TLS_RSA_WITH_AES_128_CBC_SHA";

// The most a solClient attachment can hold (its size is 32 bits).
constexpr unsigned long MAX_ATTACHMENT = 0xFFFFFFFFul;

// The library's publish window: the vendor's default of 50, which the property list leaves.
constexpr std::size_t PUBLISH_WINDOW = 50;
// Emptied pending-map nodes kept for reuse: a window's worth and some.
constexpr std::size_t SPARE_NODES = 2 * PUBLISH_WINDOW;

}  // namespace

Session::Session(std::string const& destination,
                 std::map<std::string, std::string> const& connectionData,
                 std::shared_ptr<KW::EventHandler> handler, Context& context)
    : api(context.getAPI()),
      context(context),
      connection(destination, connectionData),
      handle(api),
      eventHandler(std::move(handler)) {
    receiveWorker.threadName = "kw-receive";
    publishWorker.threadName = "kw-publish";
    forwardWorker.threadName = "kw-forward";
    subscribeWorker.threadName = "kw-subscribe";
    receiveWorker.batchSize = 50;
    // Each delivery waits on this pool's wake-up; the others' work is not waited on.
    receiveWorker.shortSlice = true;
    receiveWorker.maxQueueSize = 512;
    receiveWorker.jobThresholds = {0, 200};
    publishWorker.maxQueueSize = 256;
    publishWorker.jobThresholds = {0, 100};
    forwardWorker.maxQueueSize = 256;
    forwardWorker.jobThresholds = {0, 100};
    subscribeWorker.jobThresholds = {0};
    receiveWorker.pushTimeoutMs = receiveWorker.idleTimeoutMs = 100;
    publishWorker.pushTimeoutMs = publishWorker.idleTimeoutMs = 100;
    forwardWorker.pushTimeoutMs = forwardWorker.idleTimeoutMs = 100;
    subscribeWorker.pushTimeoutMs = subscribeWorker.idleTimeoutMs = 100;
    receiveWorker.setProcessor(this, 0);

    bool const ssl = connection.getProtocol() == "tcps";
    std::vector<char const*> properties = {
        SOLCLIENT_SESSION_PROP_HOST,     connection.getUrl().c_str(),
        SOLCLIENT_SESSION_PROP_VPN_NAME, connection.getVpn().c_str(),
        SOLCLIENT_SESSION_PROP_USERNAME, connection.getUser().c_str(),
        SOLCLIENT_SESSION_PROP_PASSWORD, connection.getPassword().c_str()};
    if (ssl) {
        properties.insert(
            properties.end(),
            {SOLCLIENT_SESSION_PROP_SSL_CIPHER_SUITES, CIPHER_SUITES,
             SOLCLIENT_SESSION_PROP_SSL_EXCLUDED_PROTOCOLS, "SSLv3",
             SOLCLIENT_SESSION_PROP_SSL_VALIDATE_CERTIFICATE, "1",
             SOLCLIENT_SESSION_PROP_SSL_VALIDATE_CERTIFICATE_DATE, "1",
             SOLCLIENT_SESSION_PROP_SSL_TRUST_STORE_DIR, connection.getTrustStore().c_str()});
    } else {
        properties.insert(properties.end(), {SOLCLIENT_SESSION_PROP_SSL_VALIDATE_CERTIFICATE, "0"});
    }
    // Never block on connect, retry for ever, re-apply subscriptions after a
    // reconnect, and dispatch received messages per subscription.
    properties.insert(properties.end(), {SOLCLIENT_SESSION_PROP_CONNECT_BLOCKING,
                                         "0",
                                         SOLCLIENT_SESSION_PROP_CONNECT_RETRIES,
                                         "-1",
                                         SOLCLIENT_SESSION_PROP_CONNECT_TIMEOUT_MS,
                                         "10000",
                                         SOLCLIENT_SESSION_PROP_RECONNECT_RETRIES,
                                         "-1",
                                         SOLCLIENT_SESSION_PROP_RECONNECT_RETRY_WAIT_MS,
                                         "1000",
                                         SOLCLIENT_SESSION_PROP_SOCKET_SEND_BUF_SIZE,
                                         "10000000",
                                         SOLCLIENT_SESSION_PROP_SOCKET_RCV_BUF_SIZE,
                                         "10000000",
                                         SOLCLIENT_SESSION_PROP_TOPIC_DISPATCH,
                                         "1",
                                         SOLCLIENT_SESSION_PROP_REAPPLY_SUBSCRIPTIONS,
                                         "1",
                                         SOLCLIENT_SESSION_PROP_SUBSCRIBE_BLOCKING,
                                         "0",
                                         SOLCLIENT_SESSION_PROP_IGNORE_DUP_SUBSCRIPTION_ERROR,
                                         "0",
                                         nullptr});

    solClient_session_createFuncInfo_t funcInfo{};
    funcInfo.rxInfo.callback_p = nullptr;
    funcInfo.rxInfo.user_p = nullptr;
    funcInfo.eventInfo.callback_p = &Session::sessionEventCallback;
    funcInfo.eventInfo.user_p = this;
    funcInfo.rxMsgInfo.callback_p = &Session::messageReceiveCallback;
    funcInfo.rxMsgInfo.user_p = this;

    solClient_opaqueSession_pt created = nullptr;
    if (api.sessionCreate(properties.data(), context.getHandle(), &created, &funcInfo,
                          sizeof(funcInfo)) != SOLCLIENT_OK) {
        throw LibraryException(api.getLastErrorInfo(), LibraryException::DEFAULT_TEXT);
    }
    handle.adopt(created);
}

void Session::stopSendingWorkers(unsigned long timeoutMs) {
    // Not joined: a worker may be in a blocking library call that only the
    // context thread (or the disconnect that follows) can end.
    subscribeWorker.releaseProcessor(timeoutMs);
    publishWorker.releaseProcessor(timeoutMs);
    forwardWorker.releaseProcessor(timeoutMs);
}

bool Session::sendingWorkersStarted() {
    std::lock_guard<std::mutex> lock(publishWorker.queueMutex);
    return publishWorker.processor != nullptr;
}

void Session::startSendingWorkers() {
    // An ending session has let go of its subscriptions: no worker may run them.
    std::lock_guard<std::mutex> lock(lifecycleMutex);
    if (!ended.load()) {
        subscribeWorker.setProcessor(this, 0);
        publishWorker.setProcessor(this, 0);
        forwardWorker.setProcessor(this, 0);
    }
}

namespace {

// Takes what waits in a stopped worker's queue; the caller lets go of it
// outside the queue's lock.
template <typename Worker>
auto takeQueued(Worker& worker) {
    decltype(worker.queue) taken;
    std::lock_guard<std::mutex> lock(worker.queueMutex);
    taken.swap(worker.queue);
    worker.queuedHint.store(0, std::memory_order_release);
    return taken;
}

}  // namespace

Session::~Session() {
    // Ended already, unless it never made it into its context.
    end();
}

void Session::end() {
    std::call_once(endOnce, [this] {
        {
            std::lock_guard<std::mutex> lock(lifecycleMutex);
            ended.store(true);
        }
        auto stopWorkers = [this] {
            subscribeWorker.setProcessor(nullptr, 0);
            forwardWorker.setProcessor(nullptr, 0);
            publishWorker.setProcessor(nullptr, 0);
            receiveWorker.setProcessor(nullptr, 0);
        };
        // Not joined until disconnected: the disconnect wakes workers blocked in library calls.
        subscribeWorker.releaseProcessor(0);
        forwardWorker.releaseProcessor(0);
        publishWorker.releaseProcessor(0);
        receiveWorker.releaseProcessor(0);
        int const state = connection.getState();
        if ((state == Connection::CONNECTED || state == Connection::CONNECTING) &&
            api.sessionDisconnect(handle.get()) != SOLCLIENT_OK) {
            KW::DroppedFailures::record("solClient_session_disconnect",
                                        "while destroying the session");
        }
        subscribeWorker.awaitDetachedJobs();
        forwardWorker.awaitDetachedJobs();
        publishWorker.awaitDetachedJobs();
        receiveWorker.awaitDetachedJobs();
        stopWorkers();
        {
            std::lock_guard<std::mutex> lock(subscriptionsMutex);
            subscriptions.clear();
            // The library would go on calling a live flow's callbacks until its
            // flow is destroyed, so do that before the Flow object goes.
            for (auto& entry : flows) {
                entry.second->destroyHandle();
            }
            flows.clear();
        }
        {
            // A queue subscribe or unsubscribe still queued holds a flow that is in
            // no map; its library flow dies with the session, so free it before.
            // The tasks go too: they hold this session, or a script's function.
            auto queued = takeQueued(subscribeWorker);
            for (; !queued.empty(); queued.pop()) {
                if (auto* task = dynamic_cast<QueueSubscribeTask*>(queued.front().get())) {
                    if (Flow* flow = task->getFlow()) {
                        flow->destroyHandle();
                    }
                }
            }
        }
        handle.reset();
        {
            std::lock_guard<std::mutex> lock(subscriptionsMutex);
            undestroyedFlows.clear();
        }
        stopWorkers();
        // No answer can come any more: every send still open ends here, so that
        // no request is left unanswered and no library message is left behind.
        failUnsent("session terminated before the message was sent");
        // Messages keep this object beyond its end: what still waits (and holds
        // it) goes now, as does the script's event function.
        takeQueued(receiveWorker);
        eventHandler.reset();
    });
}

void Session::failUnsent(char const* text) {
    std::map<unsigned long long, std::shared_ptr<MessageTask>> open;
    {
        std::lock_guard<std::mutex> lock(pendingMutex);
        open.swap(pending);
        pendingSize.store(0, std::memory_order_release);
    }
    for (auto& entry : open) {
        entry.second->releaseMessageHandle();
        notifyHandlerOfSendError(entry.second, text);
    }
    // Sends that never left their queue; the workers are stopped by now.
    auto fail = [this, text](auto unsent) {
        for (; !unsent.empty(); unsent.pop()) {
            std::shared_ptr<MessageTask> task = unsent.front();
            notifyHandlerOfSendError(task, text);
        }
    };
    fail(takeQueued(publishWorker));
    fail(takeQueued(forwardWorker));
}

bool Session::connect(unsigned long timeoutMs) {
    if (connection.getState() == Connection::CONNECTED) {
        return true;
    }
    connectRequested.store(true);
    disconnected.store(false);
    if (api.sessionConnect(handle.get()) == SOLCLIENT_FAIL) {
        connectRequested.store(false);
        throw LibraryException(api.getLastErrorInfo(), LibraryException::DEFAULT_TEXT);
    }
    if (timeoutMs == 0) {
        return true;
    }
    return connection.waitConnected(timeoutMs);
}

void Session::disconnect(unsigned long timeoutMs) {
    bool const requested = connectRequested.exchange(false);
    bool const working = sendingWorkersStarted();
    // Not joined: the JavaScript thread never waits for a blocked worker.
    stopSendingWorkers(timeoutMs);
    // A first attempt reads disconnected, yet the library would still bring the session up.
    if (requested || connection.getState() != Connection::DISCONNECTED) {
        // A new connection both before and after the call: a subscribe under way that fails
        // with this disconnect sees its connection gone, and one the library took just before
        // it counts as dropped with it.
        unsigned long during = ++connectionEpoch;
        disconnected.store(true);  // before the call: a notice may come while it runs
        if (api.sessionDisconnect(handle.get()) != SOLCLIENT_OK) {
            LibraryException refused(api.getLastErrorInfo(), LibraryException::DEFAULT_TEXT);
            // Refused, the connection stays, and with it its subscriptions, flows and workers.
            connectionEpoch.compare_exchange_strong(during, during - 1);
            disconnected.store(false);
            connectRequested.store(requested);
            if (working) {
                startSendingWorkers();
            }
            throw refused;
        }
        ++connectionEpoch;
        // An attempt that ends before it comes up leaves the state as the script has seen it.
        if (connection.getState() != Connection::DISCONNECTED) {
            connection.setDisconnected();
            notifyHandlerOfConnectState();
        }
    }
}

std::shared_ptr<Client> Session::createClient() {
    std::shared_ptr<Client> live = client.lock();
    if (live) {
        return live;
    }
    live = std::make_shared<Client>(*this);
    client = live;
    return live;
}

std::shared_ptr<Client> Session::getClient() const {
    std::shared_ptr<Client> live = client.lock();
    if (!live) {
        throw ClientTerminatedException("client terminated, session is going down");
    }
    return live;
}

void Session::terminate() {
    if (client.use_count() != 0) {
        throw RuntimeException("session terminate failure, corresponding client not expired");
    }
    context.deleteSession(this);
}

void Session::clientReleased() {
    // A session whose context went first has nothing left to end. Dropping a
    // client does not disconnect it: a connected or connecting session goes on
    // delivering to its handlers, and only terminate ends it then.
    int const state = connection.getState();
    if (ended.load() || state == Connection::CONNECTED || state == Connection::CONNECTING ||
        connectRequested.load()) {
        return;
    }
    try {
        context.endSession(shared_from_this());
    } catch (...) {
        // Nothing may leave a destructor; the session then stays as it is.
        KW::DroppedFailures::recordCurrent("Session::clientReleased");
    }
}

void Session::sessionEventCallback(void* /*opaqueSession*/,
                                   solClient_session_eventCallbackInfo* info, void* user) {
    Session* session = static_cast<Session*>(user);
    try {
        session->handleEvent(info);
    } catch (std::exception const& e) {
        session->notifyHandlerOfRuntimeError(e.what());
    } catch (...) {
        session->notifyHandlerOfRuntimeError("failed to handle session event");
    }
}

solClient_rxMsgCallback_returnCode_t Session::messageReceiveCallback(void* /*opaqueSession*/,
                                                                     void* /*message*/,
                                                                     void* /*user*/) {
    // Messages arrive through the per-subscription dispatch callbacks only.
    return SOLCLIENT_CALLBACK_OK;
}

void Session::handleEvent(solClient_session_eventCallbackInfo* info) {
    if (info == nullptr) {
        return;
    }
    int const event = static_cast<int>(info->sessionEvent);
    if (disconnected.load() && (event == SOLCLIENT_SESSION_EVENT_UP_NOTICE ||
                                event == SOLCLIENT_SESSION_EVENT_RECONNECTED_NOTICE ||
                                event == SOLCLIENT_SESSION_EVENT_RECONNECTING_NOTICE)) {
        return;  // from before the script's disconnect, which it must not undo
    }
    switch (event) {
        case SOLCLIENT_SESSION_EVENT_UP_NOTICE:
        case SOLCLIENT_SESSION_EVENT_RECONNECTED_NOTICE:
            connection.setConnected();
            {
                std::lock_guard<std::mutex> lock(lifecycleMutex);
                if (!ended.load() && connectionEpoch.load() != 1) {
                    // Something may have been dropped with an earlier connection (the first
                    // is 1). Queued behind what was asked while down, before what comes next.
                    std::shared_ptr<SubscribeTask> task = std::make_shared<ReestablishTask>(*this);
                    subscribeWorker.pushTask(task);
                }
            }
            startSendingWorkers();
            notifyHandlerOfConnectState();
            break;
        case SOLCLIENT_SESSION_EVENT_DOWN_ERROR:
            connectRequested.store(false);
            ++connectionEpoch;  // down for good: the next connect is a new connection
            connection.setDisconnected();
            stopSendingWorkers(0);  // not joined: a worker may be blocked waiting for this thread
            notifyHandlerOfConnectState();
            break;
        case SOLCLIENT_SESSION_EVENT_CONNECT_FAILED_ERROR:
            connectRequested.store(false);
            connection.setFailed();
            notifyHandlerOfConnectState();
            break;
        case SOLCLIENT_SESSION_EVENT_RECONNECTING_NOTICE:
            connection.setConnecting();
            notifyHandlerOfConnectState();
            break;
        case SOLCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR:
            settlePending(info, "Message rejected");
            break;
        case SOLCLIENT_SESSION_EVENT_RX_MSG_TOO_BIG_ERROR:
            settlePending(info, "Message rejected, too big");
            break;
        case SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT:
            settlePending(info, nullptr);
            break;
        default:
            break;
    }
}

void Session::settlePending(solClient_session_eventCallbackInfo* info, char const* rejectedText) {
    auto* sent = static_cast<MessageTask*>(info->correlation_p);
    if (sent == nullptr) {
        return;
    }
    std::shared_ptr<MessageTask> task;
    bool room = false;
    {
        std::lock_guard<std::mutex> lock(pendingMutex);
        auto it = pending.find(sent->getMessageID());
        if (it == pending.end()) {
            return;
        }
        auto node = pending.extract(it);
        task = std::move(node.mapped());
        if (spareNodes.size() < SPARE_NODES) {
            spareNodes.push_back(std::move(node));
        }
        pendingSize.store(pending.size(), std::memory_order_release);
        room = windowWaiters > 0 && pending.size() <= PUBLISH_WINDOW / 2;
    }
    // Woken after the unlock, the waiting send finds the mutex free.
    if (room) {
        windowRoom.notify_all();
    }
    task->releaseMessageHandle();
    if (rejectedText != nullptr) {
        notifyHandlerOfSendRejected(task, rejectedText);
    } else {
        task->acknowledge();
        notifyHandlerOfSendFinalize(task);
    }
}

void Session::notifyHandlerOfConnectState() {
    std::shared_ptr<Client> live = client.lock();
    if (!live || !eventHandler) {
        return;
    }
    try {
        eventHandler->connectionStateChanged(live);
    } catch (...) {
        KW::DroppedFailures::recordCurrent("Session::notifyHandlerOfConnectState");
    }
}

void Session::notifyHandlerOfRuntimeError(char const* text) {
    if (!eventHandler) {
        return;
    }
    try {
        eventHandler->runtimeErrorOccurred(text);
    } catch (...) {
        KW::DroppedFailures::recordCurrent("Session::notifyHandlerOfRuntimeError");
    }
}

void Session::notifyHandlerOfRuntimeError(solClient_errorInfo* info) {
    if (!eventHandler || info == nullptr) {
        return;
    }
    try {
        std::string const text = LibraryException::readRecordText(info);
        eventHandler->runtimeErrorOccurred(text.c_str(), static_cast<int>(info->subCode));
    } catch (...) {
        KW::DroppedFailures::recordCurrent("Session::notifyHandlerOfRuntimeError(errorInfo)");
    }
}

// ---- sending ------------------------------------------------------------------

bool Session::enqueue(std::shared_ptr<PublishTask> task) {
    return publishWorker.pushTask(task);
}

bool Session::enqueue(std::shared_ptr<ForwardTask> task) {
    return forwardWorker.pushTask(task);
}

bool Session::process(std::shared_ptr<PublishTask> task) {
    if (task->getQOS() == KW::QOS::AT_MOST_ONCE) {
        return sendMessageAtMostOnce(std::move(task));
    }
    awaitWindowRoom();
    return sendMessageGuaranteed(std::move(task));
}

bool Session::process(std::shared_ptr<ForwardTask> task) {
    if (task->getQOS() == KW::QOS::AT_MOST_ONCE) {
        return sendMessageAtMostOnce(std::move(task));
    }
    awaitWindowRoom();
    return sendMessageGuaranteed(std::move(task));
}

// A send that would meet a full window waits (at most WINDOW_WAIT_MS, then it sends and the
// library holds it as before) until half the window has drained, so that a worker is woken once
// per half window rather than in the library once per answer; only the timing of the same
// sends, in the same order, changes.
constexpr auto WINDOW_WAIT_MS = std::chrono::milliseconds(10);

void Session::awaitWindowRoom() {
    if (getPendingCount() < PUBLISH_WINDOW) {
        return;
    }
    std::unique_lock<std::mutex> lock(pendingMutex);
    ++windowWaiters;
    windowRoom.wait_for(lock, WINDOW_WAIT_MS,
                        [this] { return pending.size() <= PUBLISH_WINDOW / 2; });
    --windowWaiters;
}

// The library holds a send in sendMsg while the session (re)connects, and a guaranteed one while
// its publish window is full. On the caller's (JavaScript) thread that stalls the event loop until
// the broker is back or answers, so such sends, and those queued behind them, go to the worker
// instead; a worker queue that stays full falls back to sending here.
template <typename Worker>
bool Session::sendLater(Worker& worker, MessageTask const& task) {
    int const state = connection.getState();
    // A first attempt reads disconnected, yet the library holds sends in it just the same.
    if (state == Connection::CONNECTING ||
        (state == Connection::DISCONNECTED && connectRequested.load())) {
        return true;
    }
    return state == Connection::CONNECTED &&
           (worker.hasQueuedTasks() ||
            (task.getQOS() != KW::QOS::AT_MOST_ONCE && getPendingCount() >= PUBLISH_WINDOW));
}

bool Session::send(std::shared_ptr<PublishTask> task) {
    bool const later = sendLater(publishWorker, *task);
    if (later || task->getQOS() != KW::QOS::AT_MOST_ONCE) {
        // The caller's bytes end with this call, but a queued send runs later and the library
        // reads a guaranteed message's attachment until its answer: both take their own copy.
        task->keepBorrowed();
    }
    if (later && enqueue(task)) {
        return true;
    }
    // An at-most-once send reads the bytes in place: sendMsg has taken them when it returns.
    bool const sent = process(task);
    task->dropBorrowed();
    return sent;
}

bool Session::send(std::shared_ptr<ForwardTask> task) {
    if (sendLater(forwardWorker, *task) && enqueue(task)) {
        return true;
    }
    return process(std::move(task));
}

namespace {

void check(SolaceAPI const& api, solClient_returnCode_t rc) {
    if (rc != SOLCLIENT_OK) {
        throw LibraryException(api.getLastErrorInfo(), LibraryException::DEFAULT_TEXT);
    }
}

// Attaches the payload, if any: the caller's borrowed bytes, else the task's
// packet, which stays owned by the task until the message has been sent or settled.
void attachPayload(SolaceAPI const& api, solClient_opaqueMsg_pt msg, MessageTask const& task) {
    unsigned long size = 0;
    void const* data = task.borrowedBytes(size);
    std::shared_ptr<KW::DataPacket> payload;
    if (data == nullptr) {
        payload = task.getPayload();
        if (!payload) {
            return;
        }
        size = payload->size();
        data = payload->data();
    }
    if (size > MAX_ATTACHMENT) {
        throw RuntimeException("Message rejected, too big");
    }
    // The library only reads an attachment; its signature is not const-correct.
    check(api, api.msgSetBinaryAttachmentPtr(msg, const_cast<void*>(data),
                                             static_cast<solClient_uint32_t>(size)));
}

// The task's library message with delivery mode, payload and destination
// (the task's topic text, naming a topic or a queue) set.
solClient_opaqueMsg_pt prepareMessage(SolaceAPI const& api, MessageTask& task,
                                      solClient_uint32_t deliveryMode,
                                      solClient_destinationType_t destinationType) {
    solClient_opaqueMsg_pt msg = task.provideMessageHandle();
    check(api, api.msgSetDeliveryMode(msg, deliveryMode));
    attachPayload(api, msg, task);
    solClient_destination_t destination{};
    destination.destType = destinationType;
    destination.dest = task.getTopic().c_str();
    check(api, api.msgSetDestination(msg, &destination, sizeof(destination)));
    return msg;
}

}  // namespace

bool Session::sendMessageAtMostOnce(std::shared_ptr<MessageTask> task) {
    bool sent = false;
    std::string error;
    try {
        solClient_opaqueMsg_pt msg =
            prepareMessage(api, *task, SOLCLIENT_DELIVERY_MODE_DIRECT, SOLCLIENT_TOPIC_DESTINATION);
        check(api, api.msgSetTopicPtr(msg, task->getTopic().c_str()));
        check(api, api.msgSetSequenceNumber(msg, task->getMessageID()));
        check(api, api.sessionSendMsg(handle.get(), msg));
        task->acknowledge();
        sent = true;
    } catch (std::exception const& e) {
        error = e.what();
    } catch (...) {
        error = "unkwown error while sending to topic";
    }
    // A direct message is done with once the library has taken or refused it.
    task->releaseMessageHandle();
    if (sent) {
        notifyHandlerOfSendFinalize(task);
    } else {
        notifyHandlerOfSendError(task, error.c_str());
    }
    return sent;
}

bool Session::sendMessageGuaranteed(std::shared_ptr<MessageTask> task) {
    std::string error;
    try {
        // The topic text names the queue; no topic pointer is set.
        solClient_opaqueMsg_pt msg = prepareMessage(api, *task, SOLCLIENT_DELIVERY_MODE_PERSISTENT,
                                                    SOLCLIENT_QUEUE_DESTINATION);
        check(api, api.msgSetSequenceNumber(msg, task->getMessageID()));
        check(api, api.msgSetCorrelationTagPtr(msg, task.get(), 0));
        unsigned long long const id = task->getMessageID();
        {
            // Recorded before the send: the answer may come before it returns.
            std::lock_guard<std::mutex> lock(pendingMutex);
            if (spareNodes.empty()) {
                pending[id] = task;
            } else {
                auto node = std::move(spareNodes.back());
                spareNodes.pop_back();
                node.key() = id;
                node.mapped() = task;
                pending.insert(std::move(node));  // ids are unique: same as pending[id] = task
            }
            pendingSize.store(pending.size(), std::memory_order_release);
        }
        if (api.sessionSendMsg(handle.get(), msg) == SOLCLIENT_OK) {
            // Settled, and its message freed, when the broker answers.
            return true;
        }
        {
            std::lock_guard<std::mutex> lock(pendingMutex);
            pending.erase(id);
            pendingSize.store(pending.size(), std::memory_order_release);
        }
        throw LibraryException(api.getLastErrorInfo(), LibraryException::DEFAULT_TEXT);
    } catch (std::exception const& e) {
        error = e.what();
    } catch (...) {
        error = "unkwown error while sending to queue";
    }
    task->releaseMessageHandle();
    notifyHandlerOfSendError(task, error.c_str());
    return false;
}

void Session::notifyHandlerOfSendFinalize(std::shared_ptr<MessageTask>& task) {
    std::shared_ptr<KW::Reference> reference = task->returnReference(true);
    if (eventHandler) {
        try {
            eventHandler->messageSendFinalize(task, reference);
        } catch (...) {
            KW::DroppedFailures::recordCurrent("Session::notifyHandlerOfSendFinalize");
        }
    }
}

void Session::notifyHandlerOfSendRejected(std::shared_ptr<MessageTask>& task, char const* text) {
    std::shared_ptr<KW::Reference> reference = task->returnReference(true);
    if (eventHandler) {
        try {
            eventHandler->messageSendRejected(task, text, reference);
        } catch (...) {
            KW::DroppedFailures::recordCurrent("Session::notifyHandlerOfSendRejected");
        }
    }
}

void Session::notifyHandlerOfSendError(std::shared_ptr<MessageTask>& task, char const* text) {
    std::shared_ptr<KW::Reference> reference = task->returnReference(true);
    if (eventHandler) {
        try {
            eventHandler->messageSendError(task, text, reference);
        } catch (...) {
            KW::DroppedFailures::recordCurrent("Session::notifyHandlerOfSendError");
        }
    }
}

std::size_t Session::getPendingCount() {
    return pendingSize.load(std::memory_order_acquire);
}

// ---- subscriptions ----------------------------------------------------------------

namespace {

// How the map's entry is handed to a start or stop task: a subscription
// passes to its stop task alone, a flow is shared.
template <typename TaskType, typename Target>
std::shared_ptr<SubscribeTask> makeTask(SubscribeTask::Action action,
                                        std::unique_ptr<Target>& target,
                                        std::shared_ptr<KW::Reference> reference) {
    if (action == SubscribeTask::UNSUBSCRIBE) {
        return std::make_shared<TaskType>(action, std::move(target), std::move(reference));
    }
    return std::make_shared<TaskType>(action, target.get(), std::move(reference));
}

template <typename TaskType, typename Target>
std::shared_ptr<SubscribeTask> makeTask(SubscribeTask::Action action,
                                        std::shared_ptr<Target>& target,
                                        std::shared_ptr<KW::Reference> reference) {
    return std::make_shared<TaskType>(action, target, std::move(reference));
}

// Enters a new subscription or flow in its map and queues its start. A name
// already present queues nothing: true when it has the same handler.
template <typename TaskType, typename Map, typename Entry>
bool addEntry(Map& map, Session::SubscribeWorker& worker, Entry entry, std::string const& name,
              std::shared_ptr<KW::Reference> reference) {
    auto it = map.find(name);
    if (it != map.end()) {
        return it->second->getHandler() == entry->getHandler();
    }
    it = map.emplace(name, std::move(entry)).first;
    auto task = makeTask<TaskType>(SubscribeTask::SUBSCRIBE, it->second, std::move(reference));
    worker.pushTask(task);
    return true;
}

// Takes every matching entry out of its map and queues its stop.
template <typename TaskType, typename Map, typename Match>
bool removeEntries(Map& map, Session::SubscribeWorker& worker, Match match,
                   std::shared_ptr<KW::Reference> const& reference) {
    bool removed = false;
    for (auto it = map.begin(); it != map.end();) {
        if (!match(*it->second)) {
            ++it;
            continue;
        }
        auto task = makeTask<TaskType>(SubscribeTask::UNSUBSCRIBE, it->second, reference);
        it = map.erase(it);
        worker.pushTask(task);
        removed = true;
    }
    return removed;
}

template <typename TaskType, typename Map>
bool removeEntry(Map& map, Session::SubscribeWorker& worker, std::string const& name,
                 std::shared_ptr<KW::Reference> const& reference) {
    auto it = map.find(name);
    if (it == map.end()) {
        return false;
    }
    auto task = makeTask<TaskType>(SubscribeTask::UNSUBSCRIBE, it->second, reference);
    map.erase(it);
    worker.pushTask(task);
    return true;
}

}  // namespace

bool Session::subscribeTopic(std::shared_ptr<KW::MessageHandler> handler, std::string const& topic,
                             std::shared_ptr<KW::Reference> reference) {
    if (!handler) {
        // The caller has already reported its argument error.
        return false;
    }
    std::lock_guard<std::mutex> lock(subscriptionsMutex);
    refusedTopics.erase(topic);
    return addEntry<TopicSubscribeTask>(subscriptions, subscribeWorker,
                                        std::make_unique<Subscription>(*this, topic, handler),
                                        topic, std::move(reference));
}

bool Session::unsubscribeTopic(std::string const& topic, std::shared_ptr<KW::Reference> reference) {
    {
        std::lock_guard<std::mutex> lock(subscriptionsMutex);
        if (removeEntry<TopicSubscribeTask>(subscriptions, subscribeWorker, topic, reference)) {
            return true;
        }
        if (refusedTopics.erase(topic) == 0) {
            return false;
        }
    }
    // Already gone at the broker, which refused it on a connect; the script still holds it.
    notifyHandlerOfTopicUnsubscribe(topic, reference, nullptr);
    return true;
}

bool Session::unsubscribeTopics(std::shared_ptr<KW::MessageHandler> handler,
                                std::shared_ptr<KW::Reference> reference) {
    std::lock_guard<std::mutex> lock(subscriptionsMutex);
    return removeEntries<TopicSubscribeTask>(
        subscriptions, subscribeWorker,
        [&handler](Subscription const& entry) { return entry.getHandler() == handler; }, reference);
}

bool Session::unsubscribeTopics(std::shared_ptr<KW::Reference> reference) {
    std::lock_guard<std::mutex> lock(subscriptionsMutex);
    return removeEntries<TopicSubscribeTask>(
        subscriptions, subscribeWorker, [](Subscription const&) { return true; }, reference);
}

bool Session::subscribeQueue(std::shared_ptr<KW::MessageHandler> handler, std::string const& queue,
                             KW::QOS::Enum qos, std::shared_ptr<KW::Reference> reference) {
    if (!handler) {
        return false;
    }
    std::lock_guard<std::mutex> lock(subscriptionsMutex);
    return addEntry<QueueSubscribeTask>(flows, subscribeWorker,
                                        std::make_shared<Flow>(*this, qos, queue, handler), queue,
                                        std::move(reference));
}

bool Session::unsubscribeQueue(std::string const& queue, std::shared_ptr<KW::Reference> reference) {
    std::lock_guard<std::mutex> lock(subscriptionsMutex);
    return removeEntry<QueueSubscribeTask>(flows, subscribeWorker, queue, reference);
}

bool Session::unsubscribeQueues(std::shared_ptr<KW::MessageHandler> handler,
                                std::shared_ptr<KW::Reference> reference) {
    std::lock_guard<std::mutex> lock(subscriptionsMutex);
    return removeEntries<QueueSubscribeTask>(
        flows, subscribeWorker,
        [&handler](Flow const& entry) { return entry.getHandler() == handler; }, reference);
}

bool Session::unsubscribeQueues(std::shared_ptr<KW::Reference> reference) {
    std::lock_guard<std::mutex> lock(subscriptionsMutex);
    return removeEntries<QueueSubscribeTask>(
        flows, subscribeWorker, [](Flow const&) { return true; }, reference);
}

Subscription* Session::findSubscription(std::string const& topic) {
    std::lock_guard<std::mutex> lock(subscriptionsMutex);
    auto it = subscriptions.find(topic);
    return it == subscriptions.end() ? nullptr : it->second.get();
}

Flow* Session::findFlow(std::string const& queue) {
    std::lock_guard<std::mutex> lock(subscriptionsMutex);
    auto it = flows.find(queue);
    return it == flows.end() ? nullptr : it->second.get();
}

void Session::process(std::shared_ptr<SubscribeTask> task) {
    task->execute();
}

void Session::keepUndestroyed(std::shared_ptr<Flow> flow) {
    std::lock_guard<std::mutex> lock(subscriptionsMutex);
    undestroyedFlows.push_back(std::move(flow));
}

bool Session::droppedSince(unsigned long appliedIn) const {
    return appliedIn != 0 && appliedIn < connectionEpoch.load();
}

bool Session::lostSince(unsigned long epoch, int subCode) const {
    return subCode == SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED ||
           subCode == SOLCLIENT_SUBCODE_COMMUNICATION_ERROR || epoch != connectionEpoch.load() ||
           connection.getState() != Connection::CONNECTED;
}

// Entries taken out of their maps by later requests are skipped: their stop tasks, queued behind
// this one, hold them. One the library refuses leaves its map before the refusal is told (as a
// runtime error), so that subscribing the name again is not taken as a duplicate; one whose
// connection went meanwhile is tried again after the next up.
void Session::reestablish() {
    std::vector<Subscription*> topics;
    std::vector<std::shared_ptr<Flow>> queues;
    {
        std::lock_guard<std::mutex> lock(subscriptionsMutex);
        for (auto const& entry : subscriptions) {
            if (droppedSince(entry.second->getAppliedIn())) {
                topics.push_back(entry.second.get());
            }
        }
        for (auto const& entry : flows) {
            if (droppedSince(entry.second->getAppliedIn())) {
                queues.push_back(entry.second);
            }
        }
    }
    // The entry's place in its map, or end() when a request has taken it out.
    auto mapped = [](auto& map, std::string const& name, auto const* target) {
        auto it = map.find(name);
        return it != map.end() && it->second.get() == target ? it : map.end();
    };
    // A refused entry leaves its map (then `also` runs, under the same lock) unless a request took
    // it out first; what the map held is returned, to go outside the lock.
    auto forget = [this, &mapped](auto& map, std::string const& name, auto const* target,
                                  auto also) {
        typename std::remove_reference_t<decltype(map)>::mapped_type held;
        std::lock_guard<std::mutex> lock(subscriptionsMutex);
        auto it = mapped(map, name, target);
        if (it != map.end()) {
            held = std::move(it->second);
            map.erase(it);
            also(name);
        }
        return held;
    };
    for (Subscription* subscription : topics) {
        {
            std::lock_guard<std::mutex> lock(subscriptionsMutex);
            if (mapped(subscriptions, subscription->getTopic(), subscription) ==
                subscriptions.end()) {
                continue;
            }
        }
        solClient_errorInfo* refusal = nullptr;
        if (subscription->resubscribe(refusal)) {
            continue;
        }
        forget(subscriptions, subscription->getTopic(), subscription,
               [this](std::string const& topic) { refusedTopics.insert(topic); });
        notifyHandlerOfRuntimeError(refusal);
    }
    // A flow is bound again as a new one: the messages of the old one (whose library flow went
    // with its connection) must not acknowledge through the new library flow.
    for (std::shared_ptr<Flow> const& dropped : queues) {
        std::shared_ptr<Flow> renewed = dropped->renew();
        {
            std::lock_guard<std::mutex> lock(subscriptionsMutex);
            auto it = mapped(flows, dropped->getName(), dropped.get());
            if (it == flows.end()) {
                continue;
            }
            it->second = renewed;
        }
        dropped->destroyHandle();
        solClient_errorInfo* refusal = nullptr;
        if (renewed->rebind(refusal)) {
            continue;
        }
        if (forget(flows, renewed->getName(), renewed.get(), [](std::string const&) {})) {
            notifyHandlerOfQueueSubscribe(renewed->getName(), renewed->getQOS(),
                                          renewed->getSubscribed(), refusal);
        }
        notifyHandlerOfRuntimeError(refusal);
    }
}

// ---- receiving ---------------------------------------------------------------------

bool Session::enqueue(std::shared_ptr<ReceiveTask> task) {
    return receiveWorker.pushTask(task);
}

void Session::process(std::vector<std::shared_ptr<ReceiveTask>>& batch) {
    for (auto const& task : batch) {
        deliver(task);
    }
}

void Session::process(std::shared_ptr<ReceiveTask> task) {
    deliver(task);
}

void Session::deliver(std::shared_ptr<ReceiveTask> const& task) {
    KW::MessageHandler* handler = task->getHandler().get();
    if (handler == nullptr) {
        return;
    }
    try {
        handler->handleMessage(task);
    } catch (std::exception const& e) {
        notifyHandlerOfRuntimeError(e.what());
    } catch (...) {
        notifyHandlerOfRuntimeError("message handler error occurred");
    }
}

// ---- subscription outcomes -----------------------------------------------------------

void Session::notifyHandlerOfSubscription(bool create, std::string const& name, KW::QOS::Enum qos,
                                          std::shared_ptr<KW::Reference> const& reference,
                                          solClient_errorInfo* info) {
    if (!eventHandler) {
        return;
    }
    try {
        if (info == nullptr) {
            if (create) {
                eventHandler->subscriptionCreateFinalize(name, qos, reference);
            } else {
                eventHandler->subscriptionRemoveFinalize(name, qos, reference);
            }
            return;
        }
        std::string const text = LibraryException::readRecordText(info);
        int const subCode = static_cast<int>(info->subCode);
        if (create) {
            eventHandler->subscriptionCreateError(name, qos, reference, text.c_str(), subCode);
        } else {
            eventHandler->subscriptionRemoveError(name, qos, reference, text.c_str(), subCode);
        }
    } catch (...) {
        KW::DroppedFailures::recordCurrent("Session::notifyHandlerOfSubscription");
    }
}

void Session::notifyHandlerOfTopicSubscribe(std::string const& topic,
                                            std::shared_ptr<KW::Reference> const& reference,
                                            solClient_errorInfo* info) {
    notifyHandlerOfSubscription(true, topic, KW::QOS::AT_MOST_ONCE, reference, info);
}

void Session::notifyHandlerOfTopicUnsubscribe(std::string const& topic,
                                              std::shared_ptr<KW::Reference> const& reference,
                                              solClient_errorInfo* info) {
    notifyHandlerOfSubscription(false, topic, KW::QOS::AT_MOST_ONCE, reference, info);
}

void Session::notifyHandlerOfQueueSubscribe(std::string const& queue, KW::QOS::Enum qos,
                                            std::shared_ptr<KW::Reference> const& reference,
                                            solClient_errorInfo* info) {
    notifyHandlerOfSubscription(true, queue, qos, reference, info);
}

void Session::notifyHandlerOfQueueUnsubscribe(std::string const& queue, KW::QOS::Enum qos,
                                              std::shared_ptr<KW::Reference> const& reference,
                                              solClient_errorInfo* info) {
    notifyHandlerOfSubscription(false, queue, qos, reference, info);
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
