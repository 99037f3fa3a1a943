// The POSIX backend of the asynchronous I/O: a few delivery threads, each running an Asio
// io_context of its own, and one more io_context whose single thread does nothing but accept, so
// that accepting goes on while every delivery thread is held inside a notification.
//
// Each connection is pinned to one delivery thread (round robin at accept). All of its completions
// run there, so they come in order and one at a time without a strand, and a message never changes
// threads between the socket and its reply: a shared io_context run by several threads costs a
// thread handoff per message, about doubling a round trip.
//
// Lifetime: devices and servers hold the backend by shared_ptr, so the io_contexts outlive every
// socket made on them, also when a device is released after PlatformUninit (the client table is
// destroyed after main). PlatformUninit closes every registered device and server, lets the
// delivery threads run out of work (the closes complete open I/O as cancelled) and joins them.
#pragma once

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "platform/IoDevice.h"
#include "platform/IoRequest.h"
#include "platform/Mutex.h"

namespace Osb::posix {

namespace asio = boost::asio;
using Socket = asio::local::stream_protocol::socket;

class Backend;

// The state of one connection. `mutex` guards every use of the socket object and the write queue;
// it is never held while a notification runs. Completions run on the one thread of the socket's
// io_context.
//
// A connection always ends: a failed write closes it (the peer is gone or the socket is broken, and
// nothing queued behind it could be delivered), and a close cancels every queued write at once, so
// their buffers are freed without waiting for the socket.
struct DeviceState {
    DeviceState(std::shared_ptr<Backend> owner, Socket s);

    std::shared_ptr<Backend> backend;
    const asio::any_io_executor executor;  // the socket's delivery thread
    // Lock order: taken after the backend's registry lock (shutdown closes connections under it);
    // nothing else is taken while it is held.
    Osb::Mutex mutex;
    Socket socket OSB_GUARDED_BY(mutex);
    bool closed OSB_GUARDED_BY(mutex) = false;
    std::deque<SmartPointer<IoRequest>> writes OSB_GUARDED_BY(mutex);  // in call order
    bool writing OSB_GUARDED_BY(mutex) = false;  // the front is being written

    // Shuts the socket down and closes it, and cancels the queued writes that have not started
    // (the one being written ends as cancelled through the socket's close). Tells the backend that
    // a descriptor is free. Idempotent.
    void close();
};

class ServerState;

class Backend : public std::enable_shared_from_this<Backend> {
  public:
    explicit Backend(unsigned deliveryThreads);
    ~Backend();

    void start();
    // Closes every device and server, waits for the delivery and accept threads to run dry and
    // joins them.
    void shutdown();

    // The io_context of the next connection, round robin over the delivery threads.
    asio::io_context& nextDelivery();
    asio::io_context& accepting() { return accept_; }

    // A connection's descriptor was closed: a server that stopped accepting for want of
    // descriptors tries again at once. Cheap when no server waits. Any thread; no lock held.
    void descriptorFreed();
    // Counts the servers that wait for a descriptor (IoDevicePipeServer.cpp), so descriptorFreed
    // wakes the accept thread only when one does.
    void acceptWaits(bool waiting) { acceptWaiting_.fetch_add(waiting ? 1 : -1); }

    // Registration of live objects, so that shutdown can close them. Lock order: registryMutex_
    // before a DeviceState's mutex, and before a ServerState's mutex.
    void add(DeviceState* device);
    void remove(DeviceState* device);
    void add(ServerState* server);
    void remove(ServerState* server);

  private:
    using WorkGuard = asio::executor_work_guard<asio::io_context::executor_type>;
    std::vector<std::unique_ptr<asio::io_context>> delivery_;  // fixed at construction
    std::atomic<unsigned> nextDelivery_{0};
    std::atomic<int> acceptWaiting_{0};  // atomic: read by every closing connection's thread
    asio::io_context accept_{1};
    std::vector<WorkGuard> work_;       // owned by the threads calling start and shutdown
    std::vector<std::thread> threads_;  // owned and joined by the thread calling shutdown
    // Lock order: taken before a server's or a connection's own lock (shutdown closes them under
    // it, and a free descriptor wakes the servers under it); neither is held when it is taken.
    Osb::Mutex registryMutex_;
    std::set<DeviceState*> devices_ OSB_GUARDED_BY(registryMutex_);
    std::set<ServerState*> servers_ OSB_GUARDED_BY(registryMutex_);
};

// Closes a pipe server's listening socket (IoDevicePipeServer.cpp).
void CloseServer(ServerState* server);
// Ends a pipe server's wait for a free descriptor, if it waits (IoDevicePipeServer.cpp). Runs on
// the accept thread.
void WakeServer(ServerState* server);

// The backend in force between PlatformInit and PlatformUninit, or null.
std::shared_ptr<Backend> CurrentBackend();

// The Windows code of an Asio error.
uint32_t ErrorFromAsio(const boost::system::error_code& ec);

}  // namespace Osb::posix

namespace Osb {
struct IoDevice::Impl {
    std::shared_ptr<posix::DeviceState> state;
    PeerIdentity peer;  // set at accept, const afterwards
};
}  // namespace Osb
