// Sending at most once and guaranteed: every send ends in exactly one of
// finalize, rejected or error, also when the library fails, and nothing is
// left pending.
#include "AdapterTest.h"

namespace KW {
namespace Solace {
namespace Test {
namespace {

class Sending : public AdapterTest {
  protected:
    void SetUp() override {
        AdapterTest::SetUp();
        ASSERT_EQ(solEmu_addQueue("orders"), 0);
        client = connectedClient();
    }
    void TearDown() override {
        client.reset();
        AdapterTest::TearDown();
    }

    // Waits for the outcome of a send and checks that it is the only one.
    Event outcomeOf(std::shared_ptr<KW::Reference> const& tag) {
        auto outcomes = [&tag](std::vector<Event> const& all) {
            return std::count_if(all.begin(), all.end(), [&tag](Event const& e) {
                return e.reference == tag &&
                       (e.kind == SENT || e.kind == REJECTED || e.kind == SEND_ERROR);
            });
        };
        EXPECT_TRUE(events->waitUntil([&](auto const& all) { return outcomes(all) > 0; }));
        auto const all = events->all();
        EXPECT_EQ(outcomes(all), 1);
        auto it = std::find_if(all.begin(), all.end(),
                               [&tag](Event const& e) { return e.reference == tag; });
        return it == all.end() ? Event{FAULT} : *it;
    }
    std::size_t pending() { return sessionOf(client).getPendingCount(); }

    std::shared_ptr<KW::Client> client;
};

TEST_F(Sending, AtMostOnceGoesToTheTopicAndIsFinalOnceAccepted) {
    auto handler = makeHandler();
    subscribe(client, handler, "news/*");  // received under the concrete topic
    auto tag = std::make_shared<Tag>(1);
    EXPECT_TRUE(client->publish(packet("hello"), "news/today", KW::QOS::AT_MOST_ONCE, tag, false));
    Event const done = outcomeOf(tag);
    EXPECT_EQ(done.kind, SENT);
    EXPECT_EQ(done.name, "news/today");
    ASSERT_TRUE(handler->waitFor(1));
    auto message = handler->messages()[0];
    EXPECT_EQ(text(message), "hello");
    EXPECT_EQ(message->getTopic(), "news/today");
    EXPECT_FALSE(message->isAckRequired());
    EXPECT_EQ(message->getClient(), client);
    EXPECT_EQ(std::dynamic_pointer_cast<Impl::MessageTask>(message)->getMessageID(), 0u);
}

TEST_F(Sending, GuaranteedIsFinalOnlyOnTheBrokersAnswer) {
    solEmu_setAckMode(2);  // withheld
    auto tag = std::make_shared<Tag>(2);
    EXPECT_TRUE(client->publish(packet("order"), "orders", KW::QOS::GUARANTEED, tag, false));
    EXPECT_EQ(pending(), 1u);
    solEmu_setAckMode(0);
    Event const done = outcomeOf(tag);
    EXPECT_EQ(done.kind, SENT);
    EXPECT_EQ(done.qos, KW::QOS::GUARANTEED);
    EXPECT_EQ(pending(), 0u);
    EXPECT_EQ(solEmu_queueDepth("orders"), 1);

    auto unknown = std::make_shared<Tag>(3);
    client->publish(packet("lost"), "no-such-queue", KW::QOS::GUARANTEED, unknown, true);
    Event const rejected = outcomeOf(unknown);
    EXPECT_EQ(rejected.kind, REJECTED);
    EXPECT_EQ(rejected.text, "Message rejected");
    solEmu_setAckMode(1);
    auto refused = std::make_shared<Tag>(4);
    client->publish(packet("refused"), "orders", KW::QOS::GUARANTEED, refused, true);
    EXPECT_EQ(outcomeOf(refused).kind, REJECTED);
    EXPECT_EQ(pending(), 0u);
}

TEST_F(Sending, LibraryFailuresEndInOneErrorEach) {
    std::pair<char const*, KW::QOS::Enum> const cases[] = {
        {"solClient_session_sendMsg", KW::QOS::AT_MOST_ONCE},
        {"solClient_session_sendMsg", KW::QOS::GUARANTEED},
        {"solClient_msg_alloc", KW::QOS::AT_MOST_ONCE},
        {"solClient_msg_alloc", KW::QOS::GUARANTEED},
        {"solClient_msg_setCorrelationTagPtr", KW::QOS::GUARANTEED}};
    int id = 100;
    for (auto const& [function, qos] : cases) {
        SCOPED_TRACE(function);
        ASSERT_EQ(solEmu_failNext(function, 1, SOLCLIENT_FAIL, 14, "injected failure"), 0);
        auto tag = std::make_shared<Tag>(++id);
        EXPECT_FALSE(client->publish(packet("x"), "orders", qos, tag, false));
        Event const failed = outcomeOf(tag);
        EXPECT_EQ(failed.kind, SEND_ERROR);
        EXPECT_EQ(failed.text, "injected failure");
        EXPECT_EQ(pending(), 0u);
    }
    auto tag = std::make_shared<Tag>(0);
    EXPECT_TRUE(client->publish(packet("ok"), "orders", KW::QOS::GUARANTEED, tag, true));
    EXPECT_EQ(outcomeOf(tag).kind, SENT);
}

TEST_F(Sending, ForwardSendsThePayloadOnAndAcknowledgesAQueueMessage) {
    auto handler = makeHandler();
    subscribe(client, handler, "out");
    ASSERT_TRUE(client->subscribe(handler, "orders", KW::QOS::GUARANTEED, KW::Reference::NONE));
    client->publish(packet("relay me"), "orders", KW::QOS::GUARANTEED, KW::Reference::NONE, false);
    ASSERT_TRUE(handler->waitFor(1, "relay me"));
    EXPECT_EQ(solEmu_queueDepth("orders"), 1);

    auto tag = std::make_shared<Tag>(8);
    EXPECT_TRUE(client->forward(handler->messages()[0], "out", KW::QOS::AT_MOST_ONCE, tag, true));
    EXPECT_EQ(outcomeOf(tag).kind, SENT);
    ASSERT_TRUE(handler->waitFor(2, "relay me"));
    EXPECT_EQ(handler->messages()[1]->getTopic(), "out");
    EXPECT_TRUE(events->waitUntil([](auto const&) { return solEmu_queueDepth("orders") == 0; }));

    // Nothing to forward, or nothing to publish: an empty message.
    client->forward(nullptr, "out", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE, false);
    client->publish(nullptr, "out", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE, false);
    ASSERT_TRUE(handler->waitFor(2, "<null>"));
}

TEST_F(Sending, AFullPublishQueueRefusesAndTeardownAnswersWhatWaited) {
    auto idle = library->createClient("dev", connectionData(), events);  // never connected
    std::vector<std::shared_ptr<Tag>> tags;
    for (int i = 0; i < 256; ++i) {
        tags.push_back(std::make_shared<Tag>(i));
        ASSERT_TRUE(idle->publish(packet("p"), "t", KW::QOS::AT_MOST_ONCE, tags.back(), true));
    }
    auto const start = std::chrono::steady_clock::now();
    EXPECT_FALSE(idle->publish(packet("p"), "t", KW::QOS::AT_MOST_ONCE, tags[0], true));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 90ms);
    EXPECT_TRUE(events->of(SEND_ERROR).empty());

    Impl::Session* session = &sessionOf(idle);
    idle.reset();
    session->terminate();
    auto const errors = events->of(SEND_ERROR);
    ASSERT_EQ(errors.size(), 256u);
    for (std::size_t i = 0; i < errors.size(); ++i) {
        EXPECT_EQ(errors[i].reference, tags[i]);
    }
}

}  // namespace
}  // namespace Test
}  // namespace Solace
}  // namespace KW
