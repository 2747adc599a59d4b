// Several sessions publishing and receiving while subscriptions and flows
// come and go and the broker drops and returns: every request is answered
// exactly once, in the right family, and no library message is left behind.
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

TEST_F(Stress, EveryRequestIsAnsweredExactlyOnce) {
    constexpr int sessions = 3;
    constexpr int rounds = 200;
    ASSERT_EQ(solEmu_addQueue("stress-q"), 0);
    std::vector<std::shared_ptr<KW::Client>> peers;
    std::vector<std::shared_ptr<MessageRecorder>> receivers;
    for (int i = 0; i < sessions; ++i) {
        peers.push_back(connectedClient());
        receivers.push_back(makeHandler());
        subscribe(peers[i], receivers[i], "stress/" + std::to_string(i) + "/>");
    }
    auto consumer = makeHandler();
    consumer->setAcknowledging(true);
    ASSERT_TRUE(peers[0]->subscribe(consumer, "stress-q", KW::QOS::GUARANTEED, nullptr));
    // A second consumer comes and goes, acknowledging as it receives, so
    // that acknowledgements race with its flow being stopped.
    auto flicker = makeHandler();
    flicker->setAcknowledging(true);

    std::mutex mutex;
    std::unordered_map<KW::Reference const*, bool> requests;  // true: a send
    std::vector<std::shared_ptr<Tag>> tags;
    auto request = [&](bool send) {
        std::lock_guard<std::mutex> lock(mutex);
        tags.push_back(std::make_shared<Tag>(static_cast<int>(tags.size())));
        requests[tags.back().get()] = send;
        return tags.back();
    };
    auto forget = [&](std::shared_ptr<Tag> const& tag) {
        std::lock_guard<std::mutex> lock(mutex);
        requests.erase(tag.get());
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < sessions; ++i) {
        threads.emplace_back([&, i] {  // publishing
            std::mt19937 random(1000 + i);
            for (int round = 0; round < rounds; ++round) {
                auto tag = request(true);
                bool const async = random() % 2 == 0;
                std::string const topic = "stress/" + std::to_string(random() % sessions) + "/x";
                bool const taken = random() % 3 == 0
                                       ? peers[i]->publish(packet("g"), "stress-q",
                                                           KW::QOS::GUARANTEED, tag, async)
                                       : peers[i]->publish(packet(topic), topic,
                                                           KW::QOS::AT_MOST_ONCE, tag, async);
                if (async && !taken) {
                    forget(tag);  // a refused enqueue is its own answer
                }
            }
        });
        threads.emplace_back([&, i] {  // subscriptions coming and going
            std::string const topic = "stress/churn/" + std::to_string(i);
            for (int round = 0; round < rounds / 4; ++round) {
                auto tag = request(false);
                if (!peers[i]->subscribe(receivers[i], topic, KW::QOS::AT_MOST_ONCE, tag)) {
                    forget(tag);
                }
                tag = request(false);
                if (!peers[i]->unsubscribe(topic, KW::QOS::AT_MOST_ONCE, tag)) {
                    forget(tag);
                }
            }
        });
    }
    threads.emplace_back([&] {
        for (int round = 0; round < rounds / 10; ++round) {
            peers.back()->subscribe(flicker, "stress-q", KW::QOS::GUARANTEED, nullptr);
            std::this_thread::sleep_for(5ms);
            peers.back()->unsubscribe("stress-q", KW::QOS::GUARANTEED, nullptr);
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

    auto answers = [&](std::vector<Event> const& all) {
        std::unordered_map<KW::Reference const*, std::vector<Kind>> kinds;
        for (auto const& e : all) {
            if (e.reference) {
                kinds[e.reference.get()].push_back(e.kind);
            }
        }
        return kinds;
    };
    ASSERT_TRUE(events->waitUntil(
        [&](std::vector<Event> const& all) {
            auto kinds = answers(all);
            return std::all_of(requests.begin(), requests.end(),
                               [&](auto const& r) { return kinds.count(r.first) != 0; });
        },
        60s))
        << "some requests were never answered";
    ASSERT_TRUE(events->waitUntil([&](auto const&) {
        return std::all_of(peers.begin(), peers.end(),
                           [](auto const& p) { return p->getConnectionState() == CONNECTED; });
    }));
    auto kinds = answers(events->all());
    for (auto const& [reference, send] : requests) {
        auto const& got = kinds[reference];
        ASSERT_EQ(got.size(), 1u) << static_cast<Tag const*>(reference)->id;
        EXPECT_EQ(got[0] == SENT || got[0] == REJECTED || got[0] == SEND_ERROR, send);
    }
    for (auto& peer : peers) {
        peer->unsubscribe(KW::Reference::NONE);
        peer->disconnect(2000);
    }
}

}  // namespace
}  // namespace Test
}  // namespace Solace
}  // namespace KW
