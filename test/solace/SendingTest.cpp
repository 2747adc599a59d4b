// Sending at most once and guaranteed: every send ends in exactly one of
// finalize, rejected or error, also when the library fails, and nothing is
// left pending.
#include "AdapterTest.h"

namespace KW::Solace::Test {

class Sending : public AdapterTest {
  protected:
    void SetUp() override {
        AdapterTest::SetUp();
        ASSERT_EQ(solEmu_addQueue("orders"), 0);
        client = connectedClient();
    }
    // Waits for the outcome of a send and checks that it is the only one.
    Event outcomeOf(shared_ptr<Reference> const& tag) {
        auto mine = [&tag](Event const& e) { return e.reference == tag; };
        EXPECT_TRUE(events->waitCount(1, mine));
        auto const outcomes = events->where(mine);
        EXPECT_EQ(outcomes.size(), 1u);
        return outcomes.empty() ? Event{FAULT} : outcomes[0];
    }
    // Publishes its topic as payload (lent for the call only) with a fresh tag,
    // expecting publish to return accepted, and gives the outcome.
    Event send(std::string const& topic, QOS::Enum qos, bool accepted = true) {
        auto tag = std::make_shared<Tag>(0);
        EXPECT_EQ(client->publishBytes(topic.data(), topic.size(), topic, qos, tag), accepted);
        return outcomeOf(tag);
    }
    std::size_t pending() { return sessionOf(client).getPendingCount(); }
};

TEST_F(Sending, AtMostOnceGoesToTheTopicAndIsFinalOnceAccepted) {
    auto handler = makeHandler();
    subscribe(client, handler, "news/*");  // received under the concrete topic
    Event const done = send("news/today", AMO);
    EXPECT_EQ(done.kind, SENT);
    EXPECT_EQ(done.name, "news/today");
    ASSERT_TRUE(handler->waitFor(1));
    auto message = handler->all()[0];
    EXPECT_EQ(text(message), "news/today");
    EXPECT_EQ(message->getTopic(), "news/today");
    EXPECT_FALSE(message->isAckRequired());
    EXPECT_EQ(message->getClient(), client);
    EXPECT_EQ(std::dynamic_pointer_cast<Impl::MessageTask>(message)->getMessageID(), 0u);
}

TEST_F(Sending, GuaranteedIsFinalOnlyOnTheBrokersAnswer) {
    solEmu_setAckMode(2);  // withheld
    auto tag = std::make_shared<Tag>(1);
    EXPECT_TRUE(client->publish(packet("order"), "orders", GUARANTEED, tag, false));
    EXPECT_EQ(pending(), 1u);
    solEmu_setAckMode(0);
    Event const done = outcomeOf(tag);
    EXPECT_EQ(done.kind, SENT);
    EXPECT_EQ(done.qos, GUARANTEED);
    EXPECT_EQ(pending(), 0u);
    EXPECT_EQ(solEmu_queueDepth("orders"), 1);

    Event const rejected = send("no-such-queue", GUARANTEED);
    EXPECT_EQ(rejected.kind, REJECTED);
    EXPECT_EQ(rejected.text, "Message rejected");
    EXPECT_EQ(pending(), 0u);
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
        Event const failed = send("orders", qos, false);
        EXPECT_EQ(failed.kind, UNSENT);
        EXPECT_EQ(failed.text, "injected failure");
        EXPECT_EQ(pending(), 0u);
    }
    EXPECT_EQ(send("orders", GUARANTEED).kind, SENT);
}

TEST_F(Sending, ForwardSendsThePayloadOnAndAcknowledgesAQueueMessage) {
    auto handler = makeHandler();
    subscribe(client, handler, "out");
    ASSERT_TRUE(client->subscribe(handler, "orders", GUARANTEED, Reference::NONE));
    client->publish(packet("relay me"), "orders", GUARANTEED, Reference::NONE, false);
    ASSERT_TRUE(handler->waitFor(1, "relay me"));
    EXPECT_EQ(solEmu_queueDepth("orders"), 1);

    auto tag = std::make_shared<Tag>(8);
    EXPECT_TRUE(client->forward(handler->all()[0], "out", AMO, tag, true));
    EXPECT_EQ(outcomeOf(tag).kind, SENT);
    ASSERT_TRUE(handler->waitFor(2, "relay me"));
    EXPECT_EQ(handler->all()[1]->getTopic(), "out");
    EXPECT_TRUE(events->waitUntil([](auto const&) { return solEmu_queueDepth("orders") == 0; }));

    // Nothing to forward, or nothing to publish: an empty message.
    client->forward(nullptr, "out", AMO, Reference::NONE, false);
    client->publish(nullptr, "out", AMO, Reference::NONE, false);
    ASSERT_TRUE(handler->waitFor(2, "<null>"));
}

TEST_F(Sending, SendsThatTheLibraryWouldHoldWaitOnTheWorkerNotOnTheCaller) {
    auto handler = makeHandler();
    subscribe(client, handler, "later");
    solEmu_setBrokerUp(HOST_PORT, 0);
    ASSERT_TRUE(events->waitForState(Impl::Connection::CONNECTING));
    // Sent on this thread these would block in the library until the broker is back, which only
    // this thread brings back: returning at all shows that they waited elsewhere.
    auto direct = std::make_shared<Tag>(1);
    auto guaranteed = std::make_shared<Tag>(2);
    // A queued send keeps its own copy of bytes the caller lends only for the call.
    std::string lent = "later";
    EXPECT_TRUE(client->publishBytes(lent.data(), lent.size(), "later", AMO, direct));
    lent.assign("spoilt");
    EXPECT_TRUE(client->publish(packet("kept"), "orders", GUARANTEED, guaranteed, false));
    EXPECT_TRUE(events->where([&](Event const& e) { return e.reference == direct; }).empty());
    solEmu_setBrokerUp(HOST_PORT, 1);
    EXPECT_EQ(outcomeOf(direct).kind, SENT);
    EXPECT_EQ(outcomeOf(guaranteed).kind, SENT);
    EXPECT_TRUE(handler->waitFor(1, "later"));
    EXPECT_EQ(solEmu_queueDepth("orders"), 1);

    // The same for guaranteed sends beyond the library's publish window of 50 while the broker
    // holds its answers, which only this thread releases.
    solEmu_setAckMode(2);
    std::vector<shared_ptr<Tag>> tags;
    for (int i = 0; i < 60; ++i) {
        tags.push_back(std::make_shared<Tag>(i));
        EXPECT_TRUE(client->publish(packet("held"), "orders", GUARANTEED, tags.back(), false));
    }
    solEmu_setAckMode(0);
    for (auto const& tag : tags) {
        EXPECT_EQ(outcomeOf(tag).kind, SENT);
    }
    EXPECT_EQ(solEmu_queueDepth("orders"), 61);
}

TEST_F(Sending, AFullPublishQueueRefusesAndTeardownAnswersWhatWaited) {
    auto idle = library->createClient("dev", connectionData(), events);  // never connected
    std::vector<shared_ptr<Tag>> tags;
    for (int i = 0; i < 256; ++i) {
        tags.push_back(std::make_shared<Tag>(i));
        ASSERT_TRUE(idle->publish(packet("p"), "t", AMO, tags.back(), true));
    }
    auto const start = std::chrono::steady_clock::now();
    EXPECT_FALSE(idle->publish(packet("p"), "t", AMO, tags[0], true));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 90ms);
    EXPECT_TRUE(events->of(UNSENT).empty());

    Impl::Session* session = &sessionOf(idle);
    idle.reset();
    session->terminate();
    auto const errors = events->of(UNSENT);
    ASSERT_EQ(errors.size(), 256u);
    for (std::size_t i = 0; i < errors.size(); ++i) {
        EXPECT_EQ(errors[i].reference, tags[i]);
    }
}

}  // namespace KW::Solace::Test
