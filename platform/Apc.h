// Asynchronous procedure calls: work queued to one particular thread, run by that thread the next
// time it enters an alertable wait (CondVar::wait_, or SleepEx with alertable set).
//
// This is how completions reach the thread that owns an operation: a backend thread queues the
// completion routine, and the owning thread runs it inside its wait, with its own locks released.
#pragma once

#include <functional>
#include <memory>

namespace Osb {

namespace detail {
struct ThreadParker;
}

// Names a thread's APC queue. Copyable; it stays valid after its thread has ended, and calls queued
// then are refused.
class ApcTarget {
public:
    ApcTarget() = default;
    explicit ApcTarget(std::shared_ptr<detail::ThreadParker> parker) : parker_(std::move(parker)) {}
    bool valid() const { return parker_ != nullptr; }
    detail::ThreadParker* parker() const { return parker_.get(); }

private:
    std::shared_ptr<detail::ThreadParker> parker_;
};

// The calling thread's own queue.
ApcTarget CurrentApcTarget();

// Queues `routine` to the target thread and wakes it if it is in an alertable wait. Returns false,
// and drops the routine, when the target has ended or is invalid. Callable from any thread.
bool QueueApc(const ApcTarget& target, std::function<void()> routine);

}  // namespace Osb
