#include <gtest/gtest.h>

#include <dlfcn.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "core/DroppedFailures.h"
#include "core/SharedLibraryHandle.h"
#include "core/SharedLibraryHandleException.h"

namespace {

using KW::DroppedFailures;
using KW::SharedLibraryHandle;

std::string failureText(std::function<void()> const& action) {
    try {
        action();
    } catch (KW::SharedLibraryHandleException const& e) {
        EXPECT_EQ(e.code(), 0);
        return e.what();
    }
    ADD_FAILURE() << "no SharedLibraryHandleException thrown";
    return "";
}

// Loader failures name the file, then give the loader's own words (not our
// context word) and end in a newline. Everything is bound at load time, so
// an unresolvable function fails the load. Symbols stay local to the handle.
TEST(SharedLibraryHandle, LoaderFailuresNameTheFileAndSymbolsResolveLocally) {
    SharedLibraryHandle library(KW_TEST_LOADABLE);
    struct Case {
        std::function<void()> action;
        std::string file, word;
    } const cases[] = {{[] { SharedLibraryHandle other("/nonexistent/libkw_missing.so"); },
                        "/nonexistent/libkw_missing.so", "libkw_missing.so"},
                       {[] { SharedLibraryHandle other(KW_TEST_UNRESOLVED); }, KW_TEST_UNRESOLVED,
                        "kw_test_nowhere_defined"},
                       {[&] { library.getSymbolAddress("kw_test_not_there"); }, KW_TEST_LOADABLE,
                        "kw_test_not_there"}};
    for (auto const& c : cases) {
        std::string const text = failureText(c.action);
        EXPECT_EQ(text.rfind(c.file + ": ", 0), 0u) << text;
        EXPECT_NE(text.find(c.word, c.file.size()), std::string::npos) << text;
        EXPECT_EQ(text.back(), '\n') << text;
    }
    EXPECT_EQ(failureText([&] { library.getSymbolAddress(""); }), "symbol name invalid");
    EXPECT_EQ(failureText([&] { library.getSymbolAddress(nullptr); }), "symbol name invalid");
    auto answer = reinterpret_cast<int (*)()>(library.getSymbolAddress("kw_test_answer"));
    EXPECT_EQ(answer(), 42);
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
    // What is built where nothing can be thrown is counted, not lost.
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
