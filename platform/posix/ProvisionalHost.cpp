// PROVISIONAL: console, process and service manager entry points until the platform's own land.
// The service manager calls fail with 120 here.
#include <malloc.h>
#include <semaphore.h>
#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "platform/Console.h"
#include "platform/ErrorCode.h"
#include "platform/Process.h"
#include "platform/ServiceControl.h"

namespace Osb {

int AllocConsole() {
    const char* service = std::getenv("VIGIL_SERVICE");
    return service != nullptr && *service != '\0' ? 1 : 0;
}
int FreeConsole() { return 1; }

namespace {
// The signal handler only posts the semaphore (async-signal-safe); the handler thread does the
// work. Whichever thread the kernel picks for the signal, the stop reaches the same place.
bool (*stopHandler)(uint32_t) = nullptr;
sem_t signalled;
std::atomic<int> lastSignal{0};
std::atomic<bool> ending{false};
std::thread signalThread;
struct sigaction previousInt, previousTerm;

extern "C" void OnStopSignal(int number) {
    lastSignal.store(number);
    sem_post(&signalled);
}
}  // namespace

ConsoleStopHandler::ConsoleStopHandler(bool (*handler)(uint32_t)) {
    stopHandler = handler;
    ending = false;
    sem_init(&signalled, 0, 0);
    signalThread = std::thread([] {
        for (;;) {
            while (sem_wait(&signalled) != 0) {
            }
            if (ending.load()) return;
            stopHandler(lastSignal.load() == SIGINT ? 0 : 2);
        }
    });
    struct sigaction action = {};
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previousInt);
    sigaction(SIGTERM, &action, &previousTerm);
}

ConsoleStopHandler::~ConsoleStopHandler() {
    sigaction(SIGINT, &previousInt, nullptr);
    sigaction(SIGTERM, &previousTerm, nullptr);
    ending = true;
    sem_post(&signalled);
    signalThread.join();
    sem_destroy(&signalled);
}

ProcessHandle GetCurrentProcess() { return reinterpret_cast<ProcessHandle>(-1); }
bool SetProcessWorkingSetSize(ProcessHandle, size_t, size_t) {
    malloc_trim(0);
    return true;
}

namespace {
template <typename T>
T Fail(T value) {
    SetLastError(Err::kCallNotImplemented);
    return value;
}
}  // namespace

SC_HANDLE OpenSCManagerW(const char16_t*, const char16_t*, uint32_t) {
    return Fail<SC_HANDLE>(nullptr);
}
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
bool StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRY*) { return Fail(false); }
SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerExW(const std::u16string&, LPHANDLER_FUNCTION_EX,
                                                    void*) {
    return Fail<SERVICE_STATUS_HANDLE>(nullptr);
}
bool SetServiceStatus(SERVICE_STATUS_HANDLE, const SERVICE_STATUS&) { return Fail(false); }

}  // namespace Osb
