#include "platform/posix/IoContext.h"

#include <boost/asio/error.hpp>

#include "platform/ErrorCode.h"

namespace Osb::posix {

DeviceState::DeviceState(std::shared_ptr<Backend> owner, Socket s)
    : backend(std::move(owner)), executor(s.get_executor()), socket(std::move(s)) {}

void DeviceState::close() {
    std::lock_guard<std::mutex> lock(mutex);
    if (closed) return;
    closed = true;
    boost::system::error_code ignored;
    // shutdown first: a peer blocked in a read sees the end at once, whatever holds the fd.
    socket.shutdown(Socket::shutdown_both, ignored);
    socket.close(ignored);
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
        std::lock_guard<std::mutex> lock(registryMutex_);
        for (ServerState* server : servers_) CloseServer(server);
        for (DeviceState* device : devices_) device->close();
    }
    // With every socket closed, the open I/O completes as cancelled and the threads run dry.
    for (WorkGuard& guard : work_) guard.reset();
    for (std::thread& t : threads_) t.join();
    threads_.clear();
}

void Backend::add(DeviceState* device) {
    std::lock_guard<std::mutex> lock(registryMutex_);
    devices_.insert(device);
}
void Backend::remove(DeviceState* device) {
    std::lock_guard<std::mutex> lock(registryMutex_);
    devices_.erase(device);
}
void Backend::add(ServerState* server) {
    std::lock_guard<std::mutex> lock(registryMutex_);
    servers_.insert(server);
}
void Backend::remove(ServerState* server) {
    std::lock_guard<std::mutex> lock(registryMutex_);
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
