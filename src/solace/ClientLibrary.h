#pragma once

#include <string>

namespace KW {
namespace Solace {

// Static entry point of the adapter: the connection-data keys and the
// registration of the Solace library under "SOLACE".
class ClientLibrary {
  public:
    static std::string const DESTINATION_TYPE;
    static std::string const HOST;
    static std::string const PORT;
    static std::string const VPN;
    static std::string const USER;
    static std::string const PASSWORD;
    static std::string const USE_SSL;
    static std::string const SSL_TRUST_STORE;

    static void start();
    static void shutdown();

    ClientLibrary() = delete;
};

}  // namespace Solace
}  // namespace KW
