#include "service/VigilPendingShare.h"

#include <algorithm>
#include <cstdio>

#include "platform/DirectoryChanges.h"
#include "platform/Utf.h"

namespace Vigil::Watch {

namespace {

// Who the log lines speak of.
std::string OwnerText(uint32_t owner) {
    if (owner == PendingShare::kOpenFolders) return "folders open to every user";
    return "folders of user " + std::to_string(owner);
}

}  // namespace

uint32_t PendingShare::keyOf(const std::u16string& folder) {
    uint32_t key = 0;
    return keyOf(folder, key) ? key : 0;
}

bool PendingShare::keyOf(const std::u16string& folder, uint32_t& key) {
    uint32_t owner = 0;
    bool openToOthers = false;
    if (!Osb::GetFolderOwner(folder, owner, &openToOthers)) return false;
    key = !Osb::IsLimitedOwner(owner) && openToOthers ? kOpenFolders : owner;
    return true;
}

size_t PendingShare::cost(const std::vector<std::u16string>& names) {
    size_t bytes = 0;
    for (const std::u16string& name : names) bytes += cost(name);
    return bytes;
}

size_t PendingShare::admit(uint32_t owner, const std::u16string& folder,
                           std::vector<std::u16string>& names) {
    Usage& usage = owners_[owner];
    const size_t before = usage.bytes;
    std::erase_if(names, [&](const std::u16string& name) {
        return !admit(usage, owner, folder, cost(name));
    });
    return usage.bytes - before;
}

bool PendingShare::admitOne(uint32_t owner, const std::u16string& folder, size_t bytes) {
    return admit(owners_[owner], owner, folder, bytes);
}

bool PendingShare::admit(Usage& usage, uint32_t owner, const std::u16string& folder, size_t bytes) {
    if (usage.bytes + bytes <= bound_) {
        usage.bytes += bytes;
        return true;
    }
    if (!usage.full) {
        usage.full = true;
        std::fprintf(stderr,
                     "pending names of %s reached their bound of %zu bytes at %s: further "
                     "names are dropped\n",
                     OwnerText(owner).c_str(), bound_, Osb::Utf16ToUtf8(folder).c_str());
    }
    ++dropped_;
    return false;
}

void PendingShare::release(uint32_t owner, const std::u16string& folder, size_t bytes) {
    auto it = owners_.find(owner);
    if (it == owners_.end()) return;
    Usage& usage = it->second;
    usage.bytes -= std::min(bytes, usage.bytes);
    // Back under only with room for a good batch again, so that a user at the bound does not
    // log a pair of lines with every collection.
    if (usage.full && usage.bytes <= bound_ / 4 * 3) {
        usage.full = false;
        std::fprintf(stderr, "pending names of %s are under their bound again (%s)\n",
                     OwnerText(owner).c_str(), Osb::Utf16ToUtf8(folder).c_str());
    }
    if (usage.bytes == 0 && !usage.full) owners_.erase(it);
}

bool PendingShare::reached(uint32_t owner) const {
    auto it = owners_.find(owner);
    return it != owners_.end() && it->second.full;
}

size_t PendingShare::bytesForTesting(uint32_t owner) const {
    auto it = owners_.find(owner);
    return it == owners_.end() ? 0 : it->second.bytes;
}

}  // namespace Vigil::Watch
