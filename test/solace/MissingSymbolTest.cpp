// A vendor library that lacks one function cannot be loaded at all. This
// executable finds a deliberately incomplete libsolclient.so first on its
// library path.
#include <gtest/gtest.h>

#include <string>

#include "core/SharedLibraryHandleException.h"
#include "solace/SolaceAPI.h"
#include "solace/impl/Library.h"

TEST(IncompleteVendorLibrary, CannotBeLoadedAndTheLibraryStaysUnstarted) {
    try {
        KW::Solace::SolaceAPI api;
        FAIL() << "a library without solClient_flow_sendAck was accepted";
    } catch (KW::SharedLibraryHandleException const& e) {
        // The message's form is the loader's (SharedLibraryHandleTest).
        EXPECT_NE(std::string(e.what()).find("solClient_flow_sendAck"), std::string::npos);
    }
    KW::Solace::Impl::Library library;
    EXPECT_THROW(library.start(), KW::SharedLibraryHandleException);
    EXPECT_EQ(library.getAPI(), nullptr);
}
