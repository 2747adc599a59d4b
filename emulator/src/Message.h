#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "solclient/SolClientABI.h"

namespace SolEmu {

// One message object: what msg_alloc hands out, what a receive callback gets,
// and the library's own copies (a sent message's snapshot, a spooled message).
// Setters of the "*Ptr" kind keep the caller's pointer; a snapshot copies what
// it needs. Every live object counts in Message::live().
class Message {
  public:
    Message();
    ~Message();
    Message(Message const&) = delete;
    Message& operator=(Message const&) = delete;

    // The message behind a handle, or null when the handle is not one of ours
    // (or has been freed).
    static Message* fromHandle(void* handle);
    static long live() { return _live.load(std::memory_order_relaxed); }

    // A library-owned, self-contained copy of what a send needs: the payload
    // and the destination are copied, the correlation tag kept as a value.
    static std::shared_ptr<const Message> snapshot(Message const& source);
    // A fresh message for a receive callback. The application may write
    // through the pointer getBinaryAttachmentPtr hands out, so the payload
    // bytes are shared only when nothing else holds them (the last delivery of
    // a direct message): the copy then takes over the caller's reference to
    // `source`. Otherwise (another delivery, the queue's spool, a payload small
    // enough to copy) they are copied and `source` is left as it was.
    static std::unique_ptr<Message> deliveryCopy(std::shared_ptr<const Message>& source);

    // Destination as a send sees it: the destination record if set, else the
    // topic pointer as a topic.
    solClient_destinationType_t destinationType() const;
    std::string destinationName() const;

    void setDestination(solClient_destinationType_t type, char const* name);
    void setTopicPtr(char const* topic) { topicChars = topic; }
    void setAttachmentPtr(void const* data, uint32_t size);
    void setDeliveryMode(uint32_t mode) { delivery = mode; }
    void setCorrelationTag(void* tag) { correlation = tag; }
    void setSequenceNumber(uint64_t seq) { sequence = seq; }
    void setMessageId(uint64_t id) {
        messageId = id;
        messageIdSet = true;
    }
    void setRedelivered(bool redelivered) { redeliveryFlag = redelivered; }

    bool hasAttachment() const { return attachmentPresent; }
    void const* attachmentData() const { return attachmentBytes; }
    uint32_t attachmentSize() const { return attachmentLength; }
    bool hasDestinationRecord() const { return destType != SOLCLIENT_NULL_DESTINATION; }
    // Points into this message; valid while it lives.
    char const* destinationRecordName() const { return destName.c_str(); }
    solClient_destinationType_t destinationRecordType() const { return destType; }
    char const* topicPtr() const { return topicChars; }
    uint32_t deliveryMode() const { return delivery; }
    bool isGuaranteed() const { return delivery != SOLCLIENT_DELIVERY_MODE_DIRECT; }
    void* correlationTag() const { return correlation; }
    uint64_t sequenceNumber() const { return sequence; }
    bool hasMsgId() const { return messageIdSet; }
    uint64_t msgId() const { return messageId; }
    bool redelivered() const { return redeliveryFlag; }
    // A guaranteed send's snapshot: whether the bytes its application lent are still those it
    // copied. The vendor reads them until the send's answer (to retransmit), so they must be.
    bool lentBytesIntact() const;

  private:
    static constexpr uint32_t MAGIC = 0x5e11a6e5u;
    static std::atomic<long> _live;

    uint32_t magic = MAGIC;
    uint32_t delivery = SOLCLIENT_DELIVERY_MODE_DIRECT;
    solClient_destinationType_t destType = SOLCLIENT_NULL_DESTINATION;
    std::string destName;
    char const* topicChars = nullptr;
    bool attachmentPresent = false;
    void const* attachmentBytes = nullptr;
    uint32_t attachmentLength = 0;
    // Library copies keep a small payload here, so that a message and its
    // bytes are one allocation. A sent message's copy keeps a larger one
    // behind itself (PayloadBlocks); a received one holds it in sharedPayload.
    static constexpr uint32_t INLINE_BYTES = 256;
    std::array<char, INLINE_BYTES> inlineBytes;
    std::shared_ptr<char const> sharedPayload;
    // Copies the source's bytes into this library copy: inline when they fit.
    void ownBytes(void const* data, uint32_t size);
    void* correlation = nullptr;
    void const* lentBytes = nullptr;  // a guaranteed snapshot's source attachment
    uint64_t sequence = 0;
    uint64_t messageId = 0;
    bool messageIdSet = false;
    bool redeliveryFlag = false;
};

}  // namespace SolEmu
