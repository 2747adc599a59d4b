#include "Session.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <set>
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

namespace solemu {

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

std::atomic<long> Session::blocked_{0};
std::atomic<long> Session::windowWaits_{0};

Session::Session(std::shared_ptr<Context> context, SessionProperties properties,
                 solClient_session_createFuncInfo_t const& funcs)
    : context_(std::move(context)),
      properties_(std::move(properties)),
      funcs_(funcs),
      broker_(BrokerRegistry::instance().broker(properties_.hostPort)),
      vpn_(broker_->vpn(properties_.vpn)) {}

Session::~Session() = default;

// ---- Connection -----------------------------------------------------------------

solClient_returnCode_t Session::connect() {
    std::unique_lock<std::mutex> lock(mutex_);
    switch (state_.load()) {
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
    if (properties_.connectBlocking && context_->onThread()) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                               "blocking connect from the context thread");
    }
    state_ = State::CONNECTING;
    const uint64_t epoch = ++epoch_;
    attempts_ = 0;
    std::weak_ptr<Session> weak = weak_from_this();
    context_->post(this, nullptr, [weak, epoch] {
        if (auto self = weak.lock()) {
            self->attempt(epoch);
        }
    });
    if (!properties_.connectBlocking) {
        return SOLCLIENT_IN_PROGRESS;
    }
    Blocked blocked;
    stateChanged_.wait(lock, [&] { return state_.load() != State::CONNECTING; });
    if (state_.load() == State::UP) {
        return SOLCLIENT_OK;
    }
    return ErrorInfo::fail(lastSubCode_, lastError_.empty() ? "connect failed" : lastError_);
}

std::string Session::loginRefusal() const {
    if (properties_.vpn.empty()) {
        return "Message VPN Not Allowed";
    }
    if (properties_.tls && properties_.validateCertificate &&
        !isDirectory(properties_.trustStoreDir)) {
        return "SSL: trust store directory '" + properties_.trustStoreDir + "' not found";
    }
    if (FaultInjector::instance().isUserRefused(properties_.user)) {
        return "Unauthorized";
    }
    return std::string();
}

void Session::attempt(uint64_t epoch) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (epoch != epoch_ || state_.load() != State::CONNECTING) {
        return;
    }
    if (properties_.vpn.empty()) {
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
    if (broker_->isUp()) {
        goUpLocked(false);
        return;
    }
    // Down: wait for it (told by the broker); a finite retry count also runs a
    // timer per attempt.
    if (properties_.connectRetries >= 0) {
        scheduleConnectTimeout(epoch);
    }
    broker_->waitForUp(shared_from_this());
}

void Session::scheduleConnectTimeout(uint64_t epoch) {
    std::weak_ptr<Session> weak = weak_from_this();
    Scheduler::instance().after(std::chrono::milliseconds(properties_.connectTimeoutMs),
                                [weak, epoch] {
                                    if (auto self = weak.lock()) {
                                        self->connectTimedOut(epoch);
                                    }
                                });
}

void Session::connectTimedOut(uint64_t epoch) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (epoch != epoch_ || state_.load() != State::CONNECTING) {
        return;
    }
    if (++attempts_ > properties_.connectRetries) {
        failConnectLocked(SOLCLIENT_SUBCODE_COMMUNICATION_ERROR, 0,
                          "TCP connection failure: broker " + broker_->hostPort() + " unreachable");
        return;
    }
    scheduleConnectTimeout(epoch);
}

void Session::brokerCameUp() {
    // Runs on whatever thread brought the broker up; the attempt itself runs on
    // the context thread.
    std::weak_ptr<Session> weak = weak_from_this();
    context_->post(this, nullptr, [weak] {
        auto self = weak.lock();
        if (!self) {
            return;
        }
        uint64_t epoch = 0;
        {
            std::lock_guard<std::mutex> lock(self->mutex_);
            epoch = self->epoch_;
        }
        self->attempt(epoch);
    });
}

void Session::failConnectLocked(int subCode, unsigned responseCode, std::string const& text) {
    state_ = State::DOWN;
    ++epoch_;
    lastSubCode_ = subCode;
    lastError_ = text;
    postEvent(SOLCLIENT_SESSION_EVENT_CONNECT_FAILED_ERROR, responseCode, text);
    stateChanged_.notify_all();
}

void Session::goUpLocked(bool reconnected) {
    state_ = State::UP;
    vpn_->attach(shared_from_this());
    {
        std::unique_lock<std::shared_mutex> lock(subscriptionsMutex_);
        receiving_ = true;
        if (reconnected && !properties_.reapplySubscriptions) {
            subscriptions_.clear();
        }
    }
    postEvent(reconnected ? SOLCLIENT_SESSION_EVENT_RECONNECTED_NOTICE
                          : SOLCLIENT_SESSION_EVENT_UP_NOTICE,
              200, "OK");
    for (auto& entry : flows_) {
        if (!entry.second->retired()) {
            entry.second->bind(vpn_->queue(entry.second->queueName()));
        }
    }
    for (auto it = pending_.begin(); it != pending_.end();) {
        auto next = std::next(it);
        transmitLocked(it);
        it = next;
    }
    if (canSendOwed_ && unackedLocked() < static_cast<size_t>(properties_.pubWindowSize)) {
        canSendOwed_ = false;
        postEvent(SOLCLIENT_SESSION_EVENT_CAN_SEND, 0, "OK");
    }
    stateChanged_.notify_all();
}

void Session::detachLocked(bool clearSubscriptions) {
    vpn_->detach(this);
    std::unique_lock<std::shared_mutex> lock(subscriptionsMutex_);
    receiving_ = false;
    if (clearSubscriptions) {
        subscriptions_.clear();
    }
}

void Session::brokerWentDown() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_.load() != State::UP) {
        return;
    }
    detachLocked(false);
    for (auto& entry : flows_) {
        entry.second->connectionLost();
    }
    // Confirmations and binds in flight are lost with the connection.
    failWaitersLocked(SOLCLIENT_SUBCODE_COMMUNICATION_ERROR,
                      "connection to broker " + broker_->hostPort() + " lost");
    state_ = State::RECONNECTING;
    ++epoch_;
    attempts_ = 0;
    postEvent(SOLCLIENT_SESSION_EVENT_RECONNECTING_NOTICE, 0,
              "broker " + broker_->hostPort() + " went down");
    if (properties_.reconnectRetries == 0) {
        goDownLocked("reconnect retries exhausted");
        return;
    }
    scheduleReconnectLocked();
}

void Session::scheduleReconnectLocked() {
    std::weak_ptr<Session> weak = weak_from_this();
    const uint64_t epoch = epoch_;
    Scheduler::instance().after(std::chrono::milliseconds(properties_.reconnectRetryWaitMs),
                                [weak, epoch] {
                                    if (auto self = weak.lock()) {
                                        self->reconnectTick(epoch);
                                    }
                                });
}

void Session::reconnectTick(uint64_t epoch) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (epoch != epoch_ || state_.load() != State::RECONNECTING) {
        return;
    }
    if (broker_->isUp() && loginRefusal().empty()) {
        goUpLocked(true);
        return;
    }
    ++attempts_;
    if (properties_.reconnectRetries >= 0 && attempts_ >= properties_.reconnectRetries) {
        goDownLocked("reconnect retries exhausted");
        return;
    }
    scheduleReconnectLocked();
}

void Session::goDownLocked(std::string const& reason) {
    state_ = State::DOWN;
    ++epoch_;
    detachLocked(true);
    for (auto& entry : flows_) {
        entry.second->retire(SOLCLIENT_FLOW_EVENT_SESSION_DOWN);
    }
    lastSubCode_ = SOLCLIENT_SUBCODE_COMMUNICATION_ERROR;
    lastError_ = reason;
    failWaitersLocked(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, "session down: " + reason);
    postEvent(SOLCLIENT_SESSION_EVENT_DOWN_ERROR, 0, lastError_);
    stateChanged_.notify_all();
}

void Session::endedByBroker() {
    std::lock_guard<std::mutex> lock(mutex_);
    const State state = state_.load();
    if (state != State::UP && state != State::RECONNECTING) {
        return;
    }
    for (auto& entry : flows_) {
        entry.second->connectionLost();
    }
    goDownLocked("session refused by broker " + broker_->hostPort());
}

// ---- Blocking calls ----------------------------------------------------------------

solClient_returnCode_t Session::awaitAnswer(std::unique_lock<std::mutex>& lock,
                                            void const* subOwner,
                                            std::shared_ptr<Answer> const& answer,
                                            long long timeoutMs, std::string const& what) {
    std::weak_ptr<Session> weak = weak_from_this();
    context_->post(this, subOwner, [weak, answer] {
        if (auto self = weak.lock()) {
            std::lock_guard<std::mutex> answered(self->mutex_);
            answer->done = true;
            self->stateChanged_.notify_all();
        }
    });
    waiting_.push_back(answer);
    Blocked blocked;
    bool const answered = stateChanged_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                                 [&] { return answer->done; });
    waiting_.erase(std::remove(waiting_.begin(), waiting_.end(), answer), waiting_.end());
    if (!answered) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_TIMEOUT, what + " timed out");
    }
    if (answer->rc != SOLCLIENT_OK) {
        return ErrorInfo::fail(answer->subCode, answer->text, answer->rc);
    }
    return SOLCLIENT_OK;
}

void Session::failWaitersLocked(int subCode, std::string const& text) {
    for (auto& answer : waiting_) {
        if (!answer->done) {
            answer->done = true;
            answer->rc = SOLCLIENT_FAIL;
            answer->subCode = subCode;
            answer->text = text;
        }
    }
    stateChanged_.notify_all();
}

solClient_returnCode_t Session::awaitUpLocked(std::unique_lock<std::mutex>& lock,
                                              TimePoint deadline, char const* what) {
    Blocked blocked;
    bool const settled = stateChanged_.wait_until(lock, deadline, [this] {
        const State state = state_.load();
        return state != State::CONNECTING && state != State::RECONNECTING;
    });
    if (!settled) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_TIMEOUT,
                               std::string(what) + " timed out while the session was connecting");
    }
    if (state_.load() != State::UP) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
                               "session not established");
    }
    return SOLCLIENT_OK;
}

solClient_returnCode_t Session::awaitWindowLocked(std::unique_lock<std::mutex>& lock,
                                                  TimePoint deadline) {
    const size_t window = static_cast<size_t>(properties_.pubWindowSize);
    for (;;) {
        const State state = state_.load();
        if (state == State::CONNECTING || state == State::RECONNECTING) {
            if (!properties_.blockWhileConnecting) {
                return SOLCLIENT_OK;  // buffered until the session is up
            }
            if (context_->onThread() || !properties_.sendBlocking) {
                canSendOwed_ = canSendOwed_ || !properties_.sendBlocking;
                return properties_.sendBlocking
                           ? ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                                             "cannot block in a callback while connecting")
                           : ErrorInfo::fail(SOLCLIENT_SUBCODE_OK, "session is connecting",
                                             SOLCLIENT_WOULD_BLOCK);
            }
            const solClient_returnCode_t rc = awaitUpLocked(lock, deadline, "send");
            if (rc != SOLCLIENT_OK) {
                return rc;
            }
            continue;
        }
        if (state != State::UP) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
                                   "session not established");
        }
        if (unackedLocked() < window) {
            return SOLCLIENT_OK;
        }
        if (!properties_.sendBlocking) {
            canSendOwed_ = true;
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_OK, "publish window full",
                                   SOLCLIENT_WOULD_BLOCK);
        }
        if (context_->onThread()) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                                   "publish window full in a callback");
        }
        ++windowWaits_;
        Blocked blocked;
        bool const room = stateChanged_.wait_until(
            lock, deadline, [&] { return state_.load() != State::UP || unackedLocked() < window; });
        if (!room) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_TIMEOUT,
                                   "send timed out: publish window full");
        }
    }
}

solClient_returnCode_t Session::disconnect() {
    std::lock_guard<std::mutex> lock(mutex_);
    const State state = state_.load();
    if (state == State::IDLE || state == State::DOWN || state == State::DESTROYED) {
        return SOLCLIENT_OK;
    }
    detachLocked(true);
    for (auto& entry : flows_) {
        entry.second->retire(-1);
    }
    state_ = State::IDLE;
    ++epoch_;
    failWaitersLocked(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, "session disconnected");
    return SOLCLIENT_OK;
}

std::vector<std::shared_ptr<Flow>> Session::destroy() {
    std::vector<std::shared_ptr<Flow>> flows;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        state_ = State::DESTROYED;
        ++epoch_;
        detachLocked(true);
        for (auto& entry : flows_) {
            flows.push_back(entry.second);
        }
        flows_.clear();
        pending_.clear();
        failWaitersLocked(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED, "session destroyed");
    }
    for (auto& flow : flows) {
        flow->destroy();
    }
    context_->purge(this);
    return flows;
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
        const State state = state_.load();
        if (state == State::CONNECTING || state == State::RECONNECTING) {
            if (!properties_.blockWhileConnecting) {
                return ErrorInfo::fail(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
                                       "session is (re)connecting", SOLCLIENT_NOT_READY);
            }
            if (context_->onThread() || !properties_.sendBlocking) {
                std::lock_guard<std::mutex> lock(mutex_);
                canSendOwed_ = canSendOwed_ || !properties_.sendBlocking;
                return properties_.sendBlocking
                           ? ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                                             "cannot block in a callback while connecting")
                           : ErrorInfo::fail(SOLCLIENT_SUBCODE_OK, "session is connecting",
                                             SOLCLIENT_WOULD_BLOCK);
            }
            std::unique_lock<std::mutex> lock(mutex_);
            const solClient_returnCode_t rc =
                awaitUpLocked(lock,
                              std::chrono::steady_clock::now() +
                                  std::chrono::milliseconds(properties_.blockingWriteTimeoutMs),
                              "send");
            if (rc != SOLCLIENT_OK) {
                return rc;
            }
        } else if (state != State::UP) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
                                   "session not established");
        }
        if (destination == DOWN_TOPIC) {
            Library::instance().endSessions(broker_->hostPort());
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
            std::shared_ptr<Broker> broker = broker_;
            broker->setUp(false);
            Scheduler::instance().after(std::chrono::milliseconds(ms),
                                        [broker] { broker->setUp(true); });
            return SOLCLIENT_OK;
        }
        vpn_->publish(destination, Message::snapshot(message));
        return SOLCLIENT_OK;
    }

    std::unique_lock<std::mutex> lock(mutex_);
    const solClient_returnCode_t rc =
        awaitWindowLocked(lock, std::chrono::steady_clock::now() +
                                    std::chrono::milliseconds(properties_.blockingWriteTimeoutMs));
    if (rc != SOLCLIENT_OK) {
        return rc;
    }
    pending_.push_back(PendingSend{Message::snapshot(message), false});
    if (state_.load() == State::UP) {
        transmitLocked(std::prev(pending_.end()));
    }  // else buffered (BLOCK_WHILE_CONNECTING "0"); transmitted when the session is up
    return SOLCLIENT_OK;
}

void Session::transmitLocked(std::list<PendingSend>::iterator entry) {
    void* tag = entry->message->correlationTag();
    if (entry->spooled) {
        postSettled(SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 0, "OK", tag);
        pending_.erase(entry);
        return;
    }
    std::shared_ptr<Queue> queue;
    if (entry->message->destinationType() == SOLCLIENT_QUEUE_DESTINATION ||
        entry->message->destinationType() == SOLCLIENT_QUEUE_TEMP_DESTINATION) {
        queue = vpn_->queue(entry->message->destinationName());
        if (!queue) {
            postSettled(SOLCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR, 503, "Unknown Queue", tag);
            pending_.erase(entry);
            return;
        }
    }
    const FaultInjector::AckMode mode = FaultInjector::instance().ackMode();
    if (mode == FaultInjector::AckMode::REJECT) {
        postSettled(SOLCLIENT_SESSION_EVENT_REJECTED_MSG_ERROR, 400, "Rejected by the emulator",
                    tag);
        pending_.erase(entry);
        return;
    }
    if (queue) {
        queue->spool(entry->message);
    }
    if (mode == FaultInjector::AckMode::WITHHOLD) {
        entry->spooled = true;
        return;
    }
    postSettled(SOLCLIENT_SESSION_EVENT_ACKNOWLEDGEMENT, 0, "OK", tag);
    pending_.erase(entry);
}

void Session::postSettled(solClient_session_event_t event, unsigned responseCode, std::string info,
                          void* correlation) {
    // The window slot frees only when the context thread processes the answer.
    ++answersInFlight_;
    std::weak_ptr<Session> weak = weak_from_this();
    context_->post(this, nullptr, [weak] {
        if (auto self = weak.lock()) {
            std::lock_guard<std::mutex> lock(self->mutex_);
            if (self->answersInFlight_ > 0) {
                --self->answersInFlight_;
            }
            if (self->canSendOwed_ && self->state_.load() == State::UP &&
                self->unackedLocked() < static_cast<size_t>(self->properties_.pubWindowSize)) {
                self->canSendOwed_ = false;
                self->postEvent(SOLCLIENT_SESSION_EVENT_CAN_SEND, 0, "OK");
            }
            self->stateChanged_.notify_all();
        }
    });
    postEvent(event, responseCode, std::move(info), correlation);
}

void Session::releaseWithheld() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_.load() != State::UP) {
        return;
    }
    for (auto it = pending_.begin(); it != pending_.end();) {
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
    solClient_session_rxMsgCallbackFunc_t callback = funcs_.rxMsgInfo.callback_p;
    void* user = funcs_.rxMsgInfo.user_p;
    if (dispatch != nullptr && dispatch->callback_p != nullptr) {
        if (dispatch->dispatchType != SOLCLIENT_DISPATCH_TYPE_CALLBACK) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "unknown dispatch type");
        }
        if (!properties_.topicDispatch) {
            return ErrorInfo::fail(SOLCLIENT_SUBCODE_PARAM_CONFLICT,
                                   "a dispatch callback needs SESSION_TOPIC_DISPATCH \"1\"");
        }
        callback = dispatch->callback_p;
        user = dispatch->user_p;
    }
    bool const wait = (flags & SOLCLIENT_SUBSCRIBE_FLAGS_WAITFORCONFIRM) != 0;
    bool const confirm = !wait && (flags & SOLCLIENT_SUBSCRIBE_FLAGS_REQUEST_CONFIRM) != 0;
    if (wait && context_->onThread()) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                               "cannot wait for confirmation on the context thread");
    }

    std::unique_lock<std::mutex> lock(mutex_);
    State state = state_.load();
    auto const deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(properties_.subconfirmTimeoutMs);
    if ((state == State::CONNECTING || state == State::RECONNECTING) &&
        properties_.blockWhileConnecting && !context_->onThread()) {
        const solClient_returnCode_t rc = awaitUpLocked(lock, deadline, "subscription change");
        if (rc != SOLCLIENT_OK) {
            return rc;
        }
        state = state_.load();
    }
    if (state != State::UP && state != State::RECONNECTING) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
                               "session not established");
    }
    // A confirm-waiting call returns once the context thread has processed
    // the broker's answer, refusals included.
    auto answered = [&](int subCode, std::string const& failure) {
        if (!wait || state != State::UP) {
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
        std::unique_lock<std::shared_mutex> subscriptionsLock(subscriptionsMutex_);
        auto found = subscriptions_.end();
        for (auto it = subscriptions_.begin(); it != subscriptions_.end(); ++it) {
            if (it->matcher.text() == text && it->callback == callback && it->user == user) {
                found = it;
                break;
            }
        }
        if (add && found == subscriptions_.end()) {
            subscriptions_.push_back(Subscription{TopicMatcher(text), callback, user});
        } else if (!add && found != subscriptions_.end()) {
            subscriptions_.erase(found);
        } else if (!properties_.ignoreDupSubscriptionError) {
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

void Session::deliverDirect(std::string const& topic,
                            std::shared_ptr<const Message> const& message) {
    std::shared_lock<std::shared_mutex> lock(subscriptionsMutex_);
    if (!receiving_) {
        return;
    }
    // One delivery per distinct callback, however many of its subscriptions match.
    std::set<std::pair<solClient_session_rxMsgCallbackFunc_t, void*>> served;
    void* handle = this;
    for (Subscription const& subscription : subscriptions_) {
        if (subscription.callback == nullptr || !subscription.matcher.matches(topic) ||
            !served.emplace(subscription.callback, subscription.user).second) {
            continue;
        }
        auto callback = subscription.callback;
        void* user = subscription.user;
        context_->post(this, nullptr, [message, callback, user, handle] {
            std::unique_ptr<Message> copy = Message::deliveryCopy(*message);
            if (callback(handle, copy.get(), user) == SOLCLIENT_CALLBACK_TAKE_MSG) {
                static_cast<void>(copy.release());  // the application frees it with msg_free
            }
        });
    }
}

// ---- Flows ------------------------------------------------------------------------

solClient_returnCode_t Session::createFlow(FlowProperties const& properties,
                                           solClient_flow_createFuncInfo_t const& funcs,
                                           std::shared_ptr<Flow>& flow) {
    if (properties.bindBlocking && context_->onThread()) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_CANNOT_BLOCK_IN_CONTEXT,
                               "cannot bind a flow blocking in a callback");
    }
    std::unique_lock<std::mutex> lock(mutex_);
    if (state_.load() != State::UP) {
        return ErrorInfo::fail(SOLCLIENT_SUBCODE_SESSION_NOT_ESTABLISHED,
                               "session not established");
    }
    std::shared_ptr<Queue> queue = vpn_->queue(properties.queueName);
    auto answer = std::make_shared<Answer>();
    if (properties.bindBlocking && !queue) {
        // Refused: no flow is created, once the broker's answer is in.
        answer->rc = SOLCLIENT_FAIL;
        answer->subCode = SOLCLIENT_SUBCODE_QUEUE_NOT_FOUND;
        answer->text = "Unknown Queue '" + properties.queueName + "'";
        return awaitAnswer(lock, nullptr, answer, properties.bindTimeoutMs, "flow bind");
    }
    flow = std::make_shared<Flow>(context_, this, properties, funcs);
    flows_.emplace(flow.get(), flow);
    flow->bind(queue);  // non-blocking and unknown: BIND_FAILED_ERROR follows
    if (!properties.bindBlocking) {
        return SOLCLIENT_IN_PROGRESS;
    }
    // Returns once the context thread has run the flow's UP_NOTICE.
    const solClient_returnCode_t rc =
        awaitAnswer(lock, flow.get(), answer, properties.bindTimeoutMs, "flow bind");
    if (rc != SOLCLIENT_OK) {
        flows_.erase(flow.get());
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
    std::lock_guard<std::mutex> lock(mutex_);
    flows_.erase(flow);
}

void Session::postEvent(solClient_session_event_t event, unsigned responseCode, std::string info,
                        void* correlation) {
    auto callback = funcs_.eventInfo.callback_p;
    if (callback == nullptr) {
        return;
    }
    void* user = funcs_.eventInfo.user_p;
    void* handle = this;
    context_->post(this, nullptr, [=, info = std::move(info)] {
        solClient_session_eventCallbackInfo_t record{event, responseCode, info.c_str(),
                                                     correlation};
        callback(handle, &record, user);
    });
}

}  // namespace solemu
