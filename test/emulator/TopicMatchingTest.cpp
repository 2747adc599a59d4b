#include "Harness.h"

namespace {

struct MatchCase {
    char const* subscription;
    char const* topic;
    bool matches;
};

const MatchCase MATCH_CASES[] = {
    {"a/b/c", "a/b/c", true},    {"a/b/c", "a/b", false},        {"a/b", "a/b/c", false},
    {"a/b/c", "a/b/cd", false},  {"a/*/c", "a/xyz/c", true},     {"a/*/c", "a/c", false},
    {"a/*/c", "a/x/y/c", false}, {"a/*", "a/b", true},           {"a/*", "a/b/c", false},
    {"a/b*", "a/bcd", true},     {"a/b*", "a/b", true},          {"a/b*", "a/xb", false},
    {"a/b*/c", "a/bee/c", true}, {"a/>", "a/b", true},           {"a/>", "a/b/c/d", true},
    {"a/>", "a", false},         {">", "anything/at/all", true}, {"*/>", "a/b", true},
    {"*/>", "a", false},         {"a/b>", "a/b>", true},  // ">" inside a level is a plain character
    {"a/b>", "a/bc", false},     {"A/b", "a/b", false},   // case-sensitive
};

class TopicMatching : public EmulatorTest, public ::testing::WithParamInterface<MatchCase> {};

// The sentinel subscription proves that a non-matching message had its chance:
// messages from one publisher arrive in publish order.
TEST_P(TopicMatching, DeliversExactlyWhenTheSubscriptionMatches) {
    MatchCase const& c = GetParam();
    auto session = harness.connected(hostPort);
    int matchTag = 0, sentinelTag = 0;
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, c.subscription, &matchTag));
    ASSERT_EQ(SOLCLIENT_OK, harness.subscribe(session, "sentinel/topic", &sentinelTag));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, c.topic, "x"));
    ASSERT_EQ(SOLCLIENT_OK, harness.publish(session, "sentinel/topic", "end"));
    ASSERT_TRUE(harness.waitForMessages(1, &sentinelTag));
    bool matched = false;
    for (auto const& m : harness.messages()) {
        if (m.user == &matchTag && m.payload == "x") {
            matched = true;
            EXPECT_EQ(c.topic, m.destination);  // the concrete topic, not the pattern
        }
    }
    EXPECT_EQ(c.matches, matched) << c.subscription << " vs " << c.topic;
}

INSTANTIATE_TEST_SUITE_P(Grammar, TopicMatching, ::testing::ValuesIn(MATCH_CASES));

class TopicSyntax : public EmulatorTest, public ::testing::WithParamInterface<char const*> {};

TEST_P(TopicSyntax, InvalidSubscriptionsAreRefused) {
    auto session = harness.connected(hostPort);
    int tag = 0;
    EXPECT_EQ(SOLCLIENT_FAIL, harness.subscribe(session, GetParam(), &tag));
    EXPECT_EQ(SOLCLIENT_SUBCODE_INVALID_TOPIC_SYNTAX, solClient_getLastErrorInfo()->subCode);
}

INSTANTIATE_TEST_SUITE_P(Grammar, TopicSyntax,
                         ::testing::Values("", "a//b", "/a", "a/", "a/>/b", "a/*b", "a/b*c/d",
                                           "**"));

}  // namespace
