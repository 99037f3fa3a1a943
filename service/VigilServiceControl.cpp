// The state word, the status report and the control handler.
#include <bit>
#include <cstdio>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/SysLog.h"
#include "service/VigilExceptions.h"
#include "service/VigilService.h"

namespace Vigil {

namespace {

constexpr uint32_t kReportWaitHint = 2000;

bool Has(uint32_t word, ServiceState state) { return (word & StateBit(state)) != 0; }

const char* StateLine(uint32_t currentState) {
    switch (currentState) {
        case 1:
            return "STOPPED\n";
        case 2:
            return "START PENDING\n";
        case 3:
            return "STOP PENDING\n";
        case 4:
            return "RUNNING\n";
        default:
            return "INVALID STATE\n";
    }
}

}  // namespace

void Service::setState(ServiceState state, uint32_t exitCode) {
    state_.store(StateBit(state), std::memory_order_release);
    exitCode_.store(exitCode, std::memory_order_release);
}

void Service::setStateAndReport(ServiceState state, uint32_t exitCode, uint32_t waitHint) {
    Osb::MutexLock lock(mutex);
    setState(state, exitCode);
    reportStatus(waitHint);
}

uint32_t Service::stateWord() {
    Osb::MutexLock lock(mutex);
    return state_.load(std::memory_order_acquire);
}

uint32_t Service::exitCode() const { return exitCode_.load(std::memory_order_acquire); }

void Service::reportStatus(uint32_t waitHint) {
    Osb::MutexLock reportLock(reportMutex_);
    const uint32_t word = state_.load(std::memory_order_acquire) & 0xFFFFu;
    if (word != 0) status_.dwCurrentState = static_cast<uint32_t>(std::countr_zero(word));
    status_.dwWin32ExitCode = exitCode_.load(std::memory_order_acquire);
    status_.dwWaitHint = waitHint;
    switch (status_.dwCurrentState) {
        case Osb::SERVICE_START_PENDING:
        case Osb::SERVICE_CONTINUE_PENDING:
            ++status_.dwCheckPoint;
            break;
        case Osb::SERVICE_STOP_PENDING:
        case Osb::SERVICE_PAUSE_PENDING:
            --status_.dwCheckPoint;  // unsigned: from 0 this gives 0xFFFFFFFF
            break;
        default:
            status_.dwCheckPoint = 0;
            status_.dwWin32ExitCode = 0;
            break;
    }
    const ServiceHostCalls calls = HostCalls();
    if (calls.allocConsole() == 1) {
        calls.freeConsole();
        if (!calls.setServiceStatus(statusHandle_.load(std::memory_order_acquire), status_)) {
            throw Osb::ExSystem(Osb::ErrorCode(), OSB_HERE);
        }
        return;
    }
    std::fputs("Vigil State: ", stdout);
    std::fputs(StateLine(status_.dwCurrentState), stdout);
    std::fflush(stdout);
}

uint32_t Service::controlHandler(uint32_t control, uint32_t eventType, void* eventData,
                                 void* context) {
    (void)eventType;
    (void)eventData;
    auto* self = static_cast<Service*>(context);
    try {
        switch (control) {
            case Osb::SERVICE_CONTROL_STOP:
            case Osb::SERVICE_CONTROL_SHUTDOWN: {
                bool wasPaused = false;
                {
                    Osb::MutexLock lock(self->mutex);
                    const uint32_t word = self->state_.load(std::memory_order_acquire);
                    if (Has(word, ServiceState::kStopped) ||
                        Has(word, ServiceState::kStopPending)) {
                        self->reportStatus(kReportWaitHint);
                        return Osb::Err::kSuccess;
                    }
                    wasPaused = Has(word, ServiceState::kPaused);
                    // No report here: the manager learns of the stop from the later STOPPED.
                    self->setState(ServiceState::kStopPending, 0);
                }
                self->announce(ServiceState::kStopPending);
                // Wakes the wait loop and every held client; the state stays STOP_PENDING.
                if (wasPaused) self->resume();
                return Osb::Err::kSuccess;
            }
            // Controls come one at a time, so the state read before and after each step is the
            // one the step found and left, unless a stop came in between; that one is announced
            // by the stop itself.
            case Osb::SERVICE_CONTROL_PAUSE:
                if (Has(self->stateWord(), ServiceState::kRunning)) {
                    self->announce(ServiceState::kPausePending);
                }
                self->pause();
                self->reportStatus(kReportWaitHint);
                if (Has(self->stateWord(), ServiceState::kPaused)) {
                    self->announce(ServiceState::kPaused);
                }
                return Osb::Err::kSuccess;
            case Osb::SERVICE_CONTROL_CONTINUE:
                if (Has(self->stateWord(), ServiceState::kPaused)) {
                    self->announce(ServiceState::kContinuePending);
                }
                self->resume();
                self->reportStatus(kReportWaitHint);
                if (Has(self->stateWord(), ServiceState::kRunning)) {
                    self->announce(ServiceState::kRunning);
                }
                return Osb::Err::kSuccess;
            case Osb::SERVICE_CONTROL_INTERROGATE:
            case Osb::SERVICE_CONTROL_PARAMCHANGE:
                self->reportStatus(kReportWaitHint);
                return Osb::Err::kSuccess;
            default:
                return Osb::Err::kCallNotImplemented;
        }
    } catch (const Osb::ExSystem& e) {
        return e.status();
    }
}

void Service::pause() {
    Osb::MutexLock lock(mutex);
    const uint32_t word = state_.load(std::memory_order_acquire);
    if (Has(word, ServiceState::kPaused)) return;
    // A pause that arrives while a stop is under way gives way to it: replacing STOP_PENDING
    // would lose the stop and hold the wait loop in its pause wait for good.
    if (Has(word, ServiceState::kStopPending) || Has(word, ServiceState::kStopped)) return;
    setState(ServiceState::kPaused, 0);
    Osb::SysLogEvent(MessageId::kPaused);
}

void Service::resume() {
    Osb::MutexLock lock(mutex);
    const uint32_t word = state_.load(std::memory_order_acquire);
    if (Has(word, ServiceState::kRunning)) return;
    const bool stopping = Has(word, ServiceState::kStopPending);
    if (!stopping) setState(ServiceState::kContinuePending, 0);
    condition.broadcast();
    if (!stopping) setState(ServiceState::kRunning, 0);
    Osb::SysLogEvent(MessageId::kResumed);
}

void Service::waitWhilePaused() {
    Osb::MutexLock lock(mutex);
    while (Has(state_.load(std::memory_order_acquire), ServiceState::kPaused)) {
        condition.wait_(mutex, -1);
    }
}

}  // namespace Vigil
