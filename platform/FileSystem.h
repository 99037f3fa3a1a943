// Files by wide path: the existence test, reading and writing bytes, removal, and the atomic
// replacement of a file that the program keeps for itself.
//
// These stand in for the C runtime's wide file calls (_waccess, _wfopen in binary mode, _wremove).
// Paths are UTF-16 and converted to the system's UTF-8 (lone surrogates round-trip, see Utf.h).
// Every call that fails returns a Windows error code (ErrorCode.h), 0 on success, and records the
// same code as the calling thread's last error, so that ErrorCode() right after the call gives it:
// 2 for a missing file, 3 for a missing parent folder, 5 for a refused access or for a directory
// opened as a file, 123 for a path that holds a zero unit. Any thread may call them; nothing is
// shared between calls but the file system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace Osb {

// _waccess(path, 0): true when `path` names anything (file, folder, or a symbolic link's target)
// whatever its access rights. On false, the last error says why (2 or 3 when it is missing).
bool PathExists(const std::u16string& path);

// _wremove: deletes the file `path` (not a folder). Returns 0 or a Windows code.
uint32_t RemoveFile(const std::u16string& path);

// An open file, closed when the object dies. Move-only. Reads and writes are unbuffered and pass
// bytes through unchanged (binary mode); the caller batches them.
class File {
  public:
    enum class Mode {
        kRead,   // "rb": an existing file, read from its start
        kWrite,  // "wb": created when missing, emptied when present, written from its start
        // "rb", but a symbolic link in the last component of the path is refused (1921) instead
        // of followed: for the program's own files, where a link can only have been planted.
        kReadNoLink,
    };

    File() = default;
    ~File();
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // Opens `path`; a file this object already holds is closed first. Returns 0 or a Windows code
    // (the object then holds no file).
    uint32_t open(const std::u16string& path, Mode mode);
    bool isOpen() const { return handle_ >= 0; }

    // Reads at most `size` bytes into `buffer`; `got` is the count read, 0 at the end of the file.
    // Returns 0 or a Windows code (6 when no file is open).
    uint32_t read(void* buffer, size_t size, size_t& got);
    // Writes all `bytes`, or returns the code of the failure (6 when no file is open).
    uint32_t write(std::span<const uint8_t> bytes);
    // Closes the file. Returns 0, or the code of a failure that the close reports (a late write
    // error). Closing a closed object returns 0.
    uint32_t close();
    // Takes every right of the group and of others off the open file (leaving it 0600) when it
    // grants them any, is a regular file of the calling process's user and has no other name (a
    // hard link could make the change reach a file somewhere else). Anything else is left as it
    // is. Returns 0 or the code of a failed change (6 when no file is open).
    uint32_t restrictToOwner();

  private:
    int handle_ = -1;  // the backend's descriptor, -1 when closed
};

// Reads the whole file `path` into `bytes` (replaced). Returns 0 or a Windows code.
uint32_t ReadFileBytes(const std::u16string& path, std::vector<uint8_t>& bytes);

// Replaces the content of `path` with `bytes` in place (as "wb": no temporary file). Returns 0 or a
// Windows code.
uint32_t WriteFileBytes(const std::u16string& path, std::span<const uint8_t> bytes);

// Who may use a file that ReplaceFileAtomically makes. The rights are set on the new file itself,
// whatever the process's umask.
enum class FileAccess {
    kOwnerOnly,   // read and written by its owner alone (0600)
    kOthersRead,  // written by its owner, read by everyone (0644)
};

// Replaces the file `name` in the folder `folder` with a new file that holds `bytes` and grants
// `access`, so that `name` holds either its old content whole or `bytes` whole at every moment,
// also across a crash of the process, a power cut or a full disk.
//
// `name` and `temporaryName` are single names inside `folder` (no separator; 123 otherwise). The
// work is done relative to the folder, opened once: a symbolic link in its last component is
// refused (5), and so is a folder that belongs to another user than the process's (5), so that
// nobody else can have planted anything in it. A leftover `temporaryName` is removed, the bytes
// are written to a new file of that name that is created exclusively (a link planted there in the
// meantime makes the call fail with 183, never followed), flushed to the disk and closed, then
// renamed over `name` (a link standing at `name` is replaced, its target untouched), and the
// folder is flushed so that the rename itself survives a power cut.
//
// Returns 0, or the Windows code of the first step that failed (112 for a full disk; 3 when the
// folder is missing). Up to the rename, a failure leaves `name` as it was and removes the
// temporary file. A failure of the last flush (after the rename) returns its code with `bytes`
// already in place, but maybe not yet safe from a power cut.
uint32_t ReplaceFileAtomically(const std::u16string& folder, const std::u16string& name,
                               const std::u16string& temporaryName, std::span<const uint8_t> bytes,
                               FileAccess access);

}  // namespace Osb
