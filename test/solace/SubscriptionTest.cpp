// Topic subscriptions and queue flows: duplicates and unknown names, the
// broker's refusals and the states they leave, messages that arrive after a
// stop, acknowledgement, failing handlers and the bound of the receive queue.
#include "AdapterTest.h"
#include "solace/impl/Flow.h"
#include "solace/impl/MessageTask.h"
#include "solace/impl/Subscription.h"

namespace KW {
namespace Solace {
namespace Test {
namespace {

class Subscriptions : public AdapterTest {
  protected:
    void SetUp() override {
        AdapterTest::SetUp();
        client = connectedClient();
        session = &sessionOf(client);
    }

    void publish(std::string const& topic, std::string const& text) {
        ASSERT_TRUE(client->publish(packet(text), topic, KW::QOS::AT_MOST_ONCE, KW::Reference::NONE,
                                    false));
    }

    // Publishes a marker on a topic the handler receives and waits for it:
    // everything published before it has been dispatched by then.
    void flushThrough(std::shared_ptr<RecordingMessageHandler> const& handler,
                      std::string const& markerTopic) {
        std::size_t const before = handler->countPayload("marker");
        publish(markerTopic, "marker");
        ASSERT_TRUE(handler->waitForPayload("marker", before + 1, 5s));
    }

    void TearDown() override {
        client.reset();
        AdapterTest::TearDown();
    }

    // Notifications other than connection-state changes.
    std::size_t answers() {
        auto all = events->events();
        return static_cast<std::size_t>(std::count_if(
            all.begin(), all.end(), [](Event const& e) { return e.kind != Event::STATE; }));
    }

    std::shared_ptr<KW::Client> client;
    Impl::Session* session = nullptr;
};

TEST_F(Subscriptions, DuplicateSubscribeDependsOnTheHandler) {
    auto handler = makeHandler();
    auto other = makeHandler();
    subscribeTopic(client, handler, "dup");
    EXPECT_TRUE(client->subscribe(handler, "dup", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    EXPECT_FALSE(client->subscribe(other, "dup", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    // Neither queued anything: a marker subscription is answered next.
    subscribeTopic(client, handler, "marker");
    EXPECT_EQ(events->count(Event::CREATE_FINALIZE), 2u);
    EXPECT_EQ(events->count(Event::CREATE_ERROR), 0u);
    publish("dup", "once");
    flushThrough(handler, "marker");
    EXPECT_EQ(handler->count(), 2u);
    EXPECT_EQ(other->count(), 0u);
}

TEST_F(Subscriptions, UnknownNamesAndTheWrongKindAreNotUnsubscribed) {
    auto handler = makeHandler();
    EXPECT_FALSE(client->unsubscribe("never", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    EXPECT_FALSE(client->unsubscribe("never", KW::QOS::GUARANTEED, KW::Reference::NONE));
    EXPECT_FALSE(client->unsubscribe(handler, KW::Reference::NONE));

    ASSERT_EQ(solEmu_addQueue("jobs"), 0);
    ASSERT_TRUE(client->subscribe(handler, "jobs", KW::QOS::GUARANTEED, KW::Reference::NONE));
    EXPECT_EQ(session->findSubscription("jobs"), nullptr);
    ASSERT_NE(session->findFlow("jobs"), nullptr);
    // A queue is not a topic of the same name.
    EXPECT_FALSE(client->unsubscribe("jobs", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    // Removing by handler finds it even though it holds only a queue.
    EXPECT_TRUE(client->unsubscribe(handler, KW::Reference::NONE));
    EXPECT_EQ(session->findFlow("jobs"), nullptr);
}

TEST_F(Subscriptions, UnsubscribeByHandlerLeavesOtherHandlersAlone) {
    auto mine = makeHandler();
    auto theirs = makeHandler();
    subscribeTopic(client, mine, "a");
    subscribeTopic(client, mine, "b");
    subscribeTopic(client, theirs, "c");
    auto tag = std::make_shared<Tag>(1);
    EXPECT_TRUE(client->unsubscribe(mine, tag));
    ASSERT_TRUE(events->waitFor(Event::REMOVE_FINALIZE, 2, 5s));
    auto removed = events->events(Event::REMOVE_FINALIZE);
    EXPECT_EQ(removed[0].topic, "a");
    EXPECT_EQ(removed[1].topic, "b");
    EXPECT_EQ(removed[0].reference, tag);
    EXPECT_NE(session->findSubscription("c"), nullptr);

    publish("a", "gone");
    flushThrough(theirs, "c");
    EXPECT_EQ(mine->count(), 0u);

    EXPECT_TRUE(client->unsubscribe(KW::Reference::NONE));
    EXPECT_EQ(session->findSubscription("c"), nullptr);
}

TEST_F(Subscriptions, ANullHandlerIsRefusedQuietly) {
    EXPECT_FALSE(client->subscribe(nullptr, "nobody", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    EXPECT_FALSE(client->subscribe(nullptr, "nobody", KW::QOS::GUARANTEED, KW::Reference::NONE));
    EXPECT_EQ(session->findSubscription("nobody"), nullptr);
    EXPECT_EQ(session->findFlow("nobody"), nullptr);
    auto handler = makeHandler();
    subscribeTopic(client, handler, "somebody");
    EXPECT_EQ(answers(), 1u);
}

TEST_F(Subscriptions, WildcardsDeliverTheConcreteTopic) {
    auto handler = makeHandler();
    subscribeTopic(client, handler, "prices/*/eur");
    publish("prices/gold/eur", "1800");
    ASSERT_TRUE(handler->waitFor(1, 5s));
    auto message = handler->messages()[0];
    EXPECT_EQ(message->getTopic(), "prices/gold/eur");
    EXPECT_EQ(message->getQOS(), KW::QOS::AT_MOST_ONCE);
    // Topic messages carry no id.
    EXPECT_EQ(std::dynamic_pointer_cast<Impl::MessageTask>(message)->getMessageID(), 0u);
}

TEST_F(Subscriptions, AlreadyPresentCountsAsSubscribedButReceivesNothing) {
    auto handler = makeHandler();
    solEmu_refuseSubscriptions("twice", SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT);
    auto tag = std::make_shared<Tag>(23);
    ASSERT_TRUE(client->subscribe(handler, "twice", KW::QOS::AT_MOST_ONCE, tag));
    ASSERT_TRUE(events->waitFor(Event::CREATE_ERROR, 1, 5s));
    Event const error = events->events(Event::CREATE_ERROR)[0];
    EXPECT_EQ(error.code, SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT);
    EXPECT_EQ(error.reference, tag);
    EXPECT_EQ(error.qos, KW::QOS::AT_MOST_ONCE);
    EXPECT_FALSE(error.text.empty());
    Impl::Subscription* subscription = session->findSubscription("twice");
    ASSERT_NE(subscription, nullptr);
    EXPECT_EQ(subscription->getState(), Impl::Subscription::SUBSCRIBED);
    EXPECT_EQ(subscription->getLastSubCode(), SOLCLIENT_SUBCODE_SUBSCRIPTION_ALREADY_PRESENT);

    solEmu_refuseSubscriptions("twice", 0);
    subscribeTopic(client, handler, "marker");
    publish("twice", "unseen");
    flushThrough(handler, "marker");
    EXPECT_EQ(handler->count(), 1u);
}

TEST_F(Subscriptions, AclDenialAndOtherRefusalsLeaveDistinctStates) {
    auto handler = makeHandler();
    solEmu_refuseSubscriptions("secret", SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED);
    solEmu_refuseSubscriptions("bad", SOLCLIENT_SUBCODE_SUBSCRIPTION_INVALID);
    client->subscribe(handler, "secret", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE);
    client->subscribe(handler, "bad", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE);
    ASSERT_TRUE(events->waitFor(Event::CREATE_ERROR, 2, 5s));
    auto errors = events->events(Event::CREATE_ERROR);
    EXPECT_EQ(errors[0].code, SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED);
    EXPECT_EQ(errors[1].code, SOLCLIENT_SUBCODE_SUBSCRIPTION_INVALID);
    EXPECT_EQ(session->findSubscription("secret")->getState(), Impl::Subscription::REFUSED);
    EXPECT_EQ(session->findSubscription("bad")->getState(), Impl::Subscription::FAILED);
}

TEST_F(Subscriptions, ARefusedUnsubscribeStillStopsDelivery) {
    auto handler = makeHandler();
    subscribeTopic(client, handler, "sticky");
    subscribeTopic(client, handler, "marker");
    solEmu_refuseSubscriptions("sticky", SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND);
    auto tag = std::make_shared<Tag>(24);
    ASSERT_TRUE(client->unsubscribe("sticky", KW::QOS::AT_MOST_ONCE, tag));
    ASSERT_TRUE(events->waitFor(Event::REMOVE_ERROR, 1, 5s));
    Event const error = events->events(Event::REMOVE_ERROR)[0];
    EXPECT_EQ(error.code, SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND);
    EXPECT_EQ(error.reference, tag);
    // The broker still holds the subscription, but its callback is no longer
    // served.
    publish("sticky", "unseen");
    flushThrough(handler, "marker");
    EXPECT_EQ(handler->count(), 1u);
    EXPECT_EQ(text(handler->messages()[0]), "marker");
}

TEST_F(Subscriptions, MessagesInFlightAcrossAnUnsubscribeNeverArrive) {
    auto handler = makeHandler();
    subscribeTopic(client, handler, "late");
    subscribeTopic(client, handler, "marker");
    solEmu_holdDeliveries(1);
    publish("late", "in flight");
    ASSERT_TRUE(client->unsubscribe("late", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE));
    ASSERT_TRUE(events->waitFor(Event::REMOVE_FINALIZE, 1, 5s));
    solEmu_holdDeliveries(0);
    flushThrough(handler, "marker");
    ASSERT_EQ(handler->count(), 1u);
    EXPECT_EQ(text(handler->messages()[0]), "marker");
}

TEST_F(Subscriptions, AThrowingHandlerIsReportedAndTheNextMessageStillArrives) {
    auto handler = makeHandler();
    handler->throwOn({0});
    subscribeTopic(client, handler, "fragile");
    publish("fragile", "first");
    publish("fragile", "second");
    ASSERT_TRUE(handler->waitFor(1, 5s));
    EXPECT_EQ(text(handler->messages()[0]), "second");
    ASSERT_TRUE(events->waitFor(Event::RUNTIME_ERROR, 1, 5s));
    EXPECT_EQ(events->events(Event::RUNTIME_ERROR)[0].text, "handler failed on message 0");
}

TEST_F(Subscriptions, ABlockedHandlerMakesTheReceiveQueueDropTopicMessages) {
    auto handler = makeHandler();
    subscribeTopic(client, handler, "flood");
    // A second session in the same context receives the flood too; its
    // last message tells that the library has handed over everything.
    auto watcher = connectedClient();
    auto watcherHandler = makeHandler();
    subscribeTopic(watcher, watcherHandler, "flood");
    handler->hold();
    // At most 512 wait in the queue and up to 50 in each of the two batches
    // held by the blocked handler; the rest is dropped.
    constexpr std::size_t sent = 620;
    for (std::size_t i = 0; i < sent; ++i) {
        publish("flood", std::to_string(i));
    }
    ASSERT_TRUE(handler->waitEntered(1, 5s));
    ASSERT_TRUE(watcherHandler->waitFor(sent, 60s));
    handler->release();
    std::size_t received = 0;
    for (std::size_t last = SIZE_MAX; received != last;) {
        last = received;
        handler->waitFor(last + 1, 1s);
        received = handler->count();
    }
    EXPECT_LT(received, sent);
    EXPECT_GE(received, 512u);
}

class Flows : public Subscriptions {
  protected:
    void SetUp() override {
        Subscriptions::SetUp();
        ASSERT_EQ(solEmu_addQueue("work"), 0);
    }

    void sendToQueue(std::string const& text) {
        ASSERT_TRUE(
            client->publish(packet(text), "work", KW::QOS::GUARANTEED, KW::Reference::NONE, false));
    }
};

TEST_F(Flows, QueueMessagesNeedAndTakeAnAcknowledgement) {
    auto handler = makeHandler();
    ASSERT_TRUE(client->subscribe(handler, "work", KW::QOS::GUARANTEED, KW::Reference::NONE));
    sendToQueue("job");
    ASSERT_TRUE(handler->waitFor(1, 5s));
    auto message = handler->messages()[0];
    EXPECT_EQ(message->getTopic(), "work");
    EXPECT_EQ(message->getQOS(), KW::QOS::GUARANTEED);
    EXPECT_TRUE(message->isAckRequired());
    EXPECT_EQ(text(message), "job");
    EXPECT_NE(std::dynamic_pointer_cast<Impl::MessageTask>(message)->getMessageID(), 0u);
    EXPECT_EQ(solEmu_queueDepth("work"), 1);

    message->acknowledge();
    EXPECT_TRUE(events->waitUntil([](auto const&) { return solEmu_queueDepth("work") == 0; }, 5s));
    EXPECT_EQ(solEmu_queueDepth("work"), 0);
    // A second acknowledgement does no harm.
    message->acknowledge();
    sendToQueue("next");
    ASSERT_TRUE(handler->waitFor(2, 5s));
    EXPECT_EQ(solEmu_queueDepth("work"), 1);

    // A started flow reports nothing on success; its state shows it.
    Impl::Flow* flow = session->findFlow("work");
    ASSERT_NE(flow, nullptr);
    EXPECT_TRUE(flow->getState() == Impl::Flow::ACTIVE || flow->getState() == Impl::Flow::UP);
    EXPECT_TRUE(events->events(Event::CREATE_FINALIZE).empty());
    EXPECT_TRUE(events->events(Event::CREATE_ERROR).empty());
}

TEST_F(Flows, AcknowledgingAfterTheQueueWasUnsubscribedIsHarmless) {
    auto handler = makeHandler();
    ASSERT_TRUE(client->subscribe(handler, "work", KW::QOS::GUARANTEED, KW::Reference::NONE));
    sendToQueue("kept");
    ASSERT_TRUE(handler->waitFor(1, 5s));
    ASSERT_TRUE(client->unsubscribe("work", KW::QOS::GUARANTEED, KW::Reference::NONE));
    // The stop has run once a later subscription is answered.
    subscribeTopic(client, handler, "marker");
    auto message = handler->messages()[0];
    message->acknowledge();
    // The unacknowledged message went back to the queue with its flow.
    EXPECT_EQ(solEmu_queueDepth("work"), 1);
    EXPECT_TRUE(message->isAckRequired());
}

TEST_F(Flows, ABindToAnUnknownQueueIsReportedWithTheErrorRecord) {
    auto handler = makeHandler();
    auto tag = std::make_shared<Tag>(66);
    ASSERT_TRUE(client->subscribe(handler, "missing", KW::QOS::GUARANTEED, tag));
    ASSERT_TRUE(events->waitFor(Event::CREATE_ERROR, 1, 5s));
    Event const error = events->events(Event::CREATE_ERROR)[0];
    EXPECT_EQ(error.code, SOLCLIENT_SUBCODE_QUEUE_NOT_FOUND);
    EXPECT_EQ(error.qos, KW::QOS::GUARANTEED);
    EXPECT_EQ(error.reference, tag);
    Impl::Flow* flow = session->findFlow("missing");
    ASSERT_NE(flow, nullptr);
    EXPECT_EQ(flow->getState(), Impl::Flow::FAILED);
    EXPECT_EQ(flow->getLastSubCode(), SOLCLIENT_SUBCODE_QUEUE_NOT_FOUND);
    // Unsubscribing the never-created flow answers nothing a second time.
    EXPECT_TRUE(client->unsubscribe("missing", KW::QOS::GUARANTEED, tag));
    subscribeTopic(client, handler, "marker");
    EXPECT_EQ(answers(), 2u);
}

TEST_F(Flows, AFailedStartIsReportedWithoutTheRecord) {
    ASSERT_EQ(solEmu_failNext("solClient_flow_start", 1, SOLCLIENT_FAIL,
                              SOLCLIENT_SUBCODE_INTERNAL_ERROR, "will not start"),
              0);
    auto handler = makeHandler();
    auto tag = std::make_shared<Tag>(2);
    ASSERT_TRUE(client->subscribe(handler, "work", KW::QOS::GUARANTEED, tag));
    // Without an error record the outcome reads as a finalize.
    ASSERT_TRUE(events->waitFor(Event::CREATE_FINALIZE, 1, 5s));
    EXPECT_EQ(events->events(Event::CREATE_FINALIZE)[0].reference, tag);
    Impl::Flow* flow = session->findFlow("work");
    EXPECT_EQ(flow->getLastSubCode(), SOLCLIENT_SUBCODE_INTERNAL_ERROR);
    // The flow was bound but never started: nothing is delivered. (Its state
    // reads failed until the library's own bind notice overwrites it.)
    sendToQueue("stuck");
    auto marker = makeHandler();
    subscribeTopic(client, marker, "marker");
    flushThrough(marker, "marker");
    EXPECT_EQ(handler->count(), 0u);
    EXPECT_EQ(solEmu_queueDepth("work"), 1);
}

TEST_F(Flows, AFailedStopStillDestroysTheFlow) {
    auto handler = makeHandler();
    ASSERT_TRUE(client->subscribe(handler, "work", KW::QOS::GUARANTEED, KW::Reference::NONE));
    sendToQueue("one");
    ASSERT_TRUE(handler->waitFor(1, 5s));
    handler->messages()[0]->acknowledge();

    ASSERT_EQ(solEmu_failNext("solClient_flow_stop", 1, SOLCLIENT_FAIL,
                              SOLCLIENT_SUBCODE_INTERNAL_ERROR, "will not stop"),
              0);
    auto tag = std::make_shared<Tag>(3);
    ASSERT_TRUE(client->unsubscribe("work", KW::QOS::GUARANTEED, tag));
    ASSERT_TRUE(events->waitFor(Event::REMOVE_ERROR, 1, 5s));
    EXPECT_EQ(events->events(Event::REMOVE_ERROR)[0].text, "will not stop");
    EXPECT_EQ(events->events(Event::REMOVE_ERROR)[0].reference, tag);

    // The flow is gone: new queue messages stay in the queue.
    sendToQueue("two");
    auto marker = makeHandler();
    subscribeTopic(client, marker, "marker");
    flushThrough(marker, "marker");
    EXPECT_EQ(handler->count(), 1u);
    EXPECT_EQ(solEmu_queueDepth("work"), 1);
}

}  // namespace
}  // namespace Test
}  // namespace Solace
}  // namespace KW
