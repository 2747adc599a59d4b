#include <gtest/gtest.h>

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "core/DroppedFailures.h"
#include "core/SharedLibraryHandle.h"
#include "core/SharedLibraryHandleException.h"

namespace {

using KW::DroppedFailures;
using KW::SharedLibraryHandle;
using KW::SharedLibraryHandleException;

// Runs `action`, expecting a SharedLibraryHandleException; returns its text.
template <typename Action>
std::string failureText(Action action) {
    try {
        action();
    } catch (SharedLibraryHandleException const& e) {
        EXPECT_EQ(e.code(), 0);
        return e.what();
    }
    ADD_FAILURE() << "no SharedLibraryHandleException thrown";
    return "";
}

// Texts of loader failures name the library and end in a newline.
void expectLoaderText(std::string const& text, std::string const& library) {
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.compare(0, library.size() + 2, library + ": "), 0) << text;
    EXPECT_EQ(text.back(), '\n') << text;
    EXPECT_EQ(text.find("load error"), std::string::npos) << "the loader's own words: " << text;
}

TEST(SharedLibraryHandle, LoadFailuresNameTheFile) {
    std::string const missing = "/nonexistent/libkw_missing.so";
    expectLoaderText(failureText([&] { SharedLibraryHandle library(missing.c_str()); }), missing);
    // Everything is bound at load time: an unresolvable function fails the load.
    std::string text = failureText([] { SharedLibraryHandle library(KW_TEST_UNRESOLVED); });
    expectLoaderText(text, KW_TEST_UNRESOLVED);
    EXPECT_NE(text.find("kw_test_nowhere_defined"), std::string::npos) << text;
}

TEST(SharedLibraryHandle, SymbolsResolveStayLocalAndBadNamesThrow) {
    SharedLibraryHandle library(KW_TEST_LOADABLE);
    EXPECT_EQ(failureText([&] { library.getSymbolAddress(""); }), "symbol name invalid");
    EXPECT_EQ(failureText([&] { library.getSymbolAddress(nullptr); }), "symbol name invalid");
    expectLoaderText(failureText([&] { library.getSymbolAddress("kw_test_not_there"); }),
                     KW_TEST_LOADABLE);
    // Still usable after the failures.
    auto answer = reinterpret_cast<int (*)()>(library.getSymbolAddress("kw_test_answer"));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(), 42);
    EXPECT_EQ(*static_cast<int*>(library.getSymbolAddress("kw_test_counter")), 7);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "kw_test_answer"), nullptr);
}

TEST(SharedLibraryHandle, ContextWordIsUsedWhenTheLoaderHasNothingToSay) {
    SharedLibraryHandle library(KW_TEST_LOADABLE);
    std::string text;
    dlerror();  // NOLINT(concurrency-mt-unsafe): the loader's error state is per thread
    library.queryLastError("some context", text);
    EXPECT_EQ(text, std::string(KW_TEST_LOADABLE) + ": some context\n");
    // A pending loader error wins and is consumed by the query.
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "kw_test_no_such_symbol_anywhere"), nullptr);
    library.queryLastError("some context", text);
    EXPECT_EQ(text.find("some context"), std::string::npos) << text;
    EXPECT_EQ(dlerror(), nullptr);  // NOLINT(concurrency-mt-unsafe)
    // The text built where nothing can be thrown is counted, not lost.
    auto const before = DroppedFailures::count("SharedLibraryHandle::traceLastError");
    library.traceLastError("unload error");
    EXPECT_EQ(DroppedFailures::count("SharedLibraryHandle::traceLastError"), before + 1);
}

// Run once more with the trace on (ctest core.DroppedFailures.Trace), which
// checks the lines written for these drops and the counts at exit.
TEST(DroppedFailures, CountsPerSite) {
    auto const before = DroppedFailures::count("test.site.a");
    for (bool standard : {true, false}) {
        try {
            if (standard) {
                throw std::runtime_error("handler broke");
            }
            throw 42;
        } catch (...) {
            DroppedFailures::recordCurrent("test.site.a");
        }
    }
    DroppedFailures::record("test.site.b", "a vendor call failed");
    EXPECT_EQ(DroppedFailures::count("test.site.a"), before + 2);
    EXPECT_EQ(DroppedFailures::count("test.site.b"), 1u);
    EXPECT_EQ(DroppedFailures::count("test.site.none"), 0u);
    EXPECT_NE(DroppedFailures::report().find("test.site.b: 1\n"), std::string::npos);
}

}  // namespace
