// Outgoing message ids are process-wide: 1, 2, 3 across publish and forward
// and across sessions. This executable sends nothing else.
#include "AdapterTest.h"

namespace KW::Solace::Test {

using MessageIds = AdapterTest;

TEST_F(MessageIds, RiseByOneFromOneAcrossPublishAndForward) {
    auto client = connectedClient();
    auto other = connectedClient();
    client->publish(packet("a"), "ids", AMO, Reference::NONE, false);
    other->forward(nullptr, "ids", AMO, Reference::NONE, false);
    client->publish(packet("c"), "ids", AMO, Reference::NONE, true);
    std::vector<unsigned long long> ids;
    for (auto const& e : events->waitOf(SENT, 3)) {
        ids.push_back(e.id);
    }
    EXPECT_EQ(ids, (std::vector<unsigned long long>{1, 2, 3}));
}

}  // namespace KW::Solace::Test
