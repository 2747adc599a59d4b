// Sending at most once and guaranteed: every send ends in exactly one of
// finalize, rejected or error, also when the library fails, and nothing is
// left pending.
#include "AdapterTest.h"

namespace KW {
namespace Solace {
namespace Test {
namespace {

// How many outcomes of any kind carry this reference.
std::size_t outcomes(RecordingEventHandler& events, std::shared_ptr<KW::Reference> const& ref) {
    std::size_t n = 0;
    for (auto const& e : events.events()) {
        if ((e.kind == Event::SEND_FINALIZE || e.kind == Event::SEND_REJECTED ||
             e.kind == Event::SEND_ERROR) &&
            e.reference == ref) {
            ++n;
        }
    }
    return n;
}

class Sending : public AdapterTest {
  protected:
    void SetUp() override {
        AdapterTest::SetUp();
        ASSERT_EQ(solEmu_addQueue("orders"), 0);
        client = connectedClient();
    }

    // Waits for the one outcome of a send and checks that it is the only one.
    Event outcomeOf(std::shared_ptr<Tag> const& tag) {
        EXPECT_TRUE(events->waitUntil(
            [&tag](std::vector<Event> const& all) {
                return std::any_of(all.begin(), all.end(), [&tag](Event const& e) {
                    return e.reference == tag &&
                           (e.kind == Event::SEND_FINALIZE || e.kind == Event::SEND_REJECTED ||
                            e.kind == Event::SEND_ERROR);
                });
            },
            5s));
        EXPECT_EQ(outcomes(*events, tag), 1u);
        for (auto const& e : events->events()) {
            if (e.reference == tag) {
                return e;
            }
        }
        return Event{Event::RUNTIME_ERROR};
    }

    void TearDown() override {
        client.reset();
        AdapterTest::TearDown();
    }

    std::shared_ptr<KW::Client> client;
};

TEST_F(Sending, AtMostOnceGoesToTheTopicAndIsFinalOnceAccepted) {
    auto handler = makeHandler();
    subscribeTopic(client, handler, "news/today");
    auto tag = std::make_shared<Tag>(1);
    EXPECT_TRUE(client->publish(packet("hello"), "news/today", KW::QOS::AT_MOST_ONCE, tag, false));
    Event const done = outcomeOf(tag);
    EXPECT_EQ(done.kind, Event::SEND_FINALIZE);
    EXPECT_EQ(done.topic, "news/today");
    EXPECT_EQ(done.qos, KW::QOS::AT_MOST_ONCE);

    ASSERT_TRUE(handler->waitFor(1, 5s));
    auto message = handler->messages()[0];
    EXPECT_EQ(text(message), "hello");
    EXPECT_EQ(message->getTopic(), "news/today");
    EXPECT_FALSE(message->isAckRequired());
    EXPECT_FALSE(message->isRedelivered());
    EXPECT_EQ(message->getClient(), client);
}

TEST_F(Sending, GuaranteedIsSpooledAndFinalOnlyOnTheBrokersAnswer) {
    solEmu_setAckMode(2);  // the broker withholds its answer
    auto tag = std::make_shared<Tag>(2);
    EXPECT_TRUE(client->publish(packet("order"), "orders", KW::QOS::GUARANTEED, tag, false));
    EXPECT_EQ(sessionOf(client).getPendingCount(), 1u);
    EXPECT_EQ(outcomes(*events, tag), 0u);

    solEmu_setAckMode(0);
    Event const done = outcomeOf(tag);
    EXPECT_EQ(done.kind, Event::SEND_FINALIZE);
    EXPECT_EQ(done.qos, KW::QOS::GUARANTEED);
    EXPECT_EQ(sessionOf(client).getPendingCount(), 0u);
    EXPECT_EQ(solEmu_queueDepth("orders"), 1);
}

TEST_F(Sending, AnyQosButAtMostOnceIsGuaranteed) {
    auto tag = std::make_shared<Tag>(3);
    EXPECT_TRUE(client->publish(packet("odd"), "orders", static_cast<KW::QOS::Enum>(3), tag, true));
    EXPECT_EQ(outcomeOf(tag).kind, Event::SEND_FINALIZE);
    EXPECT_EQ(solEmu_queueDepth("orders"), 1);
}

TEST_F(Sending, BrokerRejectionsAreReportedAsRejected) {
    auto unknown = std::make_shared<Tag>(4);
    client->publish(packet("lost"), "no-such-queue", KW::QOS::GUARANTEED, unknown, false);
    Event const rejected = outcomeOf(unknown);
    EXPECT_EQ(rejected.kind, Event::SEND_REJECTED);
    EXPECT_EQ(rejected.text, "Message rejected");

    solEmu_setAckMode(1);
    auto refused = std::make_shared<Tag>(5);
    client->publish(packet("refused"), "orders", KW::QOS::GUARANTEED, refused, true);
    EXPECT_EQ(outcomeOf(refused).kind, Event::SEND_REJECTED);
    EXPECT_EQ(sessionOf(client).getPendingCount(), 0u);
}

TEST_F(Sending, LibraryFailuresEndInOneErrorEach) {
    struct Case {
        char const* function;
        KW::QOS::Enum qos;
    };
    Case const cases[] = {{"solClient_session_sendMsg", KW::QOS::AT_MOST_ONCE},
                          {"solClient_session_sendMsg", KW::QOS::GUARANTEED},
                          {"solClient_msg_alloc", KW::QOS::AT_MOST_ONCE},
                          {"solClient_msg_alloc", KW::QOS::GUARANTEED},
                          {"solClient_msg_setDestination", KW::QOS::GUARANTEED},
                          {"solClient_msg_setCorrelationTagPtr", KW::QOS::GUARANTEED}};
    int id = 100;
    for (auto const& c : cases) {
        SCOPED_TRACE(c.function);
        ASSERT_EQ(solEmu_failNext(c.function, 1, SOLCLIENT_FAIL,
                                  SOLCLIENT_SUBCODE_COMMUNICATION_ERROR, "injected failure"),
                  0);
        auto tag = std::make_shared<Tag>(++id);
        std::string const where = c.qos == KW::QOS::GUARANTEED ? "orders" : "some/topic";
        EXPECT_FALSE(client->publish(packet("x"), where, c.qos, tag, false));
        Event const failed = outcomeOf(tag);
        EXPECT_EQ(failed.kind, Event::SEND_ERROR);
        EXPECT_EQ(failed.text, "injected failure");
        EXPECT_EQ(sessionOf(client).getPendingCount(), 0u);
    }
    // The session is still fine afterwards.
    auto tag = std::make_shared<Tag>(1000);
    EXPECT_TRUE(client->publish(packet("ok"), "orders", KW::QOS::GUARANTEED, tag, true));
    EXPECT_EQ(outcomeOf(tag).kind, Event::SEND_FINALIZE);
    EXPECT_EQ(solEmu_queueDepth("orders"), 1);
}

TEST_F(Sending, ANullPayloadIsSentWithoutAttachment) {
    auto handler = makeHandler();
    subscribeTopic(client, handler, "empty");
    auto tag = std::make_shared<Tag>(6);
    EXPECT_TRUE(client->publish(nullptr, "empty", KW::QOS::AT_MOST_ONCE, tag, true));
    EXPECT_EQ(outcomeOf(tag).kind, Event::SEND_FINALIZE);
    ASSERT_TRUE(handler->waitFor(1, 5s));
    EXPECT_EQ(handler->messages()[0]->getPayload(), nullptr);
}

TEST_F(Sending, ForwardSendsTheReceivedPayloadOn) {
    auto handler = makeHandler();
    subscribeTopic(client, handler, "in");
    subscribeTopic(client, handler, "out");
    client->publish(packet("relay me"), "in", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE, false);
    ASSERT_TRUE(handler->waitFor(1, 5s));
    auto received = handler->messages()[0];

    auto tag = std::make_shared<Tag>(8);
    EXPECT_TRUE(client->forward(received, "out", KW::QOS::AT_MOST_ONCE, tag, true));
    EXPECT_EQ(outcomeOf(tag).kind, Event::SEND_FINALIZE);
    ASSERT_TRUE(handler->waitFor(2, 5s));
    EXPECT_EQ(handler->messages()[1]->getTopic(), "out");
    EXPECT_EQ(text(handler->messages()[1]), "relay me");

    // Forwarding nothing sends an empty message rather than failing.
    auto nothing = std::make_shared<Tag>(9);
    EXPECT_TRUE(client->forward(nullptr, "out", KW::QOS::AT_MOST_ONCE, nothing, false));
    EXPECT_EQ(outcomeOf(nothing).kind, Event::SEND_FINALIZE);
    ASSERT_TRUE(handler->waitFor(3, 5s));
    EXPECT_EQ(handler->messages()[2]->getPayload(), nullptr);
}

TEST_F(Sending, ForwardingAQueueMessageAcknowledgesIt) {
    auto handler = makeHandler();
    ASSERT_TRUE(client->subscribe(handler, "orders", KW::QOS::GUARANTEED, KW::Reference::NONE));
    client->publish(packet("order 1"), "orders", KW::QOS::GUARANTEED, KW::Reference::NONE, false);
    ASSERT_TRUE(handler->waitFor(1, 5s));
    EXPECT_EQ(solEmu_queueDepth("orders"), 1);

    auto tag = std::make_shared<Tag>(10);
    client->forward(handler->messages()[0], "elsewhere", KW::QOS::AT_MOST_ONCE, tag, false);
    EXPECT_EQ(outcomeOf(tag).kind, Event::SEND_FINALIZE);
    EXPECT_TRUE(
        events->waitUntil([](auto const&) { return solEmu_queueDepth("orders") == 0; }, 5s));
    EXPECT_EQ(solEmu_queueDepth("orders"), 0);
}

// Not a fixture client: the test releases it itself to see what happens to
// the sends that never got out.
TEST_F(Sending, AFullPublishQueueRefusesAndTeardownAnswersWhatWaited) {
    auto idle = library->createClient("dev", connectionData(), events);  // never connected
    std::vector<std::shared_ptr<Tag>> tags;
    for (int i = 0; i < 256; ++i) {
        tags.push_back(std::make_shared<Tag>(i));
        ASSERT_TRUE(idle->publish(packet("p"), "t", KW::QOS::AT_MOST_ONCE, tags.back(), true));
    }
    auto refusedTag = std::make_shared<Tag>(-1);
    EXPECT_FALSE(idle->publish(packet("p"), "t", KW::QOS::AT_MOST_ONCE, refusedTag, true));
    EXPECT_TRUE(events->events(Event::SEND_ERROR).empty());

    Impl::Session* session = &sessionOf(idle);
    idle.reset();
    session->terminate();
    auto const errors = events->events(Event::SEND_ERROR);
    ASSERT_EQ(errors.size(), 256u);
    for (std::size_t i = 0; i < errors.size(); ++i) {
        EXPECT_EQ(errors[i].reference, tags[i]);
    }
    EXPECT_EQ(outcomes(*events, refusedTag), 0u);
}

}  // namespace
}  // namespace Test
}  // namespace Solace
}  // namespace KW
