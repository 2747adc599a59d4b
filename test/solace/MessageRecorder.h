#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/DataPacket.h"
#include "core/Message.h"
#include "core/MessageHandler.h"

namespace KW {
namespace Solace {
namespace Test {

// The payload as text; "<null>" for a message without one.
inline std::string text(std::shared_ptr<KW::Message> const& message) {
    auto payload = message->getPayload();
    return payload ? std::string(static_cast<char const*>(payload->data()), payload->size())
                   : "<null>";
}

// Records received messages. It can throw on chosen calls, hold every call
// until released, and acknowledge what it receives.
class MessageRecorder : public KW::MessageHandler {
  public:
    void handleMessage(std::shared_ptr<KW::Message> message) override {
        std::unique_lock<std::mutex> lock(mutex);
        std::size_t const call = calls++;
        changed.notify_all();
        changed.wait(lock, [this] { return !held; });
        if (call == throwOn) {
            throw std::runtime_error("handler failed on message " + std::to_string(call));
        }
        received.push_back(message);
        changed.notify_all();
        if (acknowledging) {
            lock.unlock();
            message->acknowledge();
        }
    }

    std::vector<std::shared_ptr<KW::Message>> messages() {
        std::lock_guard<std::mutex> lock(mutex);
        return received;
    }
    std::size_t count() { return messages().size(); }
    // Waits until n messages with this payload ("" for any) have arrived.
    bool waitFor(std::size_t n, std::string const& payload = "",
                 std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [&] {
            return std::count_if(received.begin(), received.end(), [&](auto const& m) {
                       return payload.empty() || text(m) == payload;
                   }) >= static_cast<long>(n);
        });
    }
    void setHeld(bool hold) {
        std::lock_guard<std::mutex> lock(mutex);
        held = hold;
        changed.notify_all();
    }
    void setThrowOn(std::size_t call) {
        std::lock_guard<std::mutex> lock(mutex);
        throwOn = call;
    }
    void setAcknowledging(bool on) {
        std::lock_guard<std::mutex> lock(mutex);
        acknowledging = on;
    }
    // Received messages hold their handler: tests break the cycle.
    void clear() {
        std::lock_guard<std::mutex> lock(mutex);
        received.clear();
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::shared_ptr<KW::Message>> received;
    std::size_t calls = 0;
    std::size_t throwOn = SIZE_MAX;
    bool held = false;
    bool acknowledging = false;
};

}  // namespace Test
}  // namespace Solace
}  // namespace KW
