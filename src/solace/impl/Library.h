#pragma once

#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "core/ClientLibrary.h"

namespace KW {
namespace Solace {

class SolaceAPI;

namespace Impl {

class Context;

// The registered client library for "SOLACE": owns the vendor function table
// and one context per destination id.
class Library : public KW::ClientLibrary {
  public:
    Library();
    ~Library() override;

    void start() override;
    void shutdown() override;
    std::shared_ptr<KW::Client> createClient(
        std::string const& destination, std::map<std::string, std::string> const& connectionData,
        std::shared_ptr<KW::EventHandler> handler) override;

    // The loaded table, or null while the library is not started.
    SolaceAPI const* getAPI() const { return api.get(); }
    std::size_t getContextCount() const { return contexts.size(); }

  private:
    std::string name;
    std::shared_ptr<SolaceAPI> api;
    std::unordered_map<std::string, std::unique_ptr<Context>> contexts;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
