// Interim: every call fails with 120 until the service manager's backend lands.
#include "platform/ServiceControl.h"

#include "platform/ErrorCode.h"

namespace Osb {

namespace {
template <typename T>
T Fail(T value) {
    SetLastError(Err::kCallNotImplemented);
    return value;
}
}  // namespace

SC_HANDLE OpenSCManagerW(const char16_t*, const char16_t*, uint32_t) { return Fail<SC_HANDLE>(nullptr); }
SC_HANDLE OpenServiceW(SC_HANDLE, const char16_t*, uint32_t) { return Fail<SC_HANDLE>(nullptr); }
SC_HANDLE CreateServiceW(SC_HANDLE, const char16_t*, const char16_t*, uint32_t, uint32_t, uint32_t,
                         uint32_t, const char16_t*, const char16_t*, uint32_t*, const char16_t*,
                         const char16_t*, const char16_t*) {
    return Fail<SC_HANDLE>(nullptr);
}
bool ChangeServiceConfig2W(SC_HANDLE, uint32_t, void*) { return Fail(false); }
bool DeleteService(SC_HANDLE) { return Fail(false); }
bool CloseServiceHandle(SC_HANDLE) { return Fail(false); }
bool StartServiceW(SC_HANDLE, uint32_t, const char16_t**) { return Fail(false); }
bool ControlService(SC_HANDLE, uint32_t, SERVICE_STATUS*) { return Fail(false); }
bool QueryServiceStatus(SC_HANDLE, SERVICE_STATUS*) { return Fail(false); }
bool StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRY*) {
    SetLastError(Err::kFailedServiceControllerConnect);
    return false;
}
SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerExW(const std::u16string&, LPHANDLER_FUNCTION_EX,
                                                    void*) {
    return Fail<SERVICE_STATUS_HANDLE>(nullptr);
}
bool SetServiceStatus(SERVICE_STATUS_HANDLE, const SERVICE_STATUS&) { return Fail(false); }

}  // namespace Osb
