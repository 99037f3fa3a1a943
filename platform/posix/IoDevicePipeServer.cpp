#include "platform/IoDevicePipeServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/asio/local/stream_protocol.hpp>
#include <cerrno>
#include <cstring>

#include "platform/ErrorCode.h"
#include "platform/IoDevice.h"
#include "platform/SystemRoot.h"
#include "platform/posix/IoContext.h"
#include "platform/posix/SocketPeer.h"

namespace Osb {

namespace posix {

// The listening side. Accept completions run on the backend's accept thread only. `mutex` guards
// the acceptor and `closed`; it is not held while accepted() runs.
class ServerState : public std::enable_shared_from_this<ServerState> {
  public:
    ServerState(std::shared_ptr<Backend> owner, SmartPointer<IoNotifyPipeAccept> notify,
                std::string path)
        : backend_(std::move(owner)),
          notify_(std::move(notify)),
          path_(std::move(path)),
          acceptor_(backend_->accepting()) {}

    ~ServerState() { backend_->remove(this); }

    uint32_t listen();
    void acceptNext();
    void close();

  private:
    std::shared_ptr<Backend> backend_;
    SmartPointer<IoNotifyPipeAccept> notify_;
    std::string path_;
    std::mutex mutex_;
    asio::local::stream_protocol::acceptor acceptor_;  // guarded by mutex_
    bool closed_ = false;                              // guarded by mutex_
    ino_t inode_ = 0;                                  // of our socket file, set by listen()
};

void CloseServer(ServerState* server) { server->close(); }

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
    std::lock_guard<std::mutex> lock(mutex_);
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
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return;
    auto self = shared_from_this();
    acceptor_.async_accept(
        backend_->nextDelivery(), [self](const boost::system::error_code& ec, Socket socket) {
            if (ec == asio::error::operation_aborted) return;
            if (!ec) {
                auto impl = std::make_unique<IoDevice::Impl>();
                impl->peer = SocketPeerIdentity(socket.native_handle());
                impl->state = std::make_shared<DeviceState>(self->backend_, std::move(socket));
                SmartPointer<IoDevice> device(new IoDevice(std::move(impl)));
                try {
                    self->notify_->accepted(device);
                } catch (...) {
                    // Refused (a full client table, say): the device goes with the last reference.
                }
            }
            // On a failed accept (out of descriptors, say) the server goes on with the next one.
            self->acceptNext();
        });
}

void ServerState::close() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return;
    closed_ = true;
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
