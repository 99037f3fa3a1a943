// Writes the seed corpus of every target under the folder given (one sub-folder per target) from
// valid messages and files: requests built by the client's encoder, the replies the service gives
// them, cache files from the cache writer, dictionaries in each form, command lines from usage.
//
//   vigil_fuzz_seeds <corpus folder> <lexicon.txt>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "dictionary/Dictionary.h"
#include "dictionary/DictionaryFormat.h"
#include "dictionary/DictionaryWriter.h"
#include "fuzz/FuzzSpine.h"
#include "service/VigilCodec.h"
#include "service/VigilProtocol.h"
#include "service/VigilWatchFolderCacheFormat.h"
#include "tools/client/ClientCodec.h"

namespace {

namespace fs = std::filesystem;
using vigil_client::Bytes;

void Write(const fs::path& file, const std::string& bytes) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}
void Write(const fs::path& file, const Bytes& bytes) {
    Write(file, std::string(bytes.begin(), bytes.end()));
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A message whose header announces more than a request may hold; only its first bytes follow.
Bytes Oversized(Bytes message) {
    Vigil::Protocol::Store32(message.data() + 4, 20000);
    return message;
}

// The spine's streams, and each reply body they bring, for the client decoder.
void WriteSpineAndReplies(const fs::path& corpus) {
    using namespace Vigil::Protocol;
    using namespace vigil_client;
    const uint32_t id = vigil_fuzz::kCorpusClientId;
    const Guid guid{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const std::string tmp = vigil_fuzz::WatchableFolder();
    const Bytes hello = Frame(kHello, 1, 0, EncodeHello(1, 0, guid));
    const std::vector<std::pair<std::string, Bytes>> streams = {
        {"hello", hello},
        {"hello-v0", Frame(kHello, 1, 0, EncodeHello(0, 9, guid))},
        {"check", Concat({hello, Frame(kConnectionCheck, 2, id, EncodeConnectionCheck())})},
        {"noop", Concat({hello, Frame(kConnectionNoop, 2, id, EncodeEmptyRequest())})},
        {"folders",
         Concat({hello, Frame(kAddFolders, 2, id, EncodeAddFolders(1, {true, true, true}, {tmp})),
                 Frame(kGetFolders, 3, id, EncodeEmptyRequest()),
                 Frame(kRemoveFolders, 4, id, EncodeRemoveFolders(true, {tmp}))})},
        {"changes",
         Concat({hello, Frame(kGetChanges, 2, id, EncodeGetChanges(false)),
                 Frame(kRemoveChanges, 3, id, EncodeRemoveChanges({{tmp, {"a", "b/c"}}})),
                 Frame(kGetChanges, 4, id, EncodeGetChanges(true))})},
        {"unknown", Concat({hello, Frame(0x00020101, 2, id, EncodeEmptyRequest())})},
        {"oversized", Concat({hello, Oversized(Frame(kGetChanges, 2, id, Bytes(40, 0)))})},
    };
    vigil_fuzz::StartScratchService();
    int replyNumber = 0;
    std::set<Bytes> replies;  // each distinct body once
    for (const auto& [name, stream] : streams) {
        for (uint8_t readSize : {uint8_t{255}, uint8_t{6}}) {
            Bytes input{readSize};
            input.insert(input.end(), stream.begin(), stream.end());
            Write(corpus / "spine" / (name + "-" + std::to_string(readSize)), input);
            if (readSize != 255) continue;
            for (const auto& reply : vigil_fuzz::DriveOneClient(input.data(), input.size())) {
                uint8_t decoder = 1;  // the status replies
                switch (reply.header.code) {
                    case kHelloReply: decoder = 0; break;
                    case kError: decoder = 2; break;
                    case kGetFoldersReply: decoder = 3; break;
                    case kGetChangesReply: decoder = 4; break;
                    default: break;
                }
                Bytes seed{decoder};
                seed.insert(seed.end(), reply.body.begin(), reply.body.end());
                if (!replies.insert(seed).second) continue;
                Write(corpus / "client_reply" / ("reply-" + std::to_string(replyNumber++)), seed);
            }
        }
    }
    Write(corpus / "client_reply" / "changes",
          Concat({Bytes{4}, vigil_client::EncodeRemoveChanges({{"/a/", {"x", "y/z"}}})}));
}

void WriteCacheFiles(const fs::path& corpus) {
    using namespace Vigil::Watch;
    CachedFolderTable table;
    Guid guid;
    for (uint8_t i = 0; i < 16; ++i) guid.bytes[i] = static_cast<uint8_t>(0x10 * i + i);
    table[guid].push_back({u"/tmp/", {}});
    table[guid].push_back({u"/", {true, false, true}});
    Write(corpus / "cache_file" / "two-folders", encodeCacheFile(table));
    Guid other = guid;
    other.bytes[0] = 0xFF;
    table[other].push_back({u"/tmp/does-not-exist/", {false, true, false}});
    Write(corpus / "cache_file" / "three-folders", encodeCacheFile(table));
    // A generation 2 version line where a generation 3 file is expected: read stops at once.
    Write(corpus / "cache_file" / "old-version", std::string("0\0.\0003\0\n\0", 8));
}

void WriteDictionaries(const fs::path& corpus, const fs::path& lexicon) {
    std::ifstream in(lexicon, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (text.empty()) throw std::runtime_error("cannot read " + lexicon.string());
    Write(corpus / "dictionary" / "multibyte.txt", text);
    std::istringstream stream(text);
    lexkit_private::Dictionary dictionary;
    dictionary.Load(stream);
    auto entries = dictionary.VisibleEntries();
    std::ostringstream utf16;
    lexkit_private::WriteTextDictionary(utf16, entries);
    Write(corpus / "dictionary" / "utf16.txt", utf16.str());
    // The same text in the other byte order.
    std::string swapped = utf16.str();
    for (size_t i = 0; i + 1 < swapped.size(); i += 2) std::swap(swapped[i], swapped[i + 1]);
    Write(corpus / "dictionary" / "utf16-swapped.txt", swapped);
    for (int order : {lexkit_private::kByteOrderBig, lexkit_private::kByteOrderLittle}) {
        std::ostringstream binary;
        std::string error;
        if (!lexkit_private::WriteBinaryDictionary(binary, entries, order, "seed", error)) {
            throw std::runtime_error(error);
        }
        Write(corpus / "dictionary" /
                  (order == lexkit_private::kByteOrderBig ? "binary-big" : "binary-little"),
              binary.str());
    }
}

void WriteCommandLines(const fs::path& corpus) {
    using namespace std::string_literals;
    const std::vector<std::pair<std::string, std::string>> lines = {
        {"install", "/INSTALL\0/AUTOSTART\0/ACCOUNT\0dom\\user\0/PASSWORD\0pw"s},
        {"depend", "-install\0/DEPENDENCIES\0a, b\0/PORT\0pipe"s},
        {"commands", "/start\0/STOP\0-pause\0/continue\0/restart\0/uninstall"s},
        {"help", "/?"s},
    };
    for (const auto& [name, bytes] : lines) Write(corpus / "command_line" / name, bytes);
}

// A valid body for each decoder of the codec target, behind the byte that picks the decoder.
void WriteCodecBodies(const fs::path& corpus) {
    using namespace Vigil::Codec;
    const FolderListRequest list{true, true, false, {u"/home/ann/Pictures/", u"/srv/photos/"}};
    const std::vector<FolderChanges> changes = {
        {u"/home/ann/Pictures/", {u"IMG_0001.jpg", u"2026/IMG_0002.jpg", u"IMG_0001.jpg"}},
        {u"/srv/photos/", {u"a.png"}}};
    std::vector<std::pair<uint8_t, Bytes>> bodies(13);
    encodeHeader({Vigil::Protocol::kHello, 24, 1, 0}, bodies[0].second);
    encodeHello({0, 1, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}}, bodies[1].second);
    encodeHelloReply({0, 1, 7, 1, 0, 201}, bodies[2].second);
    encodeConnectionCheck(0, bodies[3].second);
    encodeEmptyBody(bodies[4].second);
    encodeErrorReply({5, {u"Access is denied.\r\n"}}, bodies[5].second);
    encodeAddFolders(0, list, bodies[6].second);
    encodeAddFolders(1, list, bodies[7].second);
    encodeRemoveFolders(list, bodies[8].second);
    encodeGetChanges(true, bodies[9].second);
    encodeFolderListReply(list.paths, bodies[10].second);
    encodeChanges(changes, bodies[11].second);
    encodeChanges(changes, bodies[12].second);
    for (size_t i = 0; i < bodies.size(); ++i) {
        Bytes seed{static_cast<uint8_t>(i)};
        seed.insert(seed.end(), bodies[i].second.begin(), bodies[i].second.end());
        Write(corpus / "codec" / ("body-" + std::to_string(i)), seed);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <corpus folder> <lexicon.txt>\n", argv[0]);
        return 2;
    }
    try {
        const fs::path corpus = argv[1];
        WriteSpineAndReplies(corpus);
        WriteCacheFiles(corpus);
        WriteDictionaries(corpus, argv[2]);
        WriteCommandLines(corpus);
        WriteCodecBodies(corpus);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
