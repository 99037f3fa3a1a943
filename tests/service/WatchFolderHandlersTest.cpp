// The watch handlers' refusals: bodies whose numbers point outside the message or the path
// buffer, strings without terminators, empty and overlong paths. Each gets its Error and leaves
// the database as it was, the good entries before the bad one included.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>

#include "platform/Utf.h"
#include "service/VigilClientTable.h"
#include "service/VigilDispatch.h"
#include "service/VigilExceptions.h"
#include "service/VigilWatchFolderDatabase.h"
#include "tests/service/ClientHarness.h"
#include "tests/support/ScratchRoot.h"

namespace {

using namespace vigil_test;
using namespace Vigil::Protocol;
namespace Id = Vigil::MessageId;
using Vigil::Watch::ProcessDatabase;

constexpr uint32_t kSystemError = 0;  // stands for Osb::ExSystem in the tables below

Bytes Units(const std::u16string& text, bool terminated = true) {
    Bytes bytes(2 * text.size() + (terminated ? 2 : 0), 0);
    std::memcpy(bytes.data(), text.data(), 2 * text.size());
    return bytes;
}

void Patch(Bytes& body, uint32_t offset, uint32_t value) { Store32(body.data() + offset, value); }

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

// A folder list: the option `fields`, the ArrayHeader behind them, StringRefs behind that, the
// strings behind them.
Bytes FolderListBody(const Bytes& fields, const std::vector<Bytes>& strings) {
    Bytes body = fields;
    const uint32_t header = static_cast<uint32_t>(fields.size());
    const uint32_t count = static_cast<uint32_t>(strings.size());
    Bytes array = Le32({count, 12, header + 12});
    body.insert(body.end(), array.begin(), array.end());
    uint32_t at = header + 12 + 12 * count;
    for (const Bytes& s : strings) {
        Bytes ref = Le32({at, static_cast<uint32_t>(s.size()), 5});
        body.insert(body.end(), ref.begin(), ref.end());
        at += static_cast<uint32_t>(s.size());
    }
    for (const Bytes& s : strings) body.insert(body.end(), s.begin(), s.end());
    return body;
}

// The same with the ArrayHeader at `header`: 16 with options (0, 1, 0, 0), 4 short (0).
Bytes FolderListBody(uint32_t header, const std::vector<Bytes>& strings) {
    return FolderListBody(header == 16 ? Le32({0, 1, 0, 0}) : Le32({0}), strings);
}

// RemoveChanges of one folder with one name: ArrayHeader at 4, FolderRef at 16, the name's
// StringRef at 40, the folder string at 52, the name behind it.
Bytes RemoveBody(const Bytes& folder, const Bytes& name) {
    const uint32_t nameAt = 52 + static_cast<uint32_t>(folder.size());
    Bytes body = Le32({0, 1, 24, 16, 52, static_cast<uint32_t>(folder.size()), 5, 1, 12, 40, nameAt,
                       static_cast<uint32_t>(name.size()), 5});
    body.insert(body.end(), folder.begin(), folder.end());
    body.insert(body.end(), name.begin(), name.end());
    return body;
}

class WatchFolderHandlersTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("LC_ALL", "en_US.UTF-8", 1);
        Vigil::ResetClientTableForTesting();
        Vigil::InitDispatch();
        std::filesystem::create_directories(root_ / "data");
        std::filesystem::create_directories(root_ / "w");
        Vigil::Watch::ResetProcessDatabaseForTesting();
        ProcessDatabase().open(Osb::Utf8ToUtf16(root_ / "data/"));
        client_.feed(Request(kHello, 0, 1, HelloBody(1, 0, guid_)));
        client_.take();
    }
    void TearDown() override {
        Vigil::Watch::ResetProcessDatabaseForTesting();
        Vigil::TermDispatch();
    }
    // Sends one request; returns the Error's text, or nullopt for any other reply.
    std::optional<std::u16string> refusal(uint32_t code, const Bytes& body) {
        client_.feed(Request(code, client_.id(), 9, body));
        auto replies = client_.take();
        EXPECT_EQ(replies.size(), 1u);
        if (replies.empty() || replies[0].header.code != kError) return std::nullopt;
        auto texts = replies[0].errorTexts();
        return texts.empty() ? std::u16string() : texts[0];
    }
    void expectRefused(uint32_t code, const Bytes& body, uint32_t expected) {
        auto text = refusal(code, body);
        ASSERT_TRUE(text.has_value()) << "accepted";
        if (expected == kSystemError) {
            EXPECT_NE(*text, EnglishText(Id::kInvalidLength));
            EXPECT_NE(*text, EnglishText(Id::kInvalidDataValues));
        } else {
            EXPECT_EQ(*text, EnglishText(expected));
        }
    }
    // Sends one request and returns its one reply.
    Reply exchange(uint32_t code, const Bytes& body, uint32_t requestId = 1) {
        client_.feed(Request(code, client_.id(), requestId, body));
        auto replies = client_.take();
        EXPECT_EQ(replies.size(), 1u);
        return replies.empty() ? Reply{} : replies[0];
    }
    std::vector<Vigil::Watch::WatchedFolder> folders() {
        std::vector<Vigil::Watch::WatchedFolder> result;
        ProcessDatabase().getFolders(guid_, result);
        return result;
    }

    ScratchRoot root_;
    Vigil::Watch::Guid guid_{{9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 1, 2, 3, 4, 5, 6}};
    DrivenClient client_;
};

struct ListFault {
    const char* name;
    // (offset from the ArrayHeader, value) on the valid body
    std::vector<std::pair<uint32_t, uint32_t>> patches;
    uint32_t expected;
    std::u16string secondPath;  // replaces the second (good) path when not empty
};

// The second entry is the one that goes wrong; its StringRef's offset is at +24 from the
// ArrayHeader, its byteLength at +28.
const ListFault kListFaults[] = {
    {"TableOffsetPastTheBody", {{8, 4000}}, Id::kInvalidLength, {}},
    {"TableOffsetWraps", {{8, 0xFFFFFFF8}}, Id::kInvalidLength, {}},
    {"StringOffsetPastTheBody", {{24, 5000}}, Id::kInvalidLength, {}},
    {"StringOffsetWraps", {{24, 0xFFFFFFFE}}, Id::kInvalidLength, {}},
    {"ByteLengthPastTheBody", {{28, 520}}, Id::kInvalidLength, {}},
    {"ByteLengthBeyondThePathBuffer", {{28, 522}}, Id::kInvalidDataValues, {}},
    {"ByteLengthHuge", {{28, 0xFFFFFFFF}}, Id::kInvalidDataValues, {}},
    {"NoTerminatorWithinByteLength", {}, Id::kInvalidDataValues, u"UNTERMINATED"},
    {"EmptyPath", {}, Id::kInvalidDataValues, u"EMPTY"},
    {"NoRoomForTheSeparator", {}, Id::kInvalidDataValues, std::u16string(259, u'a')},
    {"RoomForTheSeparatorButMissing", {}, kSystemError, u"/" + std::u16string(257, u'a')},
    {"FolderMissing", {}, kSystemError, u"MISSING"},
};

class ListFaultTest : public WatchFolderHandlersTest,
                      public ::testing::WithParamInterface<ListFault> {};

TEST_P(ListFaultTest, RefusedAndNothingAdded) {
    const ListFault& fault = GetParam();
    const std::u16string good = Osb::Utf8ToUtf16(root_ / "w");
    Bytes second = Units(good);
    if (fault.secondPath == u"UNTERMINATED")
        second = Units(good, false);
    else if (fault.secondPath == u"EMPTY")
        second = Units(u"");
    else if (fault.secondPath == u"MISSING")
        second = Units(good + u"/nope");
    else if (!fault.secondPath.empty())
        second = Units(fault.secondPath);
    auto body = [&](uint32_t header) {
        Bytes bytes = FolderListBody(header, {Units(good), second});
        for (auto [offset, value] : fault.patches) Patch(bytes, header + offset, value);
        return bytes;
    };

    expectRefused(kAddFolders, body(16), fault.expected);
    EXPECT_TRUE(folders().empty());
    // The short layout of a removal shares the decoding and is refused alike.
    ProcessDatabase().addFolders(guid_, {{good + u"/", {}}});
    expectRefused(kRemoveFolders, body(4), fault.expected);
    EXPECT_EQ(folders().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Faults, ListFaultTest, ::testing::ValuesIn(kListFaults),
                         [](const auto& param) { return std::string(param.param.name); });

TEST_F(WatchFolderHandlersTest, ShortBodiesAreRefusedBeforeAnythingIsRead) {
    const struct {
        uint32_t code;
        uint32_t bodyLength;
    } cases[] = {{kGetFolders, 3},     {kAddFolders, 15}, {kRemoveFolders, 15}, {kGetChanges, 3},
                 {kRemoveChanges, 15}, {kAddFolders, 20}, {kAddFolders, 27}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        expectRefused(c.code, Bytes(c.bodyLength, 0), Id::kInvalidLength);
    }
    EXPECT_TRUE(folders().empty());
}

TEST_F(WatchFolderHandlersTest, RemoveChangesRefusalsTakeNothingOff) {
    const std::u16string folder = u"/some/folder/";
    struct Case {
        const char* name;
        std::vector<std::pair<uint32_t, uint32_t>> patches;
        bool nameUnterminated;
        uint32_t expected;
    };
    const Case cases[] = {
        {"FolderCountPastTheTable", {{4, 2}}, false, Id::kInvalidLength},
        {"FolderTableWraps", {{12, 0xFFFFFFF0}}, false, Id::kInvalidLength},
        {"FolderOffsetPastTheBody", {{16, 4000}}, false, Id::kInvalidLength},
        {"NameCountPastItsTable", {{28, 0x40000000}}, false, Id::kInvalidLength},
        {"NameTablePastTheBody", {{36, 4000}}, false, Id::kInvalidLength},
        {"NameOffsetOnTheLastByte", {{40, 0}}, false, Id::kInvalidLength},
        {"NameWithoutTerminator", {}, true, Id::kInvalidDataValues},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ProcessDatabase().addChanges(guid_, folder, {u"n"});
        Bytes body = RemoveBody(Units(folder), Units(u"n", !c.nameUnterminated));
        for (auto [offset, value] : c.patches) {
            Patch(body, offset, value ? value : static_cast<uint32_t>(body.size() - 1));
        }
        expectRefused(kRemoveChanges, body, c.expected);
        std::vector<std::u16string> names;
        ProcessDatabase().getChanges(guid_, folder, names, true);
        EXPECT_EQ(names, std::vector<std::u16string>{u"n"});
    }
    // And the good body takes the name off.
    ProcessDatabase().addChanges(guid_, folder, {u"n", u"m", u"n"});
    client_.feed(Request(kRemoveChanges, client_.id(), 3, RemoveBody(Units(folder), Units(u"n"))));
    auto replies = client_.take();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].header.code, kRemoveChangesReply);
    std::vector<std::u16string> names;
    ProcessDatabase().getChanges(guid_, folder, names, false);
    EXPECT_EQ(names, std::vector<std::u16string>{u"m"});
}

TEST_F(WatchFolderHandlersTest, RepliesByteForByte) {
    const uint32_t id = client_.id();
    // A pending record of a folder the client does not have is never reported.
    ProcessDatabase().addChanges(guid_, u"/not/watched/", {u"x"});
    EXPECT_EQ(exchange(kGetFolders, Le32({0}), 77).raw, Le32({0x10200, 12, 77, id, 0, 12, 12}));
    EXPECT_EQ(exchange(kGetChanges, Le32({0}), 78).raw, Le32({0x10203, 16, 78, id, 0, 0, 24, 16}));
    EXPECT_EQ(exchange(kAddFolders, FolderListBody(16, {}), 79).raw, Le32({0x10201, 4, 79, id, 0}));

    // Stored and reported with the closing separator that the request left out.
    const std::u16string dir = Osb::Utf8ToUtf16(root_ / "w");
    const Bytes stored = Units(dir + u"/");
    const auto bytes = static_cast<uint32_t>(stored.size());
    EXPECT_EQ(exchange(kAddFolders, FolderListBody(16, {Units(dir)})).header.code,
              kAddFoldersReply);
    EXPECT_EQ(exchange(kGetFolders, Le32({0}), 80).raw,
              Cat({Le32({0x10200, 24 + bytes, 80, id, 1, 12, 12, 24, bytes, 5}), stored}));

    // Names, an empty one among them, cleared by any non-zero first field.
    ProcessDatabase().addChanges(guid_, dir + u"/", {u"", u"ab"});
    const uint32_t strings = 16 + 24 + 2 * 12;
    const Bytes header = Le32({0x10203, strings + bytes + 2 + 6, 81, id});
    const Bytes tables = Cat({Le32({0, 1, 24, 16}),                  // status, ArrayHeader
                              Le32({strings, bytes, 5, 2, 12, 40}),  // FolderRef
                              Le32({strings + bytes, 2, 5}),         // the empty name
                              Le32({strings + bytes + 2, 6, 5})});   // "ab"
    EXPECT_EQ(exchange(kGetChanges, Le32({0x100}), 81).raw,
              Cat({header, tables, stored, Units(u""), Units(u"ab")}));
    EXPECT_EQ(exchange(kGetChanges, Le32({0})).body, Le32({0, 0, 24, 16}));

    // A client of version 1 removes with the short layout.
    EXPECT_EQ(exchange(kRemoveChanges, Le32({0, 0, 24, 16}), 82).raw,
              Le32({0x10204, 4, 82, id, 0}));
    EXPECT_EQ(exchange(kRemoveFolders, FolderListBody(4, {Units(dir)}), 83).raw,
              Le32({0x10202, 4, 83, id, 0}));
    EXPECT_TRUE(folders().empty());
}

TEST_F(WatchFolderHandlersTest, OptionsFollowTheVersionStatedInHello) {
    const std::u16string dir = Osb::Utf8ToUtf16(root_ / "w") + u"/";
    struct Case {
        const char* name;
        uint32_t major;
        Bytes fields;  // in front of the ArrayHeader
        Vigil::Watch::FolderOptions expected;
    };
    const Case cases[] = {
        {"AnyNonZeroIsTrue", 1, Le32({0x100, 0x10000, 0x1000000, 0}), {1, 1, 1, 0}},
        {"ReservedIsNotRead", 1, Le32({0, 0, 0, 0xFFFFFFFF}), {0, 0, 0, 0}},
        {"RemovedAlone", 1, Le32({0, 0, 1, 0}), {0, 0, 1, 0}},
        {"ShortLayout", 0, Le32({0x100}), {1, 1, 0, 0}},
        {"ShortLayoutNoSubtree", 0, Le32({0}), {0, 1, 0, 0}},
        // A refused Hello still leaves its version in force.
        {"RefusedVersionTwo", 2, Le32({0, 0, 1, 0}), {0, 0, 1, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        client_.feed(Request(kHello, 0, 1, HelloBody(c.major, 0, guid_)));
        client_.take();
        const Reply reply = exchange(kAddFolders, FolderListBody(c.fields, {Units(dir)}));
        EXPECT_EQ(reply.header.code, kAddFoldersReply);
        auto stored = folders();
        ASSERT_EQ(stored.size(), 1u);
        EXPECT_EQ(stored[0].path, dir);
        const auto& o = stored[0].options;
        EXPECT_EQ((std::vector<int>{o.watchSubtree, o.reportChanged, o.reportRemoved, o.reserved}),
                  (std::vector<int>{c.expected.watchSubtree, c.expected.reportChanged,
                                    c.expected.reportRemoved, c.expected.reserved}));
        ProcessDatabase().removeFolders(guid_, stored);
    }
}

// RemoveChanges takes the folder path as it stands: no separator is added, so a path spelled
// otherwise than GetChanges reported it matches nothing.
TEST_F(WatchFolderHandlersTest, RemoveChangesMatchesThePathAsSpelled) {
    ProcessDatabase().addChanges(guid_, u"/f/", {u"n", u"m"});
    auto pending = [&] {
        std::vector<std::u16string> names;
        ProcessDatabase().getChanges(guid_, u"/f/", names, false);
        return names;
    };
    EXPECT_EQ(exchange(kRemoveChanges, RemoveBody(Units(u"/f"), Units(u"n"))).header.code,
              kRemoveChangesReply);
    EXPECT_EQ(pending(), (std::vector<std::u16string>{u"n", u"m"}));
    EXPECT_EQ(exchange(kRemoveChanges, RemoveBody(Units(u"/f/"), Units(u"n"))).header.code,
              kRemoveChangesReply);
    EXPECT_EQ(pending(), (std::vector<std::u16string>{u"m"}));
}

// Holds the address space of the process to what it uses now plus `margin`, for its lifetime.
class AddressSpaceLimit {
  public:
    explicit AddressSpaceLimit(uint64_t margin) {
        uint64_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        getrlimit(RLIMIT_AS, &saved_);
        rlimit limit = saved_;
        limit.rlim_cur = pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) + margin;
        active_ = pages > 0 && setrlimit(RLIMIT_AS, &limit) == 0;
    }
    ~AddressSpaceLimit() { setrlimit(RLIMIT_AS, &saved_); }
    bool active() const { return active_; }

  private:
    rlimit saved_{};
    bool active_ = false;
};

// A RemoveChanges body of 13 KB can name the suffixes of one long string from a table that every
// folder entry shares: 100 x 454 names of 2470 units on average, 225 MB if all were copied at
// once. Taking them must cost memory of the order of one folder's names (2.2 MB), so the request
// goes through with the address space held to a small margin.
TEST_F(WatchFolderHandlersTest, RemoveChangesNamingOneStringOverAndOverStaysSmall) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers reserve address space of their own";
#endif
    const uint32_t folders = 100, names = 454, units = 2700;
    const uint32_t nameTable = 16 + 24 * folders, pathAt = nameTable + 12 * names;
    const uint32_t longAt = pathAt + 8;
    Bytes body = Le32({0, folders, 24, 16});
    for (uint32_t f = 0; f < folders; ++f) {
        const Bytes ref = Le32({pathAt, 8, 5, names, 12, nameTable});
        body.insert(body.end(), ref.begin(), ref.end());
    }
    for (uint32_t n = 0; n < names; ++n) {
        const Bytes ref = Le32({longAt + 2 * n, 0, 5});
        body.insert(body.end(), ref.begin(), ref.end());
    }
    // Letters that differ early, so that the database's comparisons of the names end soon.
    std::u16string longName(units, u'a');
    uint32_t seed = 12345;
    for (char16_t& unit : longName) {
        seed = seed * 1103515245 + 12345;
        unit = static_cast<char16_t>(u'a' + (seed >> 16) % 26);
    }
    body = Cat({body, Units(u"/f/"), Units(longName)});
    ASSERT_LT(body.size() + kHeaderBytes, kMaxRequestBytes);
    ProcessDatabase().addChanges(guid_, u"/f/", {u"n", longName, longName.substr(names - 1)});

    std::vector<Reply> replies;
    {
        AddressSpaceLimit limit(64u << 20);
        ASSERT_TRUE(limit.active());
        client_.feed(Request(kRemoveChanges, client_.id(), 6, body));
        replies = client_.take();
    }
    ASSERT_EQ(replies.size(), 1u) << "no reply: the request ran out of memory";
    EXPECT_EQ(replies[0].header.code, kRemoveChangesReply);
    std::vector<std::u16string> left;
    ProcessDatabase().getChanges(guid_, u"/f/", left, false);
    EXPECT_EQ(left, std::vector<std::u16string>{u"n"});
}

// A client whose credentials could not be read is the least privileged user: the "others" bits
// alone decide what it may add, list and collect.
TEST_F(WatchFolderHandlersTest, AClientOfUnknownCredentialsSeesWhatOthersMaySee) {
    namespace fs = std::filesystem;
    ASSERT_EQ(::chmod(root_.path().c_str(), 0755), 0);
    const std::string others = root_ / "w/others", group = root_ / "w/group";
    fs::create_directories(others + "/closed");
    fs::create_directories(group);
    ASSERT_EQ(::chmod((root_ / "w").c_str(), 0755), 0);
    ASSERT_EQ(::chmod(others.c_str(), 0705), 0);
    ASSERT_EQ(::chmod((others + "/closed").c_str(), 0770), 0);
    ASSERT_EQ(::chmod(group.c_str(), 0770), 0);
    const std::u16string othersPath = Osb::Utf8ToUtf16(others) + u"/";
    const std::u16string groupPath = Osb::Utf8ToUtf16(group) + u"/";

    DrivenClient unknown{Osb::PeerIdentity{}};
    unknown.feed(Request(kHello, 0, 1, HelloBody(1, 0, guid_)));
    unknown.take();
    unknown.feed(Request(kAddFolders, unknown.id(), 2,
                         FolderListBody(16, {Units(othersPath), Units(groupPath)})));
    auto replies = unknown.take();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].errorTexts(), std::vector<std::u16string>{u"Access is denied."});
    EXPECT_TRUE(folders().empty());

    // Added by this process's own client, which sees everything; the unknown one lists only the
    // folder that others may list, and gets only the names of directories they may list.
    exchange(kAddFolders, FolderListBody(16, {Units(othersPath), Units(groupPath)}));
    ProcessDatabase().addChanges(guid_, othersPath, {u"top", u"closed/inside"});
    ProcessDatabase().addChanges(guid_, groupPath, {u"g"});
    unknown.feed(Request(kGetFolders, unknown.id(), 3, Le32({0})));
    replies = unknown.take();
    ASSERT_EQ(replies.size(), 1u);
    const Bytes& list = replies[0].body;
    ASSERT_GE(list.size(), 12u);
    EXPECT_EQ(Load32(list.data()), 1u);
    unknown.feed(Request(kGetChanges, unknown.id(), 4, Le32({1})));
    replies = unknown.take();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(Load32(replies[0].body.data() + 4), 1u);  // one folder: others, with "top" alone
    EXPECT_EQ(Load32(replies[0].body.data() + 16 + 12), 1u);
    std::vector<std::u16string> left;
    ProcessDatabase().getChanges(guid_, othersPath, left, false);
    EXPECT_EQ(left, std::vector<std::u16string>{u"closed/inside"});
    ProcessDatabase().getChanges(guid_, groupPath, left, false);
    EXPECT_EQ(left, std::vector<std::u16string>{u"g"});
}

}  // namespace
