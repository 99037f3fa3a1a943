#include "service/VigilClient.h"

#include <cstdio>

#include "service/VigilClientIo.h"
#include "service/VigilClientTable.h"
#include "service/VigilDispatch.h"
#include "service/VigilService.h"

namespace Vigil {

Client::Client(const Osb::SmartPointer<Osb::IoDevice>& device, const Osb::PeerIdentity& user)
    : peer(user), device_(device) {}

Client::~Client() = default;

Osb::SmartPointer<Client> Client::create(const Osb::SmartPointer<Osb::IoDevice>& device) {
    return create(device, device ? device->peer() : Osb::ProcessIdentity());
}

Osb::SmartPointer<Client> Client::create(const Osb::SmartPointer<Osb::IoDevice>& device,
                                         const Osb::PeerIdentity& peer) {
    Osb::SmartPointer<Client> client(new Client(device, peer));
    Osb::MutexLock lock(clientTableMutex);
    client->id = clientTable.insert(client);
    return client;
}

void Client::startRead() {
    if (!device_) return;
    auto notify = Osb::MakeSmart<ClientRead>(ClientSoftRef(this));
    device_->read(Osb::IoRequest::Create(notify, Protocol::kReadBytes, 1));
}

void Client::onData(uint32_t bytes, const uint8_t* data) {
    // While the service is paused the bytes wait here, before the next read is opened, so a
    // paused service takes in nothing more from this client.
    if (Service* service = Service::instance()) service->waitWhilePaused();
    Osb::MutexLock lock(mutex);
    takeIn(data, bytes);
}

void Client::takeIn(const uint8_t* data, uint32_t bytes) {
    for (;;) {
        const uint32_t taken = ReceiveBytesWhile(
            receive_, data, bytes, [this] { return !overBound(); },
            [this](const uint8_t* message, uint32_t available) {
                ClientSoftRef self(this);
                try {
                    Dispatch(self, message, available);
                } catch (...) {
                    // Only a failure while answering with an Error gets here (no memory, a failed
                    // write). The message is consumed all the same and the connection goes on.
                }
            });
        data += taken;
        bytes -= taken;
        if (!overBound() && bytes == 0) {
            // The read opens after the replies are queued, so a client that has sent many
            // requests at once is weighed against the bound before more of them come in.
            startRead();
            return;
        }
        if (!overBound()) continue;  // the peer read while the last message was answered
        held_.assign(data, data + bytes);
        parked_.store(true);
        // A write completion on another thread may have brought the queue down before parked_
        // was set, and then seen nothing to resume: check once more, and claim the resumption.
        if (overBound() || !parked_.exchange(false)) return;
        std::vector<uint8_t> again;
        again.swap(held_);
        takeIn(again.data(), static_cast<uint32_t>(again.size()));
        return;
    }
}

void Client::onWritten(uint32_t bytes) {
    unsent_.fetch_sub(bytes);
    if (!parked_.load() || overBound()) return;
    if (!parked_.exchange(false)) return;  // another completion took it
    if (ended_.load()) return;
    if (Service* service = Service::instance()) service->waitWhilePaused();
    Osb::MutexLock lock(mutex);
    std::vector<uint8_t> held;
    held.swap(held_);
    takeIn(held.data(), static_cast<uint32_t>(held.size()));
}

void Client::onClosed() {
    ended_.store(true);
    {
        Osb::MutexLock lock(clientTableMutex);
        if (!left_) {
            left_ = true;
            // The reader's soft reference keeps this object alive past the release of the strong
            // one.
            clientTable.clear(clientTable.indexOf(id));
            CountClientLeft();
            std::printf("- Client Disconnect : %d\n", static_cast<int>(id));
            std::fflush(stdout);
        }
    }
    // Cancels the queued replies now, so their buffers go without waiting for the socket.
    if (device_) device_->close();
}

void Client::send(const Osb::SmartPointer<Osb::IoRequest>& request) {
    if (sendHook_) {
        sendHook_(request);
    } else if (device_) {
        unsent_.fetch_add(request->length());
        device_->write(request);
    }
}

}  // namespace Vigil
