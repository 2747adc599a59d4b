#pragma once

#include <memory>
#include <string>

#include "core/QOS.h"

namespace KW {

class Client;
class Message;
class Reference;

// Receiver of everything a client reports besides messages. Text arguments
// are valid only during the call.
class EventHandler {
  public:
    virtual ~EventHandler();
    virtual void connectionStateChanged(std::shared_ptr<Client> client) = 0;
    virtual void messageSendFinalize(std::shared_ptr<Message> message,
                                     std::shared_ptr<Reference> reference) = 0;
    virtual void messageSendRejected(std::shared_ptr<Message> message, char const* text,
                                     std::shared_ptr<Reference> reference) = 0;
    virtual void messageSendError(std::shared_ptr<Message> message, char const* text,
                                  std::shared_ptr<Reference> reference) = 0;
    virtual void subscriptionCreateFinalize(std::string const& topic, QOS::Enum qos,
                                            std::shared_ptr<Reference> reference) = 0;
    virtual void subscriptionCreateError(std::string const& topic, QOS::Enum qos,
                                         std::shared_ptr<Reference> reference, char const* text,
                                         int code) = 0;
    virtual void subscriptionRemoveFinalize(std::string const& topic, QOS::Enum qos,
                                            std::shared_ptr<Reference> reference) = 0;
    virtual void subscriptionRemoveError(std::string const& topic, QOS::Enum qos,
                                         std::shared_ptr<Reference> reference, char const* text,
                                         int code) = 0;
    virtual void runtimeErrorOccurred(char const* text, int code) = 0;
    virtual void runtimeErrorOccurred(char const* text) = 0;
};

}  // namespace KW
