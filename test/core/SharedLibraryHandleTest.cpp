#include <gtest/gtest.h>

#include <dlfcn.h>

#include <string>

#include "core/SharedLibraryHandle.h"
#include "core/SharedLibraryHandleException.h"

namespace {

using KW::SharedLibraryHandle;
using KW::SharedLibraryHandleException;

bool startsWith(std::string const& text, std::string const& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

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

TEST(SharedLibraryHandleLoad, ResolvesSymbolsOfALoadedLibrary) {
    SharedLibraryHandle library(KW_TEST_LOADABLE);
    auto answer = reinterpret_cast<int (*)()>(library.getSymbolAddress("kw_test_answer"));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(), 42);
    auto* counter = static_cast<int*>(library.getSymbolAddress("kw_test_counter"));
    EXPECT_EQ(*counter, 7);
}

TEST(SharedLibraryHandleLoad, SymbolsStayLocalToTheLibrary) {
    SharedLibraryHandle library(KW_TEST_LOADABLE);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "kw_test_answer"), nullptr);
}

TEST(SharedLibraryHandleLoad, MissingFileNamesTheFile) {
    std::string const path = "/nonexistent/libkw_missing.so";
    std::string text = failureText([&] { SharedLibraryHandle library(path.c_str()); });
    EXPECT_TRUE(startsWith(text, path + ": ")) << text;
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n');
    // The loader's explanation is used rather than the generic word.
    EXPECT_EQ(text.find("load error"), std::string::npos) << text;
}

// Binding everything at load time makes a library with an unresolvable
// function fail to load instead of failing on its first call.
TEST(SharedLibraryHandleLoad, UnresolvedFunctionFailsAtLoadTime) {
    std::string text = failureText([] { SharedLibraryHandle library(KW_TEST_UNRESOLVED); });
    EXPECT_TRUE(startsWith(text, std::string(KW_TEST_UNRESOLVED) + ": ")) << text;
    EXPECT_NE(text.find("kw_test_nowhere_defined"), std::string::npos) << text;
}

TEST(SharedLibraryHandleSymbols, InvalidOrMissingNames) {
    SharedLibraryHandle library(KW_TEST_LOADABLE);
    EXPECT_EQ(failureText([&] { library.getSymbolAddress(""); }), "symbol name invalid");
    EXPECT_EQ(failureText([&] { library.getSymbolAddress(nullptr); }), "symbol name invalid");

    std::string text = failureText([&] { library.getSymbolAddress("kw_test_not_there"); });
    EXPECT_TRUE(startsWith(text, std::string(KW_TEST_LOADABLE) + ": ")) << text;
    EXPECT_EQ(text.back(), '\n');

    // A failed lookup leaves the handle usable.
    EXPECT_NE(library.getSymbolAddress("kw_test_answer"), nullptr);
}

TEST(SharedLibraryHandleErrors, ContextWordIsUsedWhenTheLoaderHasNothingToSay) {
    SharedLibraryHandle library(KW_TEST_LOADABLE);
    dlerror();
    std::string text;
    library.queryLastError("some context", text);
    EXPECT_EQ(text, std::string(KW_TEST_LOADABLE) + ": some context\n");

    // A pending loader error wins and is consumed by the query.
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "kw_test_no_such_symbol_anywhere"), nullptr);
    library.queryLastError("some context", text);
    EXPECT_EQ(text.find("some context"), std::string::npos) << text;
    EXPECT_EQ(dlerror(), nullptr);

    EXPECT_NO_THROW(library.traceLastError("ignored"));
    EXPECT_THROW(library.throwLastError("thrown"), SharedLibraryHandleException);
}

}  // namespace
