#pragma once

#include <memory>

namespace KW {

class Message;

// Receiver of the messages of one subscription; called on a library thread
// and must not block.
class MessageHandler {
  public:
    virtual ~MessageHandler();
    virtual void handleMessage(std::shared_ptr<Message> message) = 0;
};

}  // namespace KW
