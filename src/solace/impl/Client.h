#pragma once

#include <memory>

#include "core/Client.h"

namespace KW {
namespace Solace {
namespace Impl {

class Session;

// The adapter's KW::Client: every call goes to the session that made it.
// The quality of service decides topic or queue, the caller's flag decides
// whether a send runs on a worker or on the calling thread.
class Client : public KW::Client {
  public:
    explicit Client(Session& session);
    // Ends the session: nothing can reach it once its client has gone.
    ~Client() override;

    int getConnectionState() override;
    int connect(unsigned long wait) override;
    void disconnect(unsigned long wait) override;
    // True when queued (async) or handed to the library (sync); the outcome
    // comes later through the event handler.
    bool publish(std::shared_ptr<KW::DataPacket> payload, std::string const& destination,
                 KW::QOS::Enum qos, std::shared_ptr<KW::Reference> reference, bool async) override;
    // Reads the caller's bytes in place for an at-most-once send on this thread.
    bool publishBytes(void const* data, unsigned long size, std::string const& destination,
                      KW::QOS::Enum qos, std::shared_ptr<KW::Reference> reference) override;
    bool forward(std::shared_ptr<KW::Message> message, std::string const& destination,
                 KW::QOS::Enum qos, std::shared_ptr<KW::Reference> reference, bool async) override;
    bool subscribe(std::shared_ptr<KW::MessageHandler> handler, std::string const& destination,
                   KW::QOS::Enum qos, std::shared_ptr<KW::Reference> reference) override;
    bool unsubscribe(std::string const& destination, KW::QOS::Enum qos,
                     std::shared_ptr<KW::Reference> reference) override;
    bool unsubscribe(std::shared_ptr<KW::MessageHandler> handler,
                     std::shared_ptr<KW::Reference> reference) override;
    bool unsubscribe(std::shared_ptr<KW::Reference> reference) override;

    Session& getSession() const { return *session; }

  private:
    std::shared_ptr<Session> session;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
