#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Harness.h"

// Each test gets its own broker address, fresh faults and queues, and a
// harness with one context.
class EmulatorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        solEmu_reset();
        solEmu_setRoundTrip(0);
        auto const* info = ::testing::UnitTest::GetInstance()->current_test_info();
        hostPort = std::string(info->test_suite_name()) + "." + info->name() + ":55555";
    }

    std::string hostPort;
    Harness harness;
};
