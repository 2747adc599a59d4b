#include "solace/impl/ReceiveTask.h"

#include "solace/LibraryException.h"
#include "solace/RuntimeException.h"
#include "solace/SolaceAPI.h"
#include "solace/impl/Session.h"
#include "solace/impl/VendorHandle.h"

#include <tuple>
#include <utility>

namespace KW {
namespace Solace {
namespace Impl {

ReceiveTask::ReceiveTask(Session& session, KW::QOS::Enum qos, char const* topic, void* msg,
                         std::shared_ptr<KW::DataPacket> payload,
                         std::shared_ptr<KW::MessageHandler> handler)
    : MessageTask(session, qos, topic, readId(session.getAPI(), msg), KW::Reference::NONE),
      payload(std::move(payload)),
      handler(std::move(handler)) {}

ReceiveTask::~ReceiveTask() = default;

unsigned long long ReceiveTask::readId(SolaceAPI const& api, void* msg) {
    solClient_msgId_t id = 0;
    solClient_returnCode_t rc = api.msgGetMsgId(msg, &id);
    if (rc == SOLCLIENT_OK) {
        return id;
    }
    if (rc == SOLCLIENT_NOT_FOUND) {
        return 0;
    }
    throw LibraryException(api.getLastErrorInfo(), LibraryException::DEFAULT_TEXT);
}

std::shared_ptr<KW::DataPacket> ReceiveTask::readPayload(SolaceAPI const& api, void* msg,
                                                         bool& taken) {
    void* data = nullptr;
    solClient_uint32_t size = 0;
    solClient_returnCode_t rc = api.msgGetBinaryAttachmentPtr(msg, &data, &size);
    if (rc == SOLCLIENT_NOT_FOUND) {
        return nullptr;
    }
    if (rc != SOLCLIENT_OK) {
        throw LibraryException(api.getLastErrorInfo(), LibraryException::DEFAULT_TEXT);
    }
    if (size <= COPIED_MAX) {
        return KW::DataPacket::create(data, size);
    }
    // The table first, then the message: the message is freed through it.
    auto held = std::make_shared<std::pair<std::shared_ptr<SolaceAPI const>, MessageHandle>>(
        std::piecewise_construct, std::forward_as_tuple(api.shared_from_this()),
        std::forward_as_tuple(api));
    held->second.adopt(static_cast<solClient_opaqueMsg_pt>(msg));
    taken = true;
    return KW::DataPacket::wrap(data, size, std::move(held));
}

char const* ReceiveTask::readTopic(SolaceAPI const& api, void* msg) {
    solClient_destination_t destination{};
    solClient_returnCode_t rc = api.msgGetDestination(msg, &destination, sizeof(destination));
    if (rc == SOLCLIENT_OK) {
        return destination.dest;
    }
    if (rc == SOLCLIENT_NOT_FOUND) {
        throw RuntimeException("solace client runtime exception");
    }
    throw LibraryException(api.getLastErrorInfo(), LibraryException::DEFAULT_TEXT);
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
