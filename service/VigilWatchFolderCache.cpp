#include "service/VigilWatchFolderCache.h"

#include <cstdint>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/FileSystem.h"

namespace Vigil::Watch {

namespace {

// Hands out the lines of a cache file as a wide stream in binary mode hands them to a reader that
// asks for at most 1023 units at a time: a piece ends after its line feed or when it is full, and
// a line longer than that comes in several pieces. Units are little-endian byte pairs; an odd byte
// at the very end forms no unit and is not seen. A read error counts as the end of the file.
class CacheLineReader {
  public:
    explicit CacheLineReader(Osb::File& file) : file_(file) {}

    // Replaces `piece` with the next piece; false at the end of the file.
    bool next(std::u16string& piece) {
        piece.clear();
        while (piece.size() < kCacheReadPieceUnits) {
            char16_t unit = 0;
            if (!nextUnit(unit)) break;
            piece += unit;
            if (unit == u'\n') break;
        }
        return !piece.empty();
    }

  private:
    bool nextUnit(char16_t& unit) {
        if (end_ - begin_ < 2 && !refill()) return false;
        unit = static_cast<char16_t>(buffer_[begin_] | (buffer_[begin_ + 1] << 8));
        begin_ += 2;
        return true;
    }

    // Moves a left-over odd byte to the front and reads behind it; true once two bytes are there.
    bool refill() {
        if (ended_) return false;
        size_t kept = 0;
        if (end_ > begin_) buffer_[kept++] = buffer_[begin_];
        begin_ = 0;
        end_ = kept;
        while (end_ < 2) {
            size_t got = 0;
            if (file_.read(buffer_.data() + end_, buffer_.size() - end_, got) != 0 || got == 0) {
                ended_ = true;
                return false;
            }
            end_ += got;
        }
        return true;
    }

    Osb::File& file_;
    std::vector<uint8_t> buffer_ = std::vector<uint8_t>(64 * 1024);
    size_t begin_ = 0;
    size_t end_ = 0;
    bool ended_ = false;
};

}  // namespace

void WatchFolderCache::setDataFolder(const std::u16string& dataFolder) {
    dataFolder_ = dataFolder;
    currentPath_ = dataFolder + kCacheFileName3;
    generation2Path_.clear();
    generation1Path_.clear();
}

void WatchFolderCache::load(const AcceptFolder& accept, const SaveTable& save) {
    // Without a data folder the older paths would be relative to whatever the working folder is;
    // there is nothing of ours to read there.
    if (currentPath_.empty()) return;

    // Whatever makes an attempt fail moves on to the next name; only the last code counts. Each
    // older path is built only when its attempt comes, and only built paths are removed below, so
    // a generation 1 file beside a readable generation 2 one is left alone.
    // What a save cut short by a crash left: never read, and in the way of the next save.
    Osb::RemoveFile(dataFolder_ + kCacheTemporaryName);

    // A symbolic link at any of the names is not followed: it fails its attempt like any other
    // file that cannot be opened.
    constexpr Osb::File::Mode kRead = Osb::File::Mode::kReadNoLink;
    Osb::File file;
    int generation = 3;
    bool olderFile = false;
    if (file.open(currentPath_, kRead) == 0) {
        // A file that an older version left readable by everyone holds every client's GUID.
        // Failing to tighten it costs nothing more: the folder around it is private, and the next
        // save replaces it with a private file.
        file.restrictToOwner();
    } else {
        olderFile = true;
        generation = 2;
        generation2Path_ = dataFolder_ + kCacheFileName2;
        if (file.open(generation2Path_, kRead) != 0) {
            generation = 1;
            generation1Path_ = dataFolder_ + kCacheFileName1;
            const uint32_t status = file.open(generation1Path_, kRead);
            if (status == Osb::Err::kFileNotFound) return;  // a first run
            if (status != 0) throw Osb::ExSystem(status, OSB_HERE);
        }
    }

    bool good = false;
    {
        CacheLineReader reader(file);
        std::u16string line;
        if (reader.next(line)) good = acceptVersionLine(generation, line);
        while (good && reader.next(line)) {
            Guid guid;
            WatchedFolder folder;
            if (!parseFolderLine(generation, line, guid, folder)) {
                good = false;
                break;
            }
            // A folder that has gone since the last run is forgotten without a word; the file keeps
            // its line until the next save.
            if (!Osb::PathExists(folder.path)) continue;
            accept(guid, folder);
        }
    }
    file.close();

    // The save rewrites what was accepted, so the lines behind a bad one are lost for good, and an
    // older generation is replaced by the current one before its file goes.
    if (!good || olderFile) save();
    if (!generation2Path_.empty()) Osb::RemoveFile(generation2Path_);
    if (!generation1Path_.empty()) Osb::RemoveFile(generation1Path_);
}

void WatchFolderCache::save(const CachedFolderTable& table) const {
    // An empty table leaves the file as it is: the folders removed last come back at the next start
    // if they still exist.
    if (table.empty()) return;
    // The file is never changed in place: a crash or a full disk in the middle of the save leaves
    // the previous file whole, so no client loses its folders at the next start.
    const std::vector<uint8_t> bytes = encodeCacheFile(table);
    const uint32_t status = Osb::ReplaceFileAtomically(dataFolder_, kCacheFileName3,
                                                       kCacheTemporaryName, bytes,
                                                       Osb::FileAccess::kOwnerOnly);
    if (status != 0) throw Osb::ExSystem(status, OSB_HERE);
}

}  // namespace Vigil::Watch
