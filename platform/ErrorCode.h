// Windows error codes on every platform.
//
// Every failure the program reports carries a Windows error code, so that its logic, exit codes
// and tests are the same everywhere. A backend records the code of a failed call in the calling
// thread's last-error slot in the same statement as the call (SetLastErrorFromErrno), and the
// program reads it with ErrorCode(), as it would read GetLastError().
#pragma once

#include <cstdint>
#include <string>

namespace Osb {

// Codes the program and its platform layer name. The values are Windows' own.
namespace Err {
constexpr uint32_t kSuccess = 0;
constexpr uint32_t kFileNotFound = 2;
constexpr uint32_t kPathNotFound = 3;
constexpr uint32_t kTooManyOpenFiles = 4;
constexpr uint32_t kAccessDenied = 5;
constexpr uint32_t kInvalidHandle = 6;
constexpr uint32_t kNotEnoughMemory = 8;
constexpr uint32_t kNotSameDevice = 17;
constexpr uint32_t kWriteProtect = 19;
constexpr uint32_t kNotReady = 21;
constexpr uint32_t kGenFailure = 31;
constexpr uint32_t kNotSupported = 50;
constexpr uint32_t kInvalidParameter = 87;
constexpr uint32_t kBrokenPipe = 109;
constexpr uint32_t kDiskFull = 112;
constexpr uint32_t kCallNotImplemented = 120;
constexpr uint32_t kInsufficientBuffer = 122;
constexpr uint32_t kInvalidName = 123;
constexpr uint32_t kDirNotEmpty = 145;
constexpr uint32_t kBadArguments = 160;
constexpr uint32_t kBadPathname = 161;
constexpr uint32_t kBusy = 170;
constexpr uint32_t kAlreadyExists = 183;
constexpr uint32_t kFilenameExcedRange = 206;
constexpr uint32_t kFileTooLarge = 223;
constexpr uint32_t kPipeBusy = 231;
constexpr uint32_t kNoData = 232;
constexpr uint32_t kDirectory = 267;
constexpr uint32_t kOperationAborted = 995;
constexpr uint32_t kInvalidServiceControl = 1052;
constexpr uint32_t kServiceRequestTimeout = 1053;
constexpr uint32_t kServiceAlreadyRunning = 1056;
constexpr uint32_t kInvalidServiceAccount = 1057;
constexpr uint32_t kServiceDisabled = 1058;
constexpr uint32_t kServiceDoesNotExist = 1060;
constexpr uint32_t kServiceCannotAcceptCtrl = 1061;
constexpr uint32_t kServiceNotActive = 1062;
constexpr uint32_t kFailedServiceControllerConnect = 1063;
constexpr uint32_t kExceptionInService = 1064;
constexpr uint32_t kProcessAborted = 1067;
constexpr uint32_t kServiceDependencyFail = 1068;
constexpr uint32_t kServiceMarkedForDelete = 1072;
constexpr uint32_t kServiceExists = 1073;
constexpr uint32_t kServiceDependencyDeleted = 1075;
constexpr uint32_t kIoDevice = 1117;
constexpr uint32_t kTimeout = 1460;
constexpr uint32_t kNotEnoughQuota = 1816;
constexpr uint32_t kCantResolveFilename = 1921;
}  // namespace Err

// The calling thread's last error code.
uint32_t ErrorCode();

// Sets the calling thread's last error code (and forgets any system text kept with it).
void SetLastError(uint32_t code);

// Translates `err` (an errno value) to its Windows code and records both as the calling thread's
// last error; returns the code. ENOENT gives 3 instead of 2 when `path` is given and its parent
// folder is missing.
uint32_t SetLastErrorFromErrno(int err, const char* path = nullptr);

// The Windows code of an errno value, without recording it. One table serves the whole backend.
uint32_t ErrorFromErrno(int err);

// A readable text for `code`: Windows' message for it, and, when `code` is the calling thread's
// last error and came from errno, the system's own text in parentheses.
std::u16string ErrorText(uint32_t code);

}  // namespace Osb
