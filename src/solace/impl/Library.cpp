#include "solace/impl/Library.h"

#include "solace/LibraryException.h"
#include "solace/RuntimeException.h"
#include "solace/SolaceAPI.h"
#include "solace/impl/Client.h"
#include "solace/impl/Context.h"
#include "solace/impl/Session.h"

namespace KW {
namespace Solace {
namespace Impl {

Library::Library() : contexts(10) {
    contexts.max_load_factor(1.0f);
}

Library::~Library() {
    // Contexts go before the table they call through.
    contexts.clear();
    api.reset();
}

void Library::start() {
    if (api) {
        return;  // started: a new table would strand the contexts that call through this one
    }
    api = std::make_shared<SolaceAPI>();
    if (api->initialize(SOLCLIENT_LOG_NOTICE, nullptr) != SOLCLIENT_OK) {
        std::shared_ptr<SolaceAPI> failed(std::move(api));
        throw LibraryException(failed->getLastErrorInfo(), LibraryException::DEFAULT_TEXT);
    }
}

std::shared_ptr<KW::Client> Library::createClient(
    std::string const& destination, std::map<std::string, std::string> const& connectionData,
    std::shared_ptr<KW::EventHandler> handler) {
    if (!api) {
        throw RuntimeException("solace library not started");
    }
    std::unique_ptr<Context>& context = contexts[destination];
    if (!context) {
        context = std::make_unique<Context>(*api);
    }
    Session* session = context->createSession(destination, connectionData, handler);
    return session->createClient();
}

void Library::shutdown() {
    while (!contexts.empty()) {
        auto it = contexts.begin();
        if (it->second) {
            it->second->terminate();
        }
        contexts.erase(it);
    }
    if (!api) {
        return;
    }
    if (api->cleanup() != SOLCLIENT_OK) {
        throw LibraryException(api->getLastErrorInfo(), LibraryException::DEFAULT_TEXT);
    }
    api.reset();
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
