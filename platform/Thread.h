// Osb::Thread: a joinable thread whose body is the virtual run().
//
// The owner calls begin() once and join() before destroying the object. An exception that leaves
// run() is written to standard error and ends that thread only; the process goes on.
#pragma once

#include <memory>

#include "platform/Apc.h"

namespace Osb {

class Thread {
public:
    Thread();
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Starts run() on a new thread. Raises ExSystem when no thread can be made.
    void begin();
    // Waits for run() to return. Does nothing when the thread was never begun or is joined.
    void join();
    // The new thread's APC queue; valid from begin() on.
    ApcTarget apcTarget() const { return target_; }

protected:
    virtual void run() = 0;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    ApcTarget target_;
};

}  // namespace Osb
