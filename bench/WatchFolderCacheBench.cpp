// The watch folder cache's save and load against the least work that can do the same, in one run.
//
// A save is measured beside two baselines: the in-place rewrite that saves used to do (encode the
// table, then write over the file: no flush, not safe from a crash), and the least durable
// replacement done with bare system calls (write a temporary, fsync, rename, fsync the folder).
// The first ratio is what durability costs, the second what the service adds to the minimum. Each
// is measured for the given table and for a short one, where the flush is nearly all the work.
// The load is measured beside reading the file through one buffer and testing each folder's
// existence. Prints the median of several rounds and the ratios.
//
//   WatchFolderCacheBench [folder-lines, default 20000]
//   CACHE_BENCH_DIR picks the file system (default /tmp); try /dev/shm for a tmpfs.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
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
double Milliseconds(Work work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double Median(std::vector<double> times) {
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

template <typename Work>
double MedianMilliseconds(int rounds, Work work) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) times.push_back(Milliseconds(work));
    return Median(std::move(times));
}

// The least a crash-safe replacement of "raw.bin" in `folder` takes. False on any failure.
bool DurableReplace(const std::string& folder, const std::vector<uint8_t>& bytes) {
    const std::string temporary = folder + "/raw.tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    bool ok = ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    ok = ::fsync(fd) == 0 && ok;
    ok = ::close(fd) == 0 && ok;
    ok = ok && ::rename(temporary.c_str(), (folder + "/raw.bin").c_str()) == 0;
    const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ok = dir >= 0 && ::fsync(dir) == 0 && ok;
    if (dir >= 0) ::close(dir);
    return ok;
}

struct SaveTimes {
    double save;
    double inPlace;
    double durable;
};

SaveTimes MeasureSaves(Vigil::Watch::WatchFolderCache& cache, const CachedFolderTable& table,
                       const std::string& folder, int rounds) {
    const std::u16string rawPath = Osb::Utf8ToUtf16(folder + "/raw.bin");
    // Interleaved, so that a slow spell of the disk falls on all three alike.
    std::vector<double> save;
    std::vector<double> inPlace;
    std::vector<double> durable;
    for (int i = 0; i < rounds; ++i) {
        save.push_back(Milliseconds([&] { cache.save(table); }));
        inPlace.push_back(Milliseconds(
            [&] { Osb::WriteFileBytes(rawPath, Vigil::Watch::encodeCacheFile(table)); }));
        durable.push_back(
            Milliseconds([&] { DurableReplace(folder, Vigil::Watch::encodeCacheFile(table)); }));
    }
    return {Median(std::move(save)), Median(std::move(inPlace)), Median(std::move(durable))};
}

void PrintSaves(const char* what, size_t bytes, const SaveTimes& t) {
    std::printf("save of %s (%zu bytes)\n", what, bytes);
    std::printf("  save %8.3f ms   in-place rewrite %8.3f ms (ratio %6.2f)   bare durable "
                "%8.3f ms (ratio %5.2f)\n",
                t.save, t.inPlace, t.save / t.inPlace, t.durable, t.save / t.durable);
}

}  // namespace

int main(int argc, char** argv) {
    const size_t lines = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 20000;
    const char* base = std::getenv("CACHE_BENCH_DIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                          "/vgl-cache-bench.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) return 1;
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
    CachedFolderTable shortTable;
    for (size_t i = 0; i < lines; ++i) {
        Guid guid;
        guid.bytes[0] = static_cast<uint8_t>(i % 100);
        table[guid].push_back(WatchedFolder{folders[i % folders.size()], {1, 1, 0, 0}});
        if (i < 10) shortTable[guid].push_back(table[guid].back());
    }

    Vigil::Watch::WatchFolderCache cache;
    cache.setDataFolder(data);
    const SaveTimes large = MeasureSaves(cache, table, root, 9);
    const SaveTimes small = MeasureSaves(cache, shortTable, root, 31);
    cache.save(table);

    size_t accepted = 0;
    const double load = MedianMilliseconds(9, [&] {
        accepted = 0;
        cache.load([&](const Guid&, const WatchedFolder&) { ++accepted; }, [] {});
    });
    size_t existing = 0;
    const double rawRead = MedianMilliseconds(9, [&] {
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

    std::printf("folder lines %zu in %s, accepted %zu (baseline saw %zu)\n", lines, root.c_str(),
                accepted, existing);
    PrintSaves("the whole table", Vigil::Watch::encodeCacheFile(table).size(), large);
    PrintSaves("10 folders", Vigil::Watch::encodeCacheFile(shortTable).size(), small);
    std::printf("load   %8.3f ms   read + existence tests  %8.3f ms   ratio %.2f\n", load, rawRead,
                load / rawRead);
    std::filesystem::remove_all(root);
    return accepted == lines ? 0 : 1;
}
