#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/Client.h"
#include "core/EventHandler.h"
#include "core/Reference.h"
#include "solace/impl/MessageTask.h"

namespace KW {
namespace Solace {
namespace Test {

// A completion reference that tests can tell apart.
struct Tag : KW::Reference {
    explicit Tag(int id) : id(id) {}
    int const id;
};

enum Kind {
    STATE,
    SENT,
    REJECTED,
    SEND_ERROR,
    CREATED,
    CREATE_ERROR,
    REMOVED,
    REMOVE_ERROR,
    FAULT
};

// One notification as the event handler received it.
struct Event {
    Event(Kind kind, int number = 0, std::string text = "", std::string name = "", int qos = 0,
          unsigned long long id = 0, std::shared_ptr<KW::Reference> reference = nullptr)
        : kind(kind),
          number(number),
          text(std::move(text)),
          name(std::move(name)),
          qos(qos),
          id(id),
          reference(std::move(reference)) {}

    Kind kind;
    int number;        // STATE: the connection state; errors: the sub-code
    std::string text;  // error and rejection texts
    std::string name;  // topic or queue
    int qos;
    unsigned long long id;  // message id of a send
    std::shared_ptr<KW::Reference> reference;
};

// Records every notification under a mutex; tests wait for what they expect
// with a bounding timeout.
class EventRecorder : public KW::EventHandler {
  public:
    void connectionStateChanged(std::shared_ptr<KW::Client> client) override {
        add({STATE, client->getConnectionState()});
    }
    void messageSendFinalize(std::shared_ptr<KW::Message> m,
                             std::shared_ptr<KW::Reference> r) override {
        send(SENT, m, "", r);
    }
    void messageSendRejected(std::shared_ptr<KW::Message> m, char const* text,
                             std::shared_ptr<KW::Reference> r) override {
        send(REJECTED, m, text, r);
    }
    void messageSendError(std::shared_ptr<KW::Message> m, char const* text,
                          std::shared_ptr<KW::Reference> r) override {
        send(SEND_ERROR, m, text, r);
    }
    void subscriptionCreateFinalize(std::string const& name, KW::QOS::Enum qos,
                                    std::shared_ptr<KW::Reference> r) override {
        add({CREATED, 0, "", name, qos, 0, r});
    }
    void subscriptionCreateError(std::string const& name, KW::QOS::Enum qos,
                                 std::shared_ptr<KW::Reference> r, char const* text,
                                 int code) override {
        add({CREATE_ERROR, code, text, name, qos, 0, r});
    }
    void subscriptionRemoveFinalize(std::string const& name, KW::QOS::Enum qos,
                                    std::shared_ptr<KW::Reference> r) override {
        add({REMOVED, 0, "", name, qos, 0, r});
    }
    void subscriptionRemoveError(std::string const& name, KW::QOS::Enum qos,
                                 std::shared_ptr<KW::Reference> r, char const* text,
                                 int code) override {
        add({REMOVE_ERROR, code, text, name, qos, 0, r});
    }
    void runtimeErrorOccurred(char const* text, int code) override { add({FAULT, code, text}); }
    void runtimeErrorOccurred(char const* text) override { add({FAULT, 0, text}); }

    std::vector<Event> all() {
        std::lock_guard<std::mutex> lock(mutex);
        return events;
    }
    std::vector<Event> of(Kind kind) {
        auto result = all();
        result.erase(std::remove_if(result.begin(), result.end(),
                                    [kind](Event const& e) { return e.kind != kind; }),
                     result.end());
        return result;
    }
    template <typename Done>
    bool waitUntil(Done done, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [&] { return done(events); });
    }
    bool waitFor(Kind kind, std::size_t n,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        return waitUntil(
            [&](std::vector<Event> const& all) {
                return std::count_if(all.begin(), all.end(), [kind](Event const& e) {
                           return e.kind == kind;
                       }) >= static_cast<long>(n);
            },
            timeout);
    }
    bool waitForState(int state) {
        return waitUntil([state](std::vector<Event> const& all) {
            return std::any_of(all.begin(), all.end(), [state](Event const& e) {
                return e.kind == STATE && e.number == state;
            });
        });
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex);
        events.clear();
    }

  private:
    void add(Event event) {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(std::move(event));
        changed.notify_all();
    }
    void send(Kind kind, std::shared_ptr<KW::Message> const& m, char const* text,
              std::shared_ptr<KW::Reference> r) {
        Event event{kind, 0, text ? text : "", "", 0, 0, std::move(r)};
        if (auto task = std::dynamic_pointer_cast<Impl::MessageTask>(m)) {
            event.name = task->getTopic();
            event.qos = task->getQOS();
            event.id = task->getMessageID();
        }
        add(std::move(event));
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Event> events;
};

}  // namespace Test
}  // namespace Solace
}  // namespace KW
