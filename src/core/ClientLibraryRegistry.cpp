#include "core/ClientLibraryRegistry.h"

#include <atomic>
#include <mutex>

#include "core/ClientLibrary.h"
#include "core/Configuration.h"
#include "core/Exception.h"

namespace KW {

namespace {

std::atomic<ClientLibraryRegistry*> instance{nullptr};
std::mutex instanceMutex;

char const* const INVALID_DESTINATION = "Invalid destination data";

}  // namespace

class ClientLibraryRegistry::Impl {
  public:
    std::map<std::string, std::shared_ptr<ClientLibrary>> libraries;
    std::mutex mutex;
    std::shared_ptr<Configuration> configuration;

    // The library registered for the type; the caller holds the mutex.
    ClientLibrary& find(std::string const& destinationType) {
        auto found = libraries.find(destinationType);
        if (found == libraries.end()) {
            throw Exception(INVALID_DESTINATION);
        }
        return *found->second;
    }
};

ClientLibraryRegistry* ClientLibraryRegistry::getInstance() {
    ClientLibraryRegistry* registry = instance.load(std::memory_order_acquire);
    if (registry != nullptr) {
        return registry;
    }
    std::lock_guard<std::mutex> lock(instanceMutex);
    registry = instance.load(std::memory_order_relaxed);
    if (registry == nullptr) {
        // Deliberately leaked: clients may outlive static destruction.
        registry = new ClientLibraryRegistry();
        instance.store(registry, std::memory_order_release);
    }
    return registry;
}

ClientLibraryRegistry::ClientLibraryRegistry() : impl(std::make_unique<Impl>()) {}

// Libraries are not shut down here; that is left to whoever registered them.
ClientLibraryRegistry::~ClientLibraryRegistry() {
    impl->configuration.reset();
    impl->libraries.clear();
}

void ClientLibraryRegistry::registerConfiguration(std::shared_ptr<Configuration> configuration) {
    std::lock_guard<std::mutex> lock(impl->mutex);
    impl->configuration = std::move(configuration);
}

void ClientLibraryRegistry::registerClientLibrary(std::string const& destinationType,
                                                  std::shared_ptr<ClientLibrary> library) {
    std::lock_guard<std::mutex> lock(impl->mutex);
    if (!library || impl->libraries.count(destinationType) != 0) {
        return;
    }
    library->start();  // if this throws, nothing is stored
    impl->libraries.emplace(destinationType, std::move(library));
}

void ClientLibraryRegistry::shutdownClientLibrary(std::string const& destinationType) {
    std::lock_guard<std::mutex> lock(impl->mutex);
    auto found = impl->libraries.find(destinationType);
    if (found == impl->libraries.end()) {
        return;
    }
    found->second->shutdown();  // if this throws, the entry stays
    impl->libraries.erase(found);
}

std::shared_ptr<Client> ClientLibraryRegistry::createClient(
    std::string const& destination, std::string& destinationType,
    std::map<std::string, std::string>& properties, std::shared_ptr<EventHandler> handler) {
    std::lock_guard<std::mutex> lock(impl->mutex);
    return impl->find(destinationType).createClient(destination, properties, std::move(handler));
}

std::shared_ptr<Client> ClientLibraryRegistry::createClient(std::string const& data,
                                                            std::shared_ptr<EventHandler> handler) {
    std::string destinationType;
    std::map<std::string, std::string> properties;
    std::lock_guard<std::mutex> lock(impl->mutex);
    if (!impl->configuration) {
        throw Exception(INVALID_DESTINATION);
    }
    impl->configuration->resolveDestination(data, destinationType, properties);
    return impl->find(destinationType).createClient(data, properties, std::move(handler));
}

}  // namespace KW
