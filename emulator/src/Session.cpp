#include "Session.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>
#include <utility>

#include "Broker.h"
#include "BrokerRegistry.h"
#include "Context.h"
#include "ErrorInfo.h"
#include "FaultInjector.h"
#include "Flow.h"
#include "FlowProperties.h"
#include "Library.h"
#include "Message.h"
#include "MessageVpn.h"
#include "Queue.h"
#include "Scheduler.h"

namespace SolEmu {

namespace {

bool isDirectory(std::string const& path) {
    struct stat info {};
    return !path.empty() && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string subscriptionErrorText(int subCode) {
    switch (subCode) {
        case SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT:
            return "Subscription Already Exists";
        case SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND:
            return "Subscription Not Found";
        case SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED:
            return "Subscription ACL Denied";
        default:
            return "Subscription refused by the emulator";
    }
}

}  // namespace

std::atomic<long> Session::_blocked{0};
std::atomic<long> Session::_windowWaits{0};
std::atomic<long> Session::_changedAttachments{0};

Session::Session(std::shared_ptr<Context> sharedContext, SessionProperties parsed,
                 solClient_session_createFuncInfo_t const& callbacks)
    : eventContext(std::move(sharedContext)),
      properties(std::move(parsed)),
      funcs(callbacks),
      broker(BrokerRegistry::instance().broker(properties.hostPort)),
      vpn(broker->vpn(properties.vpn)) {}

Session::~Session() = default;

// ---- Connection -----------------------------------------------------------------

solClient_returnCode_t Session::connect() {
    std::unique_lock<std::mutex> lock(mutex);
    switch (state.load()) {
        case State::UP:
            return SOLCLIENT_OK;
        case State::CONNECTING:
        case State::RECONNECTING:
            return SOLCLIENT_IN_PROGRESS;
        case State::DESTROYED:
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, "session destroyed");
        case State::IDLE:
        case State::DOWN:
            break;
    }
    if (properties.connectBlocking && eventContext->onThread()) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                               "blocking connect from the context thread");
    }
    state = State::CONNECTING;
    const uint64_t attemptEpoch = ++epoch;
    attempts = 0;
    std::weak_ptr<Session> weak = weak_from_this();
    eventContext->post(this, nullptr, [weak, attemptEpoch] {
        if (auto self = weak.lock()) {
            self->attempt(attemptEpoch);
        }
    });
    if (!properties.connectBlocking) {
        return SOLCLIENT_IN_PROGRESS;
    }
    Blocked blocked;
    stateChanged.wait(lock, [&] { return state.load() != State::CONNECTING; });
    if (state.load() == State::UP) {
        return SOLCLIENT_OK;
    }
    // Blocking mode returns OK or NOT_READY; CONNECT_FAILED_ERROR tells the rest.
    return ErrorInfo::fail(lastSubCode, lastError.empty() ? "connect failed" : lastError,
                           SOLCLIENT_NOT_READY);
}

std::string Session::loginRefusal() const {
    if (properties.vpn.empty()) {
        return "Message VPN Not Allowed";
    }
    if (properties.tls && properties.validateCertificate &&
        !isDirectory(properties.trustStoreDir)) {
        return "SSL: trust store directory '" + properties.trustStoreDir + "' not found";
    }
    if (FaultInjector::instance().isUserRefused(properties.user)) {
        return "Unauthorized";
    }
    return std::string();
}

void Session::attempt(uint64_t attemptEpoch) {
    std::lock_guard<std::mutex> lock(mutex);
    if (attemptEpoch != epoch || state.load() != State::CONNECTING) {
        return;
    }
    if (properties.vpn.empty()) {
        failConnectLocked(SOLCLIENT_SUBCODE_MSG_VPN_NOT_ALLOWED, 403, loginRefusal());
        return;
    }
    const std::string refusal = loginRefusal();
    if (!refusal.empty()) {
        bool const tlsFailure = refusal != "Unauthorized";
        failConnectLocked(
            tlsFailure ? SOLCLIENT_SUBCODE_COMMUNICATION_ERROR : SOLCLIENT_SUBCODE_LOGIN_FAILURE,
            tlsFailure ? 0 : 401, refusal);
        return;
    }
    if (broker->isUp()) {
        goUpLocked(false);
        return;
    }
    // Down: wait for it (told by the broker); a finite retry count also runs a
    // timer per attempt.
    if (properties.connectRetries >= 0) {
        scheduleConnectTimeout(attemptEpoch);
    }
    broker->waitForUp(shared_from_this());
}

void Session::scheduleConnectTimeout(uint64_t attemptEpoch) {
    std::weak_ptr<Session> weak = weak_from_this();
    Scheduler::instance().after(std::chrono::milliseconds(properties.connectTimeoutMs),
                                [weak, attemptEpoch] {
                                    if (auto self = weak.lock()) {
                                        self->connectTimedOut(attemptEpoch);
                                    }
                                });
}

void Session::connectTimedOut(uint64_t attemptEpoch) {
    std::lock_guard<std::mutex> lock(mutex);
    if (attemptEpoch != epoch || state.load() != State::CONNECTING) {
        return;
    }
    if (++attempts > properties.connectRetries) {
        failConnectLocked(SOLCLIENT_SUBCODE_COMMUNICATION_ERROR, 0,
                          "TCP connection failure: broker " + broker->hostPort() + " unreachable");
        return;
    }
    scheduleConnectTimeout(attemptEpoch);
}

void Session::brokerCameUp() {
    // Runs on whatever thread brought the broker up; the attempt itself runs on
    // the context thread.
    std::weak_ptr<Session> weak = weak_from_this();
    eventContext->post(this, nullptr, [weak] {
        auto self = weak.lock();
        if (!self) {
            return;
        }
        uint64_t attemptEpoch = 0;
        {
            std::lock_guard<std::mutex> lock(self->mutex);
            attemptEpoch = self->epoch;
        }
        self->attempt(attemptEpoch);
    });
}

void Session::failConnectLocked(int subCode, unsigned responseCode, std::string const& text) {
    state = State::DOWN;
    ++epoch;
    lastSubCode = subCode;
    lastError = text;
    postEvent(SOLCLIENT_SESSION_EVENT_CONNECT_FAILED_ERROR, responseCode, text);
    stateChanged.notify_all();
}

void Session::goUpLocked(bool reconnected) {
    state = State::UP;
    vpn->attach(shared_from_this());
    {
        std::unique_lock<std::shared_mutex> lock(subscriptionsMutex);
        receiving = true;
        if (reconnected && !properties.reapplySubscriptions) {
            subscriptions.clear();
        }
    }
    postEvent(reconnected ? SOLCLIENT_SESSION_EVENT_RECONNECTED_NOTICE
                          : SOLCLIENT_SESSION_EVENT_UP_NOTICE,
              200, "OK");
    for (auto& entry : flows) {
        if (!entry.second->retired()) {
            entry.second->bind(vpn->queue(entry.second->queueName()));
        }
    }
    for (auto it = pending.begin(); it != pending.end();) {
        auto next = std::next(it);
        transmitLocked(it);
        it = next;
    }
    if (canSendOwed && unackedLocked() < static_cast<size_t>(properties.pubWindowSize)) {
        canSendOwed = false;
        postEvent(SOLCLIENT_SESSION_EVENT_CAN_SEND, 0, "OK");
    }
    stateChanged.notify_all();
}

void Session::detachLocked(bool clearSubscriptions) {
    vpn->detach(this);
    std::unique_lock<std::shared_mutex> lock(subscriptionsMutex);
    receiving = false;
    if (clearSubscriptions) {
        subscriptions.clear();
    }
}

void Session::brokerWentDown() {
    std::lock_guard<std::mutex> lock(mutex);
    if (state.load() != State::UP) {
        return;
    }
    detachLocked(false);
    for (auto& entry : flows) {
        entry.second->connectionLost();
    }
    // Confirmations and binds in flight are lost with the connection.
    failWaitersLocked(SOLCLIENT_SUBCODE_COMMUNICATION_ERROR,
                      "connection to broker " + broker->hostPort() + " lost");
    state = State::RECONNECTING;
    ++epoch;
    attempts = 0;
    postEvent(SOLCLIENT_SESSION_EVENT_RECONNECTING_NOTICE, 0,
              "broker " + broker->hostPort() + " went down");
    if (properties.reconnectRetries == 0) {
        goDownLocked("reconnect retries exhausted");
        return;
    }
    scheduleReconnectLocked();
}

void Session::scheduleReconnectLocked() {
    std::weak_ptr<Session> weak = weak_from_this();
    const uint64_t attemptEpoch = epoch;
    Scheduler::instance().after(std::chrono::milliseconds(properties.reconnectRetryWaitMs),
                                [weak, attemptEpoch] {
                                    if (auto self = weak.lock()) {
                                        self->reconnectTick(attemptEpoch);
                                    }
                                });
}

void Session::reconnectTick(uint64_t attemptEpoch) {
    std::lock_guard<std::mutex> lock(mutex);
    if (attemptEpoch != epoch || state.load() != State::RECONNECTING) {
        return;
    }
    if (broker->isUp() && loginRefusal().empty()) {
        goUpLocked(true);
        return;
    }
    ++attempts;
    if (properties.reconnectRetries >= 0 && attempts >= properties.reconnectRetries) {
        goDownLocked("reconnect retries exhausted");
        return;
    }
    scheduleReconnectLocked();
}

void Session::goDownLocked(std::string const& reason) {
    state = State::DOWN;
    ++epoch;
    detachLocked(true);
    for (auto& entry : flows) {
        entry.second->retire(SOLCLIENT_FLOW_EVENT_SESSION_DOWN);
    }
    lastSubCode = SOLCLIENT_SUBCODE_COMMUNICATION_ERROR;
    lastError = reason;
    failWaitersLocked(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, "session down: " + reason);
    postEvent(SOLCLIENT_SESSION_EVENT_DOWN_ERROR, 0, lastError);
    stateChanged.notify_all();
}

void Session::endedByBroker() {
    std::lock_guard<std::mutex> lock(mutex);
    const State current = state.load();
    if (current != State::UP && current != State::RECONNECTING) {
        return;
    }
    for (auto& entry : flows) {
        entry.second->connectionLost();
    }
    goDownLocked("session refused by broker " + broker->hostPort());
}

// ---- Blocking calls ----------------------------------------------------------------

solClient_returnCode_t Session::awaitAnswer(std::unique_lock<std::mutex>& lock,
                                            void const* subOwner,
                                            std::shared_ptr<Answer> const& answer,
                                            long long timeoutMs, std::string const& what) {
    std::weak_ptr<Session> weak = weak_from_this();
    eventContext->post(this, subOwner, [weak, answer] {
        if (auto self = weak.lock()) {
            std::lock_guard<std::mutex> answered(self->mutex);
            answer->done = true;
            self->stateChanged.notify_all();
        }
    });
    waiting.push_back(answer);
    Blocked blocked;
    bool const answered = stateChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                                [&] { return answer->done; });
    waiting.erase(std::remove(waiting.begin(), waiting.end(), answer), waiting.end());
    if (!answered) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_TIMEOUT, what + " timed out");
    }
    if (answer->rc != SOLCLIENT_OK) {
        return ErrorInfo::fail(answer->subCode, answer->text, answer->rc);
    }
    return SOLCLIENT_OK;
}

void Session::failWaitersLocked(int subCode, std::string const& text) {
    for (auto& answer : waiting) {
        if (!answer->done) {
            answer->done = true;
            answer->rc = SOLCLIENT_FAIL;
            answer->subCode = subCode;
            answer->text = text;
        }
    }
    stateChanged.notify_all();
}

solClient_returnCode_t Session::awaitUpLocked(std::unique_lock<std::mutex>& lock,
                                              TimePoint deadline, char const* what) {
    Blocked blocked;
    bool const settled = stateChanged.wait_until(lock, deadline, [this] {
        const State current = state.load();
        return current != State::CONNECTING && current != State::RECONNECTING;
    });
    if (!settled) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_TIMEOUT,
                               std::string(what) + " timed out while the session was connecting");
    }
    if (state.load() != State::UP) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
                               "session not established");
    }
    return SOLCLIENT_OK;
}

bool Session::sendMayWaitForUp() const {
    return properties.sendBlocking && !eventContext->onThread();
}

solClient_returnCode_t Session::refuseSendWhileConnectingLocked() {
    if (properties.sendBlocking) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                               "cannot block in a callback while connecting");
    }
    canSendOwed = true;
    return ErrorInfo::fail(SOLCLIENT_SUBCODE_OK, "session is connecting", SOLCLIENT_WOULD_BLOCK);
}

solClient_returnCode_t Session::awaitWindowLocked(std::unique_lock<std::mutex>& lock,
                                                  TimePoint deadline) {
    const size_t window = static_cast<size_t>(properties.pubWindowSize);
    for (;;) {
        const State current = state.load();
        bool const connecting = current == State::CONNECTING || current == State::RECONNECTING;
        // Not blocking while connecting: held until the session is up, in the publish window.
        if (connecting && properties.blockWhileConnecting) {
            if (!sendMayWaitForUp()) {
                return refuseSendWhileConnectingLocked();
            }
            const solClient_returnCode_t rc = awaitUpLocked(lock, deadline, "send");
            if (rc != SOLCLIENT_OK) {
                return rc;
            }
            continue;
        }
        if (current != State::UP && !connecting) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
                                   "session not established");
        }
        if (unackedLocked() < window) {
            return SOLCLIENT_OK;
        }
        if (!properties.sendBlocking) {
            // Owed before looking again: a slot that the context thread frees meanwhile (without
            // the lock) either sees the flag or is seen here.
            bool const owedBefore = canSendOwed.exchange(true);
            if (unackedLocked() < window) {
                canSendOwed = owedBefore;
                return SOLCLIENT_OK;
            }
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_OK, "publish window full",
                                   SOLCLIENT_WOULD_BLOCK);
        }
        if (eventContext->onThread()) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                                   "publish window full in a callback");
        }
        ++_windowWaits;
        Blocked blocked;
        ++windowWaiters;
        bool const room = stateChanged.wait_until(
            lock, deadline, [&] { return state.load() != current || unackedLocked() < window; });
        --windowWaiters;
        if (!room) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_TIMEOUT,
                                   "send timed out: publish window full");
        }
    }
}

solClient_returnCode_t Session::disconnect() {
    std::lock_guard<std::mutex> lock(mutex);
    const State current = state.load();
    if (current == State::IDLE || current == State::DOWN || current == State::DESTROYED) {
        return SOLCLIENT_OK;
    }
    detachLocked(!properties.reapplySubscriptions ||
                 !FaultInjector::instance().reapplyAfterDisconnect());
    for (auto& entry : flows) {
        entry.second->retire(-1);
    }
    state = State::IDLE;
    ++epoch;
    failWaitersLocked(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, "session disconnected");
    return SOLCLIENT_OK;
}

std::vector<std::shared_ptr<Flow>> Session::destroy() {
    std::vector<std::shared_ptr<Flow>> closing;
    {
        std::lock_guard<std::mutex> lock(mutex);
        state = State::DESTROYED;
        ++epoch;
        detachLocked(true);
        for (auto& entry : flows) {
            closing.push_back(entry.second);
        }
        flows.clear();
        pending.clear();
        failWaitersLocked(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, "session destroyed");
    }
    for (auto& flow : closing) {
        flow->destroy();
    }
    eventContext->purge(this);
    return closing;
}

// ---- Sending --------------------------------------------------------------------

solClient_returnCode_t Session::send(Message const& message) {
    if (message.hasAttachment() && message.attachmentSize() > MAX_MESSAGE_SIZE) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_MESSAGE_TOO_LARGE,
                               "message larger than the emulator's limit of 30 MB");
    }
    const solClient_destinationType_t type = message.destinationType();
    const std::string destination = message.destinationName();
    if (type == SOLCLIENT_NULL_DESTINATION || destination.empty()) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_TOPIC_MISSING, "message has no destination");
    }
    bool const toQueue =
        type == SOLCLIENT_QUEUE_DESTINATION || type == SOLCLIENT_QUEUE_TEMP_DESTINATION;

    if (!message.isGuaranteed()) {
        if (toQueue) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_CONFLICT,
                                   "direct messages need a topic destination");
        }
        if (!TopicMatcher::isValidTopic(destination)) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_INVALID_TOPIC_SYNTAX,
                                   "invalid topic '" + destination + "'");
        }
        const State current = state.load();
        if (current == State::CONNECTING || current == State::RECONNECTING) {
            if (!properties.blockWhileConnecting) {
                return ErrorInfo::fail(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
                                       "session is (re)connecting", SOLCLIENT_NOT_READY);
            }
            if (!sendMayWaitForUp()) {
                std::lock_guard<std::mutex> lock(mutex);
                return refuseSendWhileConnectingLocked();
            }
            std::unique_lock<std::mutex> lock(mutex);
            const solClient_returnCode_t rc =
                awaitUpLocked(lock,
                              std::chrono::steady_clock::now() +
                                  std::chrono::milliseconds(properties.blockingWriteTimeoutMs),
                              "send");
            if (rc != SOLCLIENT_OK) {
                return rc;
            }
        } else if (current != State::UP) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
                                   "session not established");
        }
        if (destination == DOWN_TOPIC) {
            Library::instance().endSessions(broker->hostPort());
            return SOLCLIENT_OK;
        }
        if (destination == DROP_TOPIC) {
            std::string text;
            if (message.hasAttachment()) {
                text.assign(static_cast<char const*>(message.attachmentData()),
                            message.attachmentSize());
            }
            long long ms = 0;
            if (!PropertyList::isInteger(text, ms) || ms < 0) {
                return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE,
                                       "#emulator/drop needs a decimal number of milliseconds");
            }
            std::shared_ptr<Broker> known = broker;
            known->setUp(false);
            Scheduler::instance().after(std::chrono::milliseconds(ms),
                                        [known] { known->setUp(true); });
            return SOLCLIENT_OK;
        }
        vpn->publish(destination, Message::snapshot(message));
        return SOLCLIENT_OK;
    }

    // Copied before the lock, which the context thread needs to free window slots.
    std::shared_ptr<const Message> copy = Message::snapshot(message);
    std::unique_lock<std::mutex> lock(mutex);
    const solClient_returnCode_t rc =
        awaitWindowLocked(lock, std::chrono::steady_clock::now() +
                                    std::chrono::milliseconds(properties.blockingWriteTimeoutMs));
    if (rc != SOLCLIENT_OK) {
        return rc;
    }
    if (spareSends.empty()) {
        pending.push_back(PendingSend{std::move(copy), false});
    } else {
        pending.splice(pending.end(), spareSends, spareSends.begin());
        pending.back() = PendingSend{std::move(copy), false};
    }
    bool wake = false;
    if (state.load() == State::UP) {
        transmitLocked(std::prev(pending.end()), &wake);
    }  // else buffered (BLOCK_WHILE_CONNECTING "0"); transmitted when the session is up
    lock.unlock();
    // Woken after the unlock, the context thread does not block on the session's mutex.
    if (wake) {
        eventContext->wakeUp();
    }
    return SOLCLIENT_OK;
}

void Session::transmitLocked(std::list<PendingSend>::iterator entry, bool* wakeLater) {
    std::shared_ptr<const Message> const& sent = entry->message;
    if (entry->spooled) {
        postSettled(SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 0, "OK", sent, wakeLater);
        retireLocked(entry);
        return;
    }
    std::shared_ptr<Queue> queue;
    if (entry->message->destinationType() == SOLCLIENT_QUEUE_DESTINATION ||
        entry->message->destinationType() == SOLCLIENT_QUEUE_TEMP_DESTINATION) {
        queue = vpn->queue(entry->message->destinationName());
        if (!queue) {
            postSettled(SOLCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR, 503, "Unknown Queue", sent,
                        wakeLater);
            retireLocked(entry);
            return;
        }
    }
    const FaultInjector::AckMode mode = FaultInjector::instance().ackMode();
    if (mode == FaultInjector::AckMode::REJECT) {
        postSettled(SOLCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR, 400, "Rejected by the emulator",
                    sent, wakeLater);
        retireLocked(entry);
        return;
    }
    if (queue) {
        queue->spool(entry->message);
    }
    if (mode == FaultInjector::AckMode::WITHHOLD) {
        entry->spooled = true;
        return;
    }
    postSettled(SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 0, "OK", sent, wakeLater);
    retireLocked(entry);
}

// A few nodes are kept: enough for the sends of one window answered in a row.
constexpr size_t SPARE_SENDS = 64;

void Session::retireLocked(std::list<PendingSend>::iterator entry) {
    if (spareSends.size() >= SPARE_SENDS) {
        pending.erase(entry);
        return;
    }
    entry->message.reset();
    spareSends.splice(spareSends.end(), pending, entry);
}

void Session::postSettled(solClient_session_event_t event, unsigned responseCode, char const* info,
                          std::shared_ptr<const Message> const& sent, bool* wakeLater) {
    ++answersInFlight;
    Settled settled{event, responseCode, info, sent};
    if (openFrame &&
        eventContext->joinLast(openFramePost, [&] { openFrame->push_back(std::move(settled)); })) {
        return;
    }
    // The window slots free only when the context thread processes the frame,
    // right before its answers' events.
    auto frame = std::make_shared<Frame>();
    frame->push_back(std::move(settled));
    openFrame = frame;
    std::weak_ptr<Session> weak = weak_from_this();
    auto callback = funcs.eventInfo.callback_p;
    void* user = funcs.eventInfo.user_p;
    void* handle = opaque;
    openFramePost = eventContext->post(
        this, nullptr,
        [=] {
            // Popped from the queue, the frame takes no more answers.
            if (auto self = weak.lock()) {
                self->freeWindowSlots(frame->size());
            }
            if (callback == nullptr) {
                return;
            }
            for (Settled& answer : *frame) {
                if (!answer.sent->lentBytesIntact()) {
                    ++_changedAttachments;
                    std::fprintf(stderr,
                                 "solclient emulator: the attachment of guaranteed send %p "
                                 "changed before its answer\n",
                                 answer.sent->correlationTag());
                }
                solClient_session_eventCallbackInfo_t record{
                    answer.event, answer.responseCode, answer.info, answer.sent->correlationTag()};
                Context::releaseLater(std::move(answer.sent));
                callback(handle, &record, user);
            }
        },
        wakeLater);
}

void Session::freeWindowSlots(size_t count) {
    answersInFlight -= count;
    // Nobody waits for room and no CAN_SEND is owed (the usual case): no lock. A waiter counts
    // itself and an owed flag is set before they look at the window, so one side sees the other.
    if (windowWaiters.load() == 0 && !canSendOwed.load()) {
        return;
    }
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (canSendOwed && state.load() == State::UP &&
            unackedLocked() < static_cast<size_t>(properties.pubWindowSize)) {
            canSendOwed = false;
            postEvent(SOLCLIENT_SESSION_EVENT_CAN_SEND, 0, "OK");
        }
        wake = windowWaiters > 0;
    }
    // Only a send waiting for room waits on a slot; woken after the unlock, it
    // finds the mutex free.
    if (wake) {
        stateChanged.notify_all();
    }
}

void Session::releaseWithheld() {
    std::lock_guard<std::mutex> lock(mutex);
    if (state.load() != State::UP) {
        return;
    }
    for (auto it = pending.begin(); it != pending.end();) {
        auto next = std::next(it);
        if (it->spooled) {
            transmitLocked(it);
        }
        it = next;
    }
}

// ---- Subscriptions and delivery ---------------------------------------------------

solClient_returnCode_t Session::changeSubscription(
    bool add, solClient_subscribeFlags_t flags, char const* topic,
    solClient_session_rxMsgDispatchFuncInfo_t const* dispatch, void* correlationTag) {
    if (topic == nullptr) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_NULL_PTR, "topic is NULL");
    }
    const std::string text(topic);
    if (!TopicMatcher::isValidSubscription(text)) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_INVALID_TOPIC_SYNTAX,
                               "invalid topic subscription '" + text + "'");
    }
    solClient_session_rxMsgCallbackFunc_t callback = funcs.rxMsgInfo.callback_p;
    void* user = funcs.rxMsgInfo.user_p;
    if (dispatch != nullptr && dispatch->callback_p != nullptr) {
        if (dispatch->dispatchType != SOLCLIENT_DISPATCH_TYPE_CALLBACK) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "unknown dispatch type");
        }
        if (!properties.topicDispatch) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_CONFLICT,
                                   "a dispatch callback needs SESSION_TOPIC_DISPATCH \"1\"");
        }
        callback = dispatch->callback_p;
        user = dispatch->user_p;
    }
    bool const wait = (flags & SOLCLIENT_SUBSCRIBE_FLAGS_WAITFORCONFIRM) != 0;
    bool const confirm = !wait && (flags & SOLCLIENT_SUBSCRIBE_FLAGS_REQUEST_CONFIRM) != 0;
    if (wait && eventContext->onThread()) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                               "cannot wait for confirmation on the context thread");
    }

    std::unique_lock<std::mutex> lock(mutex);
    State current = state.load();
    auto const deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(properties.subconfirmTimeoutMs);
    if ((current == State::CONNECTING || current == State::RECONNECTING) &&
        properties.blockWhileConnecting) {
        if (eventContext->onThread()) {  // it would block anywhere else
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                                   "cannot block in a callback while connecting");
        }
        const solClient_returnCode_t rc = awaitUpLocked(lock, deadline, "subscription change");
        if (rc != SOLCLIENT_OK) {
            return rc;
        }
        current = state.load();
    }
    if (current != State::UP && current != State::RECONNECTING) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
                               "session not established");
    }
    // A confirm-waiting call returns once the context thread has processed
    // the broker's answer, refusals included.
    auto answered = [&](int subCode, std::string const& failure) {
        if (!wait || current != State::UP) {
            return subCode == 0 ? SOLCLIENT_OK : ErrorInfo::fail(subCode, failure);
        }
        auto answer = std::make_shared<Answer>();
        if (subCode != 0) {
            answer->rc = SOLCLIENT_FAIL;
            answer->subCode = subCode;
            answer->text = failure;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        return awaitAnswer(lock, nullptr, answer, std::max<long long>(left.count(), 1),
                           "subscription confirmation");
    };
    int const refusal = FaultInjector::instance().subscriptionRefusal(text);
    if (refusal != 0) {
        if (confirm) {
            postEvent(SOLCLIENT_SESSION_EVENT_SUBSCRIPTION_ERROR, 403,
                      subscriptionErrorText(refusal), correlationTag);
            return SOLCLIENT_IN_PROGRESS;
        }
        return answered(refusal, subscriptionErrorText(refusal));
    }
    {
        std::unique_lock<std::shared_mutex> subscriptionsLock(subscriptionsMutex);
        auto found = subscriptions.end();
        for (auto it = subscriptions.begin(); it != subscriptions.end(); ++it) {
            if (it->matcher.text() == text && it->callback == callback && it->user == user) {
                found = it;
                break;
            }
        }
        if (add && found == subscriptions.end()) {
            subscriptions.push_back(Subscription{TopicMatcher(text), callback, user});
        } else if (!add && found != subscriptions.end()) {
            subscriptions.erase(found);
        } else if (!properties.ignoreDupSubscriptionError) {
            int const subCode = add ? SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT
                                    : SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND;
            subscriptionsLock.unlock();
            return answered(subCode, subscriptionErrorText(subCode) + ": " + text);
        }
    }
    if (confirm) {
        postEvent(SOLCLIENT_SESSION_EVENT_SUBSCRIPTION_OK, 200, "OK", correlationTag);
        return SOLCLIENT_IN_PROGRESS;
    }
    return answered(0, std::string());
}

void Session::deliverDirect(std::string const& topic, std::shared_ptr<const Message>& message,
                            bool last) {
    std::shared_lock<std::shared_mutex> lock(subscriptionsMutex);
    if (!receiving) {
        return;
    }
    void* handle = opaque;
    auto deliver = [this, handle](solClient_session_rxMsgCallbackFunc_t callback, void* user,
                                  std::shared_ptr<const Message> held) {
        eventContext->post(
            this, nullptr, [held = std::move(held), callback, user, handle]() mutable {
                std::unique_ptr<Message> copy = Message::deliveryCopy(held);
                // The last reference to the send's copy, unless it went into `copy`: let go
                // where the sender made it.
                if (held.use_count() == 1) {
                    Context::releaseLater(std::move(held));
                }
                held.reset();
                if (callback(handle, copy.get(), user) == SOLCLIENT_CALLBACK_TAKE_MSG) {
                    static_cast<void>(copy.release());  // the application frees it with msg_free
                }
            });
    };
    // One delivery per distinct callback, however many of its subscriptions match.
    // Each is posted once the next is found, so that the final one is known.
    // Nearly always one callback matches: the list is allocated only for more.
    std::vector<std::pair<solClient_session_rxMsgCallbackFunc_t, void*>> posted;
    solClient_session_rxMsgCallbackFunc_t pendingCallback = nullptr;
    void* pendingUser = nullptr;
    for (Subscription const& subscription : subscriptions) {
        if (subscription.callback == nullptr || !subscription.matcher.matches(topic)) {
            continue;
        }
        auto const key = std::make_pair(subscription.callback, subscription.user);
        if (key == std::make_pair(pendingCallback, pendingUser) ||
            std::find(posted.begin(), posted.end(), key) != posted.end()) {
            continue;
        }
        if (pendingCallback != nullptr) {
            deliver(pendingCallback, pendingUser, message);
            posted.emplace_back(pendingCallback, pendingUser);
        }
        pendingCallback = subscription.callback;
        pendingUser = subscription.user;
    }
    if (pendingCallback != nullptr) {
        deliver(pendingCallback, pendingUser, last ? std::move(message) : message);
    }
}

// ---- Flows ------------------------------------------------------------------------

solClient_returnCode_t Session::createFlow(
    FlowProperties const& parsed, solClient_flow_createFuncInfo_t const& callbacks,
    std::shared_ptr<Flow>& flow, std::function<void(std::shared_ptr<Flow> const&)> const& known) {
    if (parsed.bindBlocking && eventContext->onThread()) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                               "cannot bind a flow blocking in a callback");
    }
    std::unique_lock<std::mutex> lock(mutex);
    if (state.load() != State::UP) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
                               "session not established");
    }
    std::shared_ptr<Queue> queue = vpn->queue(parsed.queueName);
    auto answer = std::make_shared<Answer>();
    if (parsed.bindBlocking && !queue) {
        // Refused: no flow is created, once the broker's answer is in.
        answer->rc = SOLCLIENT_FAIL;
        answer->subCode = SOLCLIENT_SUBCODE_QUEUE_NOT_FOUND;
        answer->text = "Unknown Queue '" + parsed.queueName + "'";
        return awaitAnswer(lock, nullptr, answer, parsed.bindTimeoutMs, "flow bind");
    }
    flow = std::make_shared<Flow>(eventContext, this, parsed, callbacks);
    flows.emplace(flow.get(), flow);
    known(flow);  // its callbacks may use its handle from the first one on, before this returns
    flow->bind(queue);  // non-blocking and unknown: BIND_FAILED_ERROR follows
    if (!parsed.bindBlocking) {
        return SOLCLIENT_IN_PROGRESS;
    }
    // Returns once the context thread has run the flow's UP_NOTICE.
    const solClient_returnCode_t rc =
        awaitAnswer(lock, flow.get(), answer, parsed.bindTimeoutMs, "flow bind");
    if (rc != SOLCLIENT_OK) {
        flows.erase(flow.get());
        lock.unlock();
        const std::string text = ErrorInfo::current()->errorStr;
        int const subCode = ErrorInfo::current()->subCode;
        flow->destroy();  // not handed out
        flow.reset();
        return ErrorInfo::fail(subCode, text);
    }
    return SOLCLIENT_OK;
}

void Session::forgetFlow(Flow const* flow) {
    std::lock_guard<std::mutex> lock(mutex);
    flows.erase(flow);
}

void Session::postEvent(solClient_session_event_t event, unsigned responseCode, std::string info,
                        void* correlation) {
    auto callback = funcs.eventInfo.callback_p;
    if (callback == nullptr) {
        return;
    }
    void* user = funcs.eventInfo.user_p;
    void* handle = opaque;
    eventContext->post(this, nullptr, [=, info = std::move(info)] {
        solClient_session_eventCallbackInfo_t record{event, responseCode, info.c_str(),
                                                     correlation};
        callback(handle, &record, user);
    });
}

}  // namespace SolEmu
