#include <filesystem>
#include <random>

#include "AdapterTest.h"

namespace KW::Solace::Test {

using Stress = AdapterTest;

long threadCount() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

// Every hazard at random, acknowledgements racing their flow's stop: nothing hangs, every request
// is answered exactly once, every thread ends. It runs until it has met each hazard (or 30 s).
TEST_F(Stress, NothingHangsUnderARealisticBroker) {
    events->slowEvery = 16;
    solEmu_setRoundTrip(2000);
    ASSERT_EQ(solEmu_addQueue("hazard-q"), 0);
    std::thread([] {}).join();  // a sanitizer's own thread, if it has one, is there from now
    long const threadsBefore = threadCount();
    long const windowWaitsBefore = solEmu_windowWaits();
    constexpr int sessions = 3;
    std::vector<shared_ptr<Client>> peers;
    std::vector<shared_ptr<MessageRecorder>> receivers;
    for (int i = 0; i < sessions; ++i) {
        peers.push_back(connectedClient());
        receivers.push_back(
            subscribed(peers[i], "hazard/" + std::to_string(i) + "/>", makeHandler(true)));
        receivers.back()->slowEvery = 8;
    }
    // Each request made, true for a send. One refused at once without a
    // notification is answered by that refusal and not kept.
    std::mutex requestsMutex;
    std::map<shared_ptr<Reference>, bool> requests;
    auto request = [&](bool send, bool notifiedIfRefused, auto call) {
        auto tag = std::make_shared<Tag>(0);
        if (call(tag) || notifiedIfRefused) {
            std::lock_guard<std::mutex> lock(requestsMutex);
            requests[tag] = send;
        }
    };
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
                request(true, !async, [&](auto tag) {
                    return guaranteed
                               ? peers[i]->publish(packet("g"), "hazard-q", GUARANTEED, tag, async)
                               : peers[i]->publish(packet(topic), topic, AMO, tag, async);
                });
            }
        });
        threads.emplace_back([&, i] {  // topics and queues coming and going
            std::string const topic = "hazard/churn/" + std::to_string(i);
            while (!stop) {
                request(false, false, [&](auto tag) {
                    return peers[i]->subscribe(receivers[i], topic, AMO, tag);
                });
                // A flow's start and stop are told only when they fail.
                peers[i]->subscribe(receivers[i], "hazard-q", GUARANTEED, nullptr);
                std::this_thread::sleep_for(2ms);
                request(false, false,
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
            {"slow state changes and send finalizes", events->slowed}};
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
    for (auto& thread : threads) {  // a hang runs into ctest's time-out
        thread.join();
    }
    for (auto& peer : peers) {
        peer->connect(0);
    }
    ASSERT_TRUE(eventually(
        [&] {
            return std::all_of(peers.begin(), peers.end(),
                               [](auto const& p) { return p->getConnectionState() == CONNECTED; });
        },
        30s));
    // Each request answered exactly once, in the right family.
    auto const answered = [&](Event const& e) { return requests.count(e.reference) != 0; };
    ASSERT_TRUE(events->waitCount(requests.size(), answered, 60s)) << "requests left unanswered";
    std::map<shared_ptr<Reference>, std::vector<Kind>> kinds;
    for (auto const& e : events->all()) {
        kinds[e.reference].push_back(e.kind);
    }
    for (auto const& [reference, send] : requests) {
        auto const& got = kinds[reference];
        ASSERT_EQ(got.size(), 1u) << (send ? "a send" : "a subscription request");
        EXPECT_EQ(got[0] == SENT || got[0] == REJECTED || got[0] == UNSENT, send);
    }
    for (auto const& [name, count] : hazards()) {
        EXPECT_GT(count, 0) << name;
    }

    peers.clear();
    receivers.clear();
    TearDown();  // disconnects and releases every client: each session ends, then the library
    EXPECT_LE(threadCount(), threadsBefore + 1) << "threads left running";  // + the timer thread
    solEmu_setRoundTrip(0);
}

}  // namespace KW::Solace::Test
