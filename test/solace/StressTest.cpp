// Several sessions publishing and receiving while subscriptions and flows
// come and go and the broker drops and returns: every request is answered
// exactly once, in the right family, and no library message is left behind.
#include <random>
#include <unordered_map>

#include "AdapterTest.h"

namespace KW::Solace::Test {

using Stress = AdapterTest;

TEST_F(Stress, EveryRequestIsAnsweredExactlyOnce) {
    constexpr int sessions = 3, rounds = 200;
    ASSERT_EQ(solEmu_addQueue("stress-q"), 0);
    std::vector<shared_ptr<Client>> peers;
    std::vector<shared_ptr<MessageRecorder>> receivers;
    for (int i = 0; i < sessions; ++i) {
        peers.push_back(connectedClient());
        receivers.push_back(makeHandler());
        subscribe(peers[i], receivers[i], "stress/" + std::to_string(i) + "/>");
    }
    ASSERT_TRUE(peers[0]->subscribe(makeHandler(true), "stress-q", GUARANTEED, nullptr));
    // A second consumer comes and goes, acknowledging as it receives, so
    // that acknowledgements race with its flow being stopped.
    auto flicker = makeHandler(true);

    // The requests made, by tag; true for a send. A request refused at once
    // without a notification is answered by that refusal and not kept.
    std::mutex mutex;
    std::unordered_map<Reference const*, bool> requests;
    std::vector<shared_ptr<Tag>> tags;  // keeps every tag's address unique
    auto request = [&](bool send, bool notifiedIfRefused, auto call) {
        shared_ptr<Tag> tag;
        {
            std::lock_guard<std::mutex> lock(mutex);
            tags.push_back(tag = std::make_shared<Tag>(static_cast<int>(tags.size())));
        }
        if (call(tag) || notifiedIfRefused) {
            std::lock_guard<std::mutex> lock(mutex);
            requests[tag.get()] = send;
        }
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < sessions; ++i) {
        threads.emplace_back([&, i] {  // publishing
            std::mt19937 random(1000 + i);
            for (int round = 0; round < rounds; ++round) {
                bool const async = random() % 2 == 0;
                std::string const topic = "stress/" + std::to_string(random() % sessions) + "/x";
                bool const guaranteed = random() % 3 == 0;
                request(true, !async, [&](auto tag) {
                    return guaranteed
                               ? peers[i]->publish(packet("g"), "stress-q", GUARANTEED, tag, async)
                               : peers[i]->publish(packet(topic), topic, AMO, tag, async);
                });
            }
        });
        threads.emplace_back([&, i] {  // subscriptions coming and going
            std::string const topic = "stress/churn/" + std::to_string(i);
            for (int round = 0; round < rounds / 4; ++round) {
                request(false, false, [&](auto tag) {
                    return peers[i]->subscribe(receivers[i], topic, AMO, tag);
                });
                request(false, false,
                        [&](auto tag) { return peers[i]->unsubscribe(topic, AMO, tag); });
            }
        });
    }
    threads.emplace_back([&] {
        for (int round = 0; round < rounds / 10; ++round) {
            peers.back()->subscribe(flicker, "stress-q", GUARANTEED, nullptr);
            std::this_thread::sleep_for(5ms);
            peers.back()->unsubscribe("stress-q", GUARANTEED, nullptr);
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

    auto answered = [&](auto const& all) {
        return std::count_if(all.begin(), all.end(), [&](Event const& e) {
                   return requests.count(e.reference.get()) != 0;
               }) >= long(requests.size());
    };
    ASSERT_TRUE(events->waitUntil(answered, 60s)) << "some requests were never answered";
    ASSERT_TRUE(events->waitUntil([&](auto const&) {
        return std::all_of(peers.begin(), peers.end(),
                           [](auto const& p) { return p->getConnectionState() == CONNECTED; });
    }));
    std::unordered_map<Reference const*, std::vector<Kind>> kinds;
    for (auto const& e : events->all()) {
        kinds[e.reference.get()].push_back(e.kind);
    }
    for (auto const& [reference, send] : requests) {
        auto const& got = kinds[reference];
        ASSERT_EQ(got.size(), 1u) << static_cast<Tag const*>(reference)->id;
        EXPECT_EQ(got[0] == SENT || got[0] == REJECTED || got[0] == UNSENT, send);
    }
    for (auto& peer : peers) {
        peer->unsubscribe(Reference::NONE);
        peer->disconnect(2000);
    }
}

}  // namespace KW::Solace::Test
