// The watch folder cache reader on a file of arbitrary bytes in a scratch data folder: every
// accepted folder must be one the file's bytes could name, and nothing else may be read.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/Utf.h"
#include "service/VigilWatchFolderCache.h"

namespace {

std::filesystem::path DataFolder() {
    static const std::filesystem::path folder = [] {
        std::filesystem::path p = std::filesystem::temp_directory_path() /
                                  ("vigil-fuzz-cache-" + std::to_string(std::rand()) + "-" +
                                   std::to_string(reinterpret_cast<uintptr_t>(&folder) & 0xFFFFFF));
        std::filesystem::create_directories(p);
        return p;
    }();
    return folder;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Vigil::Watch;
    const std::filesystem::path folder = DataFolder();
    std::filesystem::remove(folder / "WatchFolder.2.cache");
    {
        std::ofstream out(folder / "WatchFolder.3.cache", std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    WatchFolderCache cache;
    cache.setDataFolder(Osb::Utf8ToUtf16(folder.string() + "/"));
    size_t accepted = 0;
    cache.load(
        [&](const Guid&, const WatchedFolder& f) {
            ++accepted;
            // The path follows the GUID and options columns of its line, in two bytes a unit.
            if (f.path.size() * 2 + 2 * kPathColumn3 > size) std::abort();
        },
        [] {});
    // Each accepted line takes at least the shortest line's bytes.
    if (accepted * kMinCacheLineUnits * 2 > size) std::abort();
    return 0;
}
