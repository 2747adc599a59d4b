#pragma once

#include <memory>
#include <string>

#include "core/DataPacket.h"
#include "core/Message.h"

// A received topic message rebuilt from what its JavaScript object keeps (its
// topic and a copy of its payload bytes; see KWNodeMessage): what forward()
// sends when it is given such an object. A topic message needs nothing else:
// it is never acknowledged, never redelivered, and no path asks for its client.
class KWDetachedMessage : public KW::Message {
  public:
    KWDetachedMessage(std::string topic, std::shared_ptr<KW::DataPacket> payload);
    ~KWDetachedMessage() override;

    std::shared_ptr<KW::Client> getClient() const override { return nullptr; }
    KW::QOS::Enum getQOS() const override { return KW::QOS::AT_MOST_ONCE; }
    std::string const& getTopic() const override { return topic; }
    std::shared_ptr<KW::DataPacket> getPayload() const override { return payload; }
    bool isRedelivered() const override { return false; }
    bool isAckRequired() const override { return false; }
    void acknowledge() override {}

  private:
    std::string const topic;
    std::shared_ptr<KW::DataPacket> const payload;
};
