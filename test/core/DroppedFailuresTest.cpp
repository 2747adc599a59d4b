#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "core/DroppedFailures.h"
#include "core/SharedLibraryHandle.h"

namespace {

using KW::DroppedFailures;

// Drops one exception of each kind the way a swallowing catch block does.
void dropThrown(char const* site, bool standard) {
    try {
        if (standard) {
            throw std::runtime_error("handler broke");
        }
        throw 42;
    } catch (...) {
        DroppedFailures::recordCurrent(site);
    }
}

TEST(DroppedFailures, CountsPerSite) {
    auto const before = DroppedFailures::count("test.site.a");
    dropThrown("test.site.a", true);
    dropThrown("test.site.a", false);
    DroppedFailures::record("test.site.b", "a vendor call failed");
    EXPECT_EQ(DroppedFailures::count("test.site.a"), before + 2);
    EXPECT_EQ(DroppedFailures::count("test.site.b"), 1u);
    EXPECT_EQ(DroppedFailures::count("test.site.none"), 0u);
    EXPECT_NE(DroppedFailures::report().find("test.site.b: 1\n"), std::string::npos);
}

// The loader's error text, built where nothing can be thrown, is counted
// (and traced on request) instead of vanishing.
TEST(DroppedFailures, LoaderTraceIsCounted) {
    auto const before = DroppedFailures::count("SharedLibraryHandle::traceLastError");
    KW::SharedLibraryHandle library(KW_TEST_LOADABLE);
    library.traceLastError("unload error");
    EXPECT_EQ(DroppedFailures::count("SharedLibraryHandle::traceLastError"), before + 1);
}

}  // namespace
