#pragma once

#include <map>
#include <memory>
#include <string>

#include "core/ClientFactory.h"

namespace KW {

class ClientLibrary;
class Configuration;

// Process-wide table of client libraries keyed by destination type, and the
// one ClientFactory of the process. Every operation holds one non-recursive
// mutex, also across the calls into a library or the configuration, so those
// must not call back into the registry.
class ClientLibraryRegistry : public ClientFactory {
  public:
    // Created on first use and never destroyed.
    static ClientLibraryRegistry* getInstance();

    std::shared_ptr<Client> createClient(std::string const& data,
                                         std::shared_ptr<EventHandler> handler) override;
    // The library is chosen by `destinationType` and receives `destination`.
    std::shared_ptr<Client> createClient(std::string const& destination,
                                         std::string& destinationType,
                                         std::map<std::string, std::string>& properties,
                                         std::shared_ptr<EventHandler> handler) override;
    ~ClientLibraryRegistry() override;

    void registerConfiguration(std::shared_ptr<Configuration> configuration);
    // The first registration of a type wins; the library is started then.
    void registerClientLibrary(std::string const& destinationType,
                               std::shared_ptr<ClientLibrary> library);
    void shutdownClientLibrary(std::string const& destinationType);

    ClientLibraryRegistry(ClientLibraryRegistry const&) = delete;
    ClientLibraryRegistry& operator=(ClientLibraryRegistry const&) = delete;

  private:
    ClientLibraryRegistry();

    class Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace KW
