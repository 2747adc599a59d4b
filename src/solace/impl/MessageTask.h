#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "core/Message.h"
#include "core/QOS.h"
#include "core/Reference.h"
#include "solace/impl/VendorHandle.h"
#include "solclient/SolClientABI.h"

namespace KW {
namespace Solace {
namespace Impl {

class Session;

// One message going out (publish, forward) or coming in (receive). It is at
// the same time the KW::Message that handlers and the event handler see. It
// holds its session: a script may keep a received message after the session
// has ended.
class MessageTask : public KW::Message {
  public:
    MessageTask(Session& session, KW::QOS::Enum qos, char const* topic,
                unsigned long long messageID, std::shared_ptr<KW::Reference> reference);
    ~MessageTask() override;

    MessageTask(MessageTask const&) = delete;
    MessageTask& operator=(MessageTask const&) = delete;

    std::shared_ptr<KW::Client> getClient() const override;
    KW::QOS::Enum getQOS() const override { return qos; }
    std::string const& getTopic() const override { return topic; }
    bool isRedelivered() const override { return false; }
    bool isAckRequired() const override { return qos != KW::QOS::AT_MOST_ONCE; }

    // take: move the reference out (a second take yields an empty pointer).
    virtual std::shared_ptr<KW::Reference> returnReference(bool take);

    unsigned long long getMessageID() const { return messageID; }
    // The task's library message, allocated on first use.
    solClient_opaqueMsg_pt provideMessageHandle();
    // Frees the library message once the library is done with it; the
    // destructor frees one that no path released.
    void releaseMessageHandle();

    Session& getSession() const { return *session; }
    // Bytes to attach that the task does not own, valid while a send on the caller's thread
    // runs; null when the payload packet is attached instead.
    virtual void const* borrowedBytes(unsigned long& size) const {
        size = 0;
        return nullptr;
    }

  protected:
    // The next process-wide outgoing id; the first is 1.
    static unsigned long long nextID();

    std::shared_ptr<Session> session;
    std::shared_ptr<KW::Reference> reference;
    KW::QOS::Enum qos;
    std::string topic;
    unsigned long long messageID;
    MessageHandle messageHandle;

  private:
    static std::atomic<unsigned long long> _nextID;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
