#include "service/VigilService.h"

#include "platform/Console.h"
#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/ModulePath.h"
#include "service/VigilDataFolder.h"
#include "service/VigilServiceConfiguration.h"

namespace Vigil {

const std::u16string kServiceName = u"OrvantaVigilWatch14.0";
const std::u16string kEventSource = u"Orvanta Vigil Watch 14.0";

namespace {

// The module path is read into a buffer of this many units, of which one is kept for the end.
constexpr uint32_t kModulePathBuffer = 2048;

Osb::Mutex hostCallsMutex;
ServiceHostCalls hostCalls OSB_GUARDED_BY(hostCallsMutex) = ServiceHostCalls::system();

}  // namespace

std::atomic<Service*> Service::current_{nullptr};

ServiceHostCalls ServiceHostCalls::system() {
    return {
        [] { return Osb::AllocConsole(); },
        [] { return Osb::FreeConsole(); },
        [](Osb::SERVICE_STATUS_HANDLE handle, const Osb::SERVICE_STATUS& status) {
            return Osb::SetServiceStatus(handle, status);
        },
    };
}

ServiceHostCalls HostCalls() {
    Osb::MutexLock lock(hostCallsMutex);
    return hostCalls;
}

ServiceHostCalls Service::setHostCallsForTesting(const ServiceHostCalls& calls) {
    Osb::MutexLock lock(hostCallsMutex);
    const ServiceHostCalls previous = hostCalls;
    hostCalls = calls;
    return previous;
}

Service::Service(std::u16string pipeName) : pipeName_(std::move(pipeName)) {
    {
        Osb::MutexLock lock(mutex);
        setState(ServiceState::kStopped, 0);
    }
    current_.store(this, std::memory_order_release);

    try {
        // A longer path comes back cut to the buffer's size less the terminator.
        std::u16string path(kModulePathBuffer, u'\0');
        const uint32_t length = Osb::GetModuleFileNameW(path.data(), kModulePathBuffer);
        if (length == 0) throw Osb::ExSystem(Osb::ErrorCode(), OSB_HERE);
        path.resize(length > kModulePathBuffer - 1 ? kModulePathBuffer - 1 : length);
        ServiceTexts texts = ReadServiceTexts();
        displayName_ = std::move(texts.displayName);
        description_ = std::move(texts.description);
        modulePath_ = std::move(path);
    } catch (...) {
        // No destructor runs for a constructor that raises: withdraw the pointer here.
        Service* self = this;
        current_.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
        throw;
    }

    Osb::MutexLock reportLock(reportMutex_);
    status_.dwServiceType = Osb::SERVICE_WIN32_OWN_PROCESS;
    status_.dwCurrentState = Osb::SERVICE_STOPPED;
    status_.dwControlsAccepted = Osb::SERVICE_ACCEPT_STOP | Osb::SERVICE_ACCEPT_PAUSE_CONTINUE |
                                 Osb::SERVICE_ACCEPT_SHUTDOWN;
    status_.dwWin32ExitCode = 0;
    status_.dwServiceSpecificExitCode = 0;
    status_.dwCheckPoint = 0;
    status_.dwWaitHint = 0;
}

Service::~Service() {
    Service* self = this;
    current_.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
}

std::u16string Service::dataFolder() { return DataFolderWith(DataFolderCalls::system()); }

}  // namespace Vigil
