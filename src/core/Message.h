#pragma once

#include <memory>
#include <string>

#include "core/QOS.h"

namespace KW {

class Client;
class DataPacket;

// A message received from or sent to the broker.
class Message {
  public:
    virtual ~Message();
    virtual std::shared_ptr<Client> getClient() const = 0;
    virtual QOS::Enum getQOS() const = 0;
    virtual std::string const& getTopic() const = 0;
    virtual std::shared_ptr<DataPacket> getPayload() const = 0;
    virtual bool isRedelivered() const = 0;
    virtual bool isAckRequired() const = 0;
    virtual void acknowledge() = 0;
};

}  // namespace KW
