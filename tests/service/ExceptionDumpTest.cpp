#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "service/VigilExceptionDump.h"

namespace Vigil {
namespace {

std::string Dumped(const Osb::Exception& failure, int& exitCode) {
    char* text = nullptr;
    size_t size = 0;
    std::FILE* out = open_memstream(&text, &size);
    exitCode = DumpException(failure, out, exitCode);
    std::fclose(out);
    std::string result(text, size);
    std::free(text);
    return result;
}

TEST(ExceptionDumpTest, SystemErrorPrintsItsCodeForEachReasonAndExitsWithIt) {
    Osb::ExSystem failure(1060, OSB_HERE);
    failure.addReason(Osb::ExReason(u"second", OSB_HERE));
    int exitCode = 0;
    const std::string text = Dumped(failure, exitCode);
    EXPECT_EQ(exitCode, 1060);
    const std::string first =
        "Dump Exception Stack -- Unexpected Error. Depth of 2\n"
        "    Operating System Error = 1060\n    What: ";
    EXPECT_EQ(text.rfind(first, 0), 0u) << text;
    const std::string last = "    Operating System Error = 1060\n    What: second\n";
    EXPECT_EQ(text.substr(text.size() - last.size()), last);
}

TEST(ExceptionDumpTest, OtherExceptionsExitWithMinusOneAndNoReasonKeepsTheCode) {
    int exitCode = 0;
    EXPECT_EQ(Dumped(Osb::Exception(Osb::ExReason(u"caf\u00e9", OSB_HERE)), exitCode),
              "Dump Exception Stack -- Unexpected Error. Depth of 1\n    What: caf\xc3\xa9\n");
    EXPECT_EQ(exitCode, -1);
    exitCode = 0;
    EXPECT_EQ(Dumped(Osb::Exception(), exitCode),
              "Dump Exception Stack -- Unexpected Error. Depth of 0\n");
    EXPECT_EQ(exitCode, 0);
}

}  // namespace
}  // namespace Vigil
