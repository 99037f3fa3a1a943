#include "platform/IoDevicePipeServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "platform/ErrorCode.h"
#include "platform/IoDevice.h"
#include "platform/Mutex.h"
#include "platform/SystemRoot.h"
#include "platform/posix/IoContext.h"
#include "platform/posix/SocketPeer.h"

namespace Osb {

namespace posix {

// The listening side. Accept completions run on the backend's accept thread only. `mutex` guards
// the acceptor, the retry timer, `closed` and `waiting`; it is not held while accepted() runs.
//
// When the process is out of descriptors (or the kernel out of memory for one), accepting again
// at once would fail again at once: the server waits instead, on a timer that starts short and
// doubles up to kMaxBackoff, and the close of any connection ends the wait early. The connections
// that arrive meanwhile wait in the listen backlog.
class ServerState : public std::enable_shared_from_this<ServerState> {
  public:
    ServerState(std::shared_ptr<Backend> owner, SmartPointer<IoNotifyPipeAccept> notify,
                std::string path)
        : backend_(std::move(owner)),
          notify_(std::move(notify)),
          path_(std::move(path)),
          acceptor_(backend_->accepting()),
          retry_(backend_->accepting()) {}

    ~ServerState() { backend_->remove(this); }

    uint32_t listen();
    void acceptNext();
    void close();
    // Ends a wait for a descriptor at once; nothing when the server does not wait.
    void wake();

  private:
    static constexpr std::chrono::milliseconds kFirstBackoff{1};
    static constexpr std::chrono::milliseconds kMaxBackoff{100};

    void onAccepted(const boost::system::error_code& ec, Socket socket);
    void waitForDescriptor();
    void stopWaiting() OSB_REQUIRES(mutex_);

    std::shared_ptr<Backend> backend_;
    SmartPointer<IoNotifyPipeAccept> notify_;
    std::string path_;
    // Lock order: taken after the backend's registry lock (the backend closes and wakes servers
    // under it); the registry lock is never taken while this one is held.
    Mutex mutex_;
    asio::local::stream_protocol::acceptor acceptor_ OSB_GUARDED_BY(mutex_);
    asio::steady_timer retry_ OSB_GUARDED_BY(mutex_);
    bool closed_ OSB_GUARDED_BY(mutex_) = false;
    bool waiting_ OSB_GUARDED_BY(mutex_) = false;  // counted by backend_
    std::chrono::milliseconds backoff_ = kFirstBackoff;  // owned by the accept thread
    ino_t inode_ = 0;                                  // of our socket file, set by listen()
};

void CloseServer(ServerState* server) { server->close(); }
void WakeServer(ServerState* server) { server->wake(); }

namespace {

// True when something accepts connections at `path`.
bool SomeoneListens(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    bool answered = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return answered;
}

}  // namespace

uint32_t ServerState::listen() {
    struct stat st;
    if (::lstat(path_.c_str(), &st) == 0) {
        if (S_ISSOCK(st.st_mode) && SomeoneListens(path_)) {
            SetLastError(Err::kPipeBusy);
            return Err::kPipeBusy;
        }
        // A socket left by an instance that died: replace it.
        if (S_ISSOCK(st.st_mode)) ::unlink(path_.c_str());
    }
    boost::system::error_code ec;
    MutexLock lock(mutex_);
    acceptor_.open(asio::local::stream_protocol(), ec);
    if (!ec) acceptor_.bind(asio::local::stream_protocol::endpoint(path_), ec);
    if (ec == asio::error::address_in_use) {
        SetLastError(Err::kPipeBusy);
        return Err::kPipeBusy;
    }
    if (!ec) acceptor_.listen(1024, ec);
    if (ec) return ErrorFromAsio(ec);
    // Clients of every local user may connect, as to a named pipe of the machine.
    ::chmod(path_.c_str(), 0666);
    if (::lstat(path_.c_str(), &st) == 0) inode_ = st.st_ino;
    return Err::kSuccess;
}

void ServerState::acceptNext() {
    MutexLock lock(mutex_);
    if (closed_) return;
    acceptor_.async_accept(backend_->nextDelivery(),
                           [self = shared_from_this()](const boost::system::error_code& ec,
                                                       Socket socket) {
                               self->onAccepted(ec, std::move(socket));
                           });
}

void ServerState::onAccepted(const boost::system::error_code& ec, Socket socket) {
    if (ec == asio::error::operation_aborted) return;
    if (ec == asio::error::no_descriptors || ec == asio::error::no_buffer_space ||
        ec == asio::error::no_memory || ec.value() == ENFILE) {
        waitForDescriptor();
        return;
    }
    if (!ec) {
        backoff_ = kFirstBackoff;
        auto impl = std::make_unique<IoDevice::Impl>();
        impl->peer = SocketPeerIdentity(socket.native_handle());
        impl->state = std::make_shared<DeviceState>(backend_, std::move(socket));
        SmartPointer<IoDevice> device(new IoDevice(std::move(impl)));
        try {
            notify_->accepted(device);
        } catch (...) {
            // Refused (a full client table, say): the device goes with the last reference.
        }
    }
    // Any other failure concerns that one connection (it was aborted by its peer, say).
    acceptNext();
}

void ServerState::waitForDescriptor() {
    MutexLock lock(mutex_);
    if (closed_) return;
    waiting_ = true;
    backend_->acceptWaits(true);
    retry_.expires_after(backoff_);
    backoff_ = std::min(backoff_ * 2, kMaxBackoff);
    // Runs when the time is up, and also (as cancelled) when wake() or close() ends the wait.
    retry_.async_wait([self = shared_from_this()](const boost::system::error_code&) {
        {
            MutexLock relock(self->mutex_);
            self->stopWaiting();
        }
        self->acceptNext();
    });
}

void ServerState::stopWaiting() {
    if (!waiting_) return;
    waiting_ = false;
    backend_->acceptWaits(false);
}

void ServerState::wake() {
    MutexLock lock(mutex_);
    if (waiting_) retry_.cancel();
}

void ServerState::close() {
    MutexLock lock(mutex_);
    if (closed_) return;
    closed_ = true;
    stopWaiting();
    retry_.cancel();
    boost::system::error_code ignored;
    acceptor_.close(ignored);
    // Remove the socket file only while it is still ours: a later instance may have replaced it.
    struct stat st;
    if (inode_ != 0 && ::lstat(path_.c_str(), &st) == 0 && st.st_ino == inode_) {
        ::unlink(path_.c_str());
    }
}

}  // namespace posix

struct IoDevicePipeServer::Impl {
    std::shared_ptr<posix::ServerState> state;
};

SmartPointer<IoDevicePipeServer> IoDevicePipeServer::Create(
    const std::u16string& name, const SmartPointer<IoNotifyPipeAccept>& notify) {
    std::shared_ptr<posix::Backend> backend = posix::CurrentBackend();
    if (!backend) throw ExSystem(Err::kInvalidParameter, OSB_HERE);
    std::string path;
    if (uint32_t status = PipeSocketPath(name, path)) {
        SetLastError(status);
        throw ExSystem(status, OSB_HERE);
    }
    if (uint32_t status = CreateDirectories(path.substr(0, path.rfind('/')))) {
        throw ExSystem(status, OSB_HERE);
    }
    auto state = std::make_shared<posix::ServerState>(backend, notify, path);
    if (uint32_t status = state->listen()) throw ExSystem(status, OSB_HERE);
    backend->add(state.get());
    state->acceptNext();
    auto impl = std::make_unique<Impl>();
    impl->state = std::move(state);
    return SmartPointer<IoDevicePipeServer>(new IoDevicePipeServer(std::move(impl)));
}

IoDevicePipeServer::IoDevicePipeServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

IoDevicePipeServer::~IoDevicePipeServer() { impl_->state->close(); }

}  // namespace Osb
