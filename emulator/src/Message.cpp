#include "Message.h"

namespace solemu {

std::atomic<long> Message::live_{0};

Message::Message() {
    live_.fetch_add(1, std::memory_order_relaxed);
}

Message::~Message() {
    magic_ = 0;  // a stale handle no longer passes fromHandle
    live_.fetch_sub(1, std::memory_order_relaxed);
}

Message* Message::fromHandle(void* handle) {
    auto* message = static_cast<Message*>(handle);
    if (message == nullptr || message->magic_ != MAGIC) {
        return nullptr;
    }
    return message;
}

std::shared_ptr<const Message> Message::snapshot(Message const& source) {
    auto copy = std::make_shared<Message>();
    copy->deliveryMode_ = source.deliveryMode_;
    copy->destType_ = source.destinationType();
    copy->destName_ = source.destinationName();
    copy->correlationTag_ = source.correlationTag_;
    copy->sequenceNumber_ = source.sequenceNumber_;
    if (source.hasAttachment_) {
        copy->ownedPayload_ = std::make_shared<const std::string>(
            static_cast<char const*>(source.attachmentData_), source.attachmentSize_);
        copy->hasAttachment_ = true;
        copy->attachmentData_ = copy->ownedPayload_->data();
        copy->attachmentSize_ = source.attachmentSize_;
    }
    return copy;
}

std::unique_ptr<Message> Message::deliveryCopy(Message const& source) {
    auto copy = std::make_unique<Message>();
    copy->deliveryMode_ = source.deliveryMode_;
    copy->destType_ = source.destType_;
    copy->destName_ = source.destName_;
    copy->ownedPayload_ = source.ownedPayload_;
    copy->hasAttachment_ = source.hasAttachment_;
    copy->attachmentData_ = source.attachmentData_;
    copy->attachmentSize_ = source.attachmentSize_;
    copy->msgId_ = source.msgId_;
    copy->hasMsgId_ = source.hasMsgId_;
    copy->redelivered_ = source.redelivered_;
    return copy;
}

solClient_destinationType_t Message::destinationType() const {
    if (destType_ != SOLCLIENT_NULL_DESTINATION) {
        return destType_;
    }
    return topicPtr_ != nullptr ? SOLCLIENT_TOPIC_DESTINATION : SOLCLIENT_NULL_DESTINATION;
}

std::string Message::destinationName() const {
    if (destType_ != SOLCLIENT_NULL_DESTINATION) {
        return destName_;
    }
    return topicPtr_ != nullptr ? std::string(topicPtr_) : std::string();
}

void Message::setDestination(solClient_destinationType_t type, char const* name) {
    destType_ = type;
    destName_ = name != nullptr ? name : "";
}

void Message::setAttachmentPtr(void const* data, uint32_t size) {
    ownedPayload_.reset();
    hasAttachment_ = data != nullptr;
    attachmentData_ = data;
    attachmentSize_ = data != nullptr ? size : 0;
}

}  // namespace solemu
