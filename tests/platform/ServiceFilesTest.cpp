// The service record's text form: escaping, the lines written, and what a reader refuses.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "platform/ErrorCode.h"
#include "platform/posix/ServiceFiles.h"
#include "tests/support/ScratchRoot.h"

namespace {

using Osb::Scm::ServiceRecord;

TEST(ServiceFilesTest, EscapingRoundTripsAndMatchesTheRecordedForm) {
    struct Row {
        std::string value;
        std::string escaped;
    };
    const Row rows[] = {
        {"", ""},
        {"plain text", "plain text"},
        {"dom\\bob", "dom\\\\bob"},
        {"two\nlines\r\n", "two\\nlines\\r\\n"},
        {"\\n is not a line feed", "\\\\n is not a line feed"},
        {"a=b=c", "a=b=c"},
        {"trailing\\", "trailing\\\\"},
        {"\xc3\xa9t\xc3\xa9", "\xc3\xa9t\xc3\xa9"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(Osb::Scm::EscapeValue(row.value), row.escaped) << row.value;
        EXPECT_EQ(Osb::Scm::UnescapeValue(row.escaped), row.value) << row.escaped;
    }
    // Unknown escapes and a lone final backslash stand for themselves.
    for (const char* text : {"C:\\temp", "end\\"}) EXPECT_EQ(Osb::Scm::UnescapeValue(text), text);
    EXPECT_EQ(Osb::Scm::UnescapeValue("\\\\\\n"), "\\\n");
}

TEST(ServiceFilesTest, RecordSurvivesFormatAndParse) {
    ServiceRecord record;
    record.displayName = "Agent\nwith a break";
    record.description = "Tracks files\r\n";
    record.binaryPath = "/opt/agent/bin/agent";
    record.startType = Osb::SERVICE_AUTO_START;
    record.errorControl = Osb::SERVICE_ERROR_IGNORE;
    record.account = "dom\\bob";
    record.dependencies = "one/two";
    // The lines of the text are checked where an install writes them.
    const std::string text = Osb::Scm::FormatRecord(record);
    ServiceRecord parsed;
    ASSERT_TRUE(Osb::Scm::ParseRecord(text, parsed));
    EXPECT_EQ(parsed.displayName, record.displayName);
    EXPECT_EQ(parsed.description, record.description);
    EXPECT_EQ(parsed.binaryPath, record.binaryPath);
    EXPECT_EQ(parsed.startType, record.startType);
    EXPECT_EQ(parsed.errorControl, record.errorControl);
    EXPECT_EQ(parsed.account, record.account);
    EXPECT_EQ(parsed.dependencies, record.dependencies);
}

TEST(ServiceFilesTest, ParserTakesAnyOrderAndCrLfAndRefusesBadNumbersOrNoBinary) {
    struct Row {
        const char* text;
        bool accepted;
        uint32_t startType;
    };
    const Row rows[] = {
        {"StartType=4\r\nBinaryPath=/bin/x\r\n", true, 4},
        {"junk line\n\nOther=1\nBinaryPath=/bin/x", true, Osb::SERVICE_DEMAND_START},
        {"BinaryPath=/bin/x\nStartType=\n", false, 0},
        {"BinaryPath=/bin/x\nStartType=2x\n", false, 0},
        {"BinaryPath=/bin/x\nErrorControl=-1\n", false, 0},
        {"BinaryPath=/bin/x\nStartType=4294967296\n", false, 0},
        {"DisplayName=x\n", false, 0},
        {"BinaryPath=\n", false, 0},
    };
    for (const Row& row : rows) {
        ServiceRecord parsed;
        parsed.startType = 99;
        EXPECT_EQ(Osb::Scm::ParseRecord(row.text, parsed), row.accepted) << row.text;
        if (row.accepted) {
            EXPECT_EQ(parsed.binaryPath, "/bin/x");
            EXPECT_EQ(parsed.startType, row.startType) << row.text;
        } else {
            EXPECT_EQ(parsed.startType, 99u) << "a refused text changed the record: " << row.text;
        }
    }
}

TEST(ServiceFilesTest, WriteRecordCreatesOnceAndReplacesOnRequest) {
    vigil_test::ScratchRoot root;
    ServiceRecord record;
    record.binaryPath = "/bin/first";
    ASSERT_EQ(Osb::Scm::WriteRecord("svc", record, true), 0u);
    record.binaryPath = "/bin/second";
    EXPECT_EQ(Osb::Scm::WriteRecord("svc", record, true), Osb::Err::kServiceExists);
    ServiceRecord read;
    ASSERT_EQ(Osb::Scm::ReadRecord("svc", read), 0u);
    EXPECT_EQ(read.binaryPath, "/bin/first");
    ASSERT_EQ(Osb::Scm::WriteRecord("svc", record, false), 0u);
    ASSERT_EQ(Osb::Scm::ReadRecord("svc", read), 0u);
    EXPECT_EQ(read.binaryPath, "/bin/second");
    EXPECT_EQ(Osb::Scm::ReadRecord("other", read), Osb::Err::kServiceDoesNotExist);

    std::ofstream(root / "etc/orvanta/services/broken.conf") << "StartType=x\nBinaryPath=/b\n";
    EXPECT_EQ(Osb::Scm::ReadRecord("broken", read), 13u);
}

}  // namespace
