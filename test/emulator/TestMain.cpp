#include <gtest/gtest.h>

#include "SolClientEmulator.h"

namespace {

// Every test destroys what it made; at the end nothing may be left alive.
class NoLeakedMessages : public ::testing::Environment {
  public:
    void TearDown() override {
        solEmu_reset();  // drops what queues still spool
        EXPECT_EQ(0, solEmu_liveMessages());
        EXPECT_EQ(0, solEmu_liveSessions());
    }
};

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new NoLeakedMessages);
    return RUN_ALL_TESTS();
}
