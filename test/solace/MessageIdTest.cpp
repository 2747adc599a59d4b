// Outgoing message ids are process-wide: 1, 2, 3 across publish and forward
// and across sessions. This executable sends nothing else.
#include "AdapterTest.h"

namespace KW {
namespace Solace {
namespace Test {
namespace {

using MessageIds = AdapterTest;

TEST_F(MessageIds, RiseByOneFromOneAcrossPublishAndForward) {
    auto client = connectedClient();
    auto other = connectedClient();
    client->publish(packet("a"), "ids", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE, false);
    other->forward(nullptr, "ids", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE, false);
    client->publish(packet("c"), "ids", KW::QOS::AT_MOST_ONCE, KW::Reference::NONE, true);
    ASSERT_TRUE(events->waitFor(SENT, 3));
    std::vector<unsigned long long> ids;
    for (auto const& e : events->of(SENT)) {
        ids.push_back(e.id);
    }
    EXPECT_EQ(ids, (std::vector<unsigned long long>{1, 2, 3}));
}

}  // namespace
}  // namespace Test
}  // namespace Solace
}  // namespace KW
