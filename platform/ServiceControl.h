// PROVISIONAL: the service manager's calls as the host uses them, until the platform's own
// service manager lands; replaced by it on merge.
#pragma once

#include <cstdint>
#include <string>

namespace Osb {

struct ServiceHandleTag;
struct StatusHandleTag;
using SC_HANDLE = ServiceHandleTag*;
using SERVICE_STATUS_HANDLE = StatusHandleTag*;

struct SERVICE_STATUS {
    uint32_t dwServiceType;
    uint32_t dwCurrentState;
    uint32_t dwControlsAccepted;
    uint32_t dwWin32ExitCode;
    uint32_t dwServiceSpecificExitCode;
    uint32_t dwCheckPoint;
    uint32_t dwWaitHint;
};

struct SERVICE_DESCRIPTIONW {
    char16_t* lpDescription;
};

using LPSERVICE_MAIN_FUNCTIONW = void (*)(uint32_t argc, char16_t** argv);
struct SERVICE_TABLE_ENTRY {
    const char16_t* lpServiceName;
    LPSERVICE_MAIN_FUNCTIONW lpServiceProc;
};
using LPHANDLER_FUNCTION_EX = uint32_t (*)(uint32_t control, uint32_t eventType, void* eventData,
                                           void* context);

constexpr uint32_t SERVICE_WIN32_OWN_PROCESS = 0x10;
constexpr uint32_t SERVICE_STOPPED = 1;
constexpr uint32_t SERVICE_START_PENDING = 2;
constexpr uint32_t SERVICE_STOP_PENDING = 3;
constexpr uint32_t SERVICE_RUNNING = 4;
constexpr uint32_t SERVICE_CONTINUE_PENDING = 5;
constexpr uint32_t SERVICE_PAUSE_PENDING = 6;
constexpr uint32_t SERVICE_PAUSED = 7;
constexpr uint32_t SERVICE_ACCEPT_STOP = 1;
constexpr uint32_t SERVICE_ACCEPT_PAUSE_CONTINUE = 2;
constexpr uint32_t SERVICE_ACCEPT_SHUTDOWN = 4;
constexpr uint32_t SERVICE_CONTROL_STOP = 1;
constexpr uint32_t SERVICE_CONTROL_PAUSE = 2;
constexpr uint32_t SERVICE_CONTROL_CONTINUE = 3;
constexpr uint32_t SERVICE_CONTROL_INTERROGATE = 4;
constexpr uint32_t SERVICE_CONTROL_SHUTDOWN = 5;
constexpr uint32_t SERVICE_CONTROL_PARAMCHANGE = 6;
constexpr uint32_t SERVICE_AUTO_START = 2;
constexpr uint32_t SERVICE_DEMAND_START = 3;
constexpr uint32_t SERVICE_ERROR_IGNORE = 0;
constexpr uint32_t SERVICE_ERROR_NORMAL = 1;
constexpr uint32_t SERVICE_ALL_ACCESS = 0xF01FF;
constexpr uint32_t SC_MANAGER_CREATE_SERVICE = 2;
constexpr uint32_t SC_MANAGER_ALL_ACCESS = 0xF003F;
constexpr uint32_t SERVICE_CONFIG_DESCRIPTION = 1;

SC_HANDLE OpenSCManagerW(const char16_t* machine, const char16_t* database, uint32_t access);
SC_HANDLE OpenServiceW(SC_HANDLE manager, const char16_t* name, uint32_t access);
SC_HANDLE CreateServiceW(SC_HANDLE manager, const char16_t* name, const char16_t* displayName,
                         uint32_t access, uint32_t serviceType, uint32_t startType,
                         uint32_t errorControl, const char16_t* binaryPath,
                         const char16_t* loadOrderGroup, uint32_t* tagId,
                         const char16_t* dependencies, const char16_t* account,
                         const char16_t* password);
bool ChangeServiceConfig2W(SC_HANDLE service, uint32_t infoLevel, void* info);
bool DeleteService(SC_HANDLE service);
bool CloseServiceHandle(SC_HANDLE handle);
bool StartServiceW(SC_HANDLE service, uint32_t argc, const char16_t** argv);
bool ControlService(SC_HANDLE service, uint32_t control, SERVICE_STATUS* status);
bool QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS* status);
bool StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRY* table);
SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerExW(const std::u16string& name,
                                                    LPHANDLER_FUNCTION_EX handler, void* context);
bool SetServiceStatus(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS& status);

}  // namespace Osb
