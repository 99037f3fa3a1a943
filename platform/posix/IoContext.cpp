#include "platform/posix/IoContext.h"

#include <boost/asio/error.hpp>

#include "platform/ErrorCode.h"

namespace Osb::posix {

DeviceState::DeviceState(std::shared_ptr<Backend> owner, Socket s)
    : backend(std::move(owner)), strand(asio::make_strand(backend->data())), socket(std::move(s)) {}

void DeviceState::close() {
    std::lock_guard<std::mutex> lock(mutex);
    if (closed) return;
    closed = true;
    boost::system::error_code ignored;
    // shutdown first: a peer blocked in a read sees the end at once, whatever holds the fd.
    socket.shutdown(Socket::shutdown_both, ignored);
    socket.close(ignored);
}

Backend::Backend(unsigned deliveryThreads)
    : deliveryThreads_(deliveryThreads == 0 ? 2 : deliveryThreads) {}

Backend::~Backend() = default;

void Backend::start() {
    dataWork_.emplace(data_.get_executor());
    acceptWork_.emplace(accept_.get_executor());
    for (unsigned i = 0; i < deliveryThreads_; ++i) threads_.emplace_back([this] { data_.run(); });
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
    acceptWork_.reset();
    dataWork_.reset();
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
