// Directory change notification: a folder opened for watching, and reads that complete with a
// batch of changes, in the manner of ReadDirectoryChangesW with a completion routine.
//
// A read fills the caller's buffer with FileNotifyInformation records (the layout below) and then
// runs the completion routine as an APC on the thread that issued the read, in that thread's next
// alertable wait (Apc.h). The names in the records are relative to the opened folder, with '/'
// between components, in UTF-16.
//
// Ends of a read:
//   - changes:             error 0, bytes > 0.
//   - CloseDirectory:      error 0, bytes 0 (also for a read issued after the close).
//   - the folder deleted, moved away or unmounted: error 2 (kFileNotFound), bytes 0, once the
//     changes held before it have been delivered. The handle is done: no later read brings more.
//   - a directory of the tree that the kernel would not watch for want of room (its watch limit,
//     max_user_watches): another error code (112 for the limit), bytes 0, after the changes held
//     before it. The handle goes on: that directory is left out, the rest of the tree stays
//     watched, and the next read carries on. The folder itself refused fails the first read.
//   - a directory past its owner's share of kernel watches (folders not owned by root or by this
//     process's user: a quarter of the kernel's limit per owner): 1816, handled as above.
// Changes that arrive while no read is outstanding are kept and delivered by the next read, over
// as many reads as they need.
//
// A kernel queue overflow ends no read and no handle. The changes the kernel kept are delivered;
// then every entry of each folder on that queue (of its whole tree, for a subtree watch) is
// reported once as created (1), so that the caller looks at all of it again; directories made
// meanwhile are watched from then on, and a folder found gone by that walk ends as above.
// Folders are queued by their owner (the user owning the opened folder), so a storm in one user's
// folders costs only the folders of that user, while the owners past a fixed number share one
// queue.
//
// Changes reported (the filter of file names, directory names and attributes): a name created
// (1), deleted (2), its attributes changed (3), renamed from (4) and to (5). A content write alone
// is not a change. A subtree watch covers every directory below the folder, also those made later:
// when a directory is created or moved in from outside, its entries at that moment are reported
// as created too, so that nothing made in it before its watch existed is missed. A directory
// renamed within the tree is its two names only, and stays watched under its new name. Symbolic
// links below the folder are not followed. A directory below the folder that the caller may not
// read is left out of the watch, and the rest of the tree is watched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Osb {

struct DirectoryHandleState;
using HDirectory = DirectoryHandleState*;

namespace FileAction {
constexpr uint32_t kAdded = 1;
constexpr uint32_t kRemoved = 2;
constexpr uint32_t kModified = 3;
constexpr uint32_t kRenamedOldName = 4;
constexpr uint32_t kRenamedNewName = 5;
}  // namespace FileAction

// One record of a read's buffer, 4-byte aligned:
//   0  NextEntryOffset  bytes from this record to the next; 0 in the last
//   4  Action           one of FileAction
//   8  FileNameLength   bytes of FileName (no terminator)
//   12 FileName         UTF-16 units
struct FileNotifyInformation {
    uint32_t nextEntryOffset;
    uint32_t action;
    uint32_t fileNameLength;
    char16_t fileName[1];
};
constexpr uint32_t kFileNotifyHeaderBytes = 12;

// The caller's record of one outstanding read; the completion routine gets it back.
struct DirectoryOverlapped {
    void* context = nullptr;
};

using DirectoryCompletion = void (*)(uint32_t errorCode, uint32_t bytes,
                                     DirectoryOverlapped* overlapped);

// Opens `path` (UTF-16, ending with '/' or not) for watching. Returns null and sets the last
// error (ErrorCode.h) when it is not an existing folder. Nobody is kept from renaming or deleting
// the folder.
HDirectory OpenDirectoryForWatch(const std::u16string& path);

// Issues one read. At most one read is outstanding per handle; a second one is refused with 87.
// `buffer` and `overlapped` must stay valid until the completion has run. Returns false and sets
// the last error when the read cannot be issued (the watch cannot be set up, say).
bool ReadDirectoryChanges(HDirectory handle, void* buffer, uint32_t length, bool watchSubtree,
                          DirectoryOverlapped* overlapped, DirectoryCompletion completion);

// Closes the handle: an outstanding read completes with 0 bytes. Any thread.
void CloseDirectory(HDirectory handle);

// The owner (user id) of the folder `path` names, a symbolic link followed, and with `openToOthers`
// whether users other than the owner may make entries in it (it is writable by its group or by
// everyone, like /tmp); false with the last error set when it cannot be looked at.
bool GetFolderOwner(const std::u16string& path, uint32_t& owner, bool* openToOthers = nullptr);
// Whether folders of `owner` are held to a share (neither root nor this process's user).
bool IsLimitedOwner(uint32_t owner);
// Whether `owner` holds its whole share of kernel watches (never, for an owner not limited).
bool WatchShareReached(uint32_t owner);
// For tests: a share of kernel watches per limited owner instead of the kernel's limit's quarter
// (0: back to that), for the trees watched from then on.
void SetWatchShareForTesting(size_t watches);

// For tests: the directories the backend watches right now, over every open handle (a directory
// watched by two handles of one queue counts once).
size_t WatchedDirectoriesForTesting();

// For tests and benchmarks: true when every tree whose watching has begun is watched whole. The
// first read of a big tree returns having watched part of it, and the rest follows shortly.
bool DirectoryWalksDoneForTesting();
// For tests: while held, the walks of big trees stop where they are (the first read's own part
// is still walked).
void HoldDirectoryWalksForTesting(bool hold);
// For tests: the kernel queues in use right now.
size_t ChangeQueuesForTesting();
// For tests: while held, the backend takes nothing from its kernel queues, which fill up as they
// would behind a stopped process; released, it goes on.
void HoldChangeQueuesForTesting(bool hold);
// For tests: how many owners get a kernel queue of their own (the folders opened from then on);
// the owners past them share one queue.
void SetOwnerQueueLimitForTesting(size_t limit);

// The attributes of `path` as the directory test sees them (from lstat): 0x10 directory, +0x400
// symbolic link, +0x02 a last component beginning with '.', +0x01 owner may not write; 0x80 when
// none of these holds; kInvalidFileAttributes for a path that does not exist.
constexpr uint32_t kInvalidFileAttributes = 0xFFFFFFFF;
uint32_t GetFileAttributes(const std::u16string& path);

}  // namespace Osb
