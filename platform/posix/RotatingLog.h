// A log file that does not grow past its limit: when the next line would carry PATH past it, PATH
// becomes PATH.1, PATH.1 becomes PATH.2 and so on up to PATH.<keep>, the oldest is dropped, and a
// new PATH begins. A file changes only between lines, so no line is ever split across two files,
// and every line that arrives lands in exactly one of them. Files are made 0600 (see
// OpenPrivateFile). One thread uses an object at a time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Osb::Scm {

class RotatingLog {
public:
    // A line that has no end after this many bytes is written as it stands, so that output without
    // line feeds cannot hold memory without limit.
    static constexpr size_t kMaxLine = 64 * 1024;

    RotatingLog(std::string path, uint64_t limit, int keep);
    ~RotatingLog();
    RotatingLog(const RotatingLog&) = delete;
    RotatingLog& operator=(const RotatingLog&) = delete;

    // Opens PATH for appending, creating it when missing. Returns 0 or a Windows code.
    uint32_t open();
    // Appends `text`. Whole lines go out at once; a piece after the last line feed waits for the
    // rest of its line (or for flush).
    void write(std::string_view text);
    // Writes a waiting piece of a line as it is.
    void flush();
    // From here on PATH is kept, whatever its size: for a hand-over of the file to other writers.
    void stopRotating() { rotating_ = false; }
    // The descriptor of the current PATH, -1 before open(); it changes at a rotation.
    int fd() const { return fd_; }

private:
    void emit(std::string_view line);
    void rotate();

    std::string path_;
    uint64_t limit_;
    int keep_;
    int fd_ = -1;
    uint64_t size_ = 0;
    bool rotating_ = true;
    std::string pending_;  // the start of a line whose end has not come yet
};

}  // namespace Osb::Scm
