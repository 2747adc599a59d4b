#include "solace/impl/Client.h"

#include "solace/impl/ForwardTask.h"
#include "solace/impl/PublishTask.h"
#include "solace/impl/Session.h"

namespace KW {
namespace Solace {
namespace Impl {

Client::Client(Session& session) : session(session.shared_from_this()) {}

Client::~Client() {
    session->clientReleased();
}

int Client::getConnectionState() {
    return session->getConnectionState();
}

int Client::connect(unsigned long wait) {
    return session->connect(wait) ? 1 : 0;
}

void Client::disconnect(unsigned long wait) {
    session->disconnect(wait);
}

bool Client::publish(std::shared_ptr<KW::DataPacket> payload, std::string const& destination,
                     KW::QOS::Enum qos, std::shared_ptr<KW::Reference> reference, bool async) {
    auto task = std::make_shared<PublishTask>(*session, qos, destination.c_str(),
                                              std::move(payload), std::move(reference));
    if (async) {
        return session->enqueue(std::move(task));
    }
    return session->send(std::move(task));
}

bool Client::publishBytes(void const* data, unsigned long size, std::string const& destination,
                          KW::QOS::Enum qos, std::shared_ptr<KW::Reference> reference) {
    auto task = std::make_shared<PublishTask>(*session, qos, destination.c_str(), data, size,
                                              std::move(reference));
    return session->send(std::move(task));
}

bool Client::forward(std::shared_ptr<KW::Message> message, std::string const& destination,
                     KW::QOS::Enum qos, std::shared_ptr<KW::Reference> reference, bool async) {
    auto task = std::make_shared<ForwardTask>(*session, qos, destination.c_str(), message,
                                              std::move(reference));
    if (async) {
        return session->enqueue(std::move(task));
    }
    return session->send(std::move(task));
}

bool Client::subscribe(std::shared_ptr<KW::MessageHandler> handler, std::string const& destination,
                       KW::QOS::Enum qos, std::shared_ptr<KW::Reference> reference) {
    if (qos == KW::QOS::AT_MOST_ONCE) {
        return session->subscribeTopic(std::move(handler), destination, std::move(reference));
    }
    return session->subscribeQueue(std::move(handler), destination, qos, std::move(reference));
}

bool Client::unsubscribe(std::string const& destination, KW::QOS::Enum qos,
                         std::shared_ptr<KW::Reference> reference) {
    if (qos == KW::QOS::AT_MOST_ONCE) {
        return session->unsubscribeTopic(destination, std::move(reference));
    }
    return session->unsubscribeQueue(destination, std::move(reference));
}

bool Client::unsubscribe(std::shared_ptr<KW::MessageHandler> handler,
                         std::shared_ptr<KW::Reference> reference) {
    bool const topics = session->unsubscribeTopics(handler, reference);
    bool const queues = session->unsubscribeQueues(handler, reference);
    return topics || queues;
}

bool Client::unsubscribe(std::shared_ptr<KW::Reference> reference) {
    bool const topics = session->unsubscribeTopics(reference);
    bool const queues = session->unsubscribeQueues(reference);
    return topics || queues;
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
