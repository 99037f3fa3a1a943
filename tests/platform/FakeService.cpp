// A service process for the service manager's tests, run by the manager with no arguments. Its
// behaviour comes from FAKE_SERVICE_MODE:
//   normal       registers, reports running (accepts stop, pause and continue), obeys controls
//   stop-only    as normal, but accepts only stop
//   early-exit   exits with 7 before it registers
//   hold-start   stays start-pending until ROOT/release exists
//   hold-exit    after reporting stopped, ends only once ROOT/release exists
//   hold-register  registers its handler only once ROOT/release exists
//   chatter      once running, two threads each write FAKE_SERVICE_LINES lines
//                "chatter T SEQ" padded to 100 bytes, one write() per line, then "chatter done"
// Without VIGIL_SERVICE (not started by the manager) it writes "console CODE" and exits with 3.
// Each event is one line on standard output, which the manager appends to the service's log:
// "register PID", "control N", "overlap" (two handler calls at once), "exit PID".
// Control 200 makes the handler return 1234; control 201 holds the handler until ROOT/release
// exists.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "platform/ErrorCode.h"
#include "platform/ServiceControl.h"
#include "platform/SystemRoot.h"

namespace {

std::string mode;
std::mutex mutex;
std::condition_variable stopRequested;
bool stopping = false;
Osb::SERVICE_STATUS_HANDLE handle = nullptr;
Osb::SERVICE_STATUS status = {};
std::atomic<int> inHandler{0};

void Say(const std::string& line) {
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
}

// Polls for ROOT/release, a minute at most: the test creates it when the step may go on.
void AwaitRelease() {
    const std::string path = Osb::SystemRoot() + "/release";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (access(path.c_str(), F_OK) != 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// REQUIRES: `mutex` held.
void Report(uint32_t state) {
    status.dwCurrentState = state;
    Osb::SetServiceStatus(handle, status);
}

uint32_t Handler(uint32_t control, uint32_t, void*, void*) {
    if (inHandler.fetch_add(1) != 0) Say("overlap");
    Say("control " + std::to_string(control));
    uint32_t result = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        switch (control) {
            case Osb::SERVICE_CONTROL_STOP:
                stopping = true;
                status.dwCheckPoint = 1;
                Report(Osb::SERVICE_STOP_PENDING);
                stopRequested.notify_all();
                break;
            case Osb::SERVICE_CONTROL_PAUSE:
                Report(Osb::SERVICE_PAUSED);
                break;
            case Osb::SERVICE_CONTROL_CONTINUE:
                Report(Osb::SERVICE_RUNNING);
                break;
            case Osb::SERVICE_CONTROL_INTERROGATE:
                ++status.dwCheckPoint;  // visible proof that the handler ran
                Report(status.dwCurrentState);
                break;
            case 200:
                result = 1234;
                break;
            case 201:
                AwaitRelease();
                break;
            default:
                result = Osb::Err::kCallNotImplemented;
        }
    }
    inHandler.fetch_sub(1);
    return result;
}

void Chatter() {
    const char* given = std::getenv("FAKE_SERVICE_LINES");
    const long lines = given != nullptr ? std::atol(given) : 0;
    auto writeLines = [lines](int thread) {
        for (long n = 0; n < lines; ++n) {
            std::string line = "chatter " + std::to_string(thread) + " " + std::to_string(n) + " ";
            line.resize(99, 'x');
            line += '\n';
            if (write(1, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return;
        }
    };
    std::thread other(writeLines, 1);
    writeLines(0);
    other.join();
    Say("chatter done");
}

void ServiceMain(uint32_t, char16_t**) {
    if (mode == "hold-register") AwaitRelease();
    handle = Osb::RegisterServiceCtrlHandlerExW(u"fake", &Handler, nullptr);
    if (handle == nullptr) {
        Say("register failed " + std::to_string(Osb::ErrorCode()));
        return;
    }
    Say("register " + std::to_string(getpid()));
    if (mode == "hold-start") AwaitRelease();
    std::unique_lock<std::mutex> lock(mutex);
    status.dwServiceType = Osb::SERVICE_WIN32_OWN_PROCESS;
    status.dwControlsAccepted = mode == "stop-only"
                                    ? Osb::SERVICE_ACCEPT_STOP
                                    : Osb::SERVICE_ACCEPT_STOP | Osb::SERVICE_ACCEPT_PAUSE_CONTINUE;
    Report(Osb::SERVICE_RUNNING);
    if (mode == "chatter") {
        lock.unlock();
        Chatter();
        lock.lock();
    }
    stopRequested.wait(lock, [] { return stopping; });
    status.dwCheckPoint = 0;
    Report(Osb::SERVICE_STOPPED);
    lock.unlock();
    if (mode == "hold-exit") AwaitRelease();
}

}  // namespace

int main() {
    const char* given = std::getenv("FAKE_SERVICE_MODE");
    mode = given != nullptr ? given : "normal";
    if (mode == "early-exit") return 7;
    const Osb::SERVICE_TABLE_ENTRY table[] = {{u"fake", &ServiceMain}, {nullptr, nullptr}};
    if (!Osb::StartServiceCtrlDispatcherW(table)) {
        Say("console " + std::to_string(Osb::ErrorCode()));
        return 3;
    }
    Say("exit " + std::to_string(getpid()));
    return 0;
}
