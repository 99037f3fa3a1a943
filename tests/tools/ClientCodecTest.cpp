#include <gtest/gtest.h>

#include "service/VigilProtocol.h"
#include "tests/service/ClientHarness.h"
#include "tools/client/ClientCodec.h"

namespace {

using namespace vigil_client;
using Vigil::Protocol::Store32;
using vigil_test::Le32;

// "a/" in UTF-16LE with its terminator.
Bytes Utf16(std::initializer_list<char16_t> units) {
    Bytes out;
    for (char16_t u : units) {
        out.push_back(static_cast<uint8_t>(u & 0xFF));
        out.push_back(static_cast<uint8_t>(u >> 8));
    }
    out.push_back(0);
    out.push_back(0);
    return out;
}
Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

TEST(GuidTextTest, PrintsLittleEndianGroupsAndParsesThemBack) {
    Guid guid{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
              0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    EXPECT_EQ(FormatGuid(guid), "33221100-5544-7766-9988-BBAAFFEEDDCC");
    EXPECT_EQ(ParseGuid("33221100-5544-7766-9988-bbaaffeeddcc"), guid);
    for (const char* bad :
         {"", "33221100-5544-7766-9988-BBAAFFEEDDC", "33221100+5544-7766-9988-BBAAFFEEDDCC",
          "3322110G-5544-7766-9988-BBAAFFEEDDCC", "33221100-5544-7766-9988BBAAFFEEDDCC0"}) {
        EXPECT_FALSE(ParseGuid(bad).has_value()) << bad;
    }
}

TEST(ClientCodecTest, HelloOfTheExampleByteForByte) {
    Guid guid{};
    for (int i = 0; i < 16; ++i) guid[i] = static_cast<uint8_t>(0xF0 + i);
    Bytes message = Frame(Vigil::Protocol::kHello, 7, 0, EncodeHello(1, 0, guid));
    Bytes expected = Le32({0x101, 0x18, 7, 0, 0, 1});
    expected.insert(expected.end(), guid.begin(), guid.end());
    EXPECT_EQ(message, expected);
}

TEST(ClientCodecTest, AddFoldersLayoutFollowsTheVersion) {
    std::vector<std::string> paths{"a/", "b/"};
    // With options: four fields, then the array header at 16, table at 28, strings behind it.
    EXPECT_EQ(EncodeAddFolders(1, {true, false, true}, paths),
              Cat({Le32({1, 0, 1, 0, 2, 12, 28, 52, 6, 5, 58, 6, 5}), Utf16({u'a', u'/'}),
                   Utf16({u'b', u'/'})}));
    // Short: watchSubtree alone, the array header at 4, table at 16.
    EXPECT_EQ(
        EncodeAddFolders(0, {false, true, false}, paths),
        Cat({Le32({0, 2, 12, 16, 40, 6, 5, 46, 6, 5}), Utf16({u'a', u'/'}), Utf16({u'b', u'/'})}));
    EXPECT_EQ(EncodeRemoveFolders(true, {}), Le32({1, 0, 12, 16}));
}

// A GetChanges reply of two folders laid out by hand: the folder table at 16, all name tables
// behind it (folder 0's two names at 64, folder 1's one at 88), then the strings folder by folder
// from 100: "a/", "x", "yz", "b/", "q".
Bytes TwoFolderReply() {
    return Cat({Le32({0,   2, 24, 16,           //
                      100, 6, 5,  2,   12, 64,  // FolderRef 0
                      116, 6, 5,  1,   12, 88,  // FolderRef 1
                      106, 4, 5,  110, 6,  5,   // names of folder 0
                      122, 4, 5}),              // name of folder 1
                Utf16({u'a', u'/'}), Utf16({u'x'}), Utf16({u'y', u'z'}), Utf16({u'b', u'/'}),
                Utf16({u'q'})});
}

TEST(ClientCodecTest, ChangesDecodeFolderByFolderAndReencodeToTheSameBody) {
    Bytes body = TwoFolderReply();
    auto changes = DecodeChanges(body);
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[0].path, "a/");
    EXPECT_EQ(changes[0].names, (std::vector<std::string>{"x", "yz"}));
    EXPECT_EQ(changes[1].path, "b/");
    EXPECT_EQ(changes[1].names, (std::vector<std::string>{"q"}));
    EXPECT_EQ(EncodeRemoveChanges(changes), body);
    EXPECT_EQ(EncodeRemoveChanges({}), Le32({0, 0, 24, 16}));
}

TEST(ClientCodecTest, RemoveChangesSplitsAtTheLimitAndKeepsEveryNameInOrder) {
    std::vector<FolderChanges> changes{{"a/", {}}, {"empty/", {}}, {"b/", {"q"}}};
    for (int i = 0; i < 40; ++i) changes[0].names.push_back("n" + std::to_string(i));
    const size_t kMax = 200;
    std::vector<Bytes> bodies = EncodeRemoveChangesRequests(changes, kMax);
    ASSERT_GT(bodies.size(), 1u);
    // Each body stands alone, fits, and the names come back in order, folder by folder; the
    // folder without names takes nothing off and is left out.
    std::vector<FolderChanges> joined;
    for (const Bytes& body : bodies) {
        EXPECT_LE(body.size(), kMax);
        for (FolderChanges& folder : DecodeChanges(body)) {
            EXPECT_FALSE(folder.names.empty());
            if (joined.empty() || joined.back().path != folder.path) {
                joined.push_back({folder.path, {}});
            }
            auto& names = joined.back().names;
            names.insert(names.end(), folder.names.begin(), folder.names.end());
        }
    }
    ASSERT_EQ(joined.size(), 2u);
    EXPECT_EQ(joined[0].path, "a/");
    EXPECT_EQ(joined[0].names, changes[0].names);
    EXPECT_EQ(joined[1].path, "b/");
    EXPECT_EQ(joined[1].names, changes[2].names);
    // A body filled to the byte: 16 + FolderRef 24 + "a/" 6 + 3 names of 12 + 6 = 100.
    std::vector<FolderChanges> three{{"a/", {"x1", "x2", "x3"}}};
    EXPECT_EQ(EncodeRemoveChangesRequests(three, 100),
              std::vector<Bytes>{EncodeRemoveChanges(three)});
    EXPECT_EQ(EncodeRemoveChangesRequests(three, 99).size(), 2u);
    // The default is the longest body the service reassembles.
    EXPECT_EQ(MaxRequestBody() + 16, Vigil::Protocol::kMaxRequestBytes - 1);
    // A name that cannot go in a request even alone.
    EXPECT_THROW(EncodeRemoveChangesRequests({{"a/", {"x1"}}}, 63), std::length_error);
    EXPECT_EQ(EncodeRemoveChangesRequests({{"a/", {"x1"}}}, 64).size(), 1u);
}

TEST(ClientCodecTest, ErrorAndFolderListDecode) {
    Bytes error = Cat({Le32({0, 1, 12, 16, 28, 6, 5}), Utf16({u'n', u'o'})});
    ErrorReply reply = DecodeErrorReply(error);
    EXPECT_EQ(reply.status, 0u);
    EXPECT_EQ(reply.reasons, std::vector<std::string>{"no"});
    EXPECT_TRUE(DecodeErrorReply(Le32({0, 0, 12, 16})).reasons.empty());
    EXPECT_EQ(DecodeFolderList(Cat({Le32({1, 12, 12, 24, 4, 5}), Utf16({u'/'})})),
              std::vector<std::string>{"/"});
    EXPECT_TRUE(DecodeFolderList(Le32({0, 12, 12})).empty());
}

TEST(ClientCodecTest, MalformedRepliesAreRefusedWithoutReadingOutside) {
    const Bytes bad[] = {
        Le32({0, 1, 12, 16}),                                  // table past the end
        Le32({0, 0x15555556, 12, 16}),                         // count * 12 wraps 32 bits
        Cat({Le32({0, 1, 12, 16, 28, 8, 5}), Utf16({u'n'})}),  // string past the end
        Cat({Le32({0, 1, 12, 16, 28, 3, 5}), Utf16({u'n'})}),  // odd byte length
        Cat({Le32({0, 1, 12, 16, 28, 2, 5}), Bytes{'n', 0}}),  // no terminator
        Le32({0, 1, 12, 0xFFFFFFF0}),                          // table offset wraps
        Bytes{1, 2},                                           // shorter than a field
    };
    for (const Bytes& body : bad) {
        EXPECT_THROW(DecodeErrorReply(body), DecodeError);
    }
    Bytes changes = TwoFolderReply();
    Store32(changes.data() + 16 + 20, 0xFFFFFFF8);  // a name table far outside
    EXPECT_THROW(DecodeChanges(changes), DecodeError);
    EXPECT_THROW(DecodeHelloReply(Le32({0, 1, 2})), DecodeError);
}

}  // namespace
