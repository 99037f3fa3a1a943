#include "platform/posix/IoContext.h"

#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>

#include "platform/IoNotify.h"

#include "platform/ErrorCode.h"

namespace Osb::posix {

DeviceState::DeviceState(std::shared_ptr<Backend> owner, Socket s)
    : backend(std::move(owner)), executor(s.get_executor()), socket(std::move(s)) {}

void DeviceState::close() {
    std::deque<SmartPointer<IoRequest>> unstarted;
    {
        Osb::MutexLock lock(mutex);
        if (closed) return;
        closed = true;
        boost::system::error_code ignored;
        // shutdown first: a peer blocked in a read sees the end at once, whatever holds the fd.
        socket.shutdown(Socket::shutdown_both, ignored);
        socket.close(ignored);
        // The front stays while it is being written: its completion (cancelled by the close) pops
        // it. Everything behind it would never go out.
        auto first = writes.begin() + (writing && !writes.empty() ? 1 : 0);
        unstarted.assign(std::make_move_iterator(first), std::make_move_iterator(writes.end()));
        writes.erase(first, writes.end());
    }
    if (!unstarted.empty()) {
        // The handler holds only the requests, never this state: a handler left in a stopped
        // io_context must not keep its owner alive.
        asio::post(executor, [unstarted = std::move(unstarted)] {
            for (const SmartPointer<IoRequest>& request : unstarted) {
                try {
                    request->notify()->cancelled(request);
                } catch (...) {
                }
            }
        });
    }
    backend->descriptorFreed();
}

Backend::Backend(unsigned deliveryThreads) {
    if (deliveryThreads == 0) deliveryThreads = 2;
    // Concurrency hint 1: one thread runs each context, which spares the scheduler its locking
    // around handler dispatch; posting from other threads stays safe.
    for (unsigned i = 0; i < deliveryThreads; ++i) {
        delivery_.push_back(std::make_unique<asio::io_context>(1));
    }
}

asio::io_context& Backend::nextDelivery() {
    return *delivery_[nextDelivery_.fetch_add(1, std::memory_order_relaxed) % delivery_.size()];
}

Backend::~Backend() = default;

void Backend::start() {
    for (auto& context : delivery_) {
        work_.push_back(asio::make_work_guard(*context));
        threads_.emplace_back([&c = *context] { c.run(); });
    }
    work_.push_back(asio::make_work_guard(accept_));
    threads_.emplace_back([this] { accept_.run(); });
}

void Backend::shutdown() {
    {
        // A registered object cannot be destroyed meanwhile: its destructor first unregisters,
        // which waits for this lock.
        Osb::MutexLock lock(registryMutex_);
        for (ServerState* server : servers_) CloseServer(server);
        for (DeviceState* device : devices_) device->close();
    }
    // With every socket closed, the open I/O completes as cancelled and the threads run dry.
    for (WorkGuard& guard : work_) guard.reset();
    for (std::thread& t : threads_) t.join();
    threads_.clear();
}

void Backend::descriptorFreed() {
    if (acceptWaiting_.load() == 0) return;
    asio::post(accept_, [weak = weak_from_this()] {
        std::shared_ptr<Backend> self = weak.lock();
        if (!self) return;
        Osb::MutexLock lock(self->registryMutex_);
        for (ServerState* server : self->servers_) WakeServer(server);
    });
}

void Backend::add(DeviceState* device) {
    Osb::MutexLock lock(registryMutex_);
    devices_.insert(device);
}
void Backend::remove(DeviceState* device) {
    Osb::MutexLock lock(registryMutex_);
    devices_.erase(device);
}
void Backend::add(ServerState* server) {
    Osb::MutexLock lock(registryMutex_);
    servers_.insert(server);
}
void Backend::remove(ServerState* server) {
    Osb::MutexLock lock(registryMutex_);
    servers_.erase(server);
}

uint32_t ErrorFromAsio(const boost::system::error_code& ec) {
    if (ec == asio::error::operation_aborted) return Err::kOperationAborted;
    if (ec == asio::error::eof) return Err::kBrokenPipe;
    if (ec.category() == boost::system::system_category()) return SetLastErrorFromErrno(ec.value());
    SetLastError(Err::kGenFailure);
    return Err::kGenFailure;
}

}  // namespace Osb::posix
