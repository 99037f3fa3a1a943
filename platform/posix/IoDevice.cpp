#include "platform/IoDevice.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>

#include "platform/IoNotify.h"
#include "platform/posix/IoContext.h"

namespace Osb {

using posix::DeviceState;
namespace asio = boost::asio;

namespace {

// Notifications never let an exception into the backend's threads.
template <typename Call>
void Notify(Call&& call) {
    try {
        call();
    } catch (...) {
    }
}

void DeliverCancelled(const std::shared_ptr<DeviceState>& state, SmartPointer<IoRequest> request) {
    asio::post(state->executor, [request = std::move(request)] {
        Notify([&] { request->notify()->cancelled(request); });
    });
}

bool PeerClosed(const boost::system::error_code& ec) {
    return ec == asio::error::eof || ec == asio::error::connection_reset ||
           ec == asio::error::broken_pipe;
}

void StartNextWrite(const std::shared_ptr<DeviceState>& state);

void OnWritten(const std::shared_ptr<DeviceState>& state, const boost::system::error_code& ec,
               size_t bytes) {
    SmartPointer<IoRequest> request;
    {
        Osb::MutexLock lock(state->mutex);
        request = std::move(state->writes.front());
        state->writes.pop_front();
        state->writing = false;
    }
    if (!ec) {
        Notify([&] { request->notify()->completed(request, static_cast<uint32_t>(bytes)); });
    } else if (ec == asio::error::operation_aborted) {
        Notify([&] { request->notify()->cancelled(request); });
    } else {
        ExSystem error(posix::ErrorFromAsio(ec), OSB_HERE);
        // Nothing queued behind a failed write can reach the peer: the connection ends here, and
        // the queued writes are cancelled with it.
        state->close();
        Notify([&] { request->notify()->failed(request, error); });
    }
    StartNextWrite(state);
}

// Starts the write at the front of the queue, if there is one. Writes go one at a time, each
// whole, so replies never interleave.
void StartNextWrite(const std::shared_ptr<DeviceState>& state) {
    Osb::UniqueMutexLock lock(state->mutex);
    if (state->writing || state->writes.empty()) return;
    state->writing = true;
    IoRequest* front = state->writes.front().get();
    if (state->closed) {
        lock.unlock();
        asio::post(state->executor,
                   [state] { OnWritten(state, asio::error::operation_aborted, 0); });
        return;
    }
    asio::async_write(state->socket, asio::buffer(front->buffer(), front->length()),
                      [state](const boost::system::error_code& ec, size_t bytes) {
                          OnWritten(state, ec, bytes);
                      });
}

}  // namespace

IoDevice::IoDevice(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {
    impl_->state->backend->add(impl_->state.get());
}

IoDevice::~IoDevice() {
    impl_->state->backend->remove(impl_->state.get());
    impl_->state->close();
}

void IoDevice::read(const SmartPointer<IoRequest>& request) {
    const std::shared_ptr<DeviceState>& state = impl_->state;
    Osb::UniqueMutexLock lock(state->mutex);
    if (state->closed) {
        lock.unlock();
        DeliverCancelled(state, request);
        return;
    }
    // The handler holds the device's state and the request until the read has ended.
    state->socket.async_read_some(
        asio::buffer(request->buffer(), request->size()),
        [state, request](const boost::system::error_code& ec, size_t bytes) {
            if (!ec) {
                Notify(
                    [&] { request->notify()->completed(request, static_cast<uint32_t>(bytes)); });
            } else if (PeerClosed(ec)) {
                Notify([&] { request->notify()->completed(request, 0); });
            } else if (ec == asio::error::operation_aborted) {
                Notify([&] { request->notify()->cancelled(request); });
            } else {
                ExSystem error(posix::ErrorFromAsio(ec), OSB_HERE);
                Notify([&] { request->notify()->failed(request, error); });
            }
        });
}

void IoDevice::write(const SmartPointer<IoRequest>& request) {
    const std::shared_ptr<DeviceState>& state = impl_->state;
    {
        Osb::MutexLock lock(state->mutex);
        state->writes.push_back(request);
    }
    StartNextWrite(state);
}

void IoDevice::close() { impl_->state->close(); }

const PeerIdentity& IoDevice::peer() const { return impl_->peer; }

}  // namespace Osb
