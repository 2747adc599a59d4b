#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "solclient/SolClientABI.h"

namespace solemu {

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
    static long live() { return live_.load(std::memory_order_relaxed); }

    // A library-owned, self-contained copy of what a send needs: the payload
    // and the destination are copied, the correlation tag kept as a value.
    static std::shared_ptr<const Message> snapshot(Message const& source);
    // A fresh message for a receive callback sharing `source`'s payload.
    static std::unique_ptr<Message> deliveryCopy(Message const& source);

    // Destination as a send sees it: the destination record if set, else the
    // topic pointer as a topic.
    solClient_destinationType_t destinationType() const;
    std::string destinationName() const;

    void setDestination(solClient_destinationType_t type, char const* name);
    void setTopicPtr(char const* topic) { topicPtr_ = topic; }
    void setAttachmentPtr(void const* data, uint32_t size);
    void setDeliveryMode(uint32_t mode) { deliveryMode_ = mode; }
    void setCorrelationTag(void* tag) { correlationTag_ = tag; }
    void setSequenceNumber(uint64_t seq) { sequenceNumber_ = seq; }
    void setMessageId(uint64_t id) {
        msgId_ = id;
        hasMsgId_ = true;
    }
    void setRedelivered(bool redelivered) { redelivered_ = redelivered; }

    bool hasAttachment() const { return hasAttachment_; }
    void const* attachmentData() const { return attachmentData_; }
    uint32_t attachmentSize() const { return attachmentSize_; }
    bool hasDestinationRecord() const { return destType_ != SOLCLIENT_NULL_DESTINATION; }
    // Points into this message; valid while it lives.
    char const* destinationRecordName() const { return destName_.c_str(); }
    solClient_destinationType_t destinationRecordType() const { return destType_; }
    char const* topicPtr() const { return topicPtr_; }
    uint32_t deliveryMode() const { return deliveryMode_; }
    bool isGuaranteed() const { return deliveryMode_ != SOLCLIENT_DELIVERY_MODE_DIRECT; }
    void* correlationTag() const { return correlationTag_; }
    uint64_t sequenceNumber() const { return sequenceNumber_; }
    bool hasMsgId() const { return hasMsgId_; }
    uint64_t msgId() const { return msgId_; }
    bool redelivered() const { return redelivered_; }

  private:
    static constexpr uint32_t MAGIC = 0x5e11a6e5u;
    static std::atomic<long> live_;

    uint32_t magic_ = MAGIC;
    uint32_t deliveryMode_ = SOLCLIENT_DELIVERY_MODE_DIRECT;
    solClient_destinationType_t destType_ = SOLCLIENT_NULL_DESTINATION;
    std::string destName_;
    char const* topicPtr_ = nullptr;
    bool hasAttachment_ = false;
    void const* attachmentData_ = nullptr;
    uint32_t attachmentSize_ = 0;
    // Set on library copies: keeps attachmentData_ valid.
    std::shared_ptr<const std::string> ownedPayload_;
    void* correlationTag_ = nullptr;
    uint64_t sequenceNumber_ = 0;
    uint64_t msgId_ = 0;
    bool hasMsgId_ = false;
    bool redelivered_ = false;
};

}  // namespace solemu
