#include "service/VigilDataFolder.h"

#include "platform/Directory.h"
#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/FileSystem.h"
#include "platform/KnownFolder.h"

namespace Vigil {

namespace {

constexpr char16_t kSeparator = u'/';

}  // namespace

DataFolderCalls DataFolderCalls::system() {
    return {
        [](std::u16string& path) {
            return Osb::SHGetFolderPathW(Osb::kCsidlCommonAppData, Osb::kShgfpTypeDefault, path);
        },
        [](const std::u16string& path) { return Osb::PathExists(path); },
        [](const std::u16string& path) { return Osb::CreateDirectoryW(path); },
    };
}

std::u16string DataFolderTail() { return u"/Orvanta/Mirelle Studio/File Agent/"; }

std::u16string DataFolderWith(const DataFolderCalls& calls) {
    std::u16string systemFolder;
    const uint32_t result = calls.getFolderPath(systemFolder);
    if (result != Osb::kSOk) {
        const bool missing = result == Osb::kSFalse || result == Osb::kEFail;
        throw Osb::ExSystem(missing ? Osb::Err::kBadPathname : Osb::Err::kBadArguments, OSB_HERE);
    }
    const std::u16string folder = systemFolder + DataFolderTail();
    // An existing path counts as usable whatever its rights; opening the cache will tell.
    if (calls.exists(folder)) return folder;

    std::u16string built = systemFolder;
    std::u16string rest = DataFolderTail();
    for (;;) {
        // From the second character on: the rest starts with the separator of its level.
        const size_t next = rest.find(kSeparator, 1);
        if (next == std::u16string::npos) break;
        built += rest.substr(0, next);
        rest.erase(0, next);
        if (!calls.createDirectory(built)) {
            const uint32_t code = Osb::ErrorCode();
            if (code != Osb::Err::kAlreadyExists && code != Osb::Err::kInvalidName) {
                throw Osb::ExSystem(code, OSB_HERE);
            }
        }
    }
    return folder;
}

}  // namespace Vigil
