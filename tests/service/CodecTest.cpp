#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "service/VigilCodec.h"
#include "tests/support/Utf16Le.h"

namespace {

using namespace Vigil::Codec;
using Vigil::Protocol::Store32;

Bytes Le32(std::initializer_list<uint32_t> values) {
    Bytes out;
    for (uint32_t v : values) {
        for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
    return out;
}
// UTF-16LE with its terminator.
Bytes Wire(std::u16string_view text) {
    Bytes out = vigil_test::Utf16Le(text);
    out.push_back(0);
    out.push_back(0);
    return out;
}
Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}
Bytes Zeros(size_t n) { return Bytes(n, 0); }

// A GetChanges reply of two folders: folder table at 16, the name tables at 64 and 88, then the
// strings folder by folder from 100: "a/", "x", "yz", "b/", "q".
Bytes TwoFolderChanges() {
    return Cat({Le32({0, 2,  24, 16,  100, 6, 5,   2, 12, 64,  116, 6, 5,
                      1, 12, 88, 106, 4,   5, 110, 6, 5,  122, 4,   5}),
                Wire(u"a/"), Wire(u"x"), Wire(u"yz"), Wire(u"b/"), Wire(u"q")});
}

// A short-layout folder list of one path whose StringRef says `byteLength` and whose bytes are
// `text` (with no terminator of its own) followed by `tail`.
Bytes OnePath(const std::u16string& text, uint32_t byteLength, const Bytes& tail = Zeros(2)) {
    return Cat({Le32({0, 1, 12, 16, 28, byteLength, 5}), vigil_test::Utf16Le(text), tail});
}

std::u16string Units(size_t n, char16_t last = u'a') {
    std::u16string s(n, u'p');
    if (n > 0) s.back() = last;
    return s;
}

// Decodes a canonical body and encodes what came out: the bytes must come back unchanged.
struct RoundTrip {
    const char* name;
    Bytes body;
    std::function<Result(std::span<const uint8_t>, Bytes&)> decodeThenEncode;
};

template <class T, class Decode, class Encode>
std::function<Result(std::span<const uint8_t>, Bytes&)> Via(Decode decode, Encode encode) {
    return [decode, encode](std::span<const uint8_t> body, Bytes& out) {
        T value{};
        Result r = decode(body, value);
        if (r == Result::kOk) encode(value, out);
        return r;
    };
}

TEST(CodecTest, CanonicalBodiesDecodeAndEncodeToTheSameBytes) {
    auto folders0 = [](RequestBody b, FolderListRequest& r) { return decodeAddFolders(b, 0, r); };
    auto folders1 = [](RequestBody b, FolderListRequest& r) { return decodeAddFolders(b, 1, r); };
    const RoundTrip cases[] = {
        {"hello", Cat({Le32({0, 1}), Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}}),
         Via<HelloRequest>(decodeHello, encodeHello)},
        {"hello reply", Le32({0, 1, 0x401, 1, 0, 201}),
         Via<HelloReply>(decodeHelloReply, encodeHelloReply)},
        {"error of no reason", Le32({0, 0, 12, 16}),
         Via<ErrorReply>(decodeErrorReply, encodeErrorReply)},
        {"error of two reasons",
         Cat({Le32({0, 2, 12, 16, 40, 6, 5, 46, 2, 5}), Wire(u"no"), Wire(u"")}),
         Via<ErrorReply>(decodeErrorReply, encodeErrorReply)},
        {"folder list of none", Le32({0, 12, 12}),
         Via<std::vector<std::u16string>>(decodeFolderListReply, encodeFolderListReply)},
        {"folder list", Cat({Le32({2, 12, 12, 36, 6, 5, 42, 4, 5}), Wire(u"a/"), Wire(u"/")}),
         Via<std::vector<std::u16string>>(decodeFolderListReply, encodeFolderListReply)},
        {"add folders with options",
         Cat({Le32({1, 0, 1, 0, 2, 12, 28, 52, 6, 5, 58, 6, 5}), Wire(u"a/"), Wire(u"b/")}),
         Via<FolderListRequest>(folders1, [](const FolderListRequest& r,
                                             Bytes& out) { encodeAddFolders(1, r, out); })},
        {"add folders short", Cat({Le32({1, 1, 12, 16, 28, 6, 5}), Wire(u"a/")}),
         Via<FolderListRequest>(folders0, [](const FolderListRequest& r,
                                             Bytes& out) { encodeAddFolders(0, r, out); })},
        {"remove folders", Cat({Le32({0, 1, 12, 16, 28, 6, 5}), Wire(u"a/")}),
         Via<FolderListRequest>(decodeRemoveFolders, encodeRemoveFolders)},
        {"get changes", Le32({1}), Via<bool>(decodeGetChanges, encodeGetChanges)},
        {"changes of none", Le32({0, 0, 24, 16}),
         Via<std::vector<FolderChanges>>(decodeChangesReply, encodeChanges)},
        {"changes of two folders", TwoFolderChanges(),
         Via<std::vector<FolderChanges>>(decodeChangesReply, encodeChanges)},
        {"remove changes", TwoFolderChanges(),
         Via<RemoveChangesRequest>(decodeRemoveChanges,
                                   [](const RemoveChangesRequest& request, Bytes& out) {
                                       std::vector<FolderChanges> all(request.folderCount());
                                       for (uint32_t i = 0; i < all.size(); ++i)
                                           request.folder(i, all[i].path, all[i].names);
                                       encodeChanges(all, out);
                                   })},
    };
    for (const RoundTrip& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes out = Zeros(3);  // encoders append, and offsets count from their own body
        ASSERT_EQ(c.decodeThenEncode(c.body, out), Result::kOk);
        EXPECT_EQ(Bytes(out.begin() + 3, out.end()), c.body);
    }
    std::vector<FolderChanges> two;
    ASSERT_EQ(decodeChangesReply(TwoFolderChanges(), two), Result::kOk);
    EXPECT_EQ(changesBodyBytes(two), TwoFolderChanges().size());
}

TEST(CodecTest, HelloOfTheExampleAndItsReplyByteForByte) {
    HelloRequest hello{0, 1, {}};
    for (int i = 0; i < 16; ++i) hello.guid[i] = static_cast<uint8_t>(0xF0 + i);
    Bytes m(Vigil::Protocol::kHeaderBytes);
    encodeHello(hello, m);
    ASSERT_TRUE(frameMessage(m, Vigil::Protocol::kHello, 7, 0));
    EXPECT_EQ(m,
              Cat({Le32({0x101, 0x18, 7, 0, 0, 1}), Bytes(hello.guid.begin(), hello.guid.end())}));
    Bytes body;
    encodeHelloReply({0, 1, 0x401, 1, 0, 201}, body);
    EXPECT_EQ(message(0x201, 7, 0x401, body),
              Le32({0x201, 0x18, 7, 0x401, 0, 1, 0x401, 1, 0, 0xC9}));
    Vigil::Protocol::MessageHeader header{};
    EXPECT_EQ(decodeHeader(Bytes(15), header), Result::kInvalidLength);
    ASSERT_EQ(decodeHeader(m, header), Result::kOk);
    EXPECT_EQ(header.bodyLength, 24u);
    EXPECT_EQ(header.requestId, 7u);
}

// One request body and what the service's decoder makes of it.
struct Hostile {
    const char* name;
    std::function<Result(RequestBody)> decode;
    Bytes body;
    uint32_t announced;  // bodyLength of the header; UINT32_MAX: the body's own size
    Result expected;
};

Result AddFolders0(RequestBody b) {
    FolderListRequest r;
    return decodeAddFolders(b, 0, r);
}
Result AddFolders1(RequestBody b) {
    FolderListRequest r;
    return decodeAddFolders(b, 1, r);
}
Result RemoveChanges(RequestBody b) {
    RemoveChangesRequest r;
    return decodeRemoveChanges(b, r);
}
Result Hello(RequestBody b) {
    HelloRequest r;
    return decodeHello(b, r);
}
Result GetChanges(RequestBody b) {
    bool clear = false;
    return decodeGetChanges(b, clear);
}

constexpr uint32_t kOwn = UINT32_MAX;
constexpr Result kOk = Result::kOk;
constexpr Result kLength = Result::kInvalidLength;
constexpr Result kData = Result::kInvalidDataValues;

TEST(CodecTest, HostileRequestsAreRefusedWithTheErrorTheHandlersGive) {
    const Bytes noTerminator = Cat({Le32({0, 1, 24, 16, 40, 2, 5, 0, 12, 16}), Bytes{'a', 0}});
    const Hostile cases[] = {
        // Minimum bodyLength of each request, as announced.
        {"hello of 23", Hello, Zeros(23), kOwn, kLength},
        {"hello of 24", Hello, Zeros(24), kOwn, kOk},
        {"hello announced 24, 20 in hand", Hello, Zeros(20), 24, kLength},
        {"check of 27", [](RequestBody b) { return decodeConnectionCheck(b); }, Zeros(27), kOwn,
         kLength},
        {"check with first field 1", [](RequestBody b) { return decodeConnectionCheck(b); },
         Cat({Le32({1}), Zeros(24)}), kOwn, kData},
        {"check announced long, 4 in hand", [](RequestBody b) { return decodeConnectionCheck(b); },
         Zeros(4), 20000, kOk},
        {"check announced long, none in hand",
         [](RequestBody b) { return decodeConnectionCheck(b); }, Bytes{}, 20000, kLength},
        {"noop of 3", [](RequestBody b) { return decodeConnectionNoop(b); }, Zeros(3), kOwn,
         kLength},
        {"get folders of 3", [](RequestBody b) { return decodeGetFolders(b); }, Zeros(3), kOwn,
         kLength},
        {"get changes of 3", GetChanges, Zeros(3), kOwn, kLength},
        {"add folders of 15", AddFolders0, Zeros(15), kOwn, kLength},
        {"remove changes of 15", RemoveChanges, Zeros(15), kOwn, kLength},
        // The layout with options reaches byte 28 before its table, even for a count of 0.
        {"options, bodyLength 20", AddFolders1, Zeros(20), kOwn, kLength},
        {"options, count 0", AddFolders1, Zeros(28), kOwn, kOk},
        // Offsets beyond the body, also where 32-bit arithmetic would wrap back into it.
        {"table past the end", AddFolders0, Le32({0, 1, 12, 0xFFFFFFF4}), kOwn, kLength},
        {"path past the end", AddFolders0, Le32({0, 1, 12, 16, 0xFFFFFFFE, 4, 5}), kOwn, kLength},
        {"path beyond the announcement", AddFolders0, OnePath(u"a/", 6), 30, kLength},
        {"folder table wraps", RemoveChanges, Le32({0, 2, 24, 0xFFFFFFF0}), kOwn, kLength},
        {"name table wraps", RemoveChanges,
         Cat({Le32({0, 1, 24, 16, 40, 2, 5, 0x15555556, 12, 0xFFFFFFF4}), Wire(u"")}), kOwn,
         kLength},
        {"name past the end", RemoveChanges,
         Cat({Le32({0, 1, 24, 16, 52, 2, 5, 1, 12, 40, 0xFFFFFFFE, 2, 5}), Wire(u"")}), kOwn,
         kLength},
        // Terminators must be found inside the body.
        {"folder path without terminator", RemoveChanges, noTerminator, kOwn, kData},
        {"name without terminator", RemoveChanges,
         Cat({Le32({0, 1, 24, 16, 52, 2, 5, 1, 12, 40, 54, 2, 5}), Wire(u""), Bytes{'n', 0}}), kOwn,
         kData},
        {"count 0 reads no table", RemoveChanges, Le32({0, 0, 24, 0xFFFFFFF0}), kOwn, kOk},
        {"path without terminator in its byteLength", AddFolders0, OnePath(u"ab", 4), kOwn, kData},
        {"path of byteLength 0", AddFolders0, OnePath(u"", 0), kOwn, kData},
        {"empty path", AddFolders0, OnePath(u"", 2), kOwn, kData},
        // The 260-unit path buffer holds the path, the separator added and the terminator.
        {"path of 258 units", AddFolders0, OnePath(Units(258), 518), kOwn, kOk},
        {"path of 259 units", AddFolders0, OnePath(Units(259), 520), kOwn, kData},
        {"path of 259 units with separator", AddFolders0, OnePath(Units(259, u'/'), 520), kOwn,
         kOk},
        {"path of 260 units", AddFolders0, OnePath(Units(260, u'/'), 522), kOwn, kData},
        {"path of 261 units", AddFolders0, OnePath(Units(261, u'/'), 524), kOwn, kData},
    };
    for (const Hostile& c : cases) {
        SCOPED_TRACE(c.name);
        RequestBody body(c.body,
                         c.announced == kOwn ? static_cast<uint32_t>(c.body.size()) : c.announced);
        EXPECT_EQ(c.decode(body), c.expected);
    }
}

TEST(CodecTest, FolderPathsEndWithTheSeparatorAndARefusalKeepsThoseBeforeIt) {
    // Three paths: "a" gains its separator, "b/" keeps its own, the third points outside.
    Bytes body = Cat(
        {Le32({1, 1, 0, 1, 3, 12, 28, 64, 4, 5, 68, 6, 5, 0xFFFF, 4, 5}), Wire(u"a"), Wire(u"b/")});
    FolderListRequest request;
    EXPECT_EQ(decodeAddFolders(body, 1, request), Result::kInvalidLength);
    EXPECT_EQ(request.paths, (std::vector<std::u16string>{u"a/", u"b/"}));
    EXPECT_TRUE(request.watchSubtree);
    EXPECT_TRUE(request.reportChanged);
    EXPECT_FALSE(request.reportRemoved);
    // The short layout has no options: its table header stands where reportChanged would be.
    FolderListRequest shortOne;
    ASSERT_EQ(decodeAddFolders(OnePath(u"c", 4), 0, shortOne), Result::kOk);
    EXPECT_EQ(shortOne.paths, std::vector<std::u16string>{u"c/"});
    EXPECT_TRUE(shortOne.reportChanged);
    EXPECT_FALSE(shortOne.reportRemoved);
}

// The last string of these bodies ends at their last byte, so no shorter body holds together:
// neither one cut short nor one whose announced bodyLength stops before the bytes in hand do.
TEST(CodecTest, EveryCutOfABodyIsRefused) {
    const Bytes changes = TwoFolderChanges();
    const Bytes folders =
        Cat({Le32({1, 0, 0, 0, 2, 12, 28, 52, 6, 5, 58, 4, 5}), Wire(u"a/"), Wire(u"b")});
    for (uint32_t n = 0; n < changes.size(); ++n) {
        SCOPED_TRACE(n);
        const std::span<const uint8_t> cut(changes.data(), n);
        std::vector<FolderChanges> reply;
        RemoveChangesRequest request;
        EXPECT_NE(decodeChangesReply(cut, reply), Result::kOk);
        EXPECT_NE(decodeRemoveChanges(cut, request), Result::kOk);
        EXPECT_NE(decodeRemoveChanges(RequestBody(changes, n), request), Result::kOk);
    }
    for (uint32_t n = 0; n < folders.size(); ++n) {
        SCOPED_TRACE(n);
        FolderListRequest request;
        EXPECT_NE(decodeAddFolders(std::span<const uint8_t>(folders.data(), n), 1, request),
                  Result::kOk);
        EXPECT_NE(decodeAddFolders(RequestBody(folders, n), 1, request), Result::kOk);
    }
    FolderListRequest whole;
    EXPECT_EQ(decodeAddFolders(folders, 1, whole), Result::kOk);
}

TEST(CodecTest, MalformedRepliesAreRefused) {
    const Bytes bad[] = {
        Le32({0, 1, 12, 16}),                                  // table past the end
        Le32({0, 0x15555556, 12, 16}),                         // count * 12 wraps 32 bits
        Cat({Le32({0, 1, 12, 16, 28, 8, 5}), Wire(u"n")}),     // string past the end
        Cat({Le32({0, 1, 12, 16, 28, 3, 5}), Wire(u"n")}),     // odd byte length
        Cat({Le32({0, 1, 12, 16, 28, 2, 5}), Bytes{'n', 0}}),  // no terminator
        Le32({0, 1, 12, 0xFFFFFFF0}),                          // table offset wraps
        Bytes{1, 2},                                           // shorter than a field
    };
    for (const Bytes& body : bad) {
        ErrorReply reply;
        EXPECT_NE(decodeErrorReply(body, reply), Result::kOk);
    }
    Bytes changes = TwoFolderChanges();
    Store32(changes.data() + 16 + 20, 0xFFFFFFF8);  // a name table far outside
    std::vector<FolderChanges> decoded;
    EXPECT_EQ(decodeChangesReply(changes, decoded), Result::kInvalidLength);
    HelloReply hello;
    EXPECT_EQ(decodeHelloReply(Le32({0, 1, 2}), hello), Result::kInvalidLength);
}

}  // namespace
