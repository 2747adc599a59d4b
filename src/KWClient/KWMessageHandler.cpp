#include "KWClient/KWMessageHandler.h"

#include "KWClient/KWCallbackProcessor.h"
#include "KWClient/KWClientFunctions.h"
#include "KWClient/KWMessageInfo.h"

KWMessageHandler::KWMessageHandler(v8::Local<v8::Function> const& fn, KWClientFunctions* functions)
    : processor(KWCallbackProcessor::getInstance()->shared_from_this()) {
    callback = functions != nullptr ? functions->share(fn) : processor->shareFunction(fn);
}

KWMessageHandler::~KWMessageHandler() = default;

void KWMessageHandler::handleMessage(std::shared_ptr<KW::Message> message) {
    auto item = std::make_shared<KWMessageInfo>();
    item->message = std::move(message);
    item->callback = callback;
    processor->post(std::move(item));
}
