// Osb::FolderAccess: whether a given user could list a folder, decided as the kernel decides it for
// that user (mode bits, owner, groups, ACLs), at the moment of the call. Nothing is remembered
// between calls; a caller that wants one decision per folder for a while keeps them itself.
//
// A folder is listable when the user may search every directory on its path and may read and
// search the folder itself.
//
// How: when this process may take on another user's file system credentials (it holds
// CAP_SETUID and CAP_SETGID and no capability that overrides file permissions would stay in
// force), the calling thread, and only it, acts with the user's file system user, group and
// supplementary groups for the length of the check and asks the kernel; its own credentials are
// back before the call returns, also on failure. Otherwise (a service running as a plain user, an
// unknown peer) the decision is made by hand from each directory's owner, mode and POSIX ACL,
// following symbolic links as the kernel does. Any thread may use its own FolderAccess objects.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/PeerIdentity.h"

namespace Osb {

class FolderAccess {
  public:
    enum class Method {
        kAuto,    // the kernel where this process may switch, else by hand
        kByHand,  // always by hand (tests, benchmarks)
    };

    explicit FolderAccess(PeerIdentity user, Method method = Method::kAuto);

    // 0 when the user could list `folder` now. Otherwise a Windows code, also recorded as the
    // thread's last error without a system text: 2, or 3 for a folder missing on the way, when the
    // user's own look finds a name missing (it could search every directory up to that name, so
    // the absence is no secret to it); 5 for everything else, so that a name behind a directory
    // the user may not search gives 5 whether it exists, is a file or a directory. A path holding
    // a zero unit is 123.
    uint32_t check(const std::u16string& folder);
    // check() for each of `folders`, into `results` (replaced, one code per folder). The thread's
    // credentials are switched once for the whole list.
    void checkAll(const std::vector<std::u16string>& folders, std::vector<uint32_t>& results);

    // checkAll() of `folder` joined with each of `directories` (relative to it, without a
    // closing separator; empty for the folder itself), but cheaper where the kernel decides: the
    // folder is opened once as the user and each directory is looked up from there.
    void checkBelow(const std::u16string& folder, const std::vector<std::u16string>& directories,
                    std::vector<uint32_t>& results);

    // Whether the last check, checkAll or checkBelow was made by the kernel (false: by hand). For
    // tests.
    bool usedKernelForTesting() const { return usedKernel_; }

  private:
    PeerIdentity user_;
    Method method_;
    bool usedKernel_ = false;
};

}  // namespace Osb
