#include "platform/ErrorCode.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/Utf.h"

namespace Osb {

namespace {

// The calling thread's last error, and the errno it came from (0 when it was set directly).
struct LastError {
    uint32_t code = 0;
    int fromErrno = 0;
};
thread_local LastError lastError;

// True when the folder that would hold `path` does not exist. Windows tells a missing file (2)
// from a missing folder on the way to it (3); ENOENT covers both.
bool ParentMissing(const char* path) {
    std::string p(path);
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    const auto slash = p.rfind('/');
    if (slash == std::string::npos) return false;  // relative to the working folder, which exists
    const std::string parent = slash == 0 ? "/" : p.substr(0, slash);
    struct stat st;
    return ::stat(parent.c_str(), &st) != 0 || !S_ISDIR(st.st_mode);
}

// glibc gives the GNU strerror_r (returning the text) unless the XSI one is asked for (returning
// an int and filling the buffer); these two overloads accept either.
[[maybe_unused]] const char* StrerrorResult(const char* text, const char*) { return text; }
[[maybe_unused]] const char* StrerrorResult(int, const char* buffer) { return buffer; }

std::string SystemText(int err) {
    char buffer[256] = {};
    return StrerrorResult(::strerror_r(err, buffer, sizeof(buffer)), buffer);
}

// Windows' own English message texts (FormatMessage, system table).
const char* WindowsText(uint32_t code) {
    switch (code) {
        case Err::kSuccess:
            return "The operation completed successfully.";
        case 1:
            return "Incorrect function.";
        case Err::kFileNotFound:
            return "The system cannot find the file specified.";
        case Err::kPathNotFound:
            return "The system cannot find the path specified.";
        case Err::kTooManyOpenFiles:
            return "The system cannot open the file.";
        case Err::kAccessDenied:
            return "Access is denied.";
        case Err::kInvalidHandle:
            return "The handle is invalid.";
        case Err::kNotEnoughMemory:
            return "Not enough memory resources are available to process this command.";
        case Err::kNotSameDevice:
            return "The system cannot move the file to a different disk drive.";
        case Err::kWriteProtect:
            return "The media is write protected.";
        case Err::kNotReady:
            return "The device is not ready.";
        case Err::kGenFailure:
            return "A device attached to the system is not functioning.";
        case Err::kNotSupported:
            return "The request is not supported.";
        case Err::kInvalidParameter:
            return "The parameter is incorrect.";
        case Err::kBrokenPipe:
            return "The pipe has been ended.";
        case Err::kDiskFull:
            return "There is not enough space on the disk.";
        case Err::kCallNotImplemented:
            return "This function is not supported on this system.";
        case Err::kInsufficientBuffer:
            return "The data area passed to a system call is too small.";
        case Err::kInvalidName:
            return "The filename, directory name, or volume label syntax is incorrect.";
        case Err::kDirNotEmpty:
            return "The directory is not empty.";
        case Err::kBadArguments:
            return "One or more arguments are not correct.";
        case Err::kBadPathname:
            return "The specified path is invalid.";
        case Err::kBusy:
            return "The requested resource is in use.";
        case Err::kAlreadyExists:
            return "Cannot create a file when that file already exists.";
        case Err::kFilenameExcedRange:
            return "The filename or extension is too long.";
        case Err::kFileTooLarge:
            return "The file size exceeds the limit allowed and cannot be saved.";
        case Err::kPipeBusy:
            return "All pipe instances are busy.";
        case Err::kNoData:
            return "The pipe is being closed.";
        case 234:
            return "More data is available.";  // ERROR_MORE_DATA, the registry's
        case Err::kDirectory:
            return "The directory name is invalid.";
        case Err::kOperationAborted:
            return "The I/O operation has been aborted because of either a thread exit or an "
                   "application request.";
        case Err::kInvalidServiceControl:
            return "The requested control is not valid for this service.";
        case Err::kServiceRequestTimeout:
            return "The service did not respond to the start or control request in a timely "
                   "fashion.";
        case Err::kServiceAlreadyRunning:
            return "An instance of the service is already running.";
        case Err::kInvalidServiceAccount:
            return "The account name is invalid or does not exist, or the password is invalid for "
                   "the account name specified.";
        case Err::kServiceDisabled:
            return "The service cannot be started, either because it is disabled or because it has "
                   "no enabled devices associated with it.";
        case Err::kServiceDoesNotExist:
            return "The specified service does not exist as an installed service.";
        case Err::kServiceCannotAcceptCtrl:
            return "The service cannot accept control messages at this time.";
        case Err::kServiceNotActive:
            return "The service has not been started.";
        case Err::kFailedServiceControllerConnect:
            return "The service process could not connect to the service controller.";
        case Err::kExceptionInService:
            return "An exception occurred in the service when handling the control request.";
        case Err::kProcessAborted:
            return "The process terminated unexpectedly.";
        case Err::kServiceDependencyFail:
            return "The dependency service or group failed to start.";
        case Err::kServiceMarkedForDelete:
            return "The specified service has been marked for deletion.";
        case Err::kServiceExists:
            return "The specified service already exists.";
        case Err::kServiceDependencyDeleted:
            return "The dependency service does not exist or has been marked for deletion.";
        case Err::kIoDevice:
            return "The request could not be performed because of an I/O device error.";
        case Err::kTimeout:
            return "This operation returned because the timeout period expired.";
        case Err::kNotEnoughQuota:
            return "Not enough quota is available to process this command.";
        case Err::kCantResolveFilename:
            return "The name of the file cannot be resolved by the system.";
        default:
            return nullptr;
    }
}

}  // namespace

uint32_t ErrorFromErrno(int err) {
    switch (err) {
        case 0:
            return Err::kSuccess;
        case ENOENT:
            return Err::kFileNotFound;
        case ENOTDIR:
            return Err::kPathNotFound;
        case EACCES:
        case EPERM:
        case EISDIR:
            return Err::kAccessDenied;
        case EEXIST:
            return Err::kAlreadyExists;
        case ENAMETOOLONG:
            return Err::kFilenameExcedRange;
        case ENOSPC:
            return Err::kDiskFull;
        case EROFS:
            return Err::kWriteProtect;
        case EMFILE:
        case ENFILE:
            return Err::kTooManyOpenFiles;
        case ENOMEM:
            return Err::kNotEnoughMemory;
        case EINVAL:
            return Err::kInvalidParameter;
        case EBUSY:
            return Err::kBusy;
        case ENOTEMPTY:
            return Err::kDirNotEmpty;
        case EPIPE:
            return Err::kNoData;
        case ECONNRESET:
            return Err::kBrokenPipe;
        // Connecting to a socket file that nobody listens on is Windows' "no such pipe".
        case ECONNREFUSED:
            return Err::kFileNotFound;
        case EADDRINUSE:
            return Err::kPipeBusy;
        case EBADF:
            return Err::kInvalidHandle;
        case EXDEV:
            return Err::kNotSameDevice;
        case EIO:
            return Err::kIoDevice;
        case ETIMEDOUT:
            return Err::kTimeout;
        case ENOSYS:
        case EOPNOTSUPP:
            return Err::kNotSupported;
        case EFBIG:
            return Err::kFileTooLarge;
        case ELOOP:
            return Err::kCantResolveFilename;
        case ENODEV:
        case ENXIO:
            return Err::kNotReady;
        case ECANCELED:
            return Err::kOperationAborted;
        default:
            return Err::kGenFailure;
    }
}

uint32_t ErrorCode() { return lastError.code; }

void SetLastError(uint32_t code) { lastError = LastError{code, 0}; }

uint32_t SetLastErrorFromErrno(int err, const char* path) {
    // The caller may still look at errno after this; the stat below must not change it.
    const int saved = errno;
    uint32_t code = ErrorFromErrno(err);
    if (err == ENOENT && path != nullptr && ParentMissing(path)) code = Err::kPathNotFound;
    lastError = LastError{code, err};
    errno = saved;
    return code;
}

std::u16string ErrorText(uint32_t code) {
    const char* text = WindowsText(code);
    std::string out = text != nullptr ? text : "Error " + std::to_string(code) + ".";
    if (lastError.code == code && lastError.fromErrno != 0) {
        out += " (" + SystemText(lastError.fromErrno) + ")";
    }
    return Utf8ToUtf16(out);
}

}  // namespace Osb
