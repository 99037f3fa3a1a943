// Visibility: what one request of a client may see of the file system.
//
// A client of user 0, or of the user the service runs as, sees everything, and nothing is checked
// for it. Any other client (an unknown peer among them, see PeerIdentity.h) sees a folder only when
// its user could list it now (Osb::FolderAccess): search on every directory of the path, read and
// search on the folder. A pending name is sent to it only when the directory that holds the name
// is visible to it in that sense.
//
// One object serves one request on the handler's thread; it keeps each decision for the rest of
// the request (so ten thousand names in a hundred directories cost a hundred decisions) and never
// longer: the next request decides anew.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/FolderAccess.h"
#include "platform/PeerIdentity.h"
#include "service/VigilWatchTypes.h"

namespace Vigil {

// True for user 0 and for the user this process runs as.
bool SeesEverything(const Osb::PeerIdentity& peer);

class Visibility {
  public:
    explicit Visibility(const Osb::PeerIdentity& peer);

    // False for a client that sees everything: the operations below then do nothing.
    bool restricted() const { return access_.has_value(); }

    // Raises Osb::ExSystem with the code of FolderAccess::check when the client may not list
    // `folder`: 5, or 2 or 3 only where the client's user could see that the name is missing.
    void require(const std::u16string& folder);
    // Drops the folders the client may not list; the others keep their order.
    void keepVisible(std::vector<Watch::WatchedFolder>& folders);
    // The members of `directories` (relative to `folder`, as DirectoryOf gives them) that the
    // client may list.
    std::unordered_set<std::u16string> visibleDirectories(
        const std::u16string& folder, const std::vector<std::u16string>& directories);
    // Drops the names of `folder` whose directory the client may not list.
    void keepSendable(const std::u16string& folder, std::vector<std::u16string>& names);

  private:
    // Decides every path of `paths` not decided yet in this request.
    void decide(const std::vector<std::u16string>& paths);

    std::optional<Osb::FolderAccess> access_;
    std::unordered_map<std::u16string, bool> decided_;  // absolute path -> visible
};

}  // namespace Vigil
