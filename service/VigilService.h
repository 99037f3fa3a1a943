// Vigil::Service: the one object of the host, with the state word of the whole service.
//
// main builds exactly one on its stack; the constructor publishes it in a process-wide pointer,
// through which the client receive path reaches waitWhilePaused. The destructor withdraws the
// pointer again (if it still names this object), so nothing can reach a destroyed service.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/CondVar.h"
#include "platform/Mutex.h"

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

class Service {
  public:
    explicit Service(std::u16string pipeName);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // The live service object, or null when there is none.
    static Service* instance() { return current_.load(std::memory_order_acquire); }

    // Clears the state word and the exit code, then sets the bit of `state`.
    void setState(ServiceState state, uint32_t exitCode) OSB_REQUIRES(mutex);

    // The pause and continue controls. Both log their event; neither touches the pipe or the
    // watch thread. A client's data is held in waitWhilePaused until the service goes on.
    void pause() OSB_EXCLUDES(mutex);
    void resume() OSB_EXCLUDES(mutex);

    // Blocks the caller while the service is paused.
    void waitWhilePaused() OSB_EXCLUDES(mutex);

    uint32_t stateWord() OSB_EXCLUDES(mutex);
    const std::u16string& pipeName() const { return pipeName_; }

    // Guards state and exitCode; condition is waited on with it. Taken by client delivery threads
    // in waitWhilePaused before any Client's mutex, and by the control handler.
    Osb::Mutex mutex;
    Osb::CondVar condition;  // woken when a paused service goes on

  private:
    static std::atomic<Service*> current_;

    uint32_t exitCode_ OSB_GUARDED_BY(mutex) = 0;
    uint32_t state_ OSB_GUARDED_BY(mutex) = 0;
    const std::u16string pipeName_;
};

}  // namespace Vigil
