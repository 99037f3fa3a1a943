#include "platform/posix/RotatingLog.h"

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/ErrorCode.h"
#include "platform/posix/FdIo.h"
#include "platform/posix/ServiceFiles.h"

namespace Osb::Scm {

RotatingLog::RotatingLog(std::string path, uint64_t limit, int keep)
    : path_(std::move(path)), limit_(limit), keep_(keep < 1 ? 1 : keep) {}

RotatingLog::~RotatingLog() {
    if (fd_ >= 0) ::close(fd_);
}

uint32_t RotatingLog::open() {
    const int fd = OpenPrivateFile(path_, true);
    if (fd < 0) return ErrorCode();
    struct stat info = {};
    size_ = ::fstat(fd, &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
    return Err::kSuccess;
}

void RotatingLog::write(std::string_view text) {
    while (!text.empty()) {
        const size_t end = text.find('\n');
        if (end == std::string_view::npos) {
            pending_.append(text);
            if (pending_.size() >= kMaxLine) flush();
            return;
        }
        if (pending_.empty()) {
            emit(text.substr(0, end + 1));
        } else {
            pending_.append(text.substr(0, end + 1));
            emit(pending_);
            pending_.clear();
        }
        text.remove_prefix(end + 1);
    }
}

void RotatingLog::flush() {
    if (pending_.empty()) return;
    emit(pending_);
    pending_.clear();
}

void RotatingLog::emit(std::string_view line) {
    // A line longer than the whole limit goes alone into a fresh file rather than being cut.
    if (rotating_ && size_ > 0 && size_ + line.size() > limit_) rotate();
    // A file that could not be made again at the last rotation is tried once more per line.
    if (fd_ < 0 && open() != Err::kSuccess) return;
    // A failed write (a full disk) has nobody to be reported to: this is where reports go.
    if (posix::WriteAll(fd_, line)) size_ += line.size();
}

void RotatingLog::rotate() {
    for (int n = keep_ - 1; n >= 1; --n) {
        ::rename((path_ + "." + std::to_string(n)).c_str(),
                 (path_ + "." + std::to_string(n + 1)).c_str());
    }
    ::rename(path_.c_str(), (path_ + ".1").c_str());
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    size_ = 0;
    open();
}

}  // namespace Osb::Scm
