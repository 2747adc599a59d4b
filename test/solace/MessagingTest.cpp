#include "AdapterTest.h"
#include "solace/LibraryException.h"
#include "solace/impl/Flow.h"
#include "solace/impl/ReceiveTask.h"
#include "solace/impl/Subscription.h"

namespace KW::Solace::Test {

using Sending = Connected;
using Subscriptions = Connected;

// Forward acknowledges the queue message it sends on.
TEST_F(Sending, AtMostOnceGoesToTheTopicAndForwardSendsThePayloadOn) {
    auto handler = subscribed(client, "news/*");  // received under the concrete topic
    Event const done = send("news/today", AMO);
    EXPECT_EQ(done.kind, SENT);
    ASSERT_TRUE(handler->waitFor(1));
    auto message = handler->all()[0];
    EXPECT_EQ(text(message), "news/today");
    EXPECT_FALSE(message->isAckRequired());
    EXPECT_EQ(message->getClient(), client);
    EXPECT_EQ(std::dynamic_pointer_cast<Impl::MessageTask>(message)->getMessageID(), 0u);

    ASSERT_TRUE(subscribe(handler, "work", GUARANTEED));
    publish("work", "relay me", GUARANTEED);
    ASSERT_TRUE(handler->waitFor(1, "relay me"));
    EXPECT_EQ(solEmu_queueDepth("work"), 1);
    auto tag = std::make_shared<Tag>(8);
    EXPECT_TRUE(client->forward(handler->all()[1], "news/relayed", AMO, tag, true));
    EXPECT_EQ(outcomeOf(tag).kind, SENT);
    ASSERT_TRUE(handler->waitFor(2, "relay me"));
    EXPECT_EQ(handler->all()[2]->getTopic(), "news/relayed");
    EXPECT_TRUE(eventually([] { return solEmu_queueDepth("work") == 0; }));
    // Nothing to forward, or nothing to publish: an empty message.
    client->forward(nullptr, "news/empty", AMO, Reference::NONE, false);
    client->publish(nullptr, "news/empty", AMO, Reference::NONE, false);
    ASSERT_TRUE(handler->waitFor(2, "<null>"));
}

// Outgoing message ids are process-wide: one more for each send, across publish and forward and
// across sessions, from 1 where no other test sent before (as under ctest, a process a test).
TEST_F(Sending, MessageIdsRiseByOneAcrossPublishForwardAndSessions) {
    publish("ids", "a");
    connectedClient()->forward(nullptr, "ids", AMO, Reference::NONE, false);
    client->publish(packet("c"), "ids", AMO, Reference::NONE, true);
    std::vector<unsigned long long> ids;
    for (auto const& e : events->waitOf(SENT, 3)) {
        ids.push_back(e.id);
    }
    EXPECT_EQ(ids, (std::vector<unsigned long long>{ids.at(0), ids.at(0) + 1, ids.at(0) + 2}));
    if (::testing::UnitTest::GetInstance()->test_to_run_count() == 1) {
        EXPECT_EQ(ids[0], 1u);
    }
}

TEST_F(Sending, LibraryFailuresEndInOneErrorEach) {
    std::pair<char const*, QOS::Enum> const cases[] = {
        {"solClient_session_sendMsg", AMO},
        {"solClient_session_sendMsg", GUARANTEED},
        {"solClient_msg_alloc", AMO},
        {"solClient_msg_alloc", GUARANTEED},
        {"solClient_msg_setCorrelationTagPtr", GUARANTEED}};
    for (auto const& [function, qos] : cases) {
        SCOPED_TRACE(function);
        ASSERT_EQ(solEmu_failNext(function, 1, SOLCLIENT_FAIL, 14, "injected failure"), 0);
        Event const failed = send("work", qos, false);
        EXPECT_EQ(failed.kind, UNSENT);
        EXPECT_EQ(failed.text, "injected failure");
        EXPECT_EQ(pending(), 0u);
    }
    EXPECT_EQ(send("work", GUARANTEED).kind, SENT);
    Event const rejected = send("no-such-queue", GUARANTEED);
    EXPECT_EQ(rejected.kind, REJECTED);
    EXPECT_EQ(rejected.text, "Message rejected");
    EXPECT_EQ(pending(), 0u);
}

// Sends the library would hold on the caller's thread (while reconnecting, or past its publish
// window of 50) wait on the worker: only this thread can release the library, so returning at
// all shows that they did.
TEST_F(Sending, SendsThatTheLibraryWouldHoldWaitOnTheWorkerNotOnTheCaller) {
    auto handler = subscribed(client, "later");
    solEmu_setBrokerUp(HOST_PORT, 0);
    ASSERT_TRUE(events->waitForState(Impl::Connection::CONNECTING));
    auto direct = std::make_shared<Tag>(1), guaranteed = std::make_shared<Tag>(2);
    // A queued send keeps its own copy of bytes the caller lends only for the call.
    std::string lent = "later";
    EXPECT_TRUE(client->publishBytes(lent.data(), lent.size(), "later", AMO, direct));
    lent.assign("spoilt");
    EXPECT_TRUE(client->publish(packet("kept"), "work", GUARANTEED, guaranteed, false));
    EXPECT_TRUE(events->of(direct).empty());
    solEmu_setBrokerUp(HOST_PORT, 1);
    EXPECT_EQ(outcomeOf(direct).kind, SENT);
    EXPECT_EQ(outcomeOf(guaranteed).kind, SENT);
    EXPECT_TRUE(handler->waitFor(1, "later"));
    EXPECT_EQ(solEmu_queueDepth("work"), 1);

    solEmu_setAckMode(2);  // withheld
    // Sent at once, a guaranteed send too keeps a copy: the library reads it until the answer.
    lent.assign("lent");
    EXPECT_TRUE(client->publishBytes(lent.data(), lent.size(), "work", GUARANTEED, nullptr));
    lent.assign("spoil");
    std::vector<shared_ptr<Tag>> tags;
    for (int i = 0; i < 60; ++i) {
        tags.push_back(std::make_shared<Tag>(i));
        EXPECT_TRUE(client->publish(packet("held"), "work", GUARANTEED, tags.back(), false));
    }
    EXPECT_GE(pending(), 50u);
    EXPECT_TRUE(events->of(tags[0]).empty());
    solEmu_setAckMode(0);
    for (auto const& tag : tags) {
        EXPECT_EQ(outcomeOf(tag).kind, SENT);
    }
    EXPECT_EQ(pending(), 0u);
    EXPECT_EQ(solEmu_queueDepth("work"), 62);
}

// Releasing a disconnected client answers what it held, queued or awaiting the broker.
TEST_F(Sending, AFullPublishQueueRefusesAndTeardownAnswersWhatWaited) {
    auto idle = library->createClient("dev", connectionData(), events);  // never connected
    std::vector<shared_ptr<Tag>> tags;
    for (int i = 0; i < 256; ++i) {
        tags.push_back(std::make_shared<Tag>(i));
        ASSERT_TRUE(idle->publish(packet("p"), "t", AMO, tags.back(), true));
    }
    EXPECT_FALSE(idle->publish(packet("p"), "t", AMO, tags[0], true));
    tags.push_back(std::make_shared<Tag>(256));
    ASSERT_TRUE(idle->forward(nullptr, "t", AMO, tags.back(), true));  // answered after those
    EXPECT_TRUE(events->of(UNSENT).empty());

    solEmu_setAckMode(2);  // withheld
    auto held = std::make_shared<Tag>(-1);
    ASSERT_TRUE(client->publish(packet("held"), "work", GUARANTEED, held, false));
    client->disconnect(0);
    idle.reset();
    client.reset();
    clients.clear();
    auto const errors = events->waitOf(UNSENT, 258);
    ASSERT_EQ(errors.size(), 258u);
    for (std::size_t i = 0; i < tags.size(); ++i) {
        EXPECT_EQ(errors[i].reference, tags[i]);
    }
    EXPECT_EQ(errors[257].reference, held);
    EXPECT_EQ(errors[257].text, "session terminated before the message was sent");
}

TEST_F(Subscriptions, DuplicatesUnknownNamesAndRemovalByHandler) {
    auto handler = subscribed(client, "dup");
    auto other = makeHandler();
    EXPECT_TRUE(subscribe(handler, "dup", AMO));
    EXPECT_FALSE(subscribe(other, "dup", AMO));
    EXPECT_FALSE(subscribe(nullptr, "none", AMO));
    EXPECT_FALSE(subscribe(nullptr, "work", GUARANTEED));
    EXPECT_FALSE(unsubscribe("never", AMO));
    EXPECT_FALSE(client->unsubscribe(other, Reference::NONE));
    // A queue is not a topic of the same name, and vice versa.
    ASSERT_TRUE(subscribe(other, "work", GUARANTEED));
    EXPECT_FALSE(unsubscribe("work", AMO));
    EXPECT_FALSE(unsubscribe("dup", GUARANTEED));
    // None of that queued anything: the next subscriptions are the next answers.
    subscribed(client, "a", handler);
    subscribed(client, "marker", other);
    EXPECT_EQ(answers(), 3u);
    publish("dup", "once");
    flush(client, other, "marker");
    EXPECT_EQ(handler->count(), 1u);  // subscribed twice, delivered once

    // By handler: only its topics go, in name order, the last with the tag.
    auto tag = std::make_shared<Tag>(1);
    EXPECT_TRUE(client->unsubscribe(handler, tag));
    auto const removed = events->waitOf(REMOVED, 2);
    ASSERT_EQ(removed.size(), 2u);
    EXPECT_EQ(removed[0].name, "a");
    EXPECT_EQ(removed[1].name, "dup");
    EXPECT_EQ(removed[1].reference, tag);
    publish("dup", "gone");
    flush(client, other, "marker");
    EXPECT_EQ(handler->count(), 1u);
    // The handler that holds a queue besides a topic loses both.
    EXPECT_TRUE(client->unsubscribe(other, Reference::NONE));
    EXPECT_EQ(session().findFlow("work"), nullptr);
    EXPECT_EQ(session().findSubscription("marker"), nullptr);
}

// Nothing arrives after a stop, even a refused one, but a message already on its way.
TEST_F(Subscriptions, RefusalsLeaveTheirStatesAndNothingArrivesAfterAStop) {
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
        ASSERT_TRUE(subscribe(handler, c.topic, AMO, std::make_shared<Tag>(c.subCode)));
    }
    auto const errors = events->waitOf(CREATE_ERROR, 3);
    ASSERT_EQ(errors.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(errors[i].number, cases[i].subCode);
        EXPECT_EQ(std::dynamic_pointer_cast<Tag>(errors[i].reference)->id, cases[i].subCode);
        EXPECT_FALSE(errors[i].text.empty());
        auto* subscription = session().findSubscription(cases[i].topic);
        EXPECT_EQ(subscription->getState(), cases[i].state) << cases[i].topic;
        EXPECT_EQ(subscription->getLastSubCode(), cases[i].subCode);
        solEmu_refuseSubscriptions(cases[i].topic, 0);
    }

    for (auto topic : {"late", "sticky", "marker"}) {
        subscribed(client, topic, handler);
    }
    solEmu_refuseSubscriptions("sticky", SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND);
    // Held: the message reaches the context thread before the stops'
    // confirmations do, so it is still served, as by the vendor library.
    solEmu_holdDeliveries(1);
    publish("late", "in flight");
    ASSERT_TRUE(unsubscribe("late", AMO));
    ASSERT_TRUE(unsubscribe("sticky", AMO));
    solEmu_holdDeliveries(0);
    auto const refused = events->waitOf(REMOVE_ERROR, 1);
    EXPECT_EQ(refused.at(0).number, SOLCLIENT_SUBCODE_SUBSCRIPTION_NOT_FOUND);
    EXPECT_EQ(events->of(REMOVED).size(), 1u);
    // Counted as subscribed, or still at the broker, yet not served.
    publish("present", "unseen");
    publish("sticky", "unseen");
    flush(client, handler, "marker");
    EXPECT_EQ(handler->count(), 2u);
    EXPECT_TRUE(handler->waitFor(1, "in flight"));
}

// The receive queue holds 512, besides up to 50 in each of the two batches the blocked handler
// holds. The second session gets the whole flood: once it has it, so has the queue.
TEST_F(Subscriptions, AThrowingHandlerIsReportedAndABlockedOneMakesTheQueueDrop) {
    auto fragile = subscribed(client, "fragile", makeHandler(false, 0));
    publish("fragile", "first");
    publish("fragile", "second");
    ASSERT_TRUE(fragile->waitFor(1, "second"));
    EXPECT_EQ(events->waitOf(FAULT, 1).at(0).text, "handler failed on message 0");

    auto handler = subscribed(client, "flood");
    auto watching = subscribed(connectedClient(), "flood");
    handler->setHeld(true);
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

// A late acknowledgement finds a stopped flow: the message goes back to the queue. A started
// flow is not announced, but a failed start reads as a finalize, a stop of a flow never created
// as a failed stop, and a failed stop is told while the flow is destroyed all the same.
TEST_F(Subscriptions, QueueFlowsAcknowledgeOneByOneAndTellTheirFailures) {
    auto handler = makeHandler();
    ASSERT_TRUE(subscribe(handler, "work", GUARANTEED));
    publish("work", "job", GUARANTEED);
    ASSERT_TRUE(handler->waitFor(1));
    auto message = handler->all()[0];
    EXPECT_EQ(message->getTopic(), "work");
    EXPECT_EQ(message->getQOS(), GUARANTEED);
    EXPECT_TRUE(message->isAckRequired());
    EXPECT_EQ(solEmu_queueDepth("work"), 1);
    message->acknowledge();
    EXPECT_TRUE(eventually([] { return solEmu_queueDepth("work") == 0; }));
    EXPECT_EQ(answers(), 0u);
    int const state = session().findFlow("work")->getState();
    EXPECT_TRUE(state == Impl::Flow::ACTIVE || state == Impl::Flow::UP) << state;
    publish("work", "kept", GUARANTEED);
    ASSERT_TRUE(handler->waitFor(1, "kept"));
    ASSERT_TRUE(unsubscribe("work", GUARANTEED));
    subscribed(client, "marker", handler);  // answered after the stop has run
    handler->all()[1]->acknowledge();
    EXPECT_EQ(solEmu_queueDepth("work"), 1);
    handler->clear();

    auto tag = std::make_shared<Tag>(66);
    ASSERT_TRUE(subscribe(handler, "missing", GUARANTEED, tag));
    Event const error = events->waitOf(CREATE_ERROR, 1).at(0);
    EXPECT_EQ(error.number, SOLCLIENT_SUBCODE_QUEUE_NOT_FOUND);
    EXPECT_EQ(error.qos, GUARANTEED);
    EXPECT_EQ(error.reference, tag);
    EXPECT_EQ(session().findFlow("missing")->getState(), Impl::Flow::FAILED);
    EXPECT_TRUE(client->unsubscribe("missing", GUARANTEED, tag));
    Event const never = events->waitOf(REMOVE_ERROR, 1).at(0);
    EXPECT_EQ(never.number, SOLCLIENT_SUBCODE_PARAM_NULL_PTR);
    EXPECT_EQ(never.reference, tag);

    solEmu_failNext("solClient_flow_start", 1, SOLCLIENT_FAIL, 6, "will not start");
    ASSERT_TRUE(subscribe(handler, "work", GUARANTEED, tag));
    ASSERT_TRUE(events->waitFor(CREATED, 2));
    EXPECT_EQ(session().findFlow("work")->getLastSubCode(), 6);
    publish("work", "stuck", GUARANTEED);
    // A disconnect the library refuses leaves the connection: the stop still goes to the library.
    unsigned long const epoch = session().getConnectionEpoch();
    solEmu_failNext("solClient_session_disconnect", 1, SOLCLIENT_FAIL, 6, "will not disconnect");
    EXPECT_THROW(client->disconnect(0), LibraryException);
    EXPECT_EQ(session().getConnectionEpoch(), epoch);
    solEmu_failNext("solClient_flow_stop", 1, SOLCLIENT_FAIL, 6, "will not stop");
    ASSERT_TRUE(client->unsubscribe("work", GUARANTEED, tag));
    EXPECT_EQ(events->waitOf(REMOVE_ERROR, 2).at(1).text, "will not stop");
    EXPECT_EQ(answers(), 5u);
    flush(client, handler, "marker");
    EXPECT_EQ(handler->count(), 1u);  // the marker only: "stuck" never left the queue
    EXPECT_EQ(solEmu_queueDepth("work"), 2);
    EXPECT_TRUE(client->unsubscribe(Reference::NONE));
    EXPECT_EQ(session().findSubscription("marker"), nullptr);
}

// The flow left running at the library must not call back into the Flow the unsubscribe let go.
TEST_F(Subscriptions, AFlowThatWillNotStopNorGoIsAnsweredOnceAndDeliversNoMore) {
    auto handler = makeHandler();
    ASSERT_TRUE(subscribe(handler, "work", GUARANTEED));
    ASSERT_TRUE(eventually([this] {
        Impl::Flow* flow = session().findFlow("work");
        return flow != nullptr && flow->getAppliedIn() != 0;
    }));
    solEmu_failNext("solClient_flow_stop", 1, SOLCLIENT_FAIL, 6, "will not stop");
    solEmu_failNext("solClient_flow_destroy", 1, SOLCLIENT_FAIL, 6, "will not go");
    auto tag = std::make_shared<Tag>(7);
    ASSERT_TRUE(client->unsubscribe("work", GUARANTEED, tag));
    subscribed(client, "marker", handler);  // answered after the stop has run
    EXPECT_EQ(outcomeOf(tag).kind, REMOVE_ERROR);
    publish("work", "after", GUARANTEED);
    flush(client, handler, "marker");
    EXPECT_EQ(handler->count(), 1u);  // the marker
}

// After an explicit disconnect the library may have dropped the topics (the stand-in's default)
// or re-apply them itself (answered as duplicates); a session the broker ended has none. Either
// way the connect brings back what is still subscribed, once and untold, after what was asked
// meanwhile. A queue comes back on a new flow, which gets what the old one had not acknowledged.
// What the library refuses then is told and forgotten.
TEST_F(Subscriptions, SubscriptionsComeBackAfterADisconnectAndAConnect) {
    auto handler = makeHandler();
    for (auto [reapplying, ended] : {std::pair{0, false}, {1, false}, {0, true}}) {
        SCOPED_TRACE(testing::Message() << reapplying << ended);
        solEmu_setReapplyAfterDisconnect(reapplying);
        for (auto topic : {"kept", "dropped", "marker"}) {
            subscribed(client, topic, handler);
        }
        ASSERT_TRUE(subscribe(handler, "work", GUARANTEED));
        publish("work", "unacknowledged", GUARANTEED);
        ASSERT_TRUE(handler->waitFor(1, "unacknowledged"));
        events->clear();
        if (ended) {
            solEmu_endSessions(HOST_PORT);
            ASSERT_TRUE(events->waitForState(Impl::Connection::DISCONNECTED));
        } else {
            client->disconnect(0);
        }
        ASSERT_TRUE(unsubscribe("dropped", AMO));
        ASSERT_TRUE(subscribe(handler, "late", AMO));
        ASSERT_EQ(client->connect(5000), 1);
        ASSERT_TRUE(handler->waitFor(2, "unacknowledged"));
        handler->all()[0]->acknowledge();
        for (auto topic : {"kept", "dropped", "late"}) {
            publish(topic, topic);
        }
        publish("work", "work", GUARANTEED);
        ASSERT_TRUE(handler->waitFor(1, "work"));
        flush(client, handler, "marker");
        EXPECT_EQ(handler->count("kept"), 1u);
        EXPECT_EQ(handler->count("late"), 1u);
        EXPECT_EQ(handler->count("dropped"), 0u);
        EXPECT_EQ(solEmu_queueDepth("work"), 2);
        EXPECT_TRUE(events->of(FAULT).empty());
        auto const created = events->of(CREATED), removed = events->of(REMOVED);
        ASSERT_EQ(answers(), 2u);
        ASSERT_EQ(created.size(), 1u);
        ASSERT_EQ(removed.size(), 1u);
        EXPECT_EQ(created[0].name, "late");
        EXPECT_EQ(removed[0].name, "dropped");
        EXPECT_TRUE(subscribe(handler, "kept", AMO));
        EXPECT_TRUE(subscribe(handler, "work", GUARANTEED));
        EXPECT_FALSE(subscribe(makeHandler(), "kept", AMO));
        EXPECT_FALSE(subscribe(makeHandler(), "work", GUARANTEED));

        for (auto const& message : handler->all()) {
            message->acknowledge();
        }
        EXPECT_TRUE(eventually([] { return solEmu_queueDepth("work") == 0; }));
        ASSERT_TRUE(client->unsubscribe(handler, Reference::NONE));
        ASSERT_TRUE(events->waitFor(REMOVED, 4));
        handler->clear();
    }

    solEmu_setReapplyAfterDisconnect(0);
    auto const bound = std::make_shared<Tag>(7);
    ASSERT_TRUE(subscribe(handler, "work", GUARANTEED, bound));
    subscribed(client, "denied", handler);  // answered once the flow is bound
    events->clear();
    client->disconnect(0);
    solEmu_refuseSubscriptions("denied", SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED);
    ASSERT_EQ(solEmu_removeQueue("work"), 0);
    ASSERT_EQ(client->connect(5000), 1);
    auto const faults = events->waitOf(FAULT, 2);
    ASSERT_EQ(faults.size(), 2u);
    EXPECT_EQ(faults[0].number, SOLCLIENT_SUBCODE_SUBSCRIPTION_ACL_DENIED);
    EXPECT_EQ(faults[1].number, SOLCLIENT_SUBCODE_QUEUE_NOT_FOUND);
    EXPECT_EQ(session().findSubscription("denied"), nullptr);
    EXPECT_EQ(session().findFlow("work"), nullptr);
    // A queue subscribe is answered when it fails, also on a later connect: the script learns
    // which subscription ended.
    Event const ended = outcomeOf(bound);
    EXPECT_EQ(ended.kind, CREATE_ERROR);
    EXPECT_EQ(ended.number, SOLCLIENT_SUBCODE_QUEUE_NOT_FOUND);
    // Gone at the broker, yet the script subscribed it: its unsubscribe is answered, once.
    ASSERT_TRUE(unsubscribe("denied", AMO));
    EXPECT_EQ(events->waitOf(REMOVED, 1).size(), 1u);
    EXPECT_FALSE(unsubscribe("denied", AMO));
    solEmu_refuseSubscriptions("denied", 0);
    subscribed(client, "denied", handler);
}

// Around the size from which the payload stays in the library's message, a taken message lives
// exactly as long as its payload (the fixture checks that none is left and none freed twice).
TEST_F(Subscriptions, PayloadsOfEverySizeArriveWholeAndOwnTheirBytes) {
    auto handler = subscribed(client, "sized", makeHandler(true));
    ASSERT_TRUE(subscribe(handler, "work", GUARANTEED));
    auto otherHandler = subscribed(connectedClient(), "sized");
    constexpr unsigned long LIMIT = Impl::ReceiveTask::COPIED_MAX;
    for (unsigned long size : {1ul, LIMIT, LIMIT + 1, 65536ul}) {
        SCOPED_TRACE(size);
        std::string const payload(size, static_cast<char>('a' + size % 26));
        long const held = size > LIMIT ? 1 : 0;
        publish("sized", payload);
        publish("work", payload, GUARANTEED);
        ASSERT_TRUE(handler->waitFor(2, payload));
        ASSERT_TRUE(otherHandler->waitFor(1, payload));
        auto mine = handler->where([](auto& m) { return m->getQOS() == AMO; })[0]->getPayload();
        auto theirs = otherHandler->all()[0]->getPayload();
        static_cast<char*>(mine->data())[0] = '!';
        EXPECT_TRUE(text(otherHandler->all()[0]) == payload);  // not printed: up to 64 KiB
        EXPECT_NE(mine->data(), theirs->data());
        // The three payloads received, and nothing else, keep library messages;
        // the last delivery of the direct one keeps the send's copy for its bytes.
        EXPECT_TRUE(eventually(
            [&] { return solEmu_liveMessages() == 4 * held && solEmu_queueDepth("work") == 0; }));
        mine.reset();
        theirs.reset();
        handler->clear();
        otherHandler->clear();
        EXPECT_TRUE(eventually([] { return solEmu_liveMessages() == 0; }));
    }
}

}  // namespace KW::Solace::Test
