#include "tools/client/ClientCodec.h"

#include <cstring>
#include <stdexcept>

#include "platform/Utf.h"
#include "service/VigilProtocol.h"

namespace vigil_client {

using namespace Vigil::Protocol;

namespace {

void Put32(Bytes& out, uint32_t value) {
    uint8_t b[4];
    Store32(b, value);
    out.insert(out.end(), b, b + 4);
}

void Set32(Bytes& out, size_t at, uint32_t value) { Store32(out.data() + at, value); }

// UTF-16LE with its terminator.
Bytes WireString(const std::string& utf8) {
    std::u16string wide = Osb::Utf8ToUtf16(utf8);
    Bytes out((wide.size() + 1) * 2, 0);
    std::memcpy(out.data(), wide.data(), wide.size() * 2);
    return out;
}

// Appends an ArrayHeader of StringRef, its table right behind it, and the strings behind that.
void PutStringTable(Bytes& body, const std::vector<std::string>& strings) {
    Put32(body, static_cast<uint32_t>(strings.size()));
    Put32(body, kStringRefBytes);
    Put32(body, static_cast<uint32_t>(body.size() + 4));
    const size_t tableAt = body.size();
    body.resize(tableAt + kStringRefBytes * strings.size());
    for (size_t i = 0; i < strings.size(); ++i) {
        Bytes s = WireString(strings[i]);
        size_t entry = tableAt + kStringRefBytes * i;
        Set32(body, entry, static_cast<uint32_t>(body.size()));
        Set32(body, entry + 4, static_cast<uint32_t>(s.size()));
        Set32(body, entry + 8, kStringType);
        body.insert(body.end(), s.begin(), s.end());
    }
}

// Bounds-checked reads of a reply body.
class Reader {
  public:
    explicit Reader(const Bytes& body) : body_(body) {}

    uint32_t u32(uint64_t offset) const {
        need(offset, 4);
        return Load32(body_.data() + offset);
    }
    // The table of `count` entries of `stride` bytes at `offset` must lie inside the body.
    void table(uint64_t offset, uint64_t count, uint64_t stride) const {
        need(offset, count * stride);
    }
    // A string given by offset and byte length: even, terminated, inside the body.
    std::string string(uint64_t offset, uint64_t bytes) const {
        need(offset, bytes);
        if (bytes < 2 || bytes % 2 != 0) throw DecodeError("a string has a bad byte length");
        const uint8_t* p = body_.data() + offset;
        if (p[bytes - 2] != 0 || p[bytes - 1] != 0) throw DecodeError("a string has no terminator");
        std::u16string wide((bytes - 2) / 2, u'\0');
        std::memcpy(wide.data(), p, bytes - 2);
        return Osb::Utf16ToUtf8(wide);
    }

  private:
    void need(uint64_t offset, uint64_t bytes) const {
        if (offset > body_.size() || bytes > body_.size() - offset) {
            throw DecodeError("the reply points outside its body");
        }
    }
    const Bytes& body_;
};

}  // namespace

Bytes Frame(uint32_t code, uint32_t requestId, uint32_t clientId, const Bytes& body) {
    Bytes message(kHeaderBytes + body.size());
    StoreHeader(message.data(), {code, static_cast<uint32_t>(body.size()), requestId, clientId});
    if (!body.empty()) std::memcpy(message.data() + kHeaderBytes, body.data(), body.size());
    return message;
}

Bytes EncodeHello(uint32_t versionMajor, uint32_t versionMinor, const Guid& guid) {
    Bytes body;
    Put32(body, versionMinor);
    Put32(body, versionMajor);
    body.insert(body.end(), guid.begin(), guid.end());
    return body;
}

Bytes EncodeConnectionCheck() { return Bytes(kConnectionCheckMinBody, 0); }

Bytes EncodeEmptyRequest() { return Bytes(4, 0); }

Bytes EncodeAddFolders(uint32_t versionMajor, const FolderOptions& options,
                       const std::vector<std::string>& paths) {
    Bytes body;
    Put32(body, options.watchSubtree ? 1 : 0);
    if (versionMajor >= 1) {
        Put32(body, options.reportChanged ? 1 : 0);
        Put32(body, options.reportRemoved ? 1 : 0);
        Put32(body, 0);
    }
    PutStringTable(body, paths);
    return body;
}

Bytes EncodeRemoveFolders(bool watchSubtree, const std::vector<std::string>& paths) {
    Bytes body;
    Put32(body, watchSubtree ? 1 : 0);
    PutStringTable(body, paths);
    return body;
}

Bytes EncodeGetChanges(bool clear) {
    Bytes body;
    Put32(body, clear ? 1 : 0);
    return body;
}

Bytes EncodeRemoveChanges(const std::vector<FolderChanges>& changes) {
    size_t names = 0;
    for (const FolderChanges& f : changes) names += f.names.size();
    Bytes body;
    Put32(body, 0);
    Put32(body, static_cast<uint32_t>(changes.size()));
    Put32(body, kFolderRefBytes);
    Put32(body, 16);
    const size_t folderTable = body.size();
    size_t nameTable = folderTable + kFolderRefBytes * changes.size();
    body.resize(nameTable + kStringRefBytes * names);
    // Name tables one behind the other; strings folder by folder: the path, then its names.
    for (size_t f = 0; f < changes.size(); ++f) {
        Bytes path = WireString(changes[f].path);
        size_t ref = folderTable + kFolderRefBytes * f;
        Set32(body, ref, static_cast<uint32_t>(body.size()));
        Set32(body, ref + 4, static_cast<uint32_t>(path.size()));
        Set32(body, ref + 8, kStringType);
        Set32(body, ref + 12, static_cast<uint32_t>(changes[f].names.size()));
        Set32(body, ref + 16, kStringRefBytes);
        Set32(body, ref + 20, static_cast<uint32_t>(nameTable));
        body.insert(body.end(), path.begin(), path.end());
        for (const std::string& name : changes[f].names) {
            Bytes s = WireString(name);
            Set32(body, nameTable, static_cast<uint32_t>(body.size()));
            Set32(body, nameTable + 4, static_cast<uint32_t>(s.size()));
            Set32(body, nameTable + 8, kStringType);
            body.insert(body.end(), s.begin(), s.end());
            nameTable += kStringRefBytes;
        }
    }
    return body;
}

Bytes::size_type MaxRequestBody() { return kMaxRequestBytes - 1 - kHeaderBytes; }

std::vector<Bytes> EncodeRemoveChangesRequests(const std::vector<FolderChanges>& changes,
                                               Bytes::size_type maxBody) {
    // Bytes on the wire: UTF-16 units and the terminator.
    auto wireBytes = [](const std::string& utf8) { return 2 * Osb::Utf8ToUtf16(utf8).size() + 2; };
    std::vector<Bytes> bodies;
    std::vector<FolderChanges> chunk;
    size_t chunkBytes = 16;  // status and ArrayHeader
    auto flush = [&] {
        if (!chunk.empty()) bodies.push_back(EncodeRemoveChanges(chunk));
        chunk.clear();
        chunkBytes = 16;
    };
    for (const FolderChanges& folder : changes) {
        const size_t folderBytes = kFolderRefBytes + wireBytes(folder.path);
        bool opened = false;  // the folder is the chunk's last entry
        for (const std::string& name : folder.names) {
            const size_t nameBytes = kStringRefBytes + wireBytes(name);
            if (chunkBytes + nameBytes + (opened ? 0 : folderBytes) > maxBody) {
                flush();
                opened = false;
                if (chunkBytes + folderBytes + nameBytes > maxBody) {
                    throw std::length_error("a name is too long for one request: " + name);
                }
            }
            if (!opened) {
                chunk.push_back({folder.path, {}});
                chunkBytes += folderBytes;
                opened = true;
            }
            chunk.back().names.push_back(name);
            chunkBytes += nameBytes;
        }
    }
    flush();
    return bodies;
}

HelloReply DecodeHelloReply(const Bytes& body) {
    Reader r(body);
    return HelloReply{r.u32(0), r.u32(4), r.u32(8), r.u32(12), r.u32(16), r.u32(20)};
}

uint32_t DecodeStatusReply(const Bytes& body) { return Reader(body).u32(0); }

ErrorReply DecodeErrorReply(const Bytes& body) {
    Reader r(body);
    ErrorReply error;
    error.status = r.u32(0);
    uint32_t count = r.u32(4);
    uint32_t table = r.u32(12);
    r.table(table, count, kStringRefBytes);
    for (uint64_t i = 0; i < count; ++i) {
        uint64_t entry = table + kStringRefBytes * i;
        error.reasons.push_back(r.string(r.u32(entry), r.u32(entry + 4)));
    }
    return error;
}

std::vector<std::string> DecodeFolderList(const Bytes& body) {
    Reader r(body);
    uint32_t count = r.u32(0);
    uint32_t table = r.u32(8);
    r.table(table, count, kStringRefBytes);
    std::vector<std::string> paths;
    for (uint64_t i = 0; i < count; ++i) {
        uint64_t entry = table + kStringRefBytes * i;
        paths.push_back(r.string(r.u32(entry), r.u32(entry + 4)));
    }
    return paths;
}

std::vector<FolderChanges> DecodeChanges(const Bytes& body) {
    Reader r(body);
    uint32_t folders = r.u32(4);
    uint32_t table = r.u32(12);
    r.table(table, folders, kFolderRefBytes);
    std::vector<FolderChanges> changes;
    for (uint64_t f = 0; f < folders; ++f) {
        uint64_t ref = table + kFolderRefBytes * f;
        FolderChanges folder;
        folder.path = r.string(r.u32(ref), r.u32(ref + 4));
        uint32_t names = r.u32(ref + 12);
        uint32_t nameTable = r.u32(ref + 20);
        r.table(nameTable, names, kStringRefBytes);
        for (uint64_t n = 0; n < names; ++n) {
            uint64_t entry = nameTable + kStringRefBytes * n;
            folder.names.push_back(r.string(r.u32(entry), r.u32(entry + 4)));
        }
        changes.push_back(std::move(folder));
    }
    return changes;
}

}  // namespace vigil_client
