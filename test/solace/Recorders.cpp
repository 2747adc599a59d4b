#include "Recorders.h"

#include <algorithm>
#include <stdexcept>

#include "core/Client.h"
#include "core/DataPacket.h"
#include "solace/impl/MessageTask.h"

namespace KW {
namespace Solace {
namespace Test {

void RecordingEventHandler::record(Event event) {
    std::lock_guard<std::mutex> lock(mutex);
    recorded.push_back(std::move(event));
    changed.notify_all();
}

void RecordingEventHandler::recordSend(Event::Kind kind,
                                       std::shared_ptr<KW::Message> const& message,
                                       char const* text, std::shared_ptr<KW::Reference> reference) {
    Event event{kind};
    event.text = text ? text : "";
    event.reference = std::move(reference);
    if (auto task = std::dynamic_pointer_cast<Impl::MessageTask>(message)) {
        event.topic = task->getTopic();
        event.qos = task->getQOS();
        event.messageID = task->getMessageID();
    }
    record(std::move(event));
}

void RecordingEventHandler::connectionStateChanged(std::shared_ptr<KW::Client> client) {
    Event event{Event::STATE};
    event.state = client->getConnectionState();
    record(std::move(event));
}

void RecordingEventHandler::messageSendFinalize(std::shared_ptr<KW::Message> message,
                                                std::shared_ptr<KW::Reference> reference) {
    recordSend(Event::SEND_FINALIZE, message, nullptr, std::move(reference));
}

void RecordingEventHandler::messageSendRejected(std::shared_ptr<KW::Message> message,
                                                char const* text,
                                                std::shared_ptr<KW::Reference> reference) {
    recordSend(Event::SEND_REJECTED, message, text, std::move(reference));
}

void RecordingEventHandler::messageSendError(std::shared_ptr<KW::Message> message, char const* text,
                                             std::shared_ptr<KW::Reference> reference) {
    recordSend(Event::SEND_ERROR, message, text, std::move(reference));
}

namespace {
Event subscriptionEvent(Event::Kind kind, std::string const& topic, KW::QOS::Enum qos,
                        std::shared_ptr<KW::Reference> reference, char const* text, int code) {
    Event event{kind};
    event.topic = topic;
    event.qos = qos;
    event.reference = std::move(reference);
    event.text = text ? text : "";
    event.code = code;
    return event;
}
}  // namespace

void RecordingEventHandler::subscriptionCreateFinalize(std::string const& topic, KW::QOS::Enum qos,
                                                       std::shared_ptr<KW::Reference> reference) {
    record(subscriptionEvent(Event::CREATE_FINALIZE, topic, qos, std::move(reference), nullptr, 0));
}

void RecordingEventHandler::subscriptionCreateError(std::string const& topic, KW::QOS::Enum qos,
                                                    std::shared_ptr<KW::Reference> reference,
                                                    char const* text, int code) {
    record(subscriptionEvent(Event::CREATE_ERROR, topic, qos, std::move(reference), text, code));
}

void RecordingEventHandler::subscriptionRemoveFinalize(std::string const& topic, KW::QOS::Enum qos,
                                                       std::shared_ptr<KW::Reference> reference) {
    record(subscriptionEvent(Event::REMOVE_FINALIZE, topic, qos, std::move(reference), nullptr, 0));
}

void RecordingEventHandler::subscriptionRemoveError(std::string const& topic, KW::QOS::Enum qos,
                                                    std::shared_ptr<KW::Reference> reference,
                                                    char const* text, int code) {
    record(subscriptionEvent(Event::REMOVE_ERROR, topic, qos, std::move(reference), text, code));
}

void RecordingEventHandler::runtimeErrorOccurred(char const* text, int code) {
    Event event{Event::RUNTIME_ERROR};
    event.text = text ? text : "";
    event.code = code;
    record(std::move(event));
}

void RecordingEventHandler::runtimeErrorOccurred(char const* text) {
    runtimeErrorOccurred(text, 0);
}

std::vector<Event> RecordingEventHandler::events() {
    std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

std::vector<Event> RecordingEventHandler::events(Event::Kind kind) {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<Event> result;
    std::copy_if(recorded.begin(), recorded.end(), std::back_inserter(result),
                 [kind](Event const& e) { return e.kind == kind; });
    return result;
}

std::size_t RecordingEventHandler::count(Event::Kind kind) {
    return events(kind).size();
}

bool RecordingEventHandler::waitFor(Event::Kind kind, std::size_t n,
                                    std::chrono::milliseconds timeout) {
    return waitUntil(
        [kind, n](std::vector<Event> const& all) {
            return static_cast<std::size_t>(
                       std::count_if(all.begin(), all.end(),
                                     [kind](Event const& e) { return e.kind == kind; })) >= n;
        },
        timeout);
}

bool RecordingEventHandler::waitUntil(std::function<bool(std::vector<Event> const&)> const& done,
                                      std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return done(recorded); });
}

void RecordingEventHandler::clear() {
    std::lock_guard<std::mutex> lock(mutex);
    recorded.clear();
}

void RecordingMessageHandler::handleMessage(std::shared_ptr<KW::Message> message) {
    std::unique_lock<std::mutex> lock(mutex);
    std::size_t const call = calls++;
    ++entered;
    changed.notify_all();
    changed.wait(lock, [this] { return !held; });
    if (std::find(throwing.begin(), throwing.end(), call) != throwing.end()) {
        throw std::runtime_error("handler failed on message " + std::to_string(call));
    }
    received.push_back(message);
    bool const ack = acknowledging;
    changed.notify_all();
    lock.unlock();
    if (ack) {
        message->acknowledge();
    }
}

std::vector<std::shared_ptr<KW::Message>> RecordingMessageHandler::messages() {
    std::lock_guard<std::mutex> lock(mutex);
    return received;
}

std::size_t RecordingMessageHandler::count() {
    std::lock_guard<std::mutex> lock(mutex);
    return received.size();
}

bool RecordingMessageHandler::waitFor(std::size_t n, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return received.size() >= n; });
}

namespace {
bool hasPayload(std::shared_ptr<KW::Message> const& message, std::string const& payload) {
    auto packet = message->getPayload();
    return packet && packet->size() == payload.size() &&
           std::string(static_cast<char const*>(packet->data()), packet->size()) == payload;
}
}  // namespace

std::size_t RecordingMessageHandler::countPayload(std::string const& payload) {
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<std::size_t>(
        std::count_if(received.begin(), received.end(),
                      [&payload](auto const& m) { return hasPayload(m, payload); }));
}

bool RecordingMessageHandler::waitForPayload(std::string const& payload, std::size_t n,
                                             std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] {
        return static_cast<std::size_t>(std::count_if(
                   received.begin(), received.end(),
                   [&payload](auto const& m) { return hasPayload(m, payload); })) >= n;
    });
}

void RecordingMessageHandler::clear() {
    std::lock_guard<std::mutex> lock(mutex);
    received.clear();
}

void RecordingMessageHandler::throwOn(std::vector<std::size_t> list) {
    std::lock_guard<std::mutex> lock(mutex);
    throwing = std::move(list);
}

void RecordingMessageHandler::hold() {
    std::lock_guard<std::mutex> lock(mutex);
    held = true;
}

void RecordingMessageHandler::release() {
    std::lock_guard<std::mutex> lock(mutex);
    held = false;
    changed.notify_all();
}

bool RecordingMessageHandler::waitEntered(std::size_t n, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return entered >= n; });
}

void RecordingMessageHandler::autoAcknowledge(bool on) {
    std::lock_guard<std::mutex> lock(mutex);
    acknowledging = on;
}

}  // namespace Test
}  // namespace Solace
}  // namespace KW
