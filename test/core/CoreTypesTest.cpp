#include <gtest/gtest.h>

#include "core/ClientFactory.h"
#include "core/ClientLibraryRegistry.h"
#include "core/Exception.h"
#include "core/Reference.h"
#include "core/SharedLibraryHandleException.h"

namespace {

TEST(CoreTypes, ExceptionsCarryTextAndCodeZero) {
    KW::Exception plain("boom");
    EXPECT_STREQ(plain.what(), "boom");
    EXPECT_EQ(plain.code(), 0);

    KW::SharedLibraryHandleException derived("lib.so: gone\n");
    KW::Exception& base = derived;
    EXPECT_STREQ(base.what(), "lib.so: gone\n");
    EXPECT_EQ(base.code(), 0);
}

TEST(CoreTypes, NoneReferenceIsEmptyAndFactoryIsTheRegistry) {
    EXPECT_EQ(KW::Reference::NONE, nullptr);
    EXPECT_EQ(KW::ClientFactory::getInstance(), KW::ClientLibraryRegistry::getInstance());
    EXPECT_EQ(KW::ClientLibraryRegistry::getInstance(), KW::ClientLibraryRegistry::getInstance());
}

}  // namespace
