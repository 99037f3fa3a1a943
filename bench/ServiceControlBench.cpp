// Cost of the service manager's calls against baselines of the same run.
//
//   query/interrogate: QueryServiceStatus and ControlService(INTERROGATE) on a running service,
//     against a bare Unix socket exchange of the same shape (connect, 8 bytes out, 32 back, close)
//     with a server thread in this process.
//   start+stop: StartServiceW then a stop control and the wait for the process's end, against
//     fork, exec and wait of the same executable doing nothing.
// The driver installs itself as the service under a scratch system root; started by the manager
// (VIGIL_SERVICE set) it is that service.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include "platform/ErrorCode.h"
#include "platform/ServiceControl.h"
#include "platform/Utf.h"

namespace {

using Clock = std::chrono::steady_clock;

std::mutex mutex;
std::condition_variable stopped;
bool stopping = false;
Osb::SERVICE_STATUS_HANDLE statusHandle = nullptr;
Osb::SERVICE_STATUS status = {Osb::SERVICE_WIN32_OWN_PROCESS, Osb::SERVICE_RUNNING,
                              Osb::SERVICE_ACCEPT_STOP, 0, 0, 0, 0};

uint32_t Handler(uint32_t control, uint32_t, void*, void*) {
    std::lock_guard<std::mutex> lock(mutex);
    if (control == Osb::SERVICE_CONTROL_STOP) {
        stopping = true;
        stopped.notify_all();
    }
    return 0;
}

void ServiceMain(uint32_t, char16_t**) {
    statusHandle = Osb::RegisterServiceCtrlHandlerExW(u"bench", &Handler, nullptr);
    if (statusHandle == nullptr) return;
    std::unique_lock<std::mutex> lock(mutex);
    Osb::SetServiceStatus(statusHandle, status);
    stopped.wait(lock, [] { return stopping; });
    status.dwCurrentState = Osb::SERVICE_STOPPED;
    Osb::SetServiceStatus(statusHandle, status);
}

double Micros(Clock::duration d, int n) {
    return std::chrono::duration<double, std::micro>(d).count() / n;
}

// The baseline exchange: one connection per call, as the endpoint has.
double SocketBaseline(const std::string& path, int n) {
    const int server = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (bind(server, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(server, 16) != 0) {
        std::perror("baseline socket");
        std::exit(1);
    }
    std::thread serving([server, n] {
        for (int i = 0; i < n; ++i) {
            const int fd = accept(server, nullptr, nullptr);
            char request[8];
            char reply[32] = {};
            if (recv(fd, request, sizeof(request), MSG_WAITALL) == 8) send(fd, reply, 32, 0);
            close(fd);
        }
    });
    const auto begin = Clock::now();
    for (int i = 0; i < n; ++i) {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        char request[8] = {};
        char reply[32];
        send(fd, request, sizeof(request), 0);
        recv(fd, reply, sizeof(reply), MSG_WAITALL);
        close(fd);
    }
    const auto took = Clock::now() - begin;
    serving.join();
    close(server);
    return Micros(took, n);
}

double SpawnBaseline(const std::string& self, int n) {
    const auto begin = Clock::now();
    for (int i = 0; i < n; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            execl(self.c_str(), self.c_str(), "--noop", static_cast<char*>(nullptr));
            _exit(127);
        }
        int ignored = 0;
        waitpid(child, &ignored, 0);
    }
    return Micros(Clock::now() - begin, n);
}

void Check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "%s failed with %u\n", what, Osb::ErrorCode());
        std::exit(1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--noop") == 0) return 0;
    const Osb::SERVICE_TABLE_ENTRY table[] = {{u"bench", &ServiceMain}, {nullptr, nullptr}};
    if (std::getenv("VIGIL_SERVICE") != nullptr) return Osb::StartServiceCtrlDispatcherW(table) ? 0 : 1;

    char pattern[] = "/tmp/vglb.XXXXXX";
    const std::string root = mkdtemp(pattern);
    setenv("VIGIL_SYSTEM_ROOT", root.c_str(), 1);
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    const int calls = argc > 1 ? std::atoi(argv[1]) : 2000;
    const int cycles = 20;

    Osb::SC_HANDLE manager = Osb::OpenSCManagerW(nullptr, nullptr, Osb::SC_MANAGER_ALL_ACCESS);
    Check(manager != nullptr, "OpenSCManagerW");
    Osb::SC_HANDLE service = Osb::CreateServiceW(
        manager, u"Bench", nullptr, Osb::SERVICE_ALL_ACCESS, Osb::SERVICE_WIN32_OWN_PROCESS,
        Osb::SERVICE_DEMAND_START, 0, Osb::Utf8ToUtf16(self).c_str(), nullptr, nullptr, nullptr,
        nullptr, nullptr);
    Check(service != nullptr, "CreateServiceW");

    Check(Osb::StartServiceW(service, 0, nullptr), "StartServiceW");
    Osb::SERVICE_STATUS seen = {};
    do {
        Check(Osb::QueryServiceStatus(service, &seen), "query");
    } while (seen.dwCurrentState != Osb::SERVICE_RUNNING);
    auto begin = Clock::now();
    for (int i = 0; i < calls; ++i) Check(Osb::QueryServiceStatus(service, &seen), "query");
    const double query = Micros(Clock::now() - begin, calls);
    begin = Clock::now();
    for (int i = 0; i < calls; ++i) {
        Check(Osb::ControlService(service, Osb::SERVICE_CONTROL_INTERROGATE, &seen), "interrogate");
    }
    const double interrogate = Micros(Clock::now() - begin, calls);
    const double exchange = SocketBaseline(root + "/baseline.sock", calls);

    auto stopAndWait = [&] {
        // A start returns at registration; the stop is accepted once the service runs.
        do {
            Check(Osb::QueryServiceStatus(service, &seen), "query");
        } while (seen.dwCurrentState != Osb::SERVICE_RUNNING);
        Check(Osb::ControlService(service, Osb::SERVICE_CONTROL_STOP, &seen), "stop");
        do {
            Check(Osb::QueryServiceStatus(service, &seen), "query");
        } while (seen.dwCurrentState != Osb::SERVICE_STOPPED);
    };
    stopAndWait();
    begin = Clock::now();
    for (int i = 0; i < cycles; ++i) {
        // A start waits for the previous process's end, so each cycle is a whole life.
        Check(Osb::StartServiceW(service, 0, nullptr), "StartServiceW");
        stopAndWait();
    }
    const double cycle = Micros(Clock::now() - begin, cycles);
    const double spawn = SpawnBaseline(self, cycles);

    std::printf("query        %8.1f us  baseline exchange %8.1f us  ratio %.2f\n", query, exchange,
                query / exchange);
    std::printf("interrogate  %8.1f us  baseline exchange %8.1f us  ratio %.2f\n", interrogate,
                exchange, interrogate / exchange);
    std::printf("start+stop   %8.1f us  baseline spawn    %8.1f us  ratio %.2f\n", cycle, spawn,
                cycle / spawn);
    Check(Osb::DeleteService(service), "DeleteService");
    Osb::CloseServiceHandle(service);
    Osb::CloseServiceHandle(manager);
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    return 0;
}
