// Several sessions publishing and receiving while subscriptions and flows
// come and go (acknowledgements racing their flow's stop) and the broker
// drops and returns: every request is answered exactly once, in the right
// family, and no library message is left behind.
#include <atomic>
#include <dirent.h>
#include <iostream>
#include <random>
#include <unordered_map>

#include "AdapterTest.h"

namespace KW::Solace::Test {

using Stress = AdapterTest;

// The requests made, by tag; true for a send. A request refused at once
// without a notification is answered by that refusal and not kept.
class Requests {
  public:
    template <typename Call>
    void make(bool send, bool notifiedIfRefused, Call call) {
        shared_ptr<Tag> tag;
        {
            std::lock_guard<std::mutex> lock(mutex);
            tags.push_back(tag = std::make_shared<Tag>(static_cast<int>(tags.size())));
        }
        if (call(tag) || notifiedIfRefused) {
            std::lock_guard<std::mutex> lock(mutex);
            requests[tag.get()] = send;
        }
    }
    // Each request answered exactly once, in the right family.
    void expectEachAnsweredOnce(EventRecorder& events) {
        std::lock_guard<std::mutex> lock(mutex);
        auto answered = [&](auto const& all) {
            return std::count_if(all.begin(), all.end(), [&](Event const& e) {
                       return requests.count(e.reference.get()) != 0;
                   }) >= long(requests.size());
        };
        ASSERT_TRUE(events.waitUntil(answered, 60s)) << "some requests were never answered";
        std::unordered_map<Reference const*, std::vector<Kind>> kinds;
        for (auto const& e : events.all()) {
            kinds[e.reference.get()].push_back(e.kind);
        }
        for (auto const& [reference, send] : requests) {
            auto const& got = kinds[reference];
            ASSERT_EQ(got.size(), 1u) << static_cast<Tag const*>(reference)->id;
            EXPECT_EQ(got[0] == SENT || got[0] == REJECTED || got[0] == UNSENT, send);
        }
    }
    std::size_t size() {
        std::lock_guard<std::mutex> lock(mutex);
        return requests.size();
    }

  private:
    std::mutex mutex;
    std::unordered_map<Reference const*, bool> requests;
    std::vector<shared_ptr<Tag>> tags;  // keeps every tag's address unique
};

// A slow application: now and then a notification on the context thread, or
// a message delivery, takes a while.
class SlowEvents : public EventRecorder {
  public:
    void connectionStateChanged(shared_ptr<Client> c) override {
        pause();
        EventRecorder::connectionStateChanged(c);
    }
    void messageSendFinalize(Msg m, Ref r) override {
        pause();
        EventRecorder::messageSendFinalize(m, r);
    }
    std::atomic<long> slow{0};

  private:
    void pause() {
        if (++calls % 16 == 0) {
            ++slow;
            std::this_thread::sleep_for(3ms);
        }
    }
    std::atomic<long> calls{0};
};

class SlowReceiver : public MessageRecorder {
  public:
    SlowReceiver() : MessageRecorder(true) {}
    void handleMessage(shared_ptr<Message> message) override {
        if (++calls % 8 == 0) {
            std::this_thread::sleep_for(2ms);
        }
        MessageRecorder::handleMessage(message);
    }

  private:
    std::atomic<long> calls{0};
};

long threadCount() {
    long count = 0;
    if (DIR* tasks = opendir("/proc/self/task")) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): this directory stream is ours alone
        while (dirent* entry = readdir(tasks)) {
            count += entry->d_name[0] != '.' ? 1 : 0;
        }
        closedir(tasks);
    }
    return count;
}

// Under a broker with a round trip, slow callbacks, a publish window that
// fills, drops, returns and sessions ended outright, with connects and
// disconnects at random: nothing hangs, every request is answered exactly
// once, every thread ends and no library message leaks. It runs until it has
// met each hazard (or 30 s) and prints how often it did.
TEST_F(Stress, NothingHangsUnderARealisticBroker) {
    auto slowEvents = std::make_shared<SlowEvents>();
    events = slowEvents;
    solEmu_setRoundTrip(2000);
    ASSERT_EQ(solEmu_addQueue("hazard-q"), 0);
    std::thread([] {}).join();  // a sanitizer's own thread, if it has one, is there from now
    long const threadsBefore = threadCount();
    long const windowWaitsBefore = solEmu_windowWaits();
    constexpr int sessions = 3;
    std::vector<shared_ptr<Client>> peers;
    std::vector<shared_ptr<SlowReceiver>> receivers;
    for (int i = 0; i < sessions; ++i) {
        peers.push_back(connectedClient());
        receivers.push_back(std::make_shared<SlowReceiver>());
        handlers.push_back(receivers.back());
        subscribe(peers[i], receivers[i], "hazard/" + std::to_string(i) + "/>");
    }
    Requests requests;
    std::atomic<bool> stop{false};
    std::atomic<long> downWhileBlocked{0}, dropWhileBlocked{0}, disconnectWhileBlocked{0},
        disconnectWhileReconnecting{0}, windowFull{0};

    std::vector<std::thread> threads;
    for (int i = 0; i < sessions; ++i) {
        threads.emplace_back([&, i] {  // publishing, direct and guaranteed
            std::mt19937 random(2000 + i);
            while (!stop) {
                bool const async = random() % 2 == 0;
                bool const guaranteed = random() % 2 == 0;
                std::string const topic = "hazard/" + std::to_string(random() % sessions) + "/x";
                requests.make(true, !async, [&](auto tag) {
                    return guaranteed
                               ? peers[i]->publish(packet("g"), "hazard-q", GUARANTEED, tag, async)
                               : peers[i]->publish(packet(topic), topic, AMO, tag, async);
                });
            }
        });
        threads.emplace_back([&, i] {  // topics and queues coming and going
            std::string const topic = "hazard/churn/" + std::to_string(i);
            while (!stop) {
                requests.make(false, false, [&](auto tag) {
                    return peers[i]->subscribe(receivers[i], topic, AMO, tag);
                });
                // A flow's start and stop are told only when they fail.
                peers[i]->subscribe(receivers[i], "hazard-q", GUARANTEED, nullptr);
                std::this_thread::sleep_for(2ms);
                requests.make(false, false,
                              [&](auto tag) { return peers[i]->unsubscribe(topic, AMO, tag); });
                peers[i]->unsubscribe("hazard-q", GUARANTEED, nullptr);
            }
        });
    }
    threads.emplace_back([&] {  // the script: disconnects and connects at random
        std::mt19937 random(7);
        while (!stop) {
            auto& peer = peers[random() % sessions];
            disconnectWhileBlocked += solEmu_blockedCalls() > 0 ? 1 : 0;
            disconnectWhileReconnecting +=
                peer->getConnectionState() == Impl::Connection::CONNECTING ? 1 : 0;
            peer->disconnect(0);
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 20));
            peer->connect(0);
            std::this_thread::sleep_for(std::chrono::milliseconds(20 + random() % 60));
        }
    });
    threads.emplace_back([&] {  // the broker
        std::mt19937 random(11);
        while (!stop) {
            switch (random() % 3) {
                case 0:
                    dropWhileBlocked += solEmu_blockedCalls() > 0 ? 1 : 0;
                    solEmu_setBrokerUp(HOST_PORT, 0);
                    std::this_thread::sleep_for(std::chrono::milliseconds(20 + random() % 150));
                    solEmu_setBrokerUp(HOST_PORT, 1);
                    break;
                case 1:
                    downWhileBlocked += solEmu_blockedCalls() > 0 ? 1 : 0;
                    solEmu_endSessions(HOST_PORT);
                    std::this_thread::sleep_for(20ms);
                    for (auto& peer : peers) {
                        peer->connect(0);
                    }
                    break;
                default: {
                    long const before = solEmu_windowWaits();
                    solEmu_setAckMode(2);  // the window of unanswered sends fills
                    std::this_thread::sleep_for(std::chrono::milliseconds(100 + random() % 200));
                    windowFull += solEmu_windowWaits() > before ? 1 : 0;
                    solEmu_setAckMode(0);
                }
            }
            std::this_thread::sleep_for(30ms);
        }
    });

    auto const started = std::chrono::steady_clock::now();
    auto hazards = [&] {
        return std::vector<std::pair<char const*, long>>{
            {"DOWN_ERROR with calls blocked", downWhileBlocked},
            {"broker drops with calls blocked", dropWhileBlocked},
            {"disconnects with calls blocked", disconnectWhileBlocked},
            {"disconnects while reconnecting", disconnectWhileReconnecting},
            {"full publish windows", windowFull},
            {"sends that waited for the window", solEmu_windowWaits() - windowWaitsBefore},
            {"slow callbacks on the context thread", slowEvents->slow}};
    };
    auto allHit = [&] {
        auto const all = hazards();
        return std::all_of(all.begin(), all.end(), [](auto const& h) { return h.second > 0; });
    };
    do {
        std::this_thread::sleep_for(500ms);
    } while (std::chrono::steady_clock::now() - started < 3s ||
             (!allHit() && std::chrono::steady_clock::now() - started < 30s));
    stop = true;
    // Bounded: a hang here would otherwise only end at the test's time limit.
    std::atomic<int> joined{0};
    std::thread joiner([&] {
        for (auto& thread : threads) {
            thread.join();
            ++joined;
        }
    });
    // Two minutes: under ThreadSanitizer a thread may still sit out a vendor time-out (10 s).
    for (int waited = 0; joined < int(threads.size()) && waited < 1200; ++waited) {
        std::this_thread::sleep_for(100ms);
    }
    if (joined < int(threads.size())) {
        std::cerr << "hang: " << threads.size() - joined << " test threads stuck\n";
        std::abort();
    }
    joiner.join();
    for (auto& peer : peers) {
        peer->connect(0);
    }
    ASSERT_TRUE(events->waitUntil(
        [&](auto const&) {
            return std::all_of(peers.begin(), peers.end(),
                               [](auto const& p) { return p->getConnectionState() == CONNECTED; });
        },
        30s));
    requests.expectEachAnsweredOnce(*events);
    std::cout << "hazards met in " << requests.size() << " requests:";
    for (auto const& [name, count] : hazards()) {
        std::cout << " " << name << " " << count << ";";
        EXPECT_GT(count, 0) << name;
    }
    std::cout << std::endl;

    for (auto& peer : peers) {
        peer->unsubscribe(Reference::NONE);
        peer->disconnect(0);
    }
    peers.clear();
    receivers.clear();
    TearDown();  // every session terminated, the library shut down
    EXPECT_LE(threadCount(), threadsBefore + 1) << "threads left running";  // + the timer thread
    solEmu_setRoundTrip(0);
}

}  // namespace KW::Solace::Test
