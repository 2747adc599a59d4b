#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>

namespace KW {
namespace Solace {
namespace Impl {

// What one session needs to reach its broker, read once from the caller's
// connection data, and the session's connection state, which the library's
// context thread changes and callers wait on.
class Connection {
  public:
    enum ConnectionState : int { DISCONNECTED = 1, CONNECTING = 2, CONNECTED = 3, FAILED = 4 };

    Connection(std::string const& destination,
               std::map<std::string, std::string> const& connectionData);

    // String form: the value, else the default; throws when neither exists.
    // An empty value counts as missing.
    static char const* read(std::string const& destination,
                            std::map<std::string, std::string> const& data, std::string const& key,
                            char const* defaultValue);
    // Switch form: trueValue for "yes", "on", "true" or "1", else falseValue.
    static char const* read(std::string const& destination,
                            std::map<std::string, std::string> const& data, std::string const& key,
                            char const* falseValue, char const* trueValue);

    int getState() const;
    void setConnecting();
    void setFailed();
    void setDisconnected();
    void setConnected();
    // Waits the whole time unless the state becomes connected; a failed
    // connection does not end the wait early.
    bool waitConnected(unsigned long timeoutMs);

    std::string const& getDestination() const { return destination; }
    std::string const& getTrustStore() const { return trustStore; }
    std::string const& getProtocol() const { return protocol; }
    std::string const& getHost() const { return host; }
    std::string const& getPort() const { return port; }
    std::string const& getUrl() const { return url; }
    std::string const& getVpn() const { return vpn; }
    std::string const& getUser() const { return user; }
    std::string const& getPassword() const { return password; }

  private:
    void setState(ConnectionState value);

    std::string destination;
    std::string trustStore;
    std::string protocol;
    std::string host;
    std::string port;
    std::string url;
    std::string vpn;
    std::string user;
    std::string password;
    std::condition_variable stateChanged;
    mutable std::mutex stateMutex;
    // Written under stateMutex (for the waiters), read without it: every send
    // reads the state, and a single word read sees the same values as a locked one.
    std::atomic<ConnectionState> state;
};

}  // namespace Impl
}  // namespace Solace
}  // namespace KW
