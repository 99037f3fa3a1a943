// Events as journal entries: the fields of each, in the journal's native protocol, read back from
// a socket that stands in for the journal's.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/SysLog.h"
#include "platform/posix/Journal.h"
#include "tests/support/DatagramSink.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/ScratchRoot.h"

namespace {

using vigil_test::ScopedEnv;

// The fields of one entry; nothing when the datagram breaks the protocol (a line without '=' that
// is not followed by a well-formed binary value, or a value cut short).
std::optional<std::map<std::string, std::string>> ParseEntry(const std::string& data) {
    std::map<std::string, std::string> fields;
    size_t at = 0;
    while (at < data.size()) {
        const size_t end = data.find('\n', at);
        if (end == std::string::npos) return std::nullopt;
        const std::string line = data.substr(at, end - at);
        const size_t equals = line.find('=');
        if (equals != std::string::npos) {
            fields[line.substr(0, equals)] = line.substr(equals + 1);
            at = end + 1;
            continue;
        }
        // NAME, line feed, 64-bit little-endian length, value, line feed.
        if (end + 1 + 8 > data.size()) return std::nullopt;
        uint64_t length = 0;
        for (int byte = 7; byte >= 0; --byte) {
            length = (length << 8) | static_cast<unsigned char>(data[end + 1 + byte]);
        }
        const size_t value = end + 1 + 8;
        if (length > data.size() - value || value + length >= data.size() ||
            data[value + length] != '\n') {
            return std::nullopt;
        }
        fields[line] = data.substr(value, length);
        at = value + length + 1;
    }
    return fields;
}

class JournalTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(sink_.bound());
        Osb::Journal::SetSocketPathForTesting(socket_);
    }
    void TearDown() override { Osb::Journal::SetSocketPathForTesting(""); }

    vigil_test::ScratchRoot root_;
    std::string socket_ = root_ / "journal.socket";
    vigil_test::DatagramSink sink_{socket_};
    std::string events_ = root_ / "events.log";
    ScopedEnv eventLog_{"VIGIL_EVENT_LOG", events_.c_str()};
    ScopedEnv lcAll_{"LC_ALL", "C"};
    ScopedEnv lcMessages_{"LC_MESSAGES", nullptr};
    ScopedEnv lang_{"LANG", nullptr};
};

TEST_F(JournalTest, EachEventIsOneEntryWithItsFields) {
    struct Row {
        uint32_t id;
        std::u16string_view insert;  // none when empty
        std::string message;
        std::string priority;
    };
    const Row rows[] = {
        {0x20000A0A, {}, "Orvanta Vigil Watch Service has Started.", "5"},
        // The text has a line break before its insert, and the insert one of its own: both stay.
        {0xE0000A0F,
         u"disk gone\r\nretry later",
         "Orvanta Vigil Watch Service has terminated because of an unexpected exception.\n"
         "disk gone\nretry later",
         "3"},
        // Ids without a text: a system code, a warning and an informational one.
        {0x00000005, {}, "0x00000005", "5"},
        {0x80000123, {}, "0x80000123", "4"},
        {0x40000456, {}, "0x40000456", "6"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message);
        if (row.insert.empty()) {
            Osb::SysLogEvent(row.id);
        } else {
            Osb::SysLogEvent(row.id, {row.insert});
        }
        const std::optional<std::string> datagram = sink_.next();
        ASSERT_TRUE(datagram.has_value()) << "no journal entry";
        const auto fields = ParseEntry(*datagram);
        ASSERT_TRUE(fields.has_value()) << "not the native protocol: " << *datagram;
        char eventId[16];
        std::snprintf(eventId, sizeof(eventId), "0x%08X", static_cast<unsigned>(row.id));
        char messageId[40];
        std::snprintf(messageId, sizeof(messageId), "eb42d24211294da2955331fb%08x",
                      static_cast<unsigned>(row.id));
        const std::map<std::string, std::string> expected = {
            {"MESSAGE", row.message},
            {"PRIORITY", row.priority},
            {"SYSLOG_IDENTIFIER", "Orvanta Vigil Watch 14.0"},
            {"MESSAGE_ID", messageId},
            {"VIGIL_EVENT_ID", eventId},
        };
        EXPECT_EQ(*fields, expected);
    }
    // The file goes on beside the journal, one line per event.
    std::ifstream file(events_);
    size_t lines = 0;
    for (std::string line; std::getline(file, line);) ++lines;
    EXPECT_EQ(lines, std::size(rows));
}

}  // namespace
