// The run role: service mode or console mode, the start and stop order, and the failure rule.
#include <cstdio>
#include <typeinfo>

#include "platform/Console.h"
#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/IoDevicePipeServer.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "platform/ServiceNotify.h"
#include "platform/Sleep.h"
#include "platform/SysLog.h"
#include "service/VigilClientAccept.h"
#include "service/VigilClientTable.h"
#include "service/VigilDispatch.h"
#include "service/VigilExceptions.h"
#include "service/VigilService.h"
#include "service/VigilWatchFolderDatabase.h"

namespace Vigil {

namespace {

constexpr uint32_t kReportWaitHint = 2000;
constexpr uint32_t kWaitLoopSleepMs = 1000;
// Every this many turns of the wait loop (each about a second), the working set is given back
// again when clients have left since the last time. Connections that come and go leave the heap's free space scattered
// between the arenas of the delivery threads, where the C library keeps it: under steady turnover
// the resident size grew by a tenth and more in half a minute while the live memory stayed flat.
// An idle service, with nobody coming or going, still does no work in its loop.
constexpr uint32_t kTrimEveryLoops = 1;

// Ids from 0xE report errors; a system error is followed by an event whose id is its code.
void LogFailure(const Osb::Exception& failure) {
    if (const auto* system = dynamic_cast<const Osb::ExSystem*>(&failure)) {
        Osb::SysLogEvent(MessageId::kSystemError);
        Osb::SysLogEvent(system->status());
        return;
    }
    const std::u16string text = failure.depth() > 0 ? failure.reason(0).what() : u"";
    Osb::SysLogEvent(MessageId::kUnexpectedException, {text});
}

// What the manager hears after a failure: the exception's system code, or 1064 for any other.
uint32_t FailureCode(const Osb::Exception& failure) {
    if (const auto* system = dynamic_cast<const Osb::ExSystem*>(&failure)) return system->status();
    return kErrorExceptionInService;
}

// Console mode: SIGINT and SIGTERM are the stop control. Runs on the console's signal thread.
bool OnConsoleStop(uint32_t ctrlType) {
    (void)ctrlType;
    if (Service* service = Service::instance()) {
        Service::controlHandler(Osb::SERVICE_CONTROL_STOP, 0, nullptr, service);
    }
    return true;
}

// What the start has brought up, taken down in the order of the stop. Used by the normal stop and
// by a failed start alike, so that a failure never leaves the watch thread or the pipe running.
class StartedSteps {
  public:
    ~StartedSteps() { takeDown(); }

    void takeDown() noexcept {
        if (databaseOpen) {
            databaseOpen = false;
            try {
                Watch::ProcessDatabase().close();
            } catch (const Osb::Exception&) {
                // The stop goes on: a close that fails still leaves nothing to release here.
            }
        }
        if (dispatchUp) {
            dispatchUp = false;
            TermDispatch();
        }
        server.reset();
        accept.reset();
    }

    bool dispatchUp = false;
    bool databaseOpen = false;
    Osb::SmartPointer<ClientAccept> accept;
    Osb::SmartPointer<Osb::IoDevicePipeServer> server;
};

}  // namespace

int Service::execute() {
    const ServiceHostCalls calls = HostCalls();
    const bool console = calls.allocConsole() != 1;
    if (!console) calls.freeConsole();

    Osb::Config config;
    config.applicationName = kEventSource;
    config.modulePath = modulePath_;
    config.serving = true;
    if (console) config.interactive = true;
    Osb::PlatformInit(config);

    if (console) {
        try {
            std::fputs("Vigil Startup ...\n", stdout);
            std::fflush(stdout);
            Osb::ConsoleStopHandler stopHandler(&OnConsoleStop);
            run();
            std::fputs("Vigil Shutdown ...\n", stdout);
            std::fflush(stdout);
        } catch (...) {
            try {
                throw;
            } catch (const Osb::Exception& failure) {
                LogFailure(failure);
            } catch (...) {
                // Not of the program's family: main reports it; nothing to log here.
            }
            // The platform comes down before main sees the exception, so that the process never
            // ends with the platform's delivery threads still running.
            Osb::PlatformUninit();
            throw;
        }
    } else {
        try {
            const Osb::SERVICE_TABLE_ENTRY table[] = {
                {kServiceName.c_str(), &Service::ServiceMain},
                {nullptr, nullptr},
            };
            // A failure here is silent under the own manager: the process ends as after a normal
            // run. systemd waits for a READY=1 that will not come: it hears why, and the process
            // leaves with the code.
            if (!Osb::StartServiceCtrlDispatcherW(table) && Osb::ServiceNotifyWanted()) {
                const uint32_t code = Osb::ErrorCode();
                {
                    Osb::MutexLock lock(mutex);
                    setState(ServiceState::kStopped, code);
                }
                announce(ServiceState::kStopped, false, code);
            }
        } catch (const Osb::Exception& failure) {
            LogFailure(failure);
        }
        // The STOPPED report comes before the service thread closes the database and the pipe;
        // the platform and this object must outlive that, whenever the dispatcher returns.
        waitForServiceThread();
    }
    Osb::PlatformUninit();
    return 0;
}

void Service::ServiceMain(uint32_t argc, char16_t** argv) {
    (void)argc;
    (void)argv;
    Service* self = instance();
    if (self == nullptr) return;
    {
        Osb::MutexLock lock(self->mutex);
        self->serviceThreadEntered_ = true;
    }
    const Osb::SERVICE_STATUS_HANDLE handle =
        Osb::RegisterServiceCtrlHandlerExW(kServiceName, &Service::controlHandler, self);
    if (handle != Osb::SERVICE_STATUS_HANDLE{}) {
        self->statusHandle_.store(handle, std::memory_order_release);
        try {
            self->run();
        } catch (const Osb::Exception& failure) {
            LogFailure(failure);
            self->reportFailureToManager(FailureCode(failure));
        } catch (const std::exception& failure) {
            const std::string what = failure.what();
            Osb::SysLogEvent(MessageId::kUnexpectedException,
                             {std::u16string(what.begin(), what.end())});
            self->reportFailureToManager(kErrorExceptionInService);
        }
    }
    self->markServiceThreadDone();
}

int Service::run() {
    StartedSteps steps;
    InitDispatch();
    steps.dispatchUp = true;
    const std::u16string folder = dataFolder();
    Watch::ProcessDatabase().open(folder);
    steps.databaseOpen = true;
    steps.accept = Osb::MakeSmart<ClientAccept>();
    steps.server = Osb::IoDevicePipeServer::Create(pipeName_, steps.accept);

    // A stop that came in during the start (a console Ctrl+C) is kept: the two start reports
    // would otherwise overwrite it and the service would run on.
    // The pipe accepts clients from here on, so RUNNING is also the moment to say ready.
    for (ServiceState next : {ServiceState::kStartPending, ServiceState::kRunning}) {
        {
            Osb::MutexLock lock(mutex);
            if (state_.load(std::memory_order_acquire) & StateBit(ServiceState::kStopPending)) {
                break;
            }
            setState(next, 0);
            reportStatus(kReportWaitHint);
        }
        announce(next, next == ServiceState::kRunning);
    }
    Osb::SysLogEvent(MessageId::kStarted);
    if (!Osb::SetProcessWorkingSetSize(Osb::GetCurrentProcess(), static_cast<size_t>(-1),
                                       static_cast<size_t>(-1))) {
        throw Osb::ExSystem(Osb::ErrorCode(), OSB_HERE);
    }

    const uint32_t stopBit = StateBit(ServiceState::kStopPending);
    uint64_t leftAtTrim = ClientsLeftSoFar();
    uint32_t loops = 0;
    if ((state_.load(std::memory_order_acquire) & stopBit) == 0) {
        do {
            if (++loops % kTrimEveryLoops == 0 && ClientsLeftSoFar() != leftAtTrim) {
                leftAtTrim = ClientsLeftSoFar();
                // Only the current process can be named here, and trimming it cannot fail.
                Osb::SetProcessWorkingSetSize(Osb::GetCurrentProcess(), static_cast<size_t>(-1),
                                              static_cast<size_t>(-1));
            }
            {
                Osb::MutexLock lock(mutex);
                while (state_.load(std::memory_order_acquire) & StateBit(ServiceState::kPaused)) {
                    condition.wait_(mutex, -1);
                }
            }
            // The one alertable wait of the host: the pipe server's thread gets its moment here.
            Osb::SleepEx(kWaitLoopSleepMs, true);
        } while ((state_.load(std::memory_order_acquire) & stopBit) == 0);
    }

    setStateAndReport(ServiceState::kStopped, 0, kReportWaitHint);
    announce(ServiceState::kStopped);
    Osb::SysLogEvent(MessageId::kStopped);
    steps.takeDown();
    return 0;
}

void Service::reportFailureToManager(uint32_t code) {
    {
        Osb::MutexLock lock(mutex);
        setState(ServiceState::kStopped, code);
    }
    announce(ServiceState::kStopped, false, code);
    // Sent directly: reportStatus would zero the exit code of STOPPED, and this is the one report
    // that must carry it.
    Osb::MutexLock reportLock(reportMutex_);
    status_.dwCurrentState = Osb::SERVICE_STOPPED;
    status_.dwWin32ExitCode = code;
    status_.dwCheckPoint = 0;
    status_.dwWaitHint = 0;
    const ServiceHostCalls calls = HostCalls();
    if (calls.allocConsole() == 1) {
        calls.freeConsole();
        calls.setServiceStatus(statusHandle_.load(std::memory_order_acquire),
                               status_);  // the failure is logged already
    }
}

void Service::markServiceThreadDone() {
    Osb::MutexLock lock(mutex);
    serviceThreadDone_ = true;
    condition.broadcast();
}

void Service::waitForServiceThread() {
    Osb::MutexLock lock(mutex);
    while (serviceThreadEntered_ && !serviceThreadDone_) condition.wait_(mutex, -1);
}

}  // namespace Vigil
