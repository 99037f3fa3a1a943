// Vigil::Service: the one object of the host, with the state word of the whole service.
//
// main builds exactly one on its stack, before it looks at the chosen role; the constructor
// publishes it in a process-wide pointer, through which ServiceMain and the client receive path
// (waitWhilePaused) reach it. The destructor withdraws the pointer again (if it still names this
// object), so nothing can reach a destroyed service.
//
// Threads: main runs the constructor, execute and the setup commands. In service mode the
// dispatcher's thread runs ServiceMain and run, and the control handler runs on the thread that
// serves the control endpoint; in console mode main runs run itself and a stop signal reaches the
// control handler on the console's signal thread. Client delivery threads call waitWhilePaused.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/CondVar.h"
#include "platform/Mutex.h"
#include "platform/ServiceControl.h"

namespace Vigil {

// Service states; a state's bit in the state word is 1 << its index.
enum class ServiceState : uint32_t {
    kStopped = 1,
    kStartPending = 2,
    kStopPending = 3,
    kRunning = 4,
    kContinuePending = 5,
    kPausePending = 6,
    kPaused = 7,
};

constexpr uint32_t StateBit(ServiceState state) { return 1u << static_cast<uint32_t>(state); }

// The name at the service manager, and the event source (also the platform's application name).
extern const std::u16string kServiceName;
extern const std::u16string kEventSource;

// ERROR_EXCEPTION_IN_SERVICE: a stop that fails with it counts as done, and the manager hears it
// after a failure of the service thread that carries no system code.
constexpr uint32_t kErrorExceptionInService = 1064;

// The calls by which the run role meets the system: the console test and the status report.
// Tests replace them with a stand-in service manager (Service::setHostCallsForTesting).
struct ServiceHostCalls {
    int (*allocConsole)();
    int (*freeConsole)();
    bool (*setServiceStatus)(Osb::SERVICE_STATUS_HANDLE handle, const Osb::SERVICE_STATUS& status);

    static ServiceHostCalls system();
};

// The calls in force. Any thread.
ServiceHostCalls HostCalls();

class Service {
  public:
    // Builds the object for every role: the module path (ExSystem when it cannot be read) and
    // the display name and description of the configuration step.
    explicit Service(std::u16string pipeName);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // The live service object, or null when there is none.
    static Service* instance() { return current_.load(std::memory_order_acquire); }

    // --- The run role (VigilServiceRun.cpp) -------------------------------------------------

    // The whole run role: service mode under the dispatcher, or console mode with run on this
    // thread. In console mode a failure of the run goes on to the caller as the same exception;
    // in service mode it ends in the event log. Returns 0.
    int execute();

    // Start, wait until a stop is asked for, stop. Returns 0. Raises Osb::Exception when a step
    // of the start fails, after undoing the steps already done, in the order of the stop.
    int run();

    // The dispatcher's entry: registers the control handler and runs the service. Service thread.
    // When the run fails, the failure is logged and the manager is told SERVICE_STOPPED with the
    // failure's system code as dwWin32ExitCode (1064 for a failure that carries none), so that a
    // start that dies is not mistaken for a clean stop.
    static void ServiceMain(uint32_t argc, char16_t** argv);

    // --- State and control (VigilServiceControl.cpp) ----------------------------------------

    // The HandlerEx callback. `context` is the Service. Returns 0, 120 for a control it does not
    // know, or the code of a failed status report.
    static uint32_t controlHandler(uint32_t control, uint32_t eventType, void* eventData,
                                   void* context);

    // Clears the state word and the exit code, then sets the bit of `state`.
    void setState(ServiceState state, uint32_t exitCode) OSB_REQUIRES(mutex);
    void setStateAndReport(ServiceState state, uint32_t exitCode, uint32_t waitHint)
        OSB_EXCLUDES(mutex);

    // Derives `status` from the state word and sends it to the service manager, or in console
    // mode writes the "Vigil State: " line. Raises ExSystem when the report fails. Callers
    // serialise it: with `mutex` held, or from the one control thread.
    void reportStatus(uint32_t waitHint) OSB_EXCLUDES(reportMutex_);

    // The pause and continue controls. Both log their event; neither touches the pipe or the
    // watch thread. A client's data is held in waitWhilePaused until the service goes on. A pause
    // during a stop is ignored: the stop request stays.
    void pause() OSB_EXCLUDES(mutex);
    void resume() OSB_EXCLUDES(mutex);

    // Blocks the caller while the service is paused.
    void waitWhilePaused() OSB_EXCLUDES(mutex);

    // --- Notifications to systemd (VigilServiceNotify.cpp) ----------------------------------

    // Tells a manager that listens for notifications (Osb::ServiceNotify) that the service is now
    // in `state`: a STATUS= line for `systemctl status`, with the number of watched folders and of
    // connected clients when running or paused; READY=1 with `ready` (the first RUNNING, once
    // the pipe accepts clients); STOPPING=1 with STOP_PENDING; the failure's code with STOPPED
    // when `failure` is not 0. Does nothing when no such manager started the process. Called
    // without `mutex`: the counts take the client table's and the database's locks.
    void announce(ServiceState state, bool ready = false, uint32_t failure = 0)
        OSB_EXCLUDES(mutex);

    // --- Setup and control commands (VigilServiceSetup.cpp) ---------------------------------

    // Each raises Osb::ExSystem with the failed call's code after closing its handles; a failed
    // install that had created the service removes it again.
    void install(const std::u16string& account, const std::u16string& password,
                 const std::u16string& dependencies, bool autoStart);
    void uninstall();
    // 0 start, 1 stop, 2 pause, 3 continue, 4 restart.
    void control(uint32_t code);
    // Stops `service` and waits for it, up to 30 rounds of 2 s. False when the stop or a status
    // query fails (other than the service not running).
    bool stopAndWait(Osb::SC_HANDLE service);

    // --- Data folder (VigilService.cpp) -----------------------------------------------------

    // The service's data folder, created level by level as needed; ends with the separator.
    // Raises Osb::ExSystem (160, 161, or the code of a level that cannot be made).
    std::u16string dataFolder();

    // --- Reading -----------------------------------------------------------------------------

    uint32_t stateWord() OSB_EXCLUDES(mutex);
    uint32_t exitCode() const;
    const std::u16string& pipeName() const { return pipeName_; }
    const std::u16string& modulePath() const { return modulePath_; }
    const std::u16string& displayName() const { return displayName_; }
    const std::u16string& description() const { return description_; }

    // Replaces the system calls of the run role; returns the ones in force before.
    static ServiceHostCalls setHostCallsForTesting(const ServiceHostCalls& calls);

    // Guards state and exitCode; condition is waited on with it. Taken by client delivery
    // threads in waitWhilePaused before any Client's mutex, and by the control handler; the
    // event log is written while it is held.
    Osb::Mutex mutex;
    Osb::CondVar condition;  // woken when a paused service goes on, and when run has ended

  private:
    bool consoleMode() const;
    void reportFailureToManager(uint32_t code);
    void markServiceThreadDone() OSB_EXCLUDES(mutex);
    void waitForServiceThread() OSB_EXCLUDES(mutex);

    static std::atomic<Service*> current_;

    // Serialises the status reports, which the control thread makes without `mutex` (pause,
    // continue, interrogate) while the service thread makes them with it. Taken after `mutex`
    // and nothing is taken under it.
    Osb::Mutex reportMutex_;
    Osb::SERVICE_STATUS status_ OSB_GUARDED_BY(reportMutex_){};
    // Both written only under `mutex`. The wait loop of run and the unlocked reports read them
    // without it (a stop is seen one sleep later at the latest), hence atomic.
    std::atomic<uint32_t> exitCode_{0};
    std::atomic<uint32_t> state_{0};
    const std::u16string pipeName_;
    std::u16string modulePath_;  // const once the constructor is through
    // Stored by ServiceMain right behind the registration, while the control thread may already
    // answer an interrogate with a report; null until then and for the whole of console mode.
    std::atomic<Osb::SERVICE_STATUS_HANDLE> statusHandle_{nullptr};
    std::u16string displayName_;  // const once the constructor is through
    std::u16string description_;  // const once the constructor is through

    // The service thread's life, so that execute does not leave while it still stops.
    bool serviceThreadEntered_ OSB_GUARDED_BY(mutex) = false;
    bool serviceThreadDone_ OSB_GUARDED_BY(mutex) = false;
};

}  // namespace Vigil
