#include "platform/Console.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <thread>

#include "platform/ErrorCode.h"

namespace Osb {

int AllocConsole() {
    const char* service = std::getenv("VIGIL_SERVICE");
    if (service != nullptr && *service != '\0') return 1;
    const char* notify = std::getenv("NOTIFY_SOCKET");  // started by systemd
    if (notify != nullptr && *notify != '\0') return 1;
    SetLastError(Err::kAccessDenied);  // what Windows says when a console is already attached
    return 0;
}

int FreeConsole() { return 1; }

namespace {

// The write end of the instance's pipe, for the signal handler. A signal handler may only make
// async-signal-safe calls, so it writes one byte naming the signal and the thread does the rest.
// Written before the handlers are installed and after they are removed, never while they run.
int signalPipeWrite = -1;

constexpr char kInterrupt = 'I';
constexpr char kTerminate = 'T';
constexpr char kQuit = 'Q';

extern "C" void OnStopSignal(int number) {
    const int saved = errno;
    const char byte = number == SIGINT ? kInterrupt : kTerminate;
    // A full pipe drops the byte: many signals pending already stop the service all the same.
    [[maybe_unused]] const ssize_t written = ::write(signalPipeWrite, &byte, 1);
    errno = saved;
}

}  // namespace

struct ConsoleStopHandler::State {
    int pipe[2] = {-1, -1};
    struct sigaction previousInt = {};
    struct sigaction previousTerm = {};
    std::thread thread;  // owned; reads the pipe until it reads kQuit
};

ConsoleStopHandler::ConsoleStopHandler(bool (*handler)(uint32_t ctrlType)) : state_(new State) {
    if (::pipe2(state_->pipe, O_CLOEXEC) != 0) std::abort();  // no descriptors left at start-up
    signalPipeWrite = state_->pipe[1];
    const int readEnd = state_->pipe[0];
    state_->thread = std::thread([readEnd, handler] {
        for (;;) {
            char byte = 0;
            const ssize_t got = ::read(readEnd, &byte, 1);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0 || byte == kQuit) return;
            handler(byte == kInterrupt ? CTRL_C_EVENT : CTRL_CLOSE_EVENT);
        }
    });
    struct sigaction action = {};
    action.sa_handler = OnStopSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, &state_->previousInt);
    ::sigaction(SIGTERM, &action, &state_->previousTerm);
}

ConsoleStopHandler::~ConsoleStopHandler() {
    ::sigaction(SIGINT, &state_->previousInt, nullptr);
    ::sigaction(SIGTERM, &state_->previousTerm, nullptr);
    const char quit = kQuit;
    while (::write(state_->pipe[1], &quit, 1) < 0 && errno == EINTR) {
    }
    state_->thread.join();
    signalPipeWrite = -1;
    ::close(state_->pipe[0]);
    ::close(state_->pipe[1]);
    delete state_;
}

}  // namespace Osb
