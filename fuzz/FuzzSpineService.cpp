#include <cstdlib>
#include <filesystem>
#include <string>

#include "fuzz/FuzzSpine.h"
#include "platform/Utf.h"
#include "service/VigilClientTable.h"
#include "service/VigilDispatch.h"
#include "service/VigilProtocol.h"
#include "service/VigilWatchChangeFilter.h"
#include "service/VigilWatchFolderDatabase.h"

namespace vigil_fuzz {

using namespace Vigil::Protocol;

std::string WatchableFolder() {
    const std::filesystem::path tree =
        std::filesystem::temp_directory_path() / "vigil-fuzz-spine-tree";
    std::filesystem::create_directories(tree / "a" / "b");
    std::filesystem::create_directories(tree / "c");
    return tree.string() + "/";
}

void StartScratchService() {
    static bool started = false;
    if (started) return;
    started = true;
    setenv("LC_ALL", "C", 1);
    // One folder per process, so parallel fuzzing jobs do not share a cache file.
    std::filesystem::path root = std::filesystem::temp_directory_path() /
                                 ("vigil-fuzz-spine-" + std::to_string(std::rand()) + "-" +
                                  std::to_string(reinterpret_cast<uintptr_t>(&started) & 0xFFFFFF));
    std::filesystem::create_directories(root / "data");
    std::filesystem::create_directories(root / "w");
    setenv("VIGIL_SYSTEM_ROOT", root.c_str(), 1);
    WatchableFolder();
    Vigil::ResetClientTableForTesting();
    Vigil::InitDispatch();
    Vigil::Watch::ResetProcessDatabaseForTesting();
    Vigil::Watch::ProcessDatabase().open(Osb::Utf8ToUtf16((root / "data/").string()));
    // libFuzzer ends the process with exit(): the database's thread must be stopped before the
    // static objects it uses are destroyed. Those are made here first, so that they go after
    // this handler has run (exit undoes in the reverse order).
    Vigil::Watch::ExcludedNames();
    std::atexit([] {
        Vigil::Watch::ResetProcessDatabaseForTesting();
        Vigil::TermDispatch();
    });
}

std::vector<vigil_test::Reply> DriveOneClient(const uint8_t* data, size_t size) {
    // A driven client stays in the table when it goes (no connection closes it), and the table
    // holds 1,024: each input starts on an empty one.
    Vigil::ResetClientTableForTesting();
    vigil_test::DrivenClient client;
    if (size == 0) return client.take();
    const size_t readBytes = size_t{data[0]} + 1;
    std::vector<uint8_t> stream(data + 1, data + size);
    // Swap the corpus's client id for the real one in every header the cutting would find first;
    // headers past an oversized announcement are left as they are.
    for (size_t at = 0; at + kHeaderBytes <= stream.size();) {
        if (Load32(stream.data() + at + 12) == kCorpusClientId) {
            Store32(stream.data() + at + 12, client.id());
        }
        uint64_t total = uint64_t{Load32(stream.data() + at + 4)} + kHeaderBytes;
        if (total >= kMaxRequestBytes) break;
        at += static_cast<size_t>(total);
    }
    for (size_t at = 0; at < stream.size(); at += readBytes) {
        size_t piece = std::min(readBytes, stream.size() - at);
        client.feed(vigil_test::Bytes(stream.begin() + static_cast<long>(at),
                                      stream.begin() + static_cast<long>(at + piece)));
    }
    return client.take();
}

}  // namespace vigil_fuzz
