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

namespace {

// Allocates a shared object's block with `extra` bytes behind it, and tells
// where they start: a message and its payload in one allocation.
template <typename T>
class WithTrailing {
  public:
    using value_type = T;
    WithTrailing(size_t extra, char** trailing) : extra(extra), trailing(trailing) {}
    template <typename U>
    WithTrailing(WithTrailing<U> const& other) : extra(other.extra), trailing(other.trailing) {}
    T* allocate(size_t n) {
        size_t const head =
            (n * sizeof(T) + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
        auto* block = static_cast<char*>(::operator new(head + extra));
        *trailing = block + head;
        return reinterpret_cast<T*>(block);
    }
    void deallocate(T* block, size_t) noexcept { ::operator delete(block); }
    template <typename U>
    bool operator==(WithTrailing<U> const& other) const {
        return extra == other.extra;
    }
    template <typename U>
    bool operator!=(WithTrailing<U> const& other) const {
        return extra != other.extra;
    }

  private:
    template <typename U>
    friend class WithTrailing;
    size_t extra;
    char** trailing;
};

}  // namespace

std::shared_ptr<const Message> Message::snapshot(Message const& source) {
    bool const large = source.attachmentPresent && source.attachmentLength > INLINE_BYTES;
    std::shared_ptr<Message> copy;
    char* bytes = nullptr;
    if (large && source.isGuaranteed()) {
        // It may stay spooled for long: it goes to the spool's storage.
        copy = PayloadBlocks::make<Message>();
        copy->sharedPayload = PayloadBlocks::copy(source.attachmentBytes, source.attachmentLength);
    } else if (large) {
        copy =
            std::allocate_shared<Message>(WithTrailing<Message>(source.attachmentLength, &bytes));
        std::memcpy(bytes, source.attachmentBytes, source.attachmentLength);
    } else {
        copy = std::make_shared<Message>();
    }
    copy->delivery = source.delivery;
    copy->destType = source.destinationType();
    copy->destName = source.destinationName();
    copy->correlation = source.correlation;
    copy->sequence = source.sequence;
    if (large) {
        copy->attachmentPresent = true;
        copy->attachmentLength = source.attachmentLength;
        copy->attachmentBytes = bytes != nullptr ? bytes : copy->sharedPayload.get();
    } else if (source.attachmentPresent) {
        copy->ownBytes(source.attachmentBytes, source.attachmentLength);
    }
    return copy;
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

std::unique_ptr<Message> Message::deliveryCopy(std::shared_ptr<const Message> source) {
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
