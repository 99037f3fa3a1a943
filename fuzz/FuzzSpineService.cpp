#include <cstdlib>
#include <memory>
#include <filesystem>
#include <string>

#include "fuzz/FuzzSpine.h"
#include "platform/Utf.h"
#include "service/VigilClientTable.h"
#include "service/VigilDispatch.h"
#include "service/VigilProtocol.h"
#include "service/VigilReceive.h"
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

namespace {

// Inputs between two fresh starts of the watch database. The database outlives an input: the
// folders one adds stay watched, and whatever changes in them (the machine's other programs write
// there too) piles up under GUIDs nobody collects, as for a client that never comes back. Over an
// hour that is gigabytes, which says nothing about the code; a fresh start now and then bounds it
// and costs about a millisecond.
constexpr unsigned kInputsPerDatabase = 256;

std::u16string& DataFolder() {
    static std::u16string folder;
    return folder;
}

void RestartDatabaseNowAndThen() {
    static unsigned inputs = 0;
    if (++inputs % kInputsPerDatabase != 0) return;
    Vigil::Watch::ResetProcessDatabaseForTesting();
    // Without its cache file, or the new database would watch the same folders again.
    const std::filesystem::path data(Osb::Utf16ToUtf8(DataFolder()));
    for (const auto& entry : std::filesystem::directory_iterator(data)) {
        std::filesystem::remove_all(entry.path());
    }
    Vigil::Watch::ProcessDatabase().open(DataFolder());
}

}  // namespace

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
    DataFolder() = Osb::Utf8ToUtf16((root / "data/").string());
    Vigil::Watch::ProcessDatabase().open(DataFolder());
    // libFuzzer ends the process with exit(): the database's thread must be stopped before the
    // static objects it uses are destroyed. Those are made here first, so that they go after
    // this handler has run (exit undoes in the reverse order).
    Vigil::Watch::ExcludedNames();
    std::atexit([] {
        Vigil::Watch::ResetProcessDatabaseForTesting();
        Vigil::TermDispatch();
    });
}

std::vector<vigil_test::Reply> DriveOneClient(const uint8_t* data, size_t size,
                                              size_t* messages) {
    // A driven client stays in the table when it goes (no connection closes it), and the table
    // holds 1,024: each input starts on an empty one.
    Vigil::ResetClientTableForTesting();
    RestartDatabaseNowAndThen();
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
    // An oversized announcement takes what has arrived, so the count depends on where reads end:
    // the shadow is fed the same pieces.
    auto shadow = std::make_unique<Vigil::ReceiveBuffer>();
    size_t cut = 0;
    for (size_t at = 0; at < stream.size(); at += readBytes) {
        size_t piece = std::min(readBytes, stream.size() - at);
        vigil_test::Bytes read(stream.begin() + static_cast<long>(at),
                               stream.begin() + static_cast<long>(at + piece));
        Vigil::ReceiveBytes(*shadow, read.data(), static_cast<uint32_t>(read.size()),
                            [&](const uint8_t*, uint32_t) { ++cut; });
        client.feed(read);
    }
    if (messages != nullptr) *messages = cut;
    return client.take();
}

}  // namespace vigil_fuzz
