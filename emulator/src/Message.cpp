#include "Message.h"

#include <cstring>

#include "PayloadBlocks.h"

namespace SolEmu {

std::atomic<long> Message::_live{0};

Message::Message() {
    _live.fetch_add(1, std::memory_order_relaxed);
}

Message::~Message() {
    magic = 0;  // a stale handle no longer passes fromHandle
    _live.fetch_sub(1, std::memory_order_relaxed);
}

Message* Message::fromHandle(void* handle) {
    auto* message = static_cast<Message*>(handle);
    if (message == nullptr || message->magic != MAGIC) {
        return nullptr;
    }
    return message;
}

std::shared_ptr<const Message> Message::snapshot(Message const& source) {
    // A guaranteed message may stay spooled for long: it goes to the spool's storage.
    bool const spooled = source.isGuaranteed() && source.attachmentLength > INLINE_BYTES;
    auto copy = spooled ? PayloadBlocks::make<Message>() : std::make_shared<Message>();
    copy->delivery = source.delivery;
    copy->destType = source.destinationType();
    copy->destName = source.destinationName();
    copy->correlation = source.correlation;
    copy->sequence = source.sequence;
    if (source.attachmentPresent && spooled) {
        copy->attachmentPresent = true;
        copy->attachmentLength = source.attachmentLength;
        copy->spooledPayload = PayloadBlocks::copy(source.attachmentBytes, source.attachmentLength);
        copy->attachmentBytes = copy->spooledPayload.get();
    } else if (source.attachmentPresent) {
        copy->ownBytes(source.attachmentBytes, source.attachmentLength);
    }
    return copy;
}

void Message::ownBytes(void const* data, uint32_t size) {
    attachmentPresent = true;
    attachmentLength = size;
    spooledPayload.reset();
    if (size <= INLINE_BYTES) {
        ownedPayload.reset();
        std::memcpy(inlineBytes.data(), data, size);
        attachmentBytes = inlineBytes.data();
        return;
    }
    ownedPayload = std::make_shared<const std::string>(static_cast<char const*>(data), size);
    attachmentBytes = ownedPayload->data();
}

std::unique_ptr<Message> Message::deliveryCopy(std::shared_ptr<const Message> source) {
    auto copy = std::make_unique<Message>();
    copy->delivery = source->delivery;
    copy->destType = source->destType;
    copy->destName = source->destName;
    copy->messageId = source->messageId;
    copy->messageIdSet = source->messageIdSet;
    copy->redeliveryFlag = source->redeliveryFlag;
    if (!source->ownedPayload) {
        // Inline bytes are copied whole: as cheap as sharing them at this size.
        // Spooled ones are copied too: the spool keeps its message until acknowledged.
        if (source->attachmentPresent) {
            copy->ownBytes(source->attachmentBytes, source->attachmentLength);
        }
        return copy;
    }
    copy->ownedPayload = source->ownedPayload;
    copy->attachmentPresent = source->attachmentPresent;
    copy->attachmentBytes = source->attachmentBytes;
    copy->attachmentLength = source->attachmentLength;
    source.reset();
    // A count of 1 is ours alone: nobody is left to copy the reference from.
    if (copy->ownedPayload && copy->ownedPayload.use_count() > 1) {
        copy->ownedPayload = std::make_shared<const std::string>(*copy->ownedPayload);
        copy->attachmentBytes = copy->ownedPayload->data();
    }
    return copy;
}

solClient_destinationType_t Message::destinationType() const {
    if (destType != SOLCLIENT_NULL_DESTINATION) {
        return destType;
    }
    return topicChars != nullptr ? SOLCLIENT_TOPIC_DESTINATION : SOLCLIENT_NULL_DESTINATION;
}

std::string Message::destinationName() const {
    if (destType != SOLCLIENT_NULL_DESTINATION) {
        return destName;
    }
    return topicChars != nullptr ? std::string(topicChars) : std::string();
}

void Message::setDestination(solClient_destinationType_t type, char const* name) {
    destType = type;
    destName = name != nullptr ? name : "";
}

void Message::setAttachmentPtr(void const* data, uint32_t size) {
    ownedPayload.reset();
    spooledPayload.reset();
    attachmentPresent = data != nullptr;
    attachmentBytes = data;
    attachmentLength = data != nullptr ? size : 0;
}

}  // namespace SolEmu
