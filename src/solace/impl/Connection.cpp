#include "solace/impl/Connection.h"

#include <chrono>
#include <cstring>

#include "solace/ClientLibrary.h"
#include "solace/RuntimeException.h"

namespace KW {
namespace Solace {
namespace Impl {

Connection::Connection(std::string const& destination,
                       std::map<std::string, std::string> const& connectionData)
    : destination(destination),
      trustStore(read(destination, connectionData, ClientLibrary::SSL_TRUST_STORE, "")),
      protocol(read(destination, connectionData, ClientLibrary::USE_SSL, "tcp", "tcps")),
      host(read(destination, connectionData, ClientLibrary::HOST, nullptr)),
      port(read(destination, connectionData, ClientLibrary::PORT, nullptr)),
      url(protocol + ":" + host + ":" + port),
      vpn(read(destination, connectionData, ClientLibrary::VPN, nullptr)),
      user(read(destination, connectionData, ClientLibrary::USER, "")),
      password(read(destination, connectionData, ClientLibrary::PASSWORD, "")),
      state(DISCONNECTED) {}

char const* Connection::read(std::string const& destination,
                             std::map<std::string, std::string> const& data, std::string const& key,
                             char const* defaultValue) {
    auto it = data.find(key);
    if (it != data.end() && !it->second.empty()) {
        return it->second.c_str();
    }
    if (defaultValue != nullptr) {
        return defaultValue;
    }
    throw RuntimeException("invalid destination '" + destination + "', missing parameter '" + key +
                           "'");
}

char const* Connection::read(std::string const& destination,
                             std::map<std::string, std::string> const& data, std::string const& key,
                             char const* falseValue, char const* trueValue) {
    auto it = data.find(key);
    if (it == data.end()) {
        return falseValue;
    }
    std::string const& value = it->second;
    if (value == "yes" || value == "on" || value == "true" || value == "1") {
        return trueValue;
    }
    return falseValue;
}

int Connection::getState() const {
    return state.load(std::memory_order_acquire);
}

void Connection::setState(ConnectionState value) {
    std::lock_guard<std::mutex> lock(stateMutex);
    state = value;
}

void Connection::setConnecting() {
    setState(CONNECTING);
}

void Connection::setFailed() {
    setState(FAILED);
}

void Connection::setDisconnected() {
    setState(DISCONNECTED);
}

void Connection::setConnected() {
    std::lock_guard<std::mutex> lock(stateMutex);
    state = CONNECTED;
    stateChanged.notify_all();
}

bool Connection::waitConnected(unsigned long timeoutMs) {
    std::unique_lock<std::mutex> lock(stateMutex);
    // Wall clock on purpose: the wait is bounded by a point in real time.
    auto const deadline = std::chrono::system_clock::now() + std::chrono::milliseconds(timeoutMs);
    if (state == CONNECTED) {
        return true;
    }
    for (;;) {
        stateChanged.wait_until(lock, deadline);
        if (std::chrono::system_clock::now() >= deadline) {
            break;
        }
        if (state == CONNECTED) {
            return true;
        }
    }
    return state == CONNECTED;
}

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
