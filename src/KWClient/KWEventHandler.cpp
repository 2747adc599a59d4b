#include "KWClient/KWEventHandler.h"

#include "KWClient/KWCallbackProcessor.h"
#include "KWClient/KWClientFunctions.h"
#include "KWClient/KWDoneCallback.h"
#include "KWClient/KWEventInfo.h"
#include "core/Client.h"

namespace {
// Every failed send reaches JavaScript with this errno; the broker's own code
// is not passed on.
constexpr int SEND_FAILURE_CODE = 1;
constexpr uint32_t CONNECTION_STATE_EVENT = 1;
constexpr uint32_t RUNTIME_ERROR_EVENT = 2;
}  // namespace

KWEventHandler::KWEventHandler(v8::Local<v8::Function> const& fn,
                               std::shared_ptr<KWClientFunctions> functions)
    : functions(std::move(functions)),
      processor(KWCallbackProcessor::getInstance()->shared_from_this()) {
    callback = this->functions ? this->functions->share(fn) : processor->shareFunction(fn);
}

KWEventHandler::~KWEventHandler() = default;

// The push and the trigger in one lock (post): a trigger already owed for an
// item before this one pulls this one too, so only the first of a burst wakes the loop.
void KWEventHandler::sendEvent(std::shared_ptr<KWCallbackItem> item) {
    processor->post(std::move(item));
}

// Every non-empty reference reaching this handler was made by the JavaScript
// layer as a KWDoneCallback, so it is converted without a type check.
void KWEventHandler::complete(std::shared_ptr<KW::Reference> const& reference,
                              std::shared_ptr<KW::Message> message) {
    if (!reference) {
        return;
    }
    auto done = std::static_pointer_cast<KWDoneCallback>(reference);
    done->setCompleted(std::move(message));
    sendEvent(std::move(done));
}

void KWEventHandler::fail(std::shared_ptr<KW::Reference> const& reference, char const* text,
                          int code, std::shared_ptr<KW::Message> message) {
    if (!reference) {
        return;
    }
    auto done = std::static_pointer_cast<KWDoneCallback>(reference);
    done->setFailed(text, code, std::move(message));
    sendEvent(std::move(done));
}

std::shared_ptr<KWEventInfo> KWEventHandler::event(uint32_t eventCode, uint32_t eventSubCode,
                                                   char const* text) {
    auto item = std::make_shared<KWEventInfo>();
    item->callback = callback;
    item->eventCode = eventCode;
    item->eventSubCode = eventSubCode;
    if (text != nullptr) {
        item->what = text;
    }
    return item;
}

void KWEventHandler::connectionStateChanged(std::shared_ptr<KW::Client> client) {
    // The epoch before the state: a state read after the script's latest
    // connect or disconnect is never taken for an older one.
    uint64_t const epoch = functions ? functions->epoch() : 0;
    // The state is read now, on the notifying thread, so a burst of changes
    // yields one event per change with its own state.
    auto item =
        event(CONNECTION_STATE_EVENT, static_cast<uint32_t>(client->getConnectionState()), nullptr);
    item->functions = functions;
    item->epoch = epoch;
    sendEvent(std::move(item));
}

// The sent message goes with its completion: made on the JavaScript thread, it
// is freed there after the call, not under another thread's allocator lock.
void KWEventHandler::messageSendFinalize(std::shared_ptr<KW::Message> message,
                                         std::shared_ptr<KW::Reference> reference) {
    complete(reference, std::move(message));
}

void KWEventHandler::messageSendRejected(std::shared_ptr<KW::Message> message, char const* text,
                                         std::shared_ptr<KW::Reference> reference) {
    fail(reference, text, SEND_FAILURE_CODE, std::move(message));
}

void KWEventHandler::messageSendError(std::shared_ptr<KW::Message> message, char const* text,
                                      std::shared_ptr<KW::Reference> reference) {
    fail(reference, text, SEND_FAILURE_CODE, std::move(message));
}

void KWEventHandler::subscriptionCreateFinalize(std::string const&, KW::QOS::Enum,
                                                std::shared_ptr<KW::Reference> reference) {
    complete(reference);
}

void KWEventHandler::subscriptionCreateError(std::string const&, KW::QOS::Enum,
                                             std::shared_ptr<KW::Reference> reference,
                                             char const* text, int code) {
    fail(reference, text, code);
}

void KWEventHandler::subscriptionRemoveFinalize(std::string const&, KW::QOS::Enum,
                                                std::shared_ptr<KW::Reference> reference) {
    complete(reference);
}

void KWEventHandler::subscriptionRemoveError(std::string const&, KW::QOS::Enum,
                                             std::shared_ptr<KW::Reference> reference,
                                             char const* text, int code) {
    fail(reference, text, code);
}

void KWEventHandler::runtimeErrorOccurred(char const* text, int code) {
    sendEvent(event(RUNTIME_ERROR_EVENT, static_cast<uint32_t>(code), text));
}

void KWEventHandler::runtimeErrorOccurred(char const* text) {
    sendEvent(event(RUNTIME_ERROR_EVENT, 0, text));
}
