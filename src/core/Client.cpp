#include "core/Client.h"

#include "core/DataPacket.h"

namespace KW {

Client::~Client() = default;

bool Client::publishBytes(void const* data, unsigned long size, std::string const& topic,
                          QOS::Enum qos, std::shared_ptr<Reference> reference) {
    return publish(DataPacket::create(data, size), topic, qos, std::move(reference), false);
}

}  // namespace KW
