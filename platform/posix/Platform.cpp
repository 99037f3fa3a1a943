#include "platform/Platform.h"

#include <csignal>
#include <mutex>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/posix/IoContext.h"

namespace Osb {

namespace {

// Guards the backend pointer and the configuration. PlatformInit and PlatformUninit run on the
// main thread; I/O calls on any thread only read the pointer.
std::mutex platformMutex;
std::shared_ptr<posix::Backend> backend;
Config config;

}  // namespace

namespace posix {
std::shared_ptr<Backend> CurrentBackend() {
    std::lock_guard<std::mutex> lock(platformMutex);
    return backend;
}
}  // namespace posix

void PlatformInit(const Config& newConfig) {
    std::lock_guard<std::mutex> lock(platformMutex);
    if (backend) throw ExSystem(Err::kInvalidParameter, OSB_HERE);
    // A peer that goes away while a reply is written must fail that write, not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    config = newConfig;
    auto made = std::make_shared<posix::Backend>(config.ioThreads);
    made->start();
    backend = std::move(made);
}

void PlatformUninit() {
    std::shared_ptr<posix::Backend> ending;
    {
        std::lock_guard<std::mutex> lock(platformMutex);
        ending = std::move(backend);
    }
    // Shut down outside the lock: completions that run meanwhile may ask for the backend.
    if (ending) ending->shutdown();
}

Config CurrentConfig() {
    std::lock_guard<std::mutex> lock(platformMutex);
    return config;
}

}  // namespace Osb
