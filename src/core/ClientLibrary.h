#pragma once

#include <map>
#include <memory>
#include <string>

namespace KW {

class Client;
class EventHandler;

// One loaded broker library, registered under one destination type.
class ClientLibrary {
  public:
    virtual ~ClientLibrary();
    virtual void start() = 0;
    virtual void shutdown() = 0;
    virtual std::shared_ptr<Client> createClient(
        std::string const& destination, std::map<std::string, std::string> const& properties,
        std::shared_ptr<EventHandler> handler) = 0;
};

}  // namespace KW
