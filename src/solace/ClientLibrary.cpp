#include "solace/ClientLibrary.h"

#include <memory>

#include "core/ClientLibraryRegistry.h"
#include "solace/impl/Library.h"

namespace KW {
namespace Solace {

std::string const ClientLibrary::DESTINATION_TYPE = "SOLACE";
std::string const ClientLibrary::HOST = "host";
std::string const ClientLibrary::PORT = "port";
std::string const ClientLibrary::VPN = "vpn";
std::string const ClientLibrary::USER = "user";
std::string const ClientLibrary::PASSWORD = "password";
std::string const ClientLibrary::USE_SSL = "use_ssl";
std::string const ClientLibrary::SSL_TRUST_STORE = "trust_store";

void ClientLibrary::start() {
    std::shared_ptr<KW::ClientLibrary> library = std::make_shared<Impl::Library>();
    KW::ClientLibraryRegistry::getInstance()->registerClientLibrary(DESTINATION_TYPE, library);
}

void ClientLibrary::shutdown() {
    KW::ClientLibraryRegistry::getInstance()->shutdownClientLibrary(DESTINATION_TYPE);
}

}  // namespace Solace
}  // namespace KW
