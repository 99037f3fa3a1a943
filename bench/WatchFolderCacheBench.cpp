// The watch folder cache's save and load against the least work that can do the same, in one run:
// save against writing the same bytes with one call, load against reading the file through one
// buffer and testing each folder's existence. Prints the median of several rounds and the ratios.
//
//   WatchFolderCacheBench [folder-lines, default 20000]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/Utf.h"
#include "service/VigilWatchFolderCache.h"

namespace {

using Clock = std::chrono::steady_clock;
using Vigil::Watch::CachedFolderTable;
using Vigil::Watch::Guid;
using Vigil::Watch::WatchedFolder;

template <typename Work>
double MedianMilliseconds(Work work) {
    std::vector<double> rounds;
    for (int i = 0; i < 9; ++i) {
        const auto start = Clock::now();
        work();
        rounds.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    std::sort(rounds.begin(), rounds.end());
    return rounds[rounds.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    const size_t lines = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 20000;
    char pattern[] = "/tmp/vgl-cache-bench.XXXXXX";
    if (mkdtemp(pattern) == nullptr) return 1;
    const std::string root = pattern;
    const std::u16string data = Osb::Utf8ToUtf16(root + "/");

    // 100 clients sharing 200 real folders; paths of about 60 units, as deep trees give.
    std::vector<std::u16string> folders;
    for (int i = 0; i < 200; ++i) {
        const std::string path = root + "/projects/client-area/folder-" + std::to_string(i) + "/";
        std::filesystem::create_directories(path);
        folders.push_back(Osb::Utf8ToUtf16(path));
    }
    CachedFolderTable table;
    for (size_t i = 0; i < lines; ++i) {
        Guid guid;
        guid.bytes[0] = static_cast<uint8_t>(i % 100);
        table[guid].push_back(WatchedFolder{folders[i % folders.size()], {1, 1, 0, 0}});
    }

    Vigil::Watch::WatchFolderCache cache;
    cache.setDataFolder(data);
    const std::vector<uint8_t> bytes = Vigil::Watch::encodeCacheFile(table);
    const std::u16string rawPath = data + u"raw.bin";

    const double save = MedianMilliseconds([&] { cache.save(table); });
    const double rawWrite = MedianMilliseconds([&] { Osb::WriteFileBytes(rawPath, bytes); });

    size_t accepted = 0;
    const double load = MedianMilliseconds([&] {
        accepted = 0;
        cache.load([&](const Guid&, const WatchedFolder&) { ++accepted; }, [] {});
    });
    size_t existing = 0;
    const double rawRead = MedianMilliseconds([&] {
        // One reused buffer, as the loader has: fresh pages cost more than the reading here.
        Osb::File file;
        file.open(cache.currentPath(), Osb::File::Mode::kRead);
        static uint8_t buffer[64 * 1024];
        size_t got = 0;
        while (file.read(buffer, sizeof(buffer), got) == 0 && got != 0) {
        }
        existing = 0;
        for (size_t i = 0; i < lines; ++i) existing += Osb::PathExists(folders[i % folders.size()]);
    });

    std::printf("folder lines %zu, file %zu bytes, accepted %zu (baseline saw %zu)\n", lines,
                bytes.size(), accepted, existing);
    std::printf("save   %8.3f ms   one write of the bytes  %8.3f ms   ratio %.2f\n", save, rawWrite,
                save / rawWrite);
    std::printf("load   %8.3f ms   read + existence tests  %8.3f ms   ratio %.2f\n", load, rawRead,
                load / rawRead);
    std::filesystem::remove_all(root);
    return accepted == lines ? 0 : 1;
}
