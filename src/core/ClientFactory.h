#pragma once

#include <map>
#include <memory>
#include <string>

namespace KW {

class Client;
class EventHandler;

// How the JavaScript layer creates clients. The creating operations precede
// the destructor in the virtual table on purpose.
class ClientFactory {
  public:
    virtual std::shared_ptr<Client> createClient(std::string const& data,
                                                 std::shared_ptr<EventHandler> handler) = 0;
    virtual std::shared_ptr<Client> createClient(std::string const& destination,
                                                 std::string& destinationType,
                                                 std::map<std::string, std::string>& properties,
                                                 std::shared_ptr<EventHandler> handler) = 0;
    virtual ~ClientFactory();

    // The one factory of the process: the client library registry.
    static ClientFactory* getInstance();
};

}  // namespace KW
