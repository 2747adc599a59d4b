// Outgoing message ids are process-wide: 1, 2, 3 across publish and forward.
// This executable sends nothing else, so the counter starts here.
#include "AdapterTest.h"

namespace KW {
namespace Solace {
namespace Test {
namespace {

using MessageIds = AdapterTest;

TEST_F(MessageIds, RiseByOneAcrossPublishAndForwardFromOne) {
    auto client = connectedClient();
    auto other = connectedClient();
    client->publish(packet("a"), "ids", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE, false);
    other->forward(nullptr, "ids", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE, true);
    ASSERT_TRUE(events->waitFor(Event::SEND_FINALIZE, 2, 5s));
    client->publish(packet("c"), "ids", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE, false);
    ASSERT_TRUE(events->waitFor(Event::SEND_FINALIZE, 3, 5s));
    std::vector<unsigned long long> ids;
    for (auto const& e : events->events(Event::SEND_FINALIZE)) {
        ids.push_back(e.messageID);
    }
    EXPECT_EQ(ids, (std::vector<unsigned long long>{1, 2, 3}));
}

}  // namespace
}  // namespace Test
}  // namespace Solace
}  // namespace KW
