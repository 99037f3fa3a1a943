#include "platform/Platform.h"

#include <csignal>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/Mutex.h"
#include "platform/posix/IoContext.h"

namespace Osb {

namespace {

// Guards the backend pointer and the configuration. PlatformInit and PlatformUninit run on the
// main thread; I/O calls on any thread only read the pointer. Lock order: taken before any of the
// backend's own locks, since the backend starts under it; none is held when it is taken.
Mutex platformMutex;
std::shared_ptr<posix::Backend> backend OSB_GUARDED_BY(platformMutex);
Config config OSB_GUARDED_BY(platformMutex);

}  // namespace

namespace posix {
std::shared_ptr<Backend> CurrentBackend() {
    MutexLock lock(platformMutex);
    return backend;
}
}  // namespace posix

void PlatformInit(const Config& newConfig) {
    MutexLock lock(platformMutex);
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
        MutexLock lock(platformMutex);
        ending = std::move(backend);
    }
    // Shut down outside the lock: completions that run meanwhile may ask for the backend.
    if (ending) ending->shutdown();
}

Config CurrentConfig() {
    MutexLock lock(platformMutex);
    return config;
}

}  // namespace Osb
