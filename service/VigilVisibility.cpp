#include "service/VigilVisibility.h"

#include "platform/ErrorCode.h"
#include "platform/Exception.h"

namespace Vigil {

bool SeesEverything(const Osb::PeerIdentity& peer) {
    return peer.known && (peer.uid == 0 || peer.uid == Osb::ProcessUserId());
}

Visibility::Visibility(const Osb::PeerIdentity& peer) {
    if (!SeesEverything(peer)) access_.emplace(peer);
}

void Visibility::require(const std::u16string& folder) {
    if (!access_) return;
    const uint32_t code = access_->check(folder);
    decided_[folder] = code == Osb::Err::kSuccess;
    if (code != Osb::Err::kSuccess) throw Osb::ExSystem(code, OSB_HERE);
}

void Visibility::keepVisible(std::vector<Watch::WatchedFolder>& folders) {
    if (!access_) return;
    std::vector<std::u16string> paths;
    for (const Watch::WatchedFolder& folder : folders) paths.push_back(folder.path);
    decide(paths);
    std::erase_if(folders, [&](const Watch::WatchedFolder& f) { return !decided_[f.path]; });
}

std::unordered_set<std::u16string> Visibility::visibleDirectories(
    const std::u16string& folder, const std::vector<std::u16string>& directories) {
    std::unordered_set<std::u16string> visible;
    if (!access_) {
        visible.insert(directories.begin(), directories.end());
        return visible;
    }
    // The directories are distinct, so each is decided once; a folder watched twice (by itself
    // and inside a tree) may see one directory decided twice in a request, which is harmless.
    std::vector<uint32_t> codes;
    access_->checkBelow(folder, directories, codes);
    for (size_t i = 0; i < directories.size(); ++i) {
        if (codes[i] == Osb::Err::kSuccess) visible.insert(directories[i]);
    }
    return visible;
}

void Visibility::keepSendable(const std::u16string& folder, std::vector<std::u16string>& names) {
    if (!access_) return;
    std::vector<std::u16string> directories;
    std::unordered_set<std::u16string_view> seen;
    for (const std::u16string& name : names) {
        if (seen.insert(Watch::DirectoryOf(name)).second) {
            directories.emplace_back(Watch::DirectoryOf(name));
        }
    }
    const std::unordered_set<std::u16string> visible = visibleDirectories(folder, directories);
    std::erase_if(names, [&](const std::u16string& name) {
        return visible.count(std::u16string(Watch::DirectoryOf(name))) == 0;
    });
}

void Visibility::decide(const std::vector<std::u16string>& paths) {
    std::vector<std::u16string> open;
    for (const std::u16string& path : paths) {
        if (!decided_.count(path)) open.push_back(path);
    }
    if (open.empty()) return;
    std::vector<uint32_t> codes;
    access_->checkAll(open, codes);
    for (size_t i = 0; i < open.size(); ++i) decided_[open[i]] = codes[i] == Osb::Err::kSuccess;
}

}  // namespace Vigil
