// The watch folder cache: the file in the data folder that keeps each client's watched folders
// between two runs. It is read once at start-up and replaced whole, atomically, after each change
// of the folder table; its bytes are described in VigilWatchFolderCacheFormat.h. It lists every
// client's GUID, so it is private to the service's user (0600), and nothing here follows a
// symbolic link found in the data folder.
//
// Watch::Database owns one WatchFolderCache and calls it with the database lock held; the object
// has no lock of its own and must not be used by two threads at once. The cache keeps only the
// three file paths; the table stays the database's.
//
// Use, in Database::open:      cache.setDataFolder(dataFolder);  ...start the thread...
//                              cache.load(accept, save);
//   where accept(guid, folder) does addFoldersLocked(guid, {folder}) and save() does save();
// and in Database::save:       cache.save(folderTable);
#pragma once

#include <functional>
#include <string>

#include "service/VigilWatchFolderCacheFormat.h"
#include "service/VigilWatchTypes.h"

namespace Vigil::Watch {

class WatchFolderCache {
  public:
    // Called once per accepted folder line, in file order.
    using AcceptFolder = std::function<void(const Guid& guid, const WatchedFolder& folder)>;
    // Rewrites the current file from the table (Database::save).
    using SaveTable = std::function<void()>;

    // Sets the current path to `dataFolder` followed by "WatchFolder.3.cache" (`dataFolder` ends
    // with the path separator) and forgets the older paths.
    void setDataFolder(const std::u16string& dataFolder);

    // Loads the cache; does nothing before setDataFolder. First removes a temporary file that a
    // save cut short left behind (kCacheTemporaryName; it is never read). Tries
    // "WatchFolder.3.cache", then "WatchFolder.2.cache", then "WatchFolder.cache", each path built
    // only when its turn comes; the first that opens is read. A symbolic link at a name is not
    // followed: that attempt fails like any other. A current file that grants the group or others
    // any right is tightened to 0600.
    // If none opens, a missing file (2) is a first run and returns with nothing done; any other
    // code of the last attempt raises Osb::ExSystem with it.
    //
    // Reading stops at a wrong version line (any generation 1 file has one) or at the first
    // malformed folder line; the lines before it stay accepted. A line whose folder does not exist
    // is skipped silently. `accept` gets each other line. After the file is closed, `save` is
    // called when the read ended at a bad line or version or the file was of an older generation;
    // then the generation 2 and 1 files are removed if their paths were built (results ignored).
    // Exceptions of `accept` and `save` pass through; a failed `save` leaves the old files in
    // place.
    void load(const AcceptFolder& accept, const SaveTable& save);

    // Rewrites the current file with `table`. An empty table writes nothing: no file is created and
    // an existing one stays as it was. Otherwise the bytes go to kCacheTemporaryName in the data
    // folder, are flushed to the disk and renamed over the current file, readable and writable by
    // the service's user alone (0600), so that after a crash, a power cut or a full disk the file
    // holds either the previous table or this one, whole (Osb::ReplaceFileAtomically).
    //
    // A save that cannot be completed (any failed open, write, flush, close or rename) raises
    // Osb::ExSystem with the system's code (112 for a full disk; 3 for a missing data folder or
    // before setDataFolder; 5 when the data folder is a symbolic link or another user's). The
    // previous file then stays as it was and the temporary file is gone. The caller's table keeps
    // what it holds, so the next save writes it whole.
    void save(const CachedFolderTable& table) const;

    const std::u16string& currentPath() const { return currentPath_; }
    // Empty until load reaches the generation 2 attempt.
    const std::u16string& generation2Path() const { return generation2Path_; }
    // Empty until load reaches the generation 1 attempt.
    const std::u16string& generation1Path() const { return generation1Path_; }

  private:
    std::u16string dataFolder_;
    std::u16string currentPath_;
    std::u16string generation2Path_;
    std::u16string generation1Path_;
};

}  // namespace Vigil::Watch
