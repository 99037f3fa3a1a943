// The manager's side of the service manager: records in ROOT/etc/orvanta/services, processes
// started detached, and controls and queries through each running service's endpoint; or, when
// systemd manages the services, units and systemd jobs (SystemdManager.h). The choice is made when
// the manager is opened and holds for every handle opened through it.
#include "platform/ServiceControl.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <set>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/Mutex.h"
#include "platform/SystemRoot.h"
#include "platform/Utf.h"
#include "platform/posix/ServiceFiles.h"
#include "platform/posix/ServiceLauncher.h"
#include "platform/posix/ServiceLockWait.h"
#include "platform/posix/SystemdManager.h"

namespace Osb {

struct ServiceHandleTag {
    bool manager;
    std::string name;  // UTF-8; empty for the manager
    bool systemd;      // systemd manages the services, not the program's own manager
};

namespace {

using Clock = std::chrono::steady_clock;

// How long a start waits for the handler's registration, and a control for the handler's answer:
// 30 seconds, shortened only by tests. Atomic: a test may set it while other threads call.
std::atomic<int> answerMs{30000};
// How often a waiting start looks again.
constexpr int kPollMs = 10;

// Access bits that leave the services folder unwritten: connect, enumerate, query the lock state,
// and the read-only standard rights.
constexpr uint32_t kManagerReadAccess = 0x0001 | 0x0004 | 0x0010 | 0x20000;

// The handles that are open, so that a closed or made-up handle is refused with 6 instead of
// being followed. `handlesMutex` is a leaf lock: nothing else is taken or called under it.
Mutex handlesMutex;
std::set<SC_HANDLE> liveHandles OSB_GUARDED_BY(handlesMutex);

SC_HANDLE NewHandle(bool manager, std::string name, bool systemd) {
    auto* handle = new ServiceHandleTag{manager, std::move(name), systemd};
    MutexLock lock(handlesMutex);
    liveHandles.insert(handle);
    return handle;
}

// The service named by `handle` and whether systemd manages it, or false with 6 as the last error.
bool ServiceName(SC_HANDLE handle, bool wantManager, std::string& name, bool* systemd = nullptr) {
    MutexLock lock(handlesMutex);
    if (liveHandles.count(handle) == 0 || handle->manager != wantManager) {
        SetLastError(Err::kInvalidHandle);
        return false;
    }
    name = handle->name;
    if (systemd != nullptr) *systemd = handle->systemd;
    return true;
}

// True when a systemd call returned 0; its code is the last error otherwise.
bool Done(uint32_t code) { return code == Err::kSuccess; }

template <typename T>
T Fail(uint32_t code, T value) {
    SetLastError(code);
    return value;
}

bool Empty(const char16_t* text) { return text == nullptr || *text == u'\0'; }

std::string Text(const char16_t* text) {
    return text == nullptr ? std::string() : Utf16ToUtf8(std::u16string_view(text));
}

// The names of a list of zero-ended names, ended by one more zero.
std::vector<std::string> Dependencies(const char16_t* list) {
    std::vector<std::string> names;
    while (list != nullptr && *list != u'\0') {
        const std::u16string_view entry(list);
        names.push_back(Utf16ToUtf8(entry));
        list += entry.size() + 1;
    }
    return names;
}

// The names joined by '/', as the record keeps them.
std::string DependencyList(const char16_t* list) {
    std::string joined;
    for (const std::string& name : Dependencies(list)) {
        if (!joined.empty()) joined += '/';
        joined += name;
    }
    return joined;
}

bool Query(const std::string& name, SERVICE_STATUS& status) {
    Scm::EndpointReply reply = {};
    const uint32_t code = Scm::CallEndpoint(name, {Scm::kOpQuery, 0}, reply, answerMs.load());
    if (code == Err::kServiceNotActive) {
        status = Scm::StoppedStatus();
        return true;
    }
    if (code != Err::kSuccess) return false;
    if (reply.result != Err::kSuccess) return Fail(reply.result, false);  // a refused caller
    status = reply.status;
    return true;
}

// True when the endpoint of `name` answers with a state other than stopped.
bool Answers(const std::string& name) {
    Scm::EndpointReply reply = {};
    return Scm::CallEndpoint(name, {Scm::kOpQuery, 0}, reply, answerMs.load()) == Err::kSuccess &&
           reply.result == Err::kSuccess && reply.status.dwCurrentState != SERVICE_STOPPED;
}

// Waits until the launched process has registered its handler (0), has ended (1067) or the time
// is up (1053). The pidfd is closed here.
uint32_t AwaitRegistration(const std::string& name, int pidfd) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(answerMs.load());
    for (;;) {
        Scm::EndpointReply reply = {};
        if (Scm::CallEndpoint(name, {Scm::kOpQuery, 0}, reply, answerMs.load()) == Err::kSuccess)
            break;
        bool ended = pidfd == Scm::kProcessEnded;
        if (pidfd >= 0) {
            pollfd entry = {pidfd, POLLIN, 0};
            ended = ::poll(&entry, 1, kPollMs) > 0;
        } else if (!ended) {
            ::usleep(kPollMs * 1000);
        }
        if (ended) {
            // It may have registered and stopped between the two looks; the query above decides.
            if (pidfd >= 0) ::close(pidfd);
            std::fprintf(stderr,
                         "service manager: the process of %s ended before it registered "
                         "its control handler (error %u); its output is in %s\n",
                         name.c_str(), static_cast<unsigned>(Err::kProcessAborted),
                         Scm::LogPath(name).c_str());
            return Fail(Err::kProcessAborted, Err::kProcessAborted);
        }
        if (Clock::now() >= deadline) {
            if (pidfd >= 0) ::close(pidfd);
            std::fprintf(stderr,
                         "service manager: the process of %s did not register its control "
                         "handler within %d ms (error %u); it is left running\n",
                         name.c_str(), answerMs.load(),
                         static_cast<unsigned>(Err::kServiceRequestTimeout));
            return Fail(Err::kServiceRequestTimeout, Err::kServiceRequestTimeout);
        }
    }
    if (pidfd >= 0) ::close(pidfd);
    return Err::kSuccess;
}

}  // namespace

void Scm::SetAnswerTimeoutForTesting(int ms) { answerMs = ms; }

SC_HANDLE OpenSCManagerW(const char16_t* machine, const char16_t* database, uint32_t access) {
    if (!Empty(machine) || !Empty(database))
        return Fail<SC_HANDLE>(Err::kInvalidParameter, nullptr);
    const bool systemd = Scm::Systemd::Manages();
    if (systemd) {
        if ((access & ~kManagerReadAccess) != 0 && Scm::Systemd::CheckWritable() != Err::kSuccess) {
            return nullptr;
        }
        return NewHandle(true, std::string(), true);
    }
    if ((access & ~kManagerReadAccess) != 0) {
        const std::string folder = Scm::ServicesFolder();
        if (const uint32_t code = Scm::CreatePrivateFolder(folder); code != Err::kSuccess) {
            return Fail<SC_HANDLE>(code, nullptr);
        }
        if (::access(folder.c_str(), W_OK) != 0) {
            return Fail<SC_HANDLE>(SetLastErrorFromErrno(errno, folder.c_str()), nullptr);
        }
    }
    return NewHandle(true, std::string(), false);
}

SC_HANDLE OpenServiceW(SC_HANDLE manager, const char16_t* name, uint32_t) {
    std::string unused;
    bool systemd = false;
    if (!ServiceName(manager, true, unused, &systemd)) return nullptr;
    if (name == nullptr || !Scm::ValidServiceName(name)) {
        return Fail<SC_HANDLE>(Err::kInvalidName, nullptr);
    }
    const std::string service = Utf16ToUtf8(std::u16string_view(name));
    if (systemd) {
        return Done(Scm::Systemd::Find(service)) ? NewHandle(false, service, true) : nullptr;
    }
    Scm::FinishPendingDeletion(service);
    if (::access(Scm::RecordPath(service).c_str(), F_OK) != 0) {
        return Fail<SC_HANDLE>(Err::kServiceDoesNotExist, nullptr);
    }
    return NewHandle(false, service, false);
}

SC_HANDLE CreateServiceW(SC_HANDLE manager, const char16_t* name, const char16_t* displayName,
                         uint32_t, uint32_t serviceType, uint32_t startType, uint32_t errorControl,
                         const char16_t* binaryPath, const char16_t*, uint32_t* tagId,
                         const char16_t* dependencies, const char16_t* account, const char16_t*) {
    std::string unused;
    bool systemd = false;
    if (!ServiceName(manager, true, unused, &systemd)) return nullptr;
    if (name == nullptr || !Scm::ValidServiceName(name)) {
        return Fail<SC_HANDLE>(Err::kInvalidName, nullptr);
    }
    // Drivers' start types (0, 1) and error controls beyond "critical" (3) are no service's.
    if (serviceType != SERVICE_WIN32_OWN_PROCESS || startType < SERVICE_AUTO_START ||
        startType > SERVICE_DISABLED || errorControl > 3 || Empty(binaryPath)) {
        return Fail<SC_HANDLE>(Err::kInvalidParameter, nullptr);
    }
    const std::string service = Utf16ToUtf8(std::u16string_view(name));
    if (systemd) {
        Scm::UnitSettings unit;
        unit.displayName = Empty(displayName) ? service : Text(displayName);
        unit.binaryPath = Text(binaryPath);
        unit.user = Scm::UnitUser(Text(account));
        unit.dependencies = Dependencies(dependencies);
        unit.autoStart = startType == SERVICE_AUTO_START;
        unit.systemRoot = SystemRoot().empty() ? "/" : SystemRoot();
        if (!Done(Scm::Systemd::Install(service, unit))) return nullptr;
        if (tagId != nullptr) *tagId = 0;
        return NewHandle(false, service, true);
    }
    Scm::FinishPendingDeletion(service);
    if (::access(Scm::DeleteMarkPath(service).c_str(), F_OK) == 0) {
        return Fail<SC_HANDLE>(Err::kServiceMarkedForDelete, nullptr);
    }
    Scm::ServiceRecord record;
    record.displayName = Empty(displayName) ? service : Text(displayName);
    record.binaryPath = Text(binaryPath);
    record.startType = startType;
    record.errorControl = errorControl;
    record.account = Text(account);
    record.dependencies = DependencyList(dependencies);
    if (Scm::WriteRecord(service, record, true) != Err::kSuccess) return nullptr;
    if (tagId != nullptr) *tagId = 0;
    return NewHandle(false, service, false);
}

bool ChangeServiceConfig2W(SC_HANDLE service, uint32_t infoLevel, void* info) {
    std::string name;
    bool systemd = false;
    if (!ServiceName(service, false, name, &systemd)) return false;
    if (infoLevel != SERVICE_CONFIG_DESCRIPTION || info == nullptr) {
        return Fail(Err::kInvalidParameter, false);
    }
    const auto* description = static_cast<const SERVICE_DESCRIPTIONW*>(info);
    if (systemd) {
        return description->lpDescription == nullptr ||
               Done(Scm::Systemd::SetDescription(name, Text(description->lpDescription)));
    }
    if (::access(Scm::DeleteMarkPath(name).c_str(), F_OK) == 0) {
        return Fail(Err::kServiceMarkedForDelete, false);
    }
    Scm::ServiceRecord record;
    if (Scm::ReadRecord(name, record) != Err::kSuccess) return false;
    if (description->lpDescription == nullptr) return true;
    record.description = Text(description->lpDescription);
    return Scm::WriteRecord(name, record, false) == Err::kSuccess;
}

bool DeleteService(SC_HANDLE service) {
    std::string name;
    bool systemd = false;
    if (!ServiceName(service, false, name, &systemd)) return false;
    if (systemd) return Done(Scm::Systemd::Remove(name));
    const std::string record = Scm::RecordPath(name);
    const std::string mark = Scm::DeleteMarkPath(name);
    if (::access(record.c_str(), F_OK) != 0) return Fail(Err::kServiceDoesNotExist, false);
    if (::access(mark.c_str(), F_OK) == 0) return Fail(Err::kServiceMarkedForDelete, false);
    if (Scm::InstanceAlive(name)) {
        // A running service is removed when its process ends (its dispatcher, or the next look
        // of the manager, finishes the deletion).
        const int fd = Scm::OpenPrivateFile(mark, true);
        if (fd < 0) return false;
        ::close(fd);
        Scm::FinishPendingDeletion(name);  // it may have ended meanwhile
        return true;
    }
    if (::unlink(record.c_str()) != 0) {
        return Fail(SetLastErrorFromErrno(errno, record.c_str()), false);
    }
    return true;
}

bool CloseServiceHandle(SC_HANDLE handle) {
    {
        MutexLock lock(handlesMutex);
        if (liveHandles.erase(handle) == 0) return Fail(Err::kInvalidHandle, false);
    }
    delete handle;
    return true;
}

bool StartServiceW(SC_HANDLE service, uint32_t argc, const char16_t**) {
    std::string name;
    bool systemd = false;
    if (!ServiceName(service, false, name, &systemd)) return false;
    if (argc != 0) return Fail(Err::kInvalidParameter, false);
    if (systemd) return Done(Scm::Systemd::Start(name, answerMs.load()));
    Scm::ServiceRecord record;
    if (Scm::ReadRecord(name, record) != Err::kSuccess) return false;
    if (::access(Scm::DeleteMarkPath(name).c_str(), F_OK) == 0) {
        return Fail(Err::kServiceMarkedForDelete, false);
    }
    if (record.startType == SERVICE_DISABLED) return Fail(Err::kServiceDisabled, false);
    if (const uint32_t code = Scm::CreatePrivateFolder(Scm::RunFolder()); code != Err::kSuccess) {
        return Fail(code, false);
    }
    const Scm::StartLock startLock(name, answerMs.load());
    if (startLock.error() != Err::kSuccess) return false;
    // A previous process that still holds its lock is either running (1056) or on its way out,
    // which the start waits for, so that the new process can take the lock and the endpoint.
    if (Scm::AwaitInstanceLockFree(name, answerMs.load(), [&] { return Answers(name); }) !=
        Err::kSuccess) {
        return false;
    }
    int pidfd = -1;
    if (Scm::LaunchService(name, record.binaryPath, pidfd) != Err::kSuccess) return false;
    return AwaitRegistration(name, pidfd) == Err::kSuccess;
}

bool ControlService(SC_HANDLE service, uint32_t control, SERVICE_STATUS* status) {
    std::string name;
    bool systemd = false;
    if (!ServiceName(service, false, name, &systemd)) return false;
    if (status == nullptr) return Fail(Err::kInvalidParameter, false);
    // Shutdown comes from the system only, never from a caller.
    if (control == SERVICE_CONTROL_SHUTDOWN) return Fail(Err::kInvalidParameter, false);
    if (systemd) {
        // A stop is systemd's job; every other control goes to the running service's endpoint,
        // as under the own manager, once systemd says it runs.
        if (control == SERVICE_CONTROL_STOP) {
            return Done(Scm::Systemd::Stop(name, answerMs.load(), *status));
        }
        if (!Done(Scm::Systemd::Query(name, answerMs.load(), *status))) return false;
        if (status->dwCurrentState == SERVICE_STOPPED) return Fail(Err::kServiceNotActive, false);
    }
    Scm::EndpointReply reply = {};
    const uint32_t code =
        Scm::CallEndpoint(name, {Scm::kOpControl, control}, reply, answerMs.load());
    if (code != Err::kSuccess) return false;
    *status = reply.status;
    if (reply.result != Err::kSuccess) return Fail(reply.result, false);
    return true;
}

bool QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS* status) {
    std::string name;
    bool systemd = false;
    if (!ServiceName(service, false, name, &systemd)) return false;
    if (status == nullptr) return Fail(Err::kInvalidParameter, false);
    if (systemd) return Done(Scm::Systemd::Query(name, answerMs.load(), *status));
    return Query(name, *status);
}

}  // namespace Osb
