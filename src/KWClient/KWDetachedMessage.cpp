#include "KWClient/KWDetachedMessage.h"

#include <utility>

KWDetachedMessage::KWDetachedMessage(std::string topic, std::shared_ptr<KW::DataPacket> payload)
    : topic(std::move(topic)), payload(std::move(payload)) {}

KWDetachedMessage::~KWDetachedMessage() = default;
