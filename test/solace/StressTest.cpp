// Several sessions publishing and receiving while subscriptions come and go
// and the broker drops and returns: every request is answered exactly once
// and no library message is left behind.
#include <atomic>
#include <random>
#include <thread>
#include <unordered_map>

#include "AdapterTest.h"

namespace KW {
namespace Solace {
namespace Test {
namespace {

using Stress = AdapterTest;

struct Request {
    std::shared_ptr<Tag> tag;
    bool send;  // a send (else a subscription change)
};

TEST_F(Stress, EveryRequestIsAnsweredExactlyOnce) {
    constexpr int sessions = 3;
    constexpr int rounds = 200;
    ASSERT_EQ(solEmu_addQueue("stress-q"), 0);

    std::vector<std::shared_ptr<KW::Client>> peers;
    std::vector<std::shared_ptr<RecordingMessageHandler>> receivers;
    for (int i = 0; i < sessions; ++i) {
        peers.push_back(connectedClient());
        receivers.push_back(makeHandler());
        subscribeTopic(peers[i], receivers[i], "stress/" + std::to_string(i) + "/>");
    }
    auto consumer = makeHandler();
    consumer->autoAcknowledge(true);
    ASSERT_TRUE(
        peers[0]->subscribe(consumer, "stress-q", KW::QOS::GUARANTEED, KW::Reference::NONE));

    std::atomic<int> nextTag{0};
    std::mutex requestsMutex;
    std::vector<Request> requests;
    auto remember = [&](std::shared_ptr<Tag> tag, bool send) {
        std::lock_guard<std::mutex> lock(requestsMutex);
        requests.push_back({std::move(tag), send});
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < sessions; ++i) {
        threads.emplace_back([&, i] {
            std::mt19937 random(1000 + i);
            for (int round = 0; round < rounds; ++round) {
                auto& client = peers[i];
                std::string const topic =
                    "stress/" + std::to_string(random() % sessions) + "/r" + std::to_string(round);
                auto tag = std::make_shared<Tag>(nextTag++);
                bool const async = random() % 2 == 0;
                bool const guaranteed = random() % 3 == 0;
                bool const taken =
                    guaranteed
                        ? client->publish(packet("g"), "stress-q", KW::QOS::GUARANTEED, tag, async)
                        : client->publish(packet(topic), topic, KW::QOS::AT_MOST_ONCE, tag, async);
                // A refused enqueue is the answer itself; a taken request is
                // answered through the event handler.
                if (taken || !async) {
                    remember(tag, true);
                }
            }
        });
        threads.emplace_back([&, i] {
            std::string const topic = "stress/churn/" + std::to_string(i);
            auto handler = receivers[i];
            for (int round = 0; round < rounds / 4; ++round) {
                auto subscribeTag = std::make_shared<Tag>(nextTag++);
                if (peers[i]->subscribe(handler, topic, KW::QOS::AT_MOST_ONCE, subscribeTag)) {
                    remember(subscribeTag, false);
                }
                auto unsubscribeTag = std::make_shared<Tag>(nextTag++);
                if (peers[i]->unsubscribe(topic, KW::QOS::AT_MOST_ONCE, unsubscribeTag)) {
                    remember(unsubscribeTag, false);
                }
            }
        });
    }
    // A second consumer of the queue comes and goes, acknowledging as it
    // receives, so that acknowledgements race with its flow being stopped.
    auto flicker = makeHandler();
    flicker->autoAcknowledge(true);
    threads.emplace_back([&] {
        for (int round = 0; round < rounds / 10; ++round) {
            peers[sessions - 1]->subscribe(flicker, "stress-q", KW::QOS::GUARANTEED,
                                           KW::Reference::NONE);
            std::this_thread::sleep_for(5ms);
            peers[sessions - 1]->unsubscribe("stress-q", KW::QOS::GUARANTEED, KW::Reference::NONE);
        }
    });
    threads.emplace_back([] {
        std::this_thread::sleep_for(50ms);
        solEmu_setBrokerUp(HOST_PORT, 0);
        std::this_thread::sleep_for(300ms);
        solEmu_setBrokerUp(HOST_PORT, 1);
    });
    for (auto& thread : threads) {
        thread.join();
    }

    auto answered = [&](std::vector<Event> const& all) {
        std::unordered_map<KW::Reference const*, int> counts;
        for (auto const& e : all) {
            if (e.reference) {
                ++counts[e.reference.get()];
            }
        }
        std::lock_guard<std::mutex> lock(requestsMutex);
        return std::all_of(requests.begin(), requests.end(), [&](Request const& r) {
            auto it = counts.find(r.tag.get());
            return it != counts.end() && it->second >= 1;
        });
    };
    ASSERT_TRUE(events->waitUntil(answered, 60s)) << "some requests were never answered";
    ASSERT_TRUE(events->waitUntil(
        [&](auto const&) {
            return std::all_of(peers.begin(), peers.end(), [](auto const& peer) {
                return peer->getConnectionState() == Impl::Connection::CONNECTED;
            });
        },
        10s));

    // Exactly once, and of the right family.
    std::unordered_map<KW::Reference const*, std::vector<Event::Kind>> kinds;
    for (auto const& e : events->events()) {
        if (e.reference) {
            kinds[e.reference.get()].push_back(e.kind);
        }
    }
    for (auto const& request : requests) {
        auto const& got = kinds[request.tag.get()];
        ASSERT_EQ(got.size(), 1u) << "request " << request.tag->id;
        bool const sendOutcome = got[0] == Event::SEND_FINALIZE || got[0] == Event::SEND_REJECTED ||
                                 got[0] == Event::SEND_ERROR;
        EXPECT_EQ(sendOutcome, request.send) << "request " << request.tag->id;
    }

    // Wind down: everything unsubscribed and disconnected before teardown.
    for (auto& peer : peers) {
        peer->unsubscribe(KW::Reference::NONE);
        peer->disconnect(2000);
    }
}

}  // namespace
}  // namespace Test
}  // namespace Solace
}  // namespace KW
