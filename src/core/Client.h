#pragma once

#include <memory>
#include <string>

#include "core/QOS.h"

namespace KW {

class DataPacket;
class Message;
class MessageHandler;
class Reference;

// One connection to a broker. Asynchronous outcomes come back through the
// client's EventHandler carrying the reference they were given.
class Client {
  public:
    virtual ~Client();
    virtual int getConnectionState() = 0;
    virtual int connect(unsigned long wait) = 0;
    virtual void disconnect(unsigned long wait) = 0;
    virtual bool publish(std::shared_ptr<DataPacket> payload, std::string const& topic,
                         QOS::Enum qos, std::shared_ptr<Reference> reference, bool flag) = 0;
    // A synchronous publish (flag false) of bytes the caller keeps valid only until the call
    // returns. Added for speed: a library that sends on the calling thread can read them in
    // place and copy only what it queues; by default they are copied into a packet first.
    virtual bool publishBytes(void const* data, unsigned long size, std::string const& topic,
                              QOS::Enum qos, std::shared_ptr<Reference> reference);
    virtual bool forward(std::shared_ptr<Message> message, std::string const& topic, QOS::Enum qos,
                         std::shared_ptr<Reference> reference, bool flag) = 0;
    virtual bool subscribe(std::shared_ptr<MessageHandler> handler, std::string const& topic,
                           QOS::Enum qos, std::shared_ptr<Reference> reference) = 0;
    virtual bool unsubscribe(std::string const& topic, QOS::Enum qos,
                             std::shared_ptr<Reference> reference) = 0;
    virtual bool unsubscribe(std::shared_ptr<MessageHandler> handler,
                             std::shared_ptr<Reference> reference) = 0;
    virtual bool unsubscribe(std::shared_ptr<Reference> reference) = 0;
};

}  // namespace KW
