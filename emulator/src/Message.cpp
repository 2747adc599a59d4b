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
    bool const large = source.attachmentPresent && source.attachmentLength > INLINE_BYTES;
    std::shared_ptr<Message> copy;
    char* bytes = nullptr;
    if (large) {
        // A guaranteed one may stay spooled for long: it goes to the spool's storage.
        copy = PayloadBlocks::make<Message>(source.attachmentLength, &bytes, source.isGuaranteed());
        std::memcpy(bytes, source.attachmentBytes, source.attachmentLength);
        copy->attachmentPresent = true;
        copy->attachmentBytes = bytes;
        copy->attachmentLength = source.attachmentLength;
    } else {
        copy = std::make_shared<Message>();
        if (source.attachmentPresent) {
            copy->ownBytes(source.attachmentBytes, source.attachmentLength);
        }
    }
    copy->delivery = source.delivery;
    copy->destType = source.destinationType();
    copy->destName = source.destinationName();
    copy->correlation = source.correlation;
    copy->sequence = source.sequence;
    if (source.isGuaranteed() && source.attachmentPresent) {
        copy->lentBytes = source.attachmentBytes;
    }
    return copy;
}

bool Message::lentBytesIntact() const {
    return lentBytes == nullptr || std::memcmp(lentBytes, attachmentBytes, attachmentLength) == 0;
}

void Message::ownBytes(void const* data, uint32_t size) {
    attachmentPresent = true;
    attachmentLength = size;
    if (size <= INLINE_BYTES) {
        sharedPayload.reset();
        std::memcpy(inlineBytes.data(), data, size);
        attachmentBytes = inlineBytes.data();
        return;
    }
    auto owned = std::make_shared<const std::string>(static_cast<char const*>(data), size);
    sharedPayload = std::shared_ptr<char const>(owned, owned->data());
    attachmentBytes = sharedPayload.get();
}

std::unique_ptr<Message> Message::deliveryCopy(std::shared_ptr<const Message>& source) {
    auto copy = std::make_unique<Message>();
    copy->delivery = source->delivery;
    copy->destType = source->destType;
    copy->destName = source->destName;
    copy->messageId = source->messageId;
    copy->messageIdSet = source->messageIdSet;
    copy->redeliveryFlag = source->redeliveryFlag;
    if (!source->attachmentPresent) {
        return copy;
    }
    // Inline bytes are copied whole: as cheap as sharing them at this size.
    // Larger ones are shared when nobody else holds the source (the last delivery
    // of a direct message): the new message keeps it alive for its bytes.
    if (source->attachmentLength <= INLINE_BYTES || source.use_count() > 1) {
        copy->ownBytes(source->attachmentBytes, source->attachmentLength);
        return copy;
    }
    copy->attachmentPresent = true;
    copy->attachmentBytes = source->attachmentBytes;
    copy->attachmentLength = source->attachmentLength;
    copy->sharedPayload =
        std::shared_ptr<char const>(source, static_cast<char const*>(source->attachmentBytes));
    source.reset();  // taken over by the copy
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
    sharedPayload.reset();
    attachmentPresent = data != nullptr;
    attachmentBytes = data;
    attachmentLength = data != nullptr ? size : 0;
}

}  // namespace SolEmu
