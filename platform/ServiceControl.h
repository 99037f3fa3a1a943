// The service manager: install, open, start, control and query services, and the calls by which a
// service process talks back to it. The calls carry the names, arguments and return conventions
// of their Windows originals: a failed call returns null or false and leaves a Windows error code
// as the calling thread's last error (ErrorCode()).
//
// The POSIX backend is a service manager of the program's own, kept in files below SystemRoot():
//   - An installed service is the text file ROOT/etc/orvanta/services/NAME.conf, UTF-8, one
//     Key=Value line each for DisplayName, Description, BinaryPath, StartType, ErrorControl,
//     Account and Dependencies. Numbers are decimal, an absent value is empty, and line feed,
//     carriage return and backslash in a value are written as \n, \r and \\. The password is not
//     kept. Dependencies are the entries of the list joined by '/', a character no service name
//     holds.
//   - A started service is its BinaryPath run with no arguments as a detached process in a session
//     of its own, with the environment of the starter plus VIGIL_SERVICE=NAME, standard input from
//     /dev/null and standard output and error appended to ROOT/var/log/orvanta/NAME.log. Once its
//     dispatcher runs, the process keeps that log itself, rotating it at 10 MiB into NAME.log.1 ..
//     NAME.log.3 (see OutputCapture).
//   - While it runs, the service process serves its control endpoint, the Unix socket
//     ROOT/run/orvanta/services/NAME, and holds a lock on ROOT/run/orvanta/services/NAME.lock for
//     its whole life. Controls and queries of other processes go through the endpoint; a socket
//     that nobody serves counts as a stopped service and is replaced by the next start.
//   - The manager's files and the endpoint are for user 0 and the service's own user only: files
//     0600, the socket 0600, and any other caller of the endpoint gets 5, for queries too. No call
//     waits on a lock without limit (1053 after 30 seconds).
// Service names are matched exactly (case matters); an empty name, or one holding '/', '\' or a
// zero unit, or longer than 256 units, is refused with 123.
//
// All calls may be made from any thread. Handles are not shared between threads without the
// caller's own ordering, as on Windows.
#pragma once

#include <cstdint>
#include <string>

namespace Osb {

struct ServiceHandleTag;
struct StatusHandleTag;
// A handle to the manager or to one service, from OpenSCManagerW, OpenServiceW or CreateServiceW.
using SC_HANDLE = ServiceHandleTag*;
// The handle a service reports its status with, from RegisterServiceCtrlHandlerExW.
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

// The record of ChangeServiceConfig2W with SERVICE_CONFIG_DESCRIPTION. A null lpDescription leaves
// the description as it is; an empty one clears it.
struct SERVICE_DESCRIPTIONW {
    char16_t* lpDescription;
};

// The entry of a service; argv[0] is the service's name, argc is 1.
using LPSERVICE_MAIN_FUNCTIONW = void (*)(uint32_t argc, char16_t** argv);
// One entry of the dispatcher's table; the table ends with an entry whose two fields are null.
struct SERVICE_TABLE_ENTRY {
    const char16_t* lpServiceName;
    LPSERVICE_MAIN_FUNCTIONW lpServiceProc;
};
// The control handler of a service. Its result is the control's result: 0, or a Windows code that
// ControlService then fails with.
using LPHANDLER_FUNCTION_EX = uint32_t (*)(uint32_t control, uint32_t eventType, void* eventData,
                                           void* context);

constexpr uint32_t SERVICE_WIN32_OWN_PROCESS = 0x10;

// States (dwCurrentState).
constexpr uint32_t SERVICE_STOPPED = 1;
constexpr uint32_t SERVICE_START_PENDING = 2;
constexpr uint32_t SERVICE_STOP_PENDING = 3;
constexpr uint32_t SERVICE_RUNNING = 4;
constexpr uint32_t SERVICE_CONTINUE_PENDING = 5;
constexpr uint32_t SERVICE_PAUSE_PENDING = 6;
constexpr uint32_t SERVICE_PAUSED = 7;

// Accepted controls (dwControlsAccepted bits).
constexpr uint32_t SERVICE_ACCEPT_STOP = 1;
constexpr uint32_t SERVICE_ACCEPT_PAUSE_CONTINUE = 2;
constexpr uint32_t SERVICE_ACCEPT_SHUTDOWN = 4;
constexpr uint32_t SERVICE_ACCEPT_PARAMCHANGE = 8;

// Controls.
constexpr uint32_t SERVICE_CONTROL_STOP = 1;
constexpr uint32_t SERVICE_CONTROL_PAUSE = 2;
constexpr uint32_t SERVICE_CONTROL_CONTINUE = 3;
constexpr uint32_t SERVICE_CONTROL_INTERROGATE = 4;
constexpr uint32_t SERVICE_CONTROL_SHUTDOWN = 5;
constexpr uint32_t SERVICE_CONTROL_PARAMCHANGE = 6;

// Start types and error controls, as recorded.
constexpr uint32_t SERVICE_AUTO_START = 2;
constexpr uint32_t SERVICE_DEMAND_START = 3;
constexpr uint32_t SERVICE_DISABLED = 4;
constexpr uint32_t SERVICE_ERROR_IGNORE = 0;
constexpr uint32_t SERVICE_ERROR_NORMAL = 1;

// Access rights.
constexpr uint32_t SC_MANAGER_CONNECT = 0x0001;
constexpr uint32_t SC_MANAGER_CREATE_SERVICE = 0x0002;
constexpr uint32_t SC_MANAGER_ALL_ACCESS = 0xF003F;
constexpr uint32_t SERVICE_QUERY_STATUS = 0x0004;
constexpr uint32_t SERVICE_START = 0x0010;
constexpr uint32_t SERVICE_STOP = 0x0020;
constexpr uint32_t SERVICE_PAUSE_CONTINUE = 0x0040;
constexpr uint32_t SERVICE_INTERROGATE = 0x0080;
constexpr uint32_t SERVICE_ALL_ACCESS = 0xF01FF;

constexpr uint32_t SERVICE_CONFIG_DESCRIPTION = 1;

// --- The manager's side: any process. ---

// Opens the manager of this machine. `machine` and `database` must be null or empty (87
// otherwise). An access that asks for more than connecting, enumerating and
// querying needs the right to write the services folder, which is then created when missing;
// a caller without it gets 5.
SC_HANDLE OpenSCManagerW(const char16_t* machine, const char16_t* database, uint32_t access);

// Opens an installed service: 1060 when none of that name is installed, 123 for a bad name, 6 for
// a handle that is not the manager's.
SC_HANDLE OpenServiceW(SC_HANDLE manager, const char16_t* name, uint32_t access);

// Records a new service and returns a handle to it. `displayName` null or empty takes the name.
// `dependencies` is a list of names each ended by a zero unit, the list ended by one more (null
// for none). `account` is recorded as given; `password`, `loadOrderGroup` and `tagId` are not kept
// (a non-null `tagId` receives 0). Fails with 1073 when a service of that name is installed, 1072
// while one of that name is marked for deletion, 123 for a bad name, 87 for a binary path that is
// null or empty or a service type other than SERVICE_WIN32_OWN_PROCESS, and with the code of the
// failed write otherwise (5 when the services folder may not be written).
SC_HANDLE CreateServiceW(SC_HANDLE manager, const char16_t* name, const char16_t* displayName,
                         uint32_t access, uint32_t serviceType, uint32_t startType,
                         uint32_t errorControl, const char16_t* binaryPath,
                         const char16_t* loadOrderGroup, uint32_t* tagId,
                         const char16_t* dependencies, const char16_t* account,
                         const char16_t* password);

// Only SERVICE_CONFIG_DESCRIPTION (with a SERVICE_DESCRIPTIONW) is known; other levels give 87,
// a null `info` 87. Fails with 1060 when the service was deleted meanwhile, 1072 while it is
// marked for deletion.
bool ChangeServiceConfig2W(SC_HANDLE service, uint32_t infoLevel, void* info);

// Removes the service's record. A stopped service is removed at once; a running one is marked for
// deletion and removed when its process ends (it goes on running). Fails with 1072 when it is
// already marked, 1060 when it is gone.
bool DeleteService(SC_HANDLE service);

// Releases a handle of either kind; null or a handle already closed gives 6.
bool CloseServiceHandle(SC_HANDLE handle);

// Starts the service and returns once its process has registered its control handler, so that
// its endpoint answers. The arguments are not passed on (they must be none: 87 otherwise). A start
// while the previous process of the service is still ending first waits for it to end. Fails with
// 1056 when the service runs, 1072 when it is marked for deletion, 1058 when it is disabled, 2 (3
// when its folder is missing too) or 5 when the binary cannot be run, 1067 when the process ends
// before it registers its handler, and 1053 when it has not registered it within 30 seconds (the
// process is then left to itself).
bool StartServiceW(SC_HANDLE service, uint32_t argc, const char16_t** argv);

// Sends `control` to the service's handler, waits for the handler's answer and fills `status`
// with the status the service last reported. Fails with 1062 when the service does not run,
// 1061 while it reports SERVICE_START_PENDING or SERVICE_STOP_PENDING, 1052 for stop, pause,
// continue or parameter change when the service's accepted controls lack its bit, 87 for
// SERVICE_CONTROL_SHUTDOWN (the system's alone), with the handler's own result when it is not 0
// (`status` is filled all the same), and 1053 when the handler has not answered within 30
// seconds, 5 when the caller may not use the service's endpoint. Interrogate and every other
// code reach the handler, which decides.
bool ControlService(SC_HANDLE service, uint32_t control, SERVICE_STATUS* status);

// Fills `status` with the status the service last reported, without reaching its handler. A
// service that does not run is SERVICE_STOPPED with every other field 0 but dwServiceType. Fails
// with 5 when the caller may not use the service's endpoint, 1053 when it does not answer within
// 30 seconds.
bool QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS* status);

// --- The service's side: the process the manager started. ---

// Turns the calling thread into the dispatcher of the service named by VIGIL_SERVICE. Without
// VIGIL_SERVICE, or with an empty table, it fails at once with 1063 (the process was not started
// by the manager) and nothing else happens. Otherwise it runs the first entry's lpServiceProc on a
// thread of its own, serves the control endpoint once the handler is registered, calls the handler
// on the calling thread, one control at a time, and returns true once the service has reported
// SERVICE_STOPPED and its thread has returned (or once that thread has returned without
// registering a handler). Fails with 1056 when another live process already serves the service.
bool StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRY* table);

// Registers the control handler of the service and opens its endpoint; from here on StartServiceW
// of the starter returns. Called once, from the service's thread. The initial status is
// SERVICE_START_PENDING with SERVICE_WIN32_OWN_PROCESS and no accepted controls. `name` is not
// checked, as Windows does not for a service of its own process. Fails with 1063 outside a
// dispatcher, 87 for a null handler or a second registration, and with the code of the socket
// operation that failed (206 when the endpoint's path is too long).
SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerExW(const std::u16string& name,
                                                    LPHANDLER_FUNCTION_EX handler, void* context);

// Records `status` as the service's status, which queries and controls return from now on. A
// report of SERVICE_STOPPED ends the dispatcher's service of the endpoint. Fails with 6 for a
// handle that is not the one registered, 87 for a state outside 1 to 7. Any thread.
bool SetServiceStatus(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS& status);

}  // namespace Osb
