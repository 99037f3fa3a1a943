#include <gtest/gtest.h>

#include "service/VigilDependencyList.h"

namespace Vigil {
namespace {

TEST(DependencyListTest, NamesSeparatedByWhiteSpaceBecomeADoubleTerminatedList) {
    using namespace std::string_literals;
    const struct {
        std::u16string value;
        std::u16string list;
    } cases[] = {
        {u"", u""},
        {u"   \t", u""},
        {u"d1", u"d1\0\0"s},
        {u"d1 d2", u"d1\0d2\0\0"s},
        {u"  Tcpip\t\tAfd  ", u"Tcpip\0Afd\0\0"s},
    };
    for (const auto& c : cases) EXPECT_EQ(DependencyList(c.value), c.list);
}

}  // namespace
}  // namespace Vigil
