#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "../Eventually.h"
#include "SolClientEmulator.h"
#include "core/DataPacket.h"
#include "core/DroppedFailures.h"
#include "core/EventHandler.h"
#include "core/Exception.h"
#include "core/MessageHandler.h"
#include "solace/impl/Client.h"
#include "solace/impl/Connection.h"
#include "solace/impl/Library.h"
#include "solace/impl/MessageTask.h"
#include "solace/impl/Session.h"

namespace KW::Solace::Test {

using namespace std::chrono_literals;
using Data = std::map<std::string, std::string>;
using std::shared_ptr;
constexpr char const* HOST_PORT = "localhost:55555";
constexpr int CONNECTED = Impl::Connection::CONNECTED;
constexpr QOS::Enum AMO = QOS::AT_MOST_ONCE, GUARANTEED = QOS::GUARANTEED;

// A completion reference that tests can tell apart.
struct Tag : Reference {
    explicit Tag(int id) : id(id) {}
    int const id;
};

enum Kind { STATE, SENT, REJECTED, UNSENT, CREATED, CREATE_ERROR, REMOVED, REMOVE_ERROR, FAULT };

// One notification. number: the connection state or the sub-code; name: topic
// or queue; id: the message id of a send.
struct Event {
    Kind kind;
    int number = 0;
    std::string text{}, name{};
    int qos = 0;
    unsigned long long id = 0;
    shared_ptr<Reference> reference{};
};

// Items recorded under a mutex; tests wait for what they expect, bounded.
template <typename T>
class Record {
  public:
    template <typename Match>
    std::vector<T> where(Match match) {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<T> result;
        std::copy_if(items.begin(), items.end(), std::back_inserter(result), match);
        return result;
    }
    std::vector<T> all() {
        return where([](T const&) { return true; });
    }
    template <typename Match>
    bool waitCount(std::size_t n, Match match, std::chrono::milliseconds timeout = 5s) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [&] {
            return std::count_if(items.begin(), items.end(), match) >= long(n);
        });
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex);
        items.clear();
    }
    // Every n-th slowed call (0: none) takes a while, as a slow application's would.
    std::atomic<long> slowEvery{0}, slowed{0};

  protected:
    void pause() {
        long const every = slowEvery;
        if (every != 0 && ++slowCalls % every == 0) {
            ++slowed;
            std::this_thread::sleep_for(2ms);
        }
    }
    void add(T item) {
        std::lock_guard<std::mutex> lock(mutex);
        items.push_back(std::move(item));
        changed.notify_all();
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<T> items;
    std::atomic<long> slowCalls{0};
};

class EventRecorder : public EventHandler, public Record<Event> {
  public:
    using Msg = shared_ptr<Message>;
    using Ref = shared_ptr<Reference>;
    // The two that the library's context thread makes most (both slowed).
    void connectionStateChanged(shared_ptr<Client> c) override {
        pause();
        add({STATE, c->getConnectionState()});
    }
    void messageSendFinalize(Msg m, Ref r) override {
        pause();
        send(SENT, m, "", r);
    }
    void messageSendRejected(Msg m, char const* t, Ref r) override { send(REJECTED, m, t, r); }
    void messageSendError(Msg m, char const* t, Ref r) override { send(UNSENT, m, t, r); }
    void subscriptionCreateFinalize(std::string const& n, QOS::Enum q, Ref r) override {
        add({CREATED, 0, "", n, q, 0, r});
    }
    void subscriptionCreateError(std::string const& n, QOS::Enum q, Ref r, char const* t,
                                 int code) override {
        add({CREATE_ERROR, code, t, n, q, 0, r});
    }
    void subscriptionRemoveFinalize(std::string const& n, QOS::Enum q, Ref r) override {
        add({REMOVED, 0, "", n, q, 0, r});
    }
    void subscriptionRemoveError(std::string const& n, QOS::Enum q, Ref r, char const* t,
                                 int code) override {
        add({REMOVE_ERROR, code, t, n, q, 0, r});
    }
    void runtimeErrorOccurred(char const* text, int code) override { add({FAULT, code, text}); }
    void runtimeErrorOccurred(char const* text) override { add({FAULT, 0, text}); }

    std::vector<Event> of(Kind kind) {
        return where([kind](Event const& e) { return e.kind == kind; });
    }
    // The answers to one request.
    std::vector<Event> of(shared_ptr<Reference> const& tag) {
        return where([&tag](Event const& e) { return e.reference == tag; });
    }
    bool waitFor(Kind kind, std::size_t n, std::chrono::milliseconds timeout = 5s) {
        return waitCount(
            n, [kind](Event const& e) { return e.kind == kind; }, timeout);
    }
    std::vector<Event> waitOf(Kind kind, std::size_t n) {
        EXPECT_TRUE(waitFor(kind, n)) << "event kind " << kind;
        return of(kind);
    }
    bool waitForState(int state) {
        return waitCount(1,
                         [state](Event const& e) { return e.kind == STATE && e.number == state; });
    }

  private:
    void send(Kind kind, Msg const& m, char const* text, Ref r) {
        auto task = std::dynamic_pointer_cast<Impl::MessageTask>(m);
        add({kind, 0, text ? text : "", "", 0, task ? task->getMessageID() : 0, std::move(r)});
    }
};

// The payload as text; "<null>" for a message without one.
inline std::string text(shared_ptr<Message> const& message) {
    auto payload = message->getPayload();
    return payload ? std::string(static_cast<char const*>(payload->data()), payload->size())
                   : "<null>";
}

// Records received messages. It can throw on one chosen call, acknowledge what
// it receives, hold every call until released, and be slowed.
class MessageRecorder : public MessageHandler, public Record<shared_ptr<Message>> {
  public:
    explicit MessageRecorder(bool acknowledging = false, std::size_t throwOn = SIZE_MAX)
        : acknowledging(acknowledging), throwOn(throwOn) {}
    void handleMessage(shared_ptr<Message> message) override {
        pause();
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return !held; });
        if (calls++ == throwOn) {
            throw std::runtime_error("handler failed on message " + std::to_string(throwOn));
        }
        items.push_back(message);
        changed.notify_all();
        if (acknowledging) {
            lock.unlock();
            message->acknowledge();
        }
    }
    // Messages with this payload ("" for any): how many came, or wait until n have.
    std::size_t count(std::string const& payload = "") {
        return where([&](auto const& m) { return payload.empty() || text(m) == payload; }).size();
    }
    bool waitFor(std::size_t n, std::string const& payload = "",
                 std::chrono::milliseconds timeout = 5s) {
        return waitCount(
            n, [&](auto const& m) { return payload.empty() || text(m) == payload; }, timeout);
    }
    void setHeld(bool hold) {
        std::lock_guard<std::mutex> lock(mutex);
        held = hold;
        changed.notify_all();
    }

  private:
    bool const acknowledging;
    std::size_t const throwOn;
    std::size_t calls = 0;
    bool held = false;
};

inline Data connectionData(std::string const& user = "alice") {
    return {{"host", "localhost"},
            {"port", "55555"},
            {"vpn", "default"},
            {"user", user},
            {"password", "secret"}};
}
inline shared_ptr<DataPacket> packet(std::string const& text) {
    return DataPacket::create(text.data(), text.size());
}
inline Impl::Session& sessionOf(shared_ptr<Client> const& client) {
    return std::dynamic_pointer_cast<Impl::Client>(client)->getSession();
}

// A started library on a fresh stand-in. Clients made here are disconnected
// and released afterwards, which must end their sessions; no vendor session or
// library message may be left alive.
class AdapterTest : public ::testing::Test {
  protected:
    void SetUp() override {
        solEmu_reset();
        changedAttachments = solEmu_changedAttachments();
        library = std::make_shared<Impl::Library>();
        library->start();
    }
    void TearDown() override {
        client.reset();
        for (auto& each : clients) {
            try {
                each->disconnect(0);
            } catch (KW::Exception const&) {
                // A test that fails the library's calls; the release still ends it.
            }
        }
        clients.clear();
        // Ended on the context's end worker, once a notification under way on
        // the context thread has let go of its client.
        EXPECT_TRUE(eventually([] { return solEmu_liveSessions() == 0; }))
            << solEmu_liveSessions() << " sessions of released clients left";
        // Received messages hold their handler, and a large payload its
        // library message, which can only be freed before the shutdown.
        for (auto& handler : handlers) {
            handler->clear();
        }
        EXPECT_NO_THROW(library->shutdown());
        // The library reads a guaranteed message's bytes until its answer.
        EXPECT_EQ(solEmu_changedAttachments(), changedAttachments);
        solEmu_reset();
        EXPECT_EQ(solEmu_liveMessages(), 0) << "library messages leaked";
        // A refused free is a handle freed after its session or twice.
        for (char const* site : {"solClient_msg_free", "solClient_flow_destroy",
                                 "solClient_session_destroy", "solClient_context_destroy"}) {
            EXPECT_EQ(KW::DroppedFailures::count(site), 0u) << site;
        }
    }

    shared_ptr<Client> makeClient(Data const& data = connectionData()) {
        clients.push_back(library->createClient("dev", data, events));
        return clients.back();
    }
    shared_ptr<Client> connectedClient() {
        auto const before = events->of(STATE).size();
        auto client = makeClient();
        EXPECT_EQ(client->connect(5000), 1);
        // The waiter wakes before the handler is told: let the telling happen
        // so that tests start from a settled record.
        EXPECT_TRUE(events->waitFor(STATE, before + 1));
        return client;
    }
    shared_ptr<MessageRecorder> makeHandler(bool acknowledging = false,
                                            std::size_t throwOn = SIZE_MAX) {
        handlers.push_back(std::make_shared<MessageRecorder>(acknowledging, throwOn));
        return handlers.back();
    }
    // Subscribes the handler (a new one if none) and waits for the confirmation.
    shared_ptr<MessageRecorder> subscribed(shared_ptr<Client> const& client,
                                           std::string const& topic,
                                           shared_ptr<MessageRecorder> handler = nullptr) {
        handler = handler ? handler : makeHandler();
        auto const before = events->of(CREATED).size();
        EXPECT_TRUE(client->subscribe(handler, topic, AMO, Reference::NONE));
        EXPECT_TRUE(events->waitFor(CREATED, before + 1));
        return handler;
    }
    // Waits for the outcome of a send and checks that it is the only one.
    Event outcomeOf(shared_ptr<Reference> const& tag) {
        EXPECT_TRUE(events->waitCount(1, [&tag](Event const& e) { return e.reference == tag; }));
        auto const outcomes = events->of(tag);
        EXPECT_EQ(outcomes.size(), 1u);
        return outcomes.empty() ? Event{FAULT} : outcomes[0];
    }
    // What was published before the marker has had its chance to arrive.
    void flush(shared_ptr<Client> const& client, shared_ptr<MessageRecorder> const& handler,
               std::string const& topic) {
        auto const before = handler->count("marker");
        ASSERT_TRUE(client->publish(packet("marker"), topic, AMO, Reference::NONE, false));
        ASSERT_TRUE(handler->waitFor(before + 1, "marker"));
    }

    shared_ptr<Impl::Library> library;
    long changedAttachments = 0;
    shared_ptr<Client> client;  // the test's main client, if it has one
    shared_ptr<EventRecorder> events = std::make_shared<EventRecorder>();
    std::vector<shared_ptr<Client>> clients;
    std::vector<shared_ptr<MessageRecorder>> handlers;
};

// A connected main client and a queue "work" at the broker.
class Connected : public AdapterTest {
  protected:
    void SetUp() override {
        AdapterTest::SetUp();
        ASSERT_EQ(solEmu_addQueue("work"), 0);
        client = connectedClient();
    }
    bool subscribe(shared_ptr<MessageRecorder> const& handler, std::string const& name,
                   QOS::Enum qos, shared_ptr<Reference> tag = Reference::NONE) {
        return client->subscribe(handler, name, qos, tag);
    }
    bool unsubscribe(std::string const& name, QOS::Enum qos) {
        return client->unsubscribe(name, qos, Reference::NONE);
    }
    void publish(std::string const& topic, std::string const& payload, QOS::Enum qos = AMO) {
        ASSERT_TRUE(client->publish(packet(payload), topic, qos, Reference::NONE, false));
    }
    // Publishes its topic as payload (lent for the call only) with a fresh tag,
    // expecting publish to return accepted, and gives the outcome.
    Event send(std::string const& topic, QOS::Enum qos, bool accepted = true) {
        auto tag = std::make_shared<Tag>(0);
        EXPECT_EQ(client->publishBytes(topic.data(), topic.size(), topic, qos, tag), accepted);
        return outcomeOf(tag);
    }
    std::size_t pending() { return session().getPendingCount(); }
    // Answers to subscription requests.
    std::size_t answers() {
        return events->where([](auto& e) { return e.kind >= CREATED && e.kind <= REMOVE_ERROR; })
            .size();
    }
    Impl::Session& session() { return sessionOf(client); }
};

}  // namespace KW::Solace::Test
