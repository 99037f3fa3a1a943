#include <gtest/gtest.h>

#include <memory>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"

namespace {

TEST(ExceptionTest, ReasonsKeepTextFileAndLineInOrder) {
    Osb::Exception e(Osb::ExReason(u"first", Osb::ExWhere{"a.cpp", 10}));
    e.addReason(Osb::ExReason(u"second", Osb::ExWhere{"b.cpp", 20}, 7));
    ASSERT_EQ(e.depth(), 2);
    EXPECT_EQ(e.what(), u"first");
    EXPECT_EQ(e.reason(1).what(), u"second");
    EXPECT_STREQ(e.reason(1).file(), "b.cpp");
    EXPECT_EQ(e.reason(1).line(), 20);
    EXPECT_EQ(e.reason(0).number(), 1u);
    EXPECT_EQ(e.reason(1).number(), 7u);
}

TEST(ExceptionTest, CloneKeepsTheDynamicTypeAndStatus) {
    Osb::ExSystem original(1060, OSB_HERE);
    std::unique_ptr<Osb::Exception> copy(static_cast<const Osb::Exception&>(original).clone());
    auto* system = dynamic_cast<Osb::ExSystem*>(copy.get());
    ASSERT_NE(system, nullptr);
    EXPECT_EQ(system->status(), 1060u);
    EXPECT_EQ(system->what(), original.what());
    EXPECT_EQ(system->reason(0).line(), original.reason(0).line());
}

TEST(ExceptionTest, ExSystemCarriesTheReadableTextOfItsCode) {
    Osb::SetLastError(0);
    Osb::ExSystem e(5, OSB_HERE);
    EXPECT_EQ(e.status(), 5u);
    EXPECT_EQ(e.depth(), 1);
    EXPECT_EQ(e.what(), Osb::ErrorText(5));
    EXPECT_FALSE(e.what().empty());
}

TEST(ExceptionTest, LookupExceptionsAreCaughtAsTheFamily) {
    try {
        throw Osb::ExLookupId(0x801, OSB_HERE);
    } catch (const Osb::Exception& e) {
        EXPECT_EQ(e.depth(), 1);
        EXPECT_NE(e.what().find(u"2049"), std::u16string::npos);
    }
    try {
        throw Osb::ExLookupTableFull(OSB_HERE);
    } catch (const Osb::Exception& e) {
        EXPECT_EQ(e.depth(), 1);
        EXPECT_STREQ(e.reason(0).file(), __FILE__);
    }
}

}  // namespace
