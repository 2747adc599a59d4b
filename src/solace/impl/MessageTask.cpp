#include "solace/impl/MessageTask.h"

#include "solace/LibraryException.h"
#include "solace/SolaceAPI.h"
#include "solace/impl/Client.h"
#include "solace/impl/Session.h"

namespace KW {
namespace Solace {
namespace Impl {

std::atomic<unsigned long long> MessageTask::_nextID{0};

MessageTask::MessageTask(Session& session, KW::QOS::Enum qos, char const* topic,
                         unsigned long long messageID, std::shared_ptr<KW::Reference> reference)
    : session(session.shared_from_this()),
      reference(std::move(reference)),
      qos(qos),
      topic(topic ? topic : ""),
      messageID(messageID),
      messageHandle(session.getAPI()) {}

MessageTask::~MessageTask() = default;

unsigned long long MessageTask::nextID() {
    return ++_nextID;
}

std::shared_ptr<KW::Client> MessageTask::getClient() const {
    return session->getClient();
}

std::shared_ptr<KW::Reference> MessageTask::returnReference(bool take) {
    if (take) {
        return std::move(reference);
    }
    return reference;
}

solClient_opaqueMsg_pt MessageTask::provideMessageHandle() {
    if (!messageHandle) {
        SolaceAPI const& api = session->getAPI();
        solClient_opaqueMsg_pt allocated = nullptr;
        if (api.msgAlloc(&allocated) != SOLCLIENT_OK) {
            throw LibraryException(api.getLastErrorInfo(), LibraryException::DEFAULT_TEXT);
        }
        messageHandle.adopt(allocated);
    }
    return messageHandle.get();
}

void MessageTask::releaseMessageHandle() {
    messageHandle.reset();
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
