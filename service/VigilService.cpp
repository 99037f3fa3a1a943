#include "service/VigilService.h"

#include "platform/SysLog.h"
#include "service/VigilExceptions.h"

namespace Vigil {

std::atomic<Service*> Service::current_{nullptr};

Service::Service(std::u16string pipeName) : pipeName_(std::move(pipeName)) {
    {
        Osb::MutexLock lock(mutex);
        setState(ServiceState::kStopped, 0);
    }
    current_.store(this, std::memory_order_release);
}

Service::~Service() {
    Service* self = this;
    current_.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
}

void Service::setState(ServiceState state, uint32_t exitCode) {
    state_ = StateBit(state);
    exitCode_ = exitCode;
}

uint32_t Service::stateWord() {
    Osb::MutexLock lock(mutex);
    return state_;
}

void Service::pause() {
    Osb::MutexLock lock(mutex);
    if (state_ & StateBit(ServiceState::kPaused)) return;
    setState(ServiceState::kPaused, 0);
    Osb::SysLogEvent(MessageId::kPaused);
}

void Service::resume() {
    Osb::MutexLock lock(mutex);
    if (state_ & StateBit(ServiceState::kRunning)) return;
    const bool stopping = (state_ & StateBit(ServiceState::kStopPending)) != 0;
    if (!stopping) setState(ServiceState::kContinuePending, 0);
    condition.broadcast();
    if (!stopping) setState(ServiceState::kRunning, 0);
    Osb::SysLogEvent(MessageId::kResumed);
}

void Service::waitWhilePaused() {
    Osb::MutexLock lock(mutex);
    while (state_ & StateBit(ServiceState::kPaused)) condition.wait_(mutex, -1);
}

}  // namespace Vigil
