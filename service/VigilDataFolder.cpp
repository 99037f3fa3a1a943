#include "service/VigilDataFolder.h"

#include "platform/Directory.h"
#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/FileSystem.h"
#include "platform/KnownFolder.h"

namespace Vigil {

namespace {

constexpr char16_t kSeparator = u'/';

void createLevels(const DataFolderCalls& calls, const std::u16string& systemFolder) {
    std::u16string built = systemFolder;
    std::u16string rest = DataFolderTail();
    for (;;) {
        // From the second character on: the rest starts with the separator of its level.
        const size_t next = rest.find(kSeparator, 1);
        if (next == std::u16string::npos) break;
        built += rest.substr(0, next);
        rest.erase(0, next);
        // What is left is the closing separator alone once the data folder itself is built.
        const bool last = rest.size() == 1;
        if (!(last ? calls.createPrivateDirectory : calls.createDirectory)(built)) {
            const uint32_t code = Osb::ErrorCode();
            if (code != Osb::Err::kAlreadyExists && code != Osb::Err::kInvalidName) {
                throw Osb::ExSystem(code, OSB_HERE);
            }
        }
    }
}

}  // namespace

DataFolderCalls DataFolderCalls::system() {
    return {
        [](std::u16string& path) {
            return Osb::SHGetFolderPathW(Osb::kCsidlCommonAppData, Osb::kShgfpTypeDefault, path);
        },
        [](const std::u16string& path) { return Osb::PathExists(path); },
        [](const std::u16string& path) { return Osb::CreateDirectoryW(path); },
        [](const std::u16string& path) { return Osb::CreatePrivateDirectory(path); },
        [](const std::u16string& path) { return Osb::MakeFolderPrivate(path); },
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
    if (!calls.exists(folder)) createLevels(calls, systemFolder);
    // Checked whether it was found or made: a level that already existed may be anybody's.
    if (const uint32_t code = calls.makePrivate(folder)) {
        Osb::ExSystem failure(code, OSB_HERE);
        failure.addReason(Osb::ExReason(
            u"The data folder " + folder +
                u" must be a folder of the service's own user, not a symbolic link; the service "
                u"does not use it.",
            OSB_HERE));
        throw failure;
    }
    return folder;
}

}  // namespace Vigil
