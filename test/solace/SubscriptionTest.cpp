// Topic subscriptions and queue flows: duplicates and unknown names, the
// broker's refusals and the states they leave, messages arriving after a
// stop, acknowledgement, failing handlers and the bound of the receive queue.
#include "AdapterTest.h"
#include "solace/impl/Flow.h"
#include "solace/impl/Subscription.h"

namespace KW {
namespace Solace {
namespace Test {
namespace {

class Subscriptions : public AdapterTest {
  protected:
    void SetUp() override {
        AdapterTest::SetUp();
        ASSERT_EQ(solEmu_addQueue("work"), 0);
        client = connectedClient();
        session = &sessionOf(client);
    }
    void TearDown() override {
        client.reset();
        AdapterTest::TearDown();
    }
    void publish(std::string const& topic, std::string const& payload,
                 KW::QOS::Enum qos = KW::QOS::AT_MOST_ONCE) {
        ASSERT_TRUE(client->publish(packet(payload), topic, qos, KW::Reference::NONE, false));
    }
    bool subscribeQueue(std::shared_ptr<MessageRecorder> const& handler, std::string const& name,
                        std::shared_ptr<KW::Reference> tag = KW::Reference::NONE) {
        return client->subscribe(handler, name, KW::QOS::GUARANTEED, tag);
    }
    // Answers to subscription requests.
    std::size_t answers() {
        return events->of(CREATED).size() + events->of(CREATE_ERROR).size() +
               events->of(REMOVED).size() + events->of(REMOVE_ERROR).size();
    }

    std::shared_ptr<KW::Client> client;
    Impl::Session* session = nullptr;
};

TEST_F(Subscriptions, DuplicatesUnknownNamesAndNullHandlers) {
    auto handler = makeHandler();
    auto other = makeHandler();
    subscribe(client, handler, "dup");
    EXPECT_TRUE(client->subscribe(handler, "dup", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    EXPECT_FALSE(client->subscribe(other, "dup", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    EXPECT_FALSE(client->subscribe(nullptr, "none", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    EXPECT_FALSE(subscribeQueue(nullptr, "work"));
    EXPECT_FALSE(client->unsubscribe("never", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    EXPECT_FALSE(client->unsubscribe(other, KW::Reference::NONE));
    // A queue is not a topic of the same name, and vice versa.
    ASSERT_TRUE(subscribeQueue(other, "work"));
    EXPECT_FALSE(client->unsubscribe("work", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    EXPECT_FALSE(client->unsubscribe("dup", KW::QOS::GUARANTEED, KW::Reference::NONE));
    // None of that queued anything: the next subscription is the second answer.
    subscribe(client, handler, "marker");
    EXPECT_EQ(answers(), 2u);
    publish("dup", "once");
    flush(client, handler, "marker");
    EXPECT_EQ(handler->count(), 2u);
    // Removing by handler finds the handler that holds only a queue.
    EXPECT_TRUE(client->unsubscribe(other, KW::Reference::NONE));
    EXPECT_EQ(session->findFlow("work"), nullptr);
}

TEST_F(Subscriptions, UnsubscribeByHandlerRemovesOnlyItsTopicsInOrder) {
    auto mine = makeHandler();
    auto theirs = makeHandler();
    subscribe(client, mine, "b");
    subscribe(client, mine, "a");
    subscribe(client, theirs, "c");
    auto tag = std::make_shared<Tag>(1);
    EXPECT_TRUE(client->unsubscribe(mine, tag));
    ASSERT_TRUE(events->waitFor(REMOVED, 2));
    auto removed = events->of(REMOVED);
    EXPECT_EQ(removed[0].name, "a");
    EXPECT_EQ(removed[1].name, "b");
    EXPECT_EQ(removed[1].reference, tag);
    publish("a", "gone");
    flush(client, theirs, "c");
    EXPECT_EQ(mine->count(), 0u);
    EXPECT_TRUE(client->unsubscribe(KW::Reference::NONE));
    EXPECT_EQ(session->findSubscription("c"), nullptr);
}

TEST_F(Subscriptions, RefusalsLeaveTheirStates) {
    struct Case {
        char const* topic;
        int subCode;
        int state;
    } const cases[] = {
        {"present", SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT, Impl::Subscription::SUBSCRIBED},
        {"denied", SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED, Impl::Subscription::REFUSED},
        {"invalid", SOLCLIENT_SUBCODE_SUBSCRIPTION_INVALID, Impl::Subscription::FAILED}};
    auto handler = makeHandler();
    for (auto const& c : cases) {
        solEmu_refuseSubscriptions(c.topic, c.subCode);
        auto tag = std::make_shared<Tag>(c.subCode);
        ASSERT_TRUE(client->subscribe(handler, c.topic, KW::QOS::AT_MOST_ONCE, tag));
    }
    ASSERT_TRUE(events->waitFor(CREATE_ERROR, 3));
    auto const errors = events->of(CREATE_ERROR);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(errors[i].number, cases[i].subCode);
        EXPECT_EQ(std::dynamic_pointer_cast<Tag>(errors[i].reference)->id, cases[i].subCode);
        EXPECT_FALSE(errors[i].text.empty());
        auto* subscription = session->findSubscription(cases[i].topic);
        EXPECT_EQ(subscription->getState(), cases[i].state) << cases[i].topic;
        EXPECT_EQ(subscription->getLastSubCode(), cases[i].subCode);
    }
    // Counted as subscribed, yet nothing arrives through it.
    for (auto const& c : cases) {
        solEmu_refuseSubscriptions(c.topic, 0);
    }
    subscribe(client, handler, "marker");
    publish("present", "unseen");
    flush(client, handler, "marker");
    EXPECT_EQ(handler->count(), 1u);
}

TEST_F(Subscriptions, NothingArrivesAfterAStopEvenARefusedOne) {
    auto handler = makeHandler();
    subscribe(client, handler, "late");
    subscribe(client, handler, "sticky");
    subscribe(client, handler, "marker");
    solEmu_refuseSubscriptions("sticky", SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND);
    solEmu_holdDeliveries(1);
    publish("late", "in flight");
    ASSERT_TRUE(client->unsubscribe("late", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    ASSERT_TRUE(client->unsubscribe("sticky", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    ASSERT_TRUE(events->waitFor(REMOVE_ERROR, 1));
    EXPECT_EQ(events->of(REMOVE_ERROR)[0].number, SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND);
    EXPECT_EQ(events->of(REMOVED).size(), 1u);
    solEmu_holdDeliveries(0);
    publish("sticky", "unseen");  // still at the broker, no longer served
    flush(client, handler, "marker");
    EXPECT_EQ(handler->count(), 1u);
}

TEST_F(Subscriptions, AThrowingHandlerIsReportedAndTheNextMessageStillArrives) {
    auto handler = makeHandler();
    handler->setThrowOn(0);
    subscribe(client, handler, "fragile");
    publish("fragile", "first");
    publish("fragile", "second");
    ASSERT_TRUE(handler->waitFor(1, "second"));
    ASSERT_TRUE(events->waitFor(FAULT, 1));
    EXPECT_EQ(events->of(FAULT)[0].text, "handler failed on message 0");
}

TEST_F(Subscriptions, ABlockedHandlerMakesTheReceiveQueueDropTopicMessages) {
    auto handler = makeHandler();
    subscribe(client, handler, "flood");
    // A second session of the same context gets the flood too: once it has
    // all of it, the library has handed over everything.
    auto watcher = connectedClient();
    auto watching = makeHandler();
    subscribe(watcher, watching, "flood");
    handler->setHeld(true);
    // 512 may wait in the queue, up to 50 in each of the two batches held by
    // the blocked handler; the rest is dropped.
    constexpr std::size_t sent = 620;
    for (std::size_t i = 0; i < sent; ++i) {
        publish("flood", std::to_string(i));
    }
    ASSERT_TRUE(watching->waitFor(sent, "", 60s));
    handler->setHeld(false);
    std::size_t received = 0;
    while (handler->waitFor(received + 1, "", 1s)) {
        received = handler->count();
    }
    EXPECT_LT(received, sent);
    EXPECT_GE(received, 512u);
}

TEST_F(Subscriptions, QueueMessagesAreAcknowledgedOneByOne) {
    auto handler = makeHandler();
    ASSERT_TRUE(subscribeQueue(handler, "work"));
    publish("work", "job", KW::QOS::GUARANTEED);
    ASSERT_TRUE(handler->waitFor(1));
    auto message = handler->messages()[0];
    EXPECT_EQ(message->getTopic(), "work");
    EXPECT_EQ(message->getQOS(), KW::QOS::GUARANTEED);
    EXPECT_TRUE(message->isAckRequired());
    EXPECT_EQ(solEmu_queueDepth("work"), 1);
    message->acknowledge();
    EXPECT_TRUE(events->waitUntil([](auto const&) { return solEmu_queueDepth("work") == 0; }));
    message->acknowledge();  // twice does no harm
    // A started flow is not announced; its state shows it.
    EXPECT_EQ(answers(), 0u);
    int const state = session->findFlow("work")->getState();
    EXPECT_TRUE(state == Impl::Flow::ACTIVE || state == Impl::Flow::UP) << state;

    // Unsubscribed: a late acknowledgement finds a stopped flow, and the
    // unacknowledged message goes back to the queue.
    publish("work", "kept", KW::QOS::GUARANTEED);
    ASSERT_TRUE(handler->waitFor(1, "kept"));
    ASSERT_TRUE(client->unsubscribe("work", KW::QOS::GUARANTEED, KW::Reference::NONE));
    subscribe(client, handler, "marker");  // answered after the stop has run
    handler->messages()[1]->acknowledge();
    EXPECT_EQ(solEmu_queueDepth("work"), 1);
}

TEST_F(Subscriptions, FlowFailuresAndHowTheyAreTold) {
    auto handler = makeHandler();
    auto tag = std::make_shared<Tag>(66);
    ASSERT_TRUE(subscribeQueue(handler, "missing", tag));
    ASSERT_TRUE(events->waitFor(CREATE_ERROR, 1));
    Event const error = events->of(CREATE_ERROR)[0];
    EXPECT_EQ(error.number, SOLCLIENT_SUBCODE_QUEUE_NOT_FOUND);
    EXPECT_EQ(error.qos, KW::QOS::GUARANTEED);
    EXPECT_EQ(error.reference, tag);
    EXPECT_EQ(session->findFlow("missing")->getState(), Impl::Flow::FAILED);
    // Never created: its unsubscribe is not answered a second time.
    EXPECT_TRUE(client->unsubscribe("missing", KW::QOS::GUARANTEED, tag));

    // A failed start reads as a finalize: it is told without the record.
    solEmu_failNext("solClient_flow_start", 1, SOLCLIENT_FAIL, 6, "will not start");
    ASSERT_TRUE(subscribeQueue(handler, "work", tag));
    ASSERT_TRUE(events->waitFor(CREATED, 1));
    EXPECT_EQ(session->findFlow("work")->getLastSubCode(), 6);
    publish("work", "stuck", KW::QOS::GUARANTEED);

    // A failed stop is told, and the flow is destroyed all the same.
    solEmu_failNext("solClient_flow_stop", 1, SOLCLIENT_FAIL, 6, "will not stop");
    ASSERT_TRUE(client->unsubscribe("work", KW::QOS::GUARANTEED, tag));
    ASSERT_TRUE(events->waitFor(REMOVE_ERROR, 1));
    EXPECT_EQ(events->of(REMOVE_ERROR)[0].text, "will not stop");
    EXPECT_EQ(answers(), 3u);
    subscribe(client, handler, "marker");
    flush(client, handler, "marker");
    EXPECT_EQ(handler->count(), 1u);  // the marker only: "stuck" never left the queue
    EXPECT_EQ(solEmu_queueDepth("work"), 1);
}

}  // namespace
}  // namespace Test
}  // namespace Solace
}  // namespace KW
