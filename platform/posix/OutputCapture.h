// The standard output and error of a service process, kept in a log that rotates (RotatingLog).
// The process owns its descriptors 1 and 2, so it is the process that bounds its own log: while a
// capture lasts, 1 and 2 are a pipe, and a thread of the capture copies what arrives, line by line,
// into the log. Nothing else in the process writes the log meanwhile.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "platform/Mutex.h"
#include "platform/posix/RotatingLog.h"

namespace Osb::Scm {

// The service's log rotates at this size and keeps this many older files (NAME.log.1 .. .3).
constexpr uint64_t kServiceLogLimit = 10 * 1024 * 1024;
constexpr int kServiceLogKeep = 3;

class OutputCapture {
public:
    OutputCapture() = default;
    ~OutputCapture() { end(); }
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    // Opens the log at `path` and points descriptors 1 and 2 at the capture's pipe. Returns 0, or
    // a Windows code with 1 and 2 left as they were.
    uint32_t begin(const std::string& path, uint64_t limit, int keep);
    // Writes out what the pipe still holds, ends the thread and points 1 and 2 at the log's
    // current file: later output is appended to it directly, without rotation. Nothing written
    // before or during the hand-over is lost. Does nothing without a begin().
    void end();

private:
    void copy();

    // Lock order: `mutex_` is a leaf. The copying thread holds it while it writes to `log_`;
    // end() takes it once the thread is joined, to hand the current file over.
    Mutex mutex_;
    std::unique_ptr<RotatingLog> log_ OSB_PT_GUARDED_BY(mutex_);  // made by begin()
    int readEnd_ = -1;   // the copying thread's; closed by end() after the join
    int writeEnd_ = -1;  // kept open until end(), so that the pipe ends only then
    std::thread thread_;  // runs copy(); joined by end()
};

}  // namespace Osb::Scm
