#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "platform/ErrorCode.h"
#include "platform/Utf.h"
#include "tests/support/ScratchRoot.h"

namespace {

namespace Err = Osb::Err;

TEST(ErrorCodeTest, ErrnoValuesMapToTheirWindowsCodes) {
    struct Row {
        int err;
        uint32_t code;
    };
    // The mappings every caller relies on, and the fallback for the rest.
    const Row rows[] = {
        {ENOENT, Err::kFileNotFound},
        {EACCES, Err::kAccessDenied},
        {EPERM, Err::kAccessDenied},
        {EEXIST, Err::kAlreadyExists},
        {ENAMETOOLONG, Err::kFilenameExcedRange},
        {ENOSPC, Err::kDiskFull},
        {EROFS, Err::kWriteProtect},
        {EMFILE, Err::kTooManyOpenFiles},
        {ENOMEM, Err::kNotEnoughMemory},
        {EINVAL, Err::kInvalidParameter},
        {ECONNREFUSED, Err::kFileNotFound},
        {EADDRINUSE, Err::kPipeBusy},
        {EDOM, Err::kGenFailure},
        {99999, Err::kGenFailure},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(Osb::ErrorFromErrno(row.err), row.code) << "errno " << row.err;
        Osb::SetLastError(12345);
        EXPECT_EQ(Osb::SetLastErrorFromErrno(row.err), row.code) << "errno " << row.err;
        EXPECT_EQ(Osb::ErrorCode(), row.code) << "errno " << row.err;
    }
}

TEST(ErrorCodeTest, MissingFileIsTwoAndMissingFolderOnTheWayIsThree) {
    vigil_test::ScratchRoot root;
    std::ofstream(root / "plain-file") << "x";
    struct Row {
        std::string path;
        uint32_t code;
    };
    const Row rows[] = {
        {root / "absent", Err::kFileNotFound},
        {root / "var/lib/absent", Err::kFileNotFound},
        {root / "absent-folder/file", Err::kPathNotFound},
        {root / "absent-folder/deeper/file", Err::kPathNotFound},
        {root / "absent-folder/", Err::kFileNotFound},
        {root / "absent-folder/sub/", Err::kPathNotFound},
        {root / "plain-file/below", Err::kPathNotFound},
        {"relative-name-in-the-working-folder", Err::kFileNotFound},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(Osb::SetLastErrorFromErrno(ENOENT, row.path.c_str()), row.code) << row.path;
        EXPECT_EQ(Osb::ErrorCode(), row.code) << row.path;
    }
    // Recording an error leaves errno alone.
    errno = EINTR;
    Osb::SetLastErrorFromErrno(ENOENT, (root / "absent-folder/file").c_str());
    EXPECT_EQ(errno, EINTR);
    // The path matters for ENOENT only.
    const std::string deep = root / "absent-folder/file";
    EXPECT_EQ(Osb::SetLastErrorFromErrno(EACCES, deep.c_str()), Err::kAccessDenied);
    EXPECT_EQ(Osb::SetLastErrorFromErrno(ENOENT, nullptr), Err::kFileNotFound);
}

TEST(ErrorCodeTest, TextsAreWindowsMessages) {
    Osb::SetLastError(0);
    struct Row {
        uint32_t code;
        std::u16string text;
    };
    const Row rows[] = {
        {Err::kFileNotFound, u"The system cannot find the file specified."},
        {Err::kPathNotFound, u"The system cannot find the path specified."},
        {Err::kAccessDenied, u"Access is denied."},
        {Err::kInvalidParameter, u"The parameter is incorrect."},
        {Err::kInvalidName, u"The filename, directory name, or volume label syntax is incorrect."},
        {Err::kAlreadyExists, u"Cannot create a file when that file already exists."},
        {Err::kFilenameExcedRange, u"The filename or extension is too long."},
        {Err::kPipeBusy, u"All pipe instances are busy."},
        {Err::kServiceDoesNotExist,
         u"The specified service does not exist as an installed service."},
        {Err::kServiceNotActive, u"The service has not been started."},
        {Err::kServiceRequestTimeout,
         u"The service did not respond to the start or control request in a timely fashion."},
        {Err::kCallNotImplemented, u"This function is not supported on this system."},
        {9999, u"Error 9999."},
        {0xE0000A0E, u"Error 3758098958."},
    };
    for (const Row& row : rows) EXPECT_EQ(Osb::ErrorText(row.code), row.text) << row.code;
}

TEST(ErrorCodeTest, TextOfTheLastErrorAddsTheSystemText) {
    Osb::SetLastErrorFromErrno(EACCES);
    const std::u16string system = Osb::Utf8ToUtf16(std::strerror(EACCES));
    EXPECT_EQ(Osb::ErrorText(Err::kAccessDenied), u"Access is denied. (" + system + u")");
    // Another code than the last error's gets its plain text.
    EXPECT_EQ(Osb::ErrorText(Err::kFileNotFound), u"The system cannot find the file specified.");
    // An errno without a code of its own keeps its own text beside the general one.
    Osb::SetLastErrorFromErrno(EDOM);
    EXPECT_EQ(Osb::ErrorText(Err::kGenFailure),
              u"A device attached to the system is not functioning. (" +
                  Osb::Utf8ToUtf16(std::strerror(EDOM)) + u")");
    // A code set directly has no system text.
    Osb::SetLastError(Err::kAccessDenied);
    EXPECT_EQ(Osb::ErrorText(Err::kAccessDenied), u"Access is denied.");
}

TEST(ErrorCodeTest, LastErrorBelongsToEachThread) {
    Osb::SetLastErrorFromErrno(EACCES);
    uint32_t seenAtStart = 12345;
    uint32_t seenAfterSet = 12345;
    std::u16string textInThread;
    std::thread other([&] {
        seenAtStart = Osb::ErrorCode();
        Osb::SetLastErrorFromErrno(EEXIST);
        seenAfterSet = Osb::ErrorCode();
        textInThread = Osb::ErrorText(Err::kAccessDenied);
    });
    other.join();
    EXPECT_EQ(seenAtStart, Err::kSuccess);
    EXPECT_EQ(seenAfterSet, Err::kAlreadyExists);
    // The other thread's last error is 183, so 5 has no system text there.
    EXPECT_EQ(textInThread, u"Access is denied.");
    EXPECT_EQ(Osb::ErrorCode(), Err::kAccessDenied);
}

}  // namespace
