// The setup and control commands: install, uninstall, control and stopAndWait.
#include <utility>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/Platform.h"
#include "platform/Sleep.h"
#include "platform/SysLog.h"
#include "service/VigilDependencyList.h"
#include "service/VigilService.h"

namespace Vigil {

namespace {

constexpr int kStopWaitRounds = 30;
constexpr uint32_t kStopWaitRoundMs = 2000;

[[noreturn]] void RaiseLastError(Osb::ExWhere where) {
    throw Osb::ExSystem(Osb::ErrorCode(), where);
}

// The two handles of one command. CloseServiceHandle in the clean-up after a failure reports
// nothing; on the normal path a failed close is a failure of the command.
struct Handles {
    Osb::SC_HANDLE manager{};
    Osb::SC_HANDLE service{};

    void closeChecked() {
        if (service != Osb::SC_HANDLE{}) {
            const Osb::SC_HANDLE closing = std::exchange(service, Osb::SC_HANDLE{});
            if (!Osb::CloseServiceHandle(closing)) RaiseLastError(OSB_HERE);
        }
        if (manager != Osb::SC_HANDLE{}) {
            const Osb::SC_HANDLE closing = std::exchange(manager, Osb::SC_HANDLE{});
            if (!Osb::CloseServiceHandle(closing)) RaiseLastError(OSB_HERE);
        }
    }
    void closeQuietly() noexcept {
        if (service != Osb::SC_HANDLE{}) Osb::CloseServiceHandle(std::exchange(service, {}));
        if (manager != Osb::SC_HANDLE{}) Osb::CloseServiceHandle(std::exchange(manager, {}));
    }
};

// PlatformInit and PlatformUninit back to back, as the commands have always made them.
void TouchPlatform(const Osb::Config& config) {
    Osb::PlatformInit(config);
    Osb::PlatformUninit();
}

// The start of every command on an installed service: the platform touched as an interactive
// caller, then both handles opened with full access.
void OpenInstalled(const std::u16string& modulePath, Handles& handles) {
    Osb::Config config;
    config.modulePath = modulePath;
    config.interactive = true;
    TouchPlatform(config);
    handles.manager = Osb::OpenSCManagerW(nullptr, nullptr, Osb::SC_MANAGER_ALL_ACCESS);
    if (handles.manager == Osb::SC_HANDLE{}) RaiseLastError(OSB_HERE);
    handles.service =
        Osb::OpenServiceW(handles.manager, kServiceName.c_str(), Osb::SERVICE_ALL_ACCESS);
    if (handles.service == Osb::SC_HANDLE{}) RaiseLastError(OSB_HERE);
}

}  // namespace

void Service::install(const std::u16string& account, const std::u16string& password,
                      const std::u16string& dependencies, bool autoStart) {
    const uint32_t startType = autoStart ? Osb::SERVICE_AUTO_START : Osb::SERVICE_DEMAND_START;
    const uint32_t errorControl = autoStart ? Osb::SERVICE_ERROR_NORMAL : Osb::SERVICE_ERROR_IGNORE;
    const char16_t* accountArg = account.empty() ? nullptr : account.c_str();
    const char16_t* passwordArg = password.empty() ? nullptr : password.c_str();
    const std::u16string dependencyList = DependencyList(dependencies);
    const char16_t* dependencyArg = dependencyList.empty() ? nullptr : dependencyList.data();

    Handles handles;
    bool created = false;
    try {
        Osb::SysLogInstall(kEventSource, modulePath_);
        Osb::Config config;
        config.applicationName = kEventSource;
        config.modulePath = modulePath_;
        config.interactive = true;
        TouchPlatform(config);

        handles.manager = Osb::OpenSCManagerW(nullptr, nullptr, Osb::SC_MANAGER_CREATE_SERVICE);
        if (handles.manager == Osb::SC_HANDLE{}) RaiseLastError(OSB_HERE);
        handles.service = Osb::CreateServiceW(
            handles.manager, kServiceName.c_str(), displayName_.c_str(), Osb::SERVICE_ALL_ACCESS,
            Osb::SERVICE_WIN32_OWN_PROCESS, startType, errorControl, modulePath_.c_str(), nullptr,
            nullptr, dependencyArg, accountArg, passwordArg);
        if (handles.service == Osb::SC_HANDLE{}) RaiseLastError(OSB_HERE);
        created = true;
        Osb::SERVICE_DESCRIPTIONW record{const_cast<char16_t*>(description_.c_str())};
        if (!Osb::ChangeServiceConfig2W(handles.service, Osb::SERVICE_CONFIG_DESCRIPTION,
                                        &record)) {
            RaiseLastError(OSB_HERE);
        }
        handles.closeChecked();
    } catch (const Osb::ExSystem&) {
        handles.closeQuietly();
        if (created) {
            // A failed description must not leave a half-installed service behind.
            try {
                uninstall();
            } catch (const Osb::Exception&) {
                // The first failure is the one to report.
            }
        }
        throw;
    }
}

void Service::uninstall() {
    Handles handles;
    try {
        OpenInstalled(modulePath_, handles);
        if (!stopAndWait(handles.service)) RaiseLastError(OSB_HERE);
        if (!Osb::DeleteService(handles.service)) RaiseLastError(OSB_HERE);
        handles.closeChecked();
        // Last: when anything before fails, the event source stays registered.
        Osb::SysLogUninstall(kEventSource);
    } catch (const Osb::ExSystem&) {
        handles.closeQuietly();
        throw;
    }
}

void Service::control(uint32_t code) {
    Handles handles;
    try {
        OpenInstalled(modulePath_, handles);
        Osb::SERVICE_STATUS status{};
        bool done = false;
        switch (code) {
            case 0:
                done = Osb::StartServiceW(handles.service, 0, nullptr);
                break;
            case 1:
                done = stopAndWait(handles.service);
                break;
            case 2:
                done = Osb::ControlService(handles.service, Osb::SERVICE_CONTROL_PAUSE, &status);
                break;
            case 3:
                done = Osb::ControlService(handles.service, Osb::SERVICE_CONTROL_CONTINUE, &status);
                break;
            case 4:
                // Whether the stop worked is not looked at: a stopped service simply starts.
                stopAndWait(handles.service);
                done = Osb::StartServiceW(handles.service, 0, nullptr);
                break;
            default:
                Osb::SetLastError(Osb::Err::kInvalidParameter);
                break;
        }
        if (!done) RaiseLastError(OSB_HERE);
        handles.closeChecked();
    } catch (const Osb::ExSystem&) {
        handles.closeQuietly();
        throw;
    }
}

bool Service::stopAndWait(Osb::SC_HANDLE service) {
    Osb::SERVICE_STATUS status{};
    if (!Osb::ControlService(service, Osb::SERVICE_CONTROL_STOP, &status)) {
        const uint32_t error = Osb::ErrorCode();
        return error == Osb::Err::kServiceNotActive || error == kErrorExceptionInService;
    }
    if (status.dwCurrentState == Osb::SERVICE_STOPPED) return true;
    for (int round = 0; round < kStopWaitRounds; ++round) {
        Osb::Sleep(kStopWaitRoundMs);
        if (!Osb::QueryServiceStatus(service, &status)) return false;
        if (status.dwCurrentState == Osb::SERVICE_STOPPED) return true;
    }
    // Bounded: a service that has not stopped after 60 s counts as stopped.
    return true;
}

}  // namespace Vigil
