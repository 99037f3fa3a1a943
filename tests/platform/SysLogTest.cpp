#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/MessageTable.h"
#include "platform/Registry.h"
#include "platform/SysLog.h"
#include "platform/Utf.h"
#include "tests/support/FileText.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/ScratchRoot.h"

namespace {

using vigil_test::ScopedEnv;
namespace fs = std::filesystem;


constexpr char kException[] =
    "0xE0000A0F Orvanta Vigil Watch Service has terminated because of an unexpected exception.";

class SysLogTest : public ::testing::Test {
  protected:
    std::vector<std::string> lines() const {
        std::ifstream in(logFile_, std::ios::binary);
        std::vector<std::string> out;
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }

    std::string contents() const { return vigil_test::FileText(logFile_); }

    vigil_test::ScratchRoot root_;
    std::string logFile_ = root_ / "events.log";
    ScopedEnv eventLog_{"VIGIL_EVENT_LOG", logFile_.c_str()};
    // English whatever the machine's locale is.
    ScopedEnv lcAll_{"LC_ALL", "C"};
    ScopedEnv lcMessages_{"LC_MESSAGES", nullptr};
    ScopedEnv lang_{"LANG", nullptr};
};

TEST_F(SysLogTest, EventFileHoldsOneLinePerEventWithInsertsAndFoldedBreaks) {
    struct Row {
        uint32_t id;
        std::vector<std::u16string_view> inserts;
        std::string line;
    };
    const Row rows[] = {
        {0x20000A0A, {}, "0x20000A0A Orvanta Vigil Watch Service has Started."},
        {0xE0000A0F, {u"Bad cache file"}, std::string(kException) + " Bad cache file"},
        // Line breaks of the insert fold as the text's own do; a lone CR or LF too.
        {0xE0000A0F, {u"first\r\nsecond"}, std::string(kException) + " first second"},
        {0xE0000A0F, {u"a\nb\rc\r\n"}, std::string(kException) + " a b c "},
        {0xE0000A0F, {u""}, std::string(kException) + " "},
        // Inserts are not read for markers; surplus inserts are ignored.
        {0xE0000A0F, {u"%1 and %2!s!", u"extra"}, std::string(kException) + " %1 and %2!s!"},
        {0xE0000A0F, {u"caf\u00e9"}, std::string(kException) + " caf\xc3\xa9"},
        // A marker without its insert is kept as it stands.
        {0xE0000A0F, {}, std::string(kException) + " %1!s!"},
        // An id without a text is the id alone, in upper-case hex with eight digits.
        {5, {}, "0x00000005"},
        {1060, {u"ignored"}, "0x00000424"},
    };
    std::vector<std::string> expected;
    for (const Row& row : rows) {
        switch (row.inserts.size()) {
            case 0:
                Osb::SysLogEvent(row.id);
                break;
            case 1:
                Osb::SysLogEvent(row.id, {row.inserts[0]});
                break;
            default:
                Osb::SysLogEvent(row.id, {row.inserts[0], row.inserts[1]});
                break;
        }
        expected.push_back(row.line);
    }
    EXPECT_EQ(lines(), expected);
    const std::string text = contents();
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(text.find('\r'), std::string::npos);
}

TEST_F(SysLogTest, EventFileFollowsTheLanguageOfTheEnvironment) {
    lcAll_.set("ja_JP.UTF-8");
    Osb::SysLogEvent(0x20000A0B);
    lcAll_.set(nullptr);
    lang_.set("de_DE.UTF-8");
    Osb::SysLogEvent(0xE0000A0F, {u"Ursache"});

    auto folded = [](uint32_t id, Osb::MessageLanguage language, std::u16string_view insert) {
        std::u16string text(Osb::MessageText(id, language));
        text.resize(text.size() - 2);
        for (size_t at; (at = text.find(u"\r\n")) != std::u16string::npos;) {
            text.replace(at, 2, u" ");
        }
        if (const size_t at = text.find(u"%1!s!"); at != std::u16string::npos) {
            text.replace(at, 5, insert);
        }
        return Osb::Utf16ToUtf8(text);
    };
    const std::vector<std::string> expected = {
        "0x20000A0B " + folded(0x20000A0B, Osb::MessageLanguage::kJapanese, u""),
        "0xE0000A0F " + folded(0xE0000A0F, Osb::MessageLanguage::kGerman, u"Ursache"),
    };
    EXPECT_EQ(lines(), expected);
    EXPECT_NE(expected[1].find("Ursache"), std::string::npos);
}

TEST_F(SysLogTest, LinesOfManyThreadsStayWhole) {
    constexpr int kThreads = 8;
    constexpr int kEvents = 150;
    // Long inserts make a torn or interleaved write show.
    auto insert = [](int thread, int event) {
        std::string text = "T" + std::to_string(thread) + "-" + std::to_string(event) + ":";
        text.append(2000, static_cast<char>('a' + thread));
        return text;
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &insert] {
            for (int e = 0; e < kEvents; ++e) {
                const std::u16string text = Osb::Utf8ToUtf16(insert(t, e));
                Osb::SysLogEvent(0xE0000A0F, {text});
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    std::set<std::string> expected;
    for (int t = 0; t < kThreads; ++t) {
        for (int e = 0; e < kEvents; ++e)
            expected.insert(std::string(kException) + " " + insert(t, e));
    }
    const std::vector<std::string> got = lines();
    EXPECT_EQ(got.size(), expected.size());
    EXPECT_EQ(std::set<std::string>(got.begin(), got.end()), expected);
}

TEST_F(SysLogTest, AFailingEventFileChangesNothingForTheCaller) {
    eventLog_.set((root_ / "missing/folder/events.log").c_str());
    Osb::SetLastError(1060);
    errno = EINTR;
    Osb::SysLogEvent(0x20000A0A);
    Osb::SysLogEvent(0xE0000A0F, {u"x"});
    EXPECT_EQ(Osb::ErrorCode(), 1060u);
    EXPECT_EQ(errno, EINTR);
    EXPECT_FALSE(fs::exists(root_ / "missing"));
}

// The text with its insert, cut to the buffer (bytes) with room for the terminator, never in the
// middle of a surrogate pair and never past the buffer; the language is the environment's.
TEST_F(SysLogTest, GetMessageFillsInsertsAndCutsToTheBuffer) {
    const std::u16string head =
        u"Orvanta Vigil Watch Service has terminated because of an unexpected exception.\r\n";
    const uint32_t headBytes = static_cast<uint32_t>(head.size() * sizeof(char16_t));
    const std::u16string boom = head + u"boom\r\n";
    const struct {
        uint32_t id;
        std::u16string insert;
        uint32_t bytes;
        std::u16string text;
    } rows[] = {
        {0xE0000A0F, u"boom", 4096, boom},
        {0xE0000A0F, u"boom", 22, boom.substr(0, 10)},
        {0xE0000A0F, u"boom", 21, boom.substr(0, 9)},
        {0xE0000A0F, u"boom", 4, boom.substr(0, 1)},
        {0xE0000A0F, u"boom", 2, u""},
        {0xE0000A0F, u"\U0001F600", headBytes + 4, head},
        {0xE0000A0F, u"\U0001F600", headBytes + 6, head + u"\U0001F600"},
        {5, u"", 4096, u""},  // an id without a text
    };
    char16_t buffer[2048];
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bytes);
        std::fill(std::begin(buffer), std::end(buffer), u'#');
        const std::u16string_view insert = row.insert;
        EXPECT_EQ(Osb::SysLogGetMessage(row.bytes, buffer, row.id, {insert}), row.text.size());
        EXPECT_EQ(std::u16string(buffer), row.text);
        EXPECT_EQ(buffer[row.text.size() + 1], u'#') << "wrote past the end";
    }
    // No room even for the terminator: nothing is written.
    buffer[0] = u'#';
    EXPECT_EQ(Osb::SysLogGetMessage(1, buffer, 0xE0000A0F, {u"boom"}), 0u);
    EXPECT_EQ(buffer[0], u'#');

    lcAll_.set("fr_FR.UTF-8");
    const std::u16string_view french = Osb::MessageText(0x20000A0A, Osb::MessageLanguage::kFrench);
    EXPECT_EQ(Osb::SysLogGetMessage(sizeof(buffer), buffer, 0x20000A0A), french.size());
    EXPECT_EQ(std::u16string_view(buffer), french);
}

class SysLogSourceTest : public SysLogTest {
  protected:
    std::string sourceDir(const std::string& name) const {
        return root_ / ("etc/orvanta/registry/HKEY_LOCAL_MACHINE/SYSTEM/CurrentControlSet/"
                        "Services/EventLog/Application/" +
                        name);
    }

    static std::u16string messageFile(const std::u16string& name) {
        Osb::HKey key = nullptr;
        const std::u16string path =
            u"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\" + name;
        if (Osb::RegOpenKeyExW(Osb::HKeyLocalMachine(), path, 0, Osb::Reg::kKeyRead, &key) != 0) {
            return u"(no key)";
        }
        char16_t buffer[512] = {};
        uint32_t bytes = sizeof(buffer);
        const int32_t status = Osb::RegQueryValueExW(key, u"EventMessageFile", nullptr,
                                                     reinterpret_cast<uint8_t*>(buffer), &bytes);
        Osb::RegCloseKey(key);
        return status == 0 ? std::u16string(buffer) : u"(no value)";
    }

    static uint32_t failureOf(const std::function<void()>& call) {
        try {
            call();
        } catch (const Osb::ExSystem& e) {
            return e.status();
        }
        return 0;
    }
};

TEST_F(SysLogSourceTest, InstallRegistersTheMessageFileAndUninstallRemovesIt) {
    Osb::SysLogInstall(u"Orvanta Vigil Watch 14.0", u"/opt/orvanta/bin/MirelleStudioFileAgent");
    EXPECT_EQ(messageFile(u"Orvanta Vigil Watch 14.0"), u"/opt/orvanta/bin/MirelleStudioFileAgent");
    EXPECT_EQ(vigil_test::FileText(sourceDir("Orvanta Vigil Watch 14.0") + "/EventMessageFile"),
              "/opt/orvanta/bin/MirelleStudioFileAgent\n");

    // A second install replaces the path.
    Osb::SysLogInstall(u"Orvanta Vigil Watch 14.0", u"/usr/local/bin/agent");
    EXPECT_EQ(messageFile(u"Orvanta Vigil Watch 14.0"), u"/usr/local/bin/agent");
    Osb::SysLogInstall(u"Other Source", u"/x");

    Osb::SysLogUninstall(u"Orvanta Vigil Watch 14.0");
    EXPECT_FALSE(fs::exists(sourceDir("Orvanta Vigil Watch 14.0")));
    EXPECT_EQ(messageFile(u"Other Source"), u"/x");
    // Removing a source that is not registered is no failure.
    Osb::SysLogUninstall(u"Orvanta Vigil Watch 14.0");
    Osb::SysLogUninstall(u"Never Installed");
}

TEST_F(SysLogSourceTest, FailuresRaiseTheWindowsCode) {
    Osb::SysLogInstall(u"Kept", u"/x");
    // Names that are no single key below the sources.
    for (const char16_t* name : {u"", u"a/b", u"..", u"Kept\\Sub", u"a\\b"}) {
        SCOPED_TRACE(Osb::Utf16ToUtf8(name));
        EXPECT_EQ(failureOf([&] { Osb::SysLogInstall(name, u"/x"); }), 123u);
        EXPECT_EQ(failureOf([&] { Osb::SysLogUninstall(name); }), 123u);
    }
    EXPECT_EQ(messageFile(u"Kept"), u"/x");

    // A source key that has a subkey is not removed.
    fs::create_directories(sourceDir("Kept") + "/Sub");
    EXPECT_EQ(failureOf([] { Osb::SysLogUninstall(u"Kept"); }), 5u);
    EXPECT_EQ(messageFile(u"Kept"), u"/x");

    // Where the registry cannot be made.
    fs::remove_all(root_ / "etc");
    std::ofstream(root_ / "etc") << "not a folder";
    EXPECT_EQ(failureOf([] { Osb::SysLogInstall(u"Orvanta Vigil Watch 14.0", u"/x"); }), 3u);
}

}  // namespace
