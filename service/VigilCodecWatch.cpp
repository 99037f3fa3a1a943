// The watch family: folder lists, GetChanges and its reply, RemoveChanges.
#include "service/VigilCodec.h"
#include "service/VigilCodecWriter.h"

namespace Vigil::Codec {

using namespace Protocol;
using namespace Writer;

namespace {

#define VIGIL_CODEC_TRY(expression)                                                \
    do {                                                                           \
        if (Result result_ = (expression); result_ != Result::kOk) return result_; \
    } while (0)

// One folder path of a folder list, located by the StringRef at `entry`: exactly byteLength bytes
// are copied into the path buffer, cut at the first zero unit, and given the closing separator.
Result DecodeFolderPath(const BodyReader& reader, uint64_t entry, std::u16string& path) {
    uint32_t offset = 0, byteLength = 0;
    VIGIL_CODEC_TRY(reader.u32(entry, offset));
    VIGIL_CODEC_TRY(reader.u32(entry + 4, byteLength));
    if (byteLength > 2 * kPathBufferUnits) return Result::kInvalidDataValues;
    if (!reader.has(offset, byteLength)) return Result::kInvalidLength;

    char16_t buffer[kPathBufferUnits] = {};
    reader.copy(offset, buffer, byteLength);
    const uint32_t units = byteLength / 2;
    uint32_t length = 0;
    while (length < units && buffer[length] != 0) ++length;
    if (length == units) return Result::kInvalidDataValues;  // no terminator within byteLength
    if (length == 0) return Result::kInvalidDataValues;      // no last unit to look at
    if (buffer[length - 1] != kPathSeparator) {
        // The separator and a new terminator must both fit in the buffer.
        if (length + 2 > kPathBufferUnits) return Result::kInvalidDataValues;
        buffer[length++] = kPathSeparator;
    }
    path.assign(buffer, length);
    return Result::kOk;
}

// The ArrayHeader at `headerAt` and its table of folder paths. Entries are read one by one, so the
// first faulty entry decides the refusal and those before it are in `paths`.
Result DecodePathTable(const BodyReader& reader, uint32_t headerAt,
                       std::vector<std::u16string>& paths) {
    uint32_t count = 0, tableOffset = 0;
    VIGIL_CODEC_TRY(reader.u32(headerAt, count));
    VIGIL_CODEC_TRY(reader.u32(headerAt + 8, tableOffset));
    for (uint32_t i = 0; i < count; ++i) {
        std::u16string path;
        VIGIL_CODEC_TRY(
            DecodeFolderPath(reader, uint64_t{tableOffset} + uint64_t{kStringRefBytes} * i, path));
        paths.push_back(std::move(path));
    }
    return Result::kOk;
}

Result DecodeFlag(const BodyReader& reader, uint32_t offset, bool& flag) {
    uint32_t value = 0;
    VIGIL_CODEC_TRY(reader.u32(offset, value));
    flag = value != 0;
    return Result::kOk;
}

Result DecodeShortFolderList(const BodyReader& reader, FolderListRequest& out) {
    VIGIL_CODEC_TRY(DecodeFlag(reader, 0, out.watchSubtree));
    out.reportChanged = true;
    out.reportRemoved = false;
    return DecodePathTable(reader, kAddFoldersTableShort, out.paths);
}

}  // namespace

Result decodeAddFolders(RequestBody body, uint32_t versionMajor, FolderListRequest& out) {
    const BodyReader reader(body);
    if (reader.announced() < kAddFoldersMinBody) return Result::kInvalidLength;
    if (versionMajor < 1) return DecodeShortFolderList(reader, out);
    VIGIL_CODEC_TRY(DecodeFlag(reader, 0, out.watchSubtree));
    VIGIL_CODEC_TRY(DecodeFlag(reader, 4, out.reportChanged));
    VIGIL_CODEC_TRY(DecodeFlag(reader, 8, out.reportRemoved));
    return DecodePathTable(reader, kAddFoldersTableWithOptions, out.paths);
}

void encodeAddFolders(uint32_t versionMajor, const FolderListRequest& request, Bytes& out) {
    const size_t base = out.size();
    Put32(out, request.watchSubtree ? 1 : 0);
    if (versionMajor >= 1) {
        Put32(out, request.reportChanged ? 1 : 0);
        Put32(out, request.reportRemoved ? 1 : 0);
        Put32(out, 0);
    }
    PutStringTable(out, base, request.paths);
}

Result decodeRemoveFolders(RequestBody body, FolderListRequest& out) {
    const BodyReader reader(body);
    if (reader.announced() < kRemoveFoldersMinBody) return Result::kInvalidLength;
    return DecodeShortFolderList(reader, out);
}

void encodeRemoveFolders(const FolderListRequest& request, Bytes& out) {
    encodeAddFolders(0, request, out);
}

Result decodeGetChanges(RequestBody body, bool& clear) {
    const BodyReader reader(body);
    if (reader.announced() < kGetChangesMinBody) return Result::kInvalidLength;
    return DecodeFlag(reader, 0, clear);
}

void encodeGetChanges(bool clear, Bytes& out) { Put32(out, clear ? 1 : 0); }

uint64_t changesBodyBytes(const std::vector<FolderChanges>& changes) {
    uint64_t bytes = kStatusArrayTable + uint64_t{kFolderRefBytes} * changes.size();
    for (const FolderChanges& folder : changes) {
        bytes += WireBytes(folder.path) + uint64_t{kStringRefBytes} * folder.names.size();
        for (const std::u16string& name : folder.names) bytes += WireBytes(name);
    }
    return bytes;
}

void encodeChanges(const std::vector<FolderChanges>& changes, Bytes& out) {
    const size_t base = out.size();
    out.resize(base + static_cast<size_t>(changesBodyBytes(changes)));
    encodeChangesInto(changes, std::span<uint8_t>(out).subspan(base));
}

void encodeChangesInto(const std::vector<FolderChanges>& changes, std::span<uint8_t> body) {
    size_t names = 0;
    for (const FolderChanges& folder : changes) names += folder.names.size();
    uint8_t* p = body.data();
    Store32(p + 0, 0);
    Store32(p + 4, static_cast<uint32_t>(changes.size()));
    Store32(p + 8, kFolderRefBytes);
    Store32(p + 12, kStatusArrayTable);
    // Three write positions: the FolderRef table, all name tables behind it, and the strings,
    // which go folder by folder: the path, then its names.
    size_t folderEntry = kStatusArrayTable;
    size_t nameEntry = folderEntry + size_t{kFolderRefBytes} * changes.size();
    auto at = static_cast<uint32_t>(nameEntry + size_t{kStringRefBytes} * names);
    for (const FolderChanges& folder : changes) {
        at = PutString(p, folderEntry, at, folder.path);
        Store32(p + folderEntry + 12, static_cast<uint32_t>(folder.names.size()));
        Store32(p + folderEntry + 16, kStringRefBytes);
        Store32(p + folderEntry + 20, static_cast<uint32_t>(nameEntry));
        for (const std::u16string& name : folder.names) {
            at = PutString(p, nameEntry, at, name);
            nameEntry += kStringRefBytes;
        }
        folderEntry += kFolderRefBytes;
    }
}

Result decodeChangesReply(RequestBody body, std::vector<FolderChanges>& out) {
    const BodyReader reader(body);
    uint32_t count = 0, table = 0;
    VIGIL_CODEC_TRY(reader.u32(4, count));
    VIGIL_CODEC_TRY(reader.u32(12, table));
    if (!reader.has(table, uint64_t{kFolderRefBytes} * count)) return Result::kInvalidLength;
    for (uint32_t f = 0; f < count; ++f) {
        const uint64_t ref = table + uint64_t{kFolderRefBytes} * f;
        uint32_t offset = 0, bytes = 0, names = 0, nameTable = 0;
        reader.u32(ref, offset);
        reader.u32(ref + 4, bytes);
        reader.u32(ref + 12, names);
        reader.u32(ref + 20, nameTable);
        FolderChanges folder;
        VIGIL_CODEC_TRY(reader.sizedString(offset, bytes, folder.path));
        if (!reader.has(nameTable, uint64_t{kStringRefBytes} * names)) {
            return Result::kInvalidLength;
        }
        for (uint32_t n = 0; n < names; ++n) {
            const uint64_t entry = nameTable + uint64_t{kStringRefBytes} * n;
            reader.u32(entry, offset);
            reader.u32(entry + 4, bytes);
            std::u16string name;
            VIGIL_CODEC_TRY(reader.sizedString(offset, bytes, name));
            folder.names.push_back(std::move(name));
        }
        out.push_back(std::move(folder));
    }
    return Result::kOk;
}

Result decodeRemoveChanges(RequestBody body, RemoveChangesRequest& out) {
    out = RemoveChangesRequest();
    out.reader_ = BodyReader(body);
    BodyReader& reader = out.reader_;
    if (reader.announced() < kRemoveChangesMinBody) return Result::kInvalidLength;
    uint32_t count = 0;
    VIGIL_CODEC_TRY(reader.u32(4, count));
    VIGIL_CODEC_TRY(reader.u32(12, out.tableOffset_));
    // Everything is checked here, in the order the folders are later taken, so that no removal
    // is made for a body that is refused.
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t entry = out.tableOffset_ + uint64_t{kFolderRefBytes} * i;
        uint32_t offset = 0, names = 0, nameTable = 0;
        size_t units = 0;
        VIGIL_CODEC_TRY(reader.u32(entry, offset));
        VIGIL_CODEC_TRY(reader.terminatedUnits(offset, units));
        VIGIL_CODEC_TRY(reader.u32(entry + 12, names));
        for (uint32_t j = 0; j < names; ++j) {
            VIGIL_CODEC_TRY(reader.u32(entry + 20, nameTable));
            VIGIL_CODEC_TRY(reader.u32(nameTable + uint64_t{kStringRefBytes} * j, offset));
            VIGIL_CODEC_TRY(reader.terminatedUnits(offset, units));
        }
    }
    out.count_ = count;
    return Result::kOk;
}

uint64_t RemoveChangesRequest::entry(uint32_t folder) const {
    return tableOffset_ + uint64_t{kFolderRefBytes} * folder;
}

// The fields below were all found inside the body by decodeRemoveChanges.
uint32_t RemoveChangesRequest::nameCount(uint32_t folder) const {
    uint32_t names = 0;
    reader_.u32(entry(folder) + 12, names);
    return names;
}

void RemoveChangesRequest::folder(uint32_t folder, std::u16string& path,
                                  std::vector<std::u16string>& names) const {
    uint32_t offset = 0, nameTable = 0;
    size_t units = 0;
    reader_.u32(entry(folder), offset);
    reader_.terminatedUnits(offset, units);
    path = reader_.text(offset, units);
    reader_.u32(entry(folder) + 20, nameTable);
    const uint32_t count = nameCount(folder);
    names.clear();
    names.reserve(count);
    for (uint32_t j = 0; j < count; ++j) {
        reader_.u32(nameTable + uint64_t{kStringRefBytes} * j, offset);
        reader_.terminatedUnits(offset, units);
        names.push_back(reader_.text(offset, units));
    }
}

}  // namespace Vigil::Codec
