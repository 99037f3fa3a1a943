#include "service/VigilPendingShare.h"

#include <algorithm>
#include <cstdio>

#include "platform/Utf.h"

namespace Vigil::Watch {

size_t PendingShare::cost(const std::vector<std::u16string>& names) {
    size_t bytes = 0;
    for (const std::u16string& name : names) bytes += cost(name);
    return bytes;
}

size_t PendingShare::admit(uint32_t owner, const std::u16string& folder,
                           std::vector<std::u16string>& names) {
    Usage& usage = owners_[owner];
    const size_t before = usage.bytes;
    size_t dropped = 0;
    std::erase_if(names, [&](const std::u16string& name) {
        const size_t bytes = cost(name);
        if (usage.bytes + bytes <= bound_) {
            usage.bytes += bytes;
            return false;
        }
        if (!usage.full) {
            usage.full = true;
            std::fprintf(stderr,
                         "pending names of folders of user %u reached their bound of %zu bytes at "
                         "%s: further names are dropped\n",
                         owner, bound_, Osb::Utf16ToUtf8(folder).c_str());
        }
        ++dropped;
        return true;
    });
    dropped_ += dropped;
    return usage.bytes - before;
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
        std::fprintf(stderr,
                     "pending names of folders of user %u are under their bound again (%s)\n",
                     owner, Osb::Utf16ToUtf8(folder).c_str());
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
