#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/EventHandler.h"
#include "core/Message.h"
#include "core/MessageHandler.h"
#include "core/Reference.h"

namespace KW {
namespace Solace {
namespace Test {

// A completion reference that tests can tell apart.
class Tag : public KW::Reference {
  public:
    explicit Tag(int id) : id(id) {}
    int const id;
};

// One notification, as the event handler received it.
struct Event {
    enum Kind {
        STATE,
        SEND_FINALIZE,
        SEND_REJECTED,
        SEND_ERROR,
        CREATE_FINALIZE,
        CREATE_ERROR,
        REMOVE_FINALIZE,
        REMOVE_ERROR,
        RUNTIME_ERROR
    };
    explicit Event(Kind kind) : kind(kind) {}

    Kind kind;
    int state = 0;      // STATE: the client's connection state at the call
    std::string text;   // texts of errors and rejections
    int code = 0;       // sub-code of subscription and runtime errors
    std::string topic;  // topic of a subscription outcome or of the sent message
    int qos = 0;
    unsigned long long messageID = 0;
    std::shared_ptr<KW::Reference> reference;
};

// Records every notification under a mutex; tests wait for what they expect
// with a bounding timeout.
class RecordingEventHandler : public KW::EventHandler {
  public:
    void connectionStateChanged(std::shared_ptr<KW::Client> client) override;
    void messageSendFinalize(std::shared_ptr<KW::Message> message,
                             std::shared_ptr<KW::Reference> reference) override;
    void messageSendRejected(std::shared_ptr<KW::Message> message, char const* text,
                             std::shared_ptr<KW::Reference> reference) override;
    void messageSendError(std::shared_ptr<KW::Message> message, char const* text,
                          std::shared_ptr<KW::Reference> reference) override;
    void subscriptionCreateFinalize(std::string const& topic, KW::QOS::Enum qos,
                                    std::shared_ptr<KW::Reference> reference) override;
    void subscriptionCreateError(std::string const& topic, KW::QOS::Enum qos,
                                 std::shared_ptr<KW::Reference> reference, char const* text,
                                 int code) override;
    void subscriptionRemoveFinalize(std::string const& topic, KW::QOS::Enum qos,
                                    std::shared_ptr<KW::Reference> reference) override;
    void subscriptionRemoveError(std::string const& topic, KW::QOS::Enum qos,
                                 std::shared_ptr<KW::Reference> reference, char const* text,
                                 int code) override;
    void runtimeErrorOccurred(char const* text, int code) override;
    void runtimeErrorOccurred(char const* text) override;

    std::vector<Event> events();
    std::vector<Event> events(Event::Kind kind);
    std::size_t count(Event::Kind kind);
    // Waits until at least n events of the kind have arrived.
    bool waitFor(Event::Kind kind, std::size_t n, std::chrono::milliseconds timeout);
    bool waitUntil(std::function<bool(std::vector<Event> const&)> const& done,
                   std::chrono::milliseconds timeout);
    void clear();

  private:
    void record(Event event);
    void recordSend(Event::Kind kind, std::shared_ptr<KW::Message> const& message, char const* text,
                    std::shared_ptr<KW::Reference> reference);

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Event> recorded;
};

// Records received messages; can be told to throw on chosen calls or to
// hold every call until released.
class RecordingMessageHandler : public KW::MessageHandler {
  public:
    void handleMessage(std::shared_ptr<KW::Message> message) override;

    std::vector<std::shared_ptr<KW::Message>> messages();
    std::size_t count();
    bool waitFor(std::size_t n, std::chrono::milliseconds timeout);
    // Waits until n received messages have exactly this payload.
    bool waitForPayload(std::string const& payload, std::size_t n,
                        std::chrono::milliseconds timeout);
    std::size_t countPayload(std::string const& payload);
    // The messages keep this handler alive (they hold it); tests clear them.
    void clear();

    // Calls whose 0-based number is in the list throw a std::runtime_error.
    void throwOn(std::vector<std::size_t> calls);
    // While held, every call blocks (after being counted as entered).
    void hold();
    void release();
    bool waitEntered(std::size_t n, std::chrono::milliseconds timeout);
    // Acknowledge every message on arrival.
    void autoAcknowledge(bool on);

  private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::shared_ptr<KW::Message>> received;
    std::vector<std::size_t> throwing;
    std::size_t calls = 0;
    std::size_t entered = 0;
    bool held = false;
    bool acknowledging = false;
};

}  // namespace Test
}  // namespace Solace
}  // namespace KW
