// The service's side of the service manager: the dispatcher that the process's main thread turns
// into, the registration of the control handler, and the status reports. One service per process.
//
// Two managers start services: the program's own, which sets VIGIL_SERVICE to the service's name,
// and systemd, which sets NOTIFY_SOCKET. Under systemd the service is known by the name in the
// dispatcher's table (the name it is installed under), its output goes where systemd points it
// (the journal) instead of NAME.log, and SIGTERM and SIGINT are its stop control.
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>

#include "platform/Console.h"
#include "platform/ErrorCode.h"
#include "platform/Mutex.h"
#include "platform/ServiceControl.h"
#include "platform/ServiceNotify.h"
#include "platform/SystemRoot.h"
#include "platform/Utf.h"
#include "platform/posix/OutputCapture.h"
#include "platform/posix/ServiceFiles.h"

namespace Osb {

struct StatusHandleTag {};

namespace {

// How long the dispatcher gives a caller to send its request and take its reply, so that a caller
// that connects and goes silent cannot hold up the controls of everybody else.
constexpr int kCallerTimeoutSeconds = 2;
// How long a new process waits for NAME.lock while others hold it shared (a starter's brief look,
// or a stranger's lock on a file it opened before the file was tightened).
constexpr int kInstanceLockWaitMs = 5000;

StatusHandleTag statusHandle;

// The dispatcher of this process. Lock order: `mutex` is a leaf; it is never held while the
// control handler runs (the handler reports its status, which takes it).
struct Dispatcher {
    Mutex mutex;
    bool active OSB_GUARDED_BY(mutex) = false;
    std::string name OSB_GUARDED_BY(mutex);
    LPHANDLER_FUNCTION_EX handler OSB_GUARDED_BY(mutex) = nullptr;
    void* context OSB_GUARDED_BY(mutex) = nullptr;
    int listenFd OSB_GUARDED_BY(mutex) = -1;
    SERVICE_STATUS status OSB_GUARDED_BY(mutex) = {};
    bool stopped OSB_GUARDED_BY(mutex) = false;         // SERVICE_STOPPED has been reported
    bool serviceReturned OSB_GUARDED_BY(mutex) = false;  // the service's thread has returned
    // A stop signal came in and has not been passed to the handler yet. It is passed on the
    // dispatcher's thread once the service reports running or paused, so that a signal during
    // the start is kept until the service can act on it, as a stop control from the endpoint is.
    bool stopSignalled OSB_GUARDED_BY(mutex) = false;
    // Written (one byte) whenever one of the fields above changes, to wake the dispatcher's poll.
    // Set before the service's thread starts and closed after it is joined.
    int wakeWrite = -1;
};

Dispatcher dispatcher;

std::string ParentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

void Wake() {
    const char byte = 0;
    // A full pipe already holds a wake-up, which is all a byte says.
    while (::write(dispatcher.wakeWrite, &byte, 1) < 0 && errno == EINTR) {
    }
}

bool Transfer(int fd, void* data, size_t size, bool receive) {
    auto* bytes = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t done = receive ? ::recv(fd, bytes, size, 0)
                                     : ::send(fd, bytes, size, MSG_NOSIGNAL);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        bytes += done;
        size -= static_cast<size_t>(done);
    }
    return true;
}

// The result of `control` before the handler is asked, from the status last reported; 0 lets the
// handler decide.
uint32_t Screen(uint32_t control, const SERVICE_STATUS& status) {
    switch (status.dwCurrentState) {
        case SERVICE_STOPPED:
            return Err::kServiceNotActive;
        case SERVICE_START_PENDING:
        case SERVICE_STOP_PENDING:
            return Err::kServiceCannotAcceptCtrl;
        default:
            break;
    }
    uint32_t needed = 0;
    if (control == SERVICE_CONTROL_STOP) needed = SERVICE_ACCEPT_STOP;
    if (control == SERVICE_CONTROL_PAUSE || control == SERVICE_CONTROL_CONTINUE) {
        needed = SERVICE_ACCEPT_PAUSE_CONTINUE;
    }
    if (control == SERVICE_CONTROL_PARAMCHANGE) needed = SERVICE_ACCEPT_PARAMCHANGE;
    if ((status.dwControlsAccepted & needed) != needed) return Err::kInvalidServiceControl;
    return Err::kSuccess;
}

// Only user 0 and the service's own user may control or query the service. The socket file is
// 0600 already; this holds even when somebody has made the file wider.
bool MayControl(int fd) {
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
    return peer.uid == 0 || peer.uid == ::geteuid();
}

// Answers one caller of the endpoint, on the dispatcher's thread.
void ServeOne(int listenFd) {
    const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;  // the caller gave up already
    const timeval limit = {kCallerTimeoutSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    Scm::EndpointRequest request = {};
    if (!Transfer(fd, &request, sizeof(request), true)) {
        ::close(fd);
        return;
    }
    Scm::EndpointReply reply = {};
    if (!MayControl(fd)) {
        reply.result = Err::kAccessDenied;  // and no status: others may not learn it either
        Transfer(fd, &reply, sizeof(reply), false);
        ::close(fd);
        return;
    }
    LPHANDLER_FUNCTION_EX handler = nullptr;
    void* context = nullptr;
    {
        MutexLock lock(dispatcher.mutex);
        reply.status = dispatcher.status;
        handler = dispatcher.handler;
        context = dispatcher.context;
    }
    if (request.op == Scm::kOpControl) {
        reply.result = Screen(request.control, reply.status);
        if (reply.result == Err::kSuccess) {
            // Outside the lock: the handler reports its status, and SetServiceStatus takes it.
            reply.result = handler(request.control, 0, nullptr, context);
            MutexLock lock(dispatcher.mutex);
            reply.status = dispatcher.status;
        }
    } else if (request.op != Scm::kOpQuery) {
        reply.result = Err::kInvalidParameter;
    }
    Transfer(fd, &reply, sizeof(reply), false);
    ::close(fd);
}

// Holds NAME.lock for the life of the dispatcher; that is how starters tell a live process.
int TakeInstanceLock(const std::string& name, uint32_t& code) {
    code = Scm::CreatePrivateFolder(Scm::RunFolder());
    if (code != Err::kSuccess) return -1;
    const std::string path = Scm::LockPath(name);
    const int fd = Scm::OpenPrivateFile(path, false);
    if (fd < 0) {
        code = ErrorCode();
        return -1;
    }
    const auto since = std::chrono::steady_clock::now();
    const auto deadline = since + std::chrono::milliseconds(kInstanceLockWaitMs);
    for (;;) {
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return fd;
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK) {
            code = SetLastErrorFromErrno(errno, path.c_str());
            break;
        }
        // A shared lock that can be had means nobody holds the exclusive one: no other instance
        // runs, only somebody looks. An exclusive holder is another instance.
        if (::flock(fd, LOCK_SH | LOCK_NB) != 0) {
            code = Err::kServiceAlreadyRunning;
            SetLastError(code);
            break;
        }
        ::flock(fd, LOCK_UN);
        if (std::chrono::steady_clock::now() >= deadline) {
            std::fprintf(stderr, "service manager: %s stayed locked by another process for %d ms; "
                         "the service does not start (error %u)\n",
                         path.c_str(), kInstanceLockWaitMs,
                         static_cast<unsigned>(Err::kServiceRequestTimeout));
            code = Err::kServiceRequestTimeout;
            SetLastError(code);
            break;
        }
        ::poll(nullptr, 0, 10);
    }
    ::close(fd);
    return -1;
}

// A stop signal, on the stop handler's thread. The dispatcher's thread passes it on.
bool OnStopSignal(uint32_t) {
    MutexLock lock(dispatcher.mutex);
    dispatcher.stopSignalled = true;
    Wake();
    return true;
}

// Serves the endpoint until the service has reported SERVICE_STOPPED or its thread has returned.
void ServeUntilDone(int wakeRead) {
    for (;;) {
        int listenFd = -1;
        LPHANDLER_FUNCTION_EX stopNow = nullptr;
        void* context = nullptr;
        {
            MutexLock lock(dispatcher.mutex);
            if (dispatcher.stopped || dispatcher.serviceReturned) return;
            listenFd = dispatcher.listenFd;
            const uint32_t state = dispatcher.status.dwCurrentState;
            if (dispatcher.stopSignalled && dispatcher.handler != nullptr &&
                (state == SERVICE_RUNNING || state == SERVICE_PAUSED)) {
                dispatcher.stopSignalled = false;
                stopNow = dispatcher.handler;
                context = dispatcher.context;
            }
        }
        if (stopNow != nullptr) {
            // Outside the lock: the handler reports its status, and SetServiceStatus takes it.
            stopNow(SERVICE_CONTROL_STOP, 0, nullptr, context);
            continue;
        }
        pollfd entries[2] = {{wakeRead, POLLIN, 0}, {listenFd, POLLIN, 0}};
        const int ready = ::poll(entries, listenFd >= 0 ? 2 : 1, -1);
        if (ready < 0) continue;  // EINTR
        if ((entries[0].revents & POLLIN) != 0) {
            char drain[64];
            [[maybe_unused]] const ssize_t got = ::read(wakeRead, drain, sizeof(drain));
        }
        if (listenFd >= 0 && (entries[1].revents & POLLIN) != 0) ServeOne(listenFd);
    }
}

}  // namespace

bool StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRY* table) {
    const char* variable = std::getenv("VIGIL_SERVICE");
    // The own manager's variable decides first: a service it starts from a shell that systemd
    // runs inherits NOTIFY_SOCKET too, and is still the own manager's.
    const bool ownManager = variable != nullptr && *variable != '\0';
    const bool systemd = !ownManager && ServiceNotifyWanted();
    if ((!ownManager && !systemd) || table == nullptr || table[0].lpServiceProc == nullptr ||
        (systemd && table[0].lpServiceName == nullptr)) {
        SetLastError(Err::kFailedServiceControllerConnect);
        return false;
    }
    std::u16string serviceName =
        ownManager ? Utf8ToUtf16(variable) : std::u16string(table[0].lpServiceName);
    const std::string name = Utf16ToUtf8(serviceName);
    if (!Scm::ValidServiceName(serviceName)) {
        SetLastError(Err::kInvalidName);
        return false;
    }
    {
        MutexLock lock(dispatcher.mutex);
        if (dispatcher.active) {
            SetLastError(Err::kServiceAlreadyRunning);
            return false;
        }
    }
    uint32_t code = Err::kSuccess;
    const int lockFd = TakeInstanceLock(name, code);
    if (lockFd < 0) return false;
    int wake[2];
    if (::pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        code = SetLastErrorFromErrno(errno);
        ::close(lockFd);
        return false;
    }
    // Under the lock, so that only one process at a time rotates the log. Should the log not
    // open, the output goes on where the starter pointed it.
    Scm::OutputCapture output;
    if (ownManager && Scm::CreatePrivateFolder(ParentOf(Scm::LogPath(name))) == Err::kSuccess) {
        output.begin(Scm::LogPath(name), Scm::kServiceLogLimit, Scm::kServiceLogKeep);
    }
    {
        MutexLock lock(dispatcher.mutex);
        dispatcher.active = true;
        dispatcher.name = name;
        dispatcher.handler = nullptr;
        dispatcher.context = nullptr;
        dispatcher.listenFd = -1;
        dispatcher.status = {};
        dispatcher.stopped = false;
        dispatcher.serviceReturned = false;
        dispatcher.stopSignalled = false;
        dispatcher.wakeWrite = wake[1];
    }
    // systemd stops a service with SIGTERM; the own manager through the endpoint.
    std::optional<ConsoleStopHandler> stopSignals;
    if (systemd) stopSignals.emplace(&OnStopSignal);
    const LPSERVICE_MAIN_FUNCTIONW serviceMain = table[0].lpServiceProc;
    std::thread service([serviceMain, &serviceName] {
        char16_t* argv[] = {serviceName.data(), nullptr};
        serviceMain(1, argv);
        MutexLock lock(dispatcher.mutex);
        dispatcher.serviceReturned = true;
        Wake();
    });
    ServeUntilDone(wake[0]);
    // Callers that connect from here on find no endpoint and see a stopped service; the new
    // process of a following start binds a fresh one once this process has let go of its lock.
    {
        MutexLock lock(dispatcher.mutex);
        if (dispatcher.listenFd >= 0) {
            ::close(dispatcher.listenFd);
            ::unlink(Scm::EndpointPath(name).c_str());
            dispatcher.listenFd = -1;
        }
    }
    // The service's thread may still be winding down after its report of SERVICE_STOPPED; the
    // dispatcher returns only after it, so that main never ends under that thread's feet.
    service.join();
    stopSignals.reset();
    // A deletion asked for while the service ran completes now, under this process's lock, so no
    // new start can slip in between.
    if (::access(Scm::DeleteMarkPath(name).c_str(), F_OK) == 0) {
        ::unlink(Scm::RecordPath(name).c_str());
        ::unlink(Scm::DeleteMarkPath(name).c_str());
    }
    {
        MutexLock lock(dispatcher.mutex);
        dispatcher.active = false;
        dispatcher.handler = nullptr;
        dispatcher.wakeWrite = -1;
    }
    ::close(wake[0]);
    ::close(wake[1]);
    output.end();
    ::close(lockFd);
    return true;
}

SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerExW(const std::u16string&,
                                                    LPHANDLER_FUNCTION_EX handler, void* context) {
    MutexLock lock(dispatcher.mutex);
    if (!dispatcher.active) {
        SetLastError(Err::kFailedServiceControllerConnect);
        return nullptr;
    }
    if (handler == nullptr || dispatcher.handler != nullptr) {
        SetLastError(Err::kInvalidParameter);
        return nullptr;
    }
    const std::string path = Scm::EndpointPath(dispatcher.name);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        SetLastError(Err::kFilenameExcedRange);
        return nullptr;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        SetLastErrorFromErrno(errno);
        return nullptr;
    }
    // This process holds the service's lock, so a socket already there was left by a process
    // that died; it is replaced.
    ::unlink(path.c_str());
    // bind() gives the file the umask's mode; it is narrowed before listen(), and nobody can
    // connect before that.
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::chmod(path.c_str(), 0600) != 0 || ::listen(fd, SOMAXCONN) != 0) {
        SetLastErrorFromErrno(errno, path.c_str());
        ::close(fd);
        return nullptr;
    }
    dispatcher.listenFd = fd;
    dispatcher.handler = handler;
    dispatcher.context = context;
    dispatcher.status = {};
    dispatcher.status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    dispatcher.status.dwCurrentState = SERVICE_START_PENDING;
    Wake();
    return &statusHandle;
}

bool SetServiceStatus(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS& status) {
    MutexLock lock(dispatcher.mutex);
    if (handle != &statusHandle || !dispatcher.active || dispatcher.handler == nullptr) {
        SetLastError(Err::kInvalidHandle);
        return false;
    }
    if (status.dwCurrentState < SERVICE_STOPPED || status.dwCurrentState > SERVICE_PAUSED) {
        SetLastError(Err::kInvalidParameter);
        return false;
    }
    dispatcher.status = status;
    if (status.dwCurrentState == SERVICE_STOPPED) {
        dispatcher.stopped = true;
        Wake();
    }
    return true;
}

}  // namespace Osb
