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
    startRead();

    Osb::MutexLock lock(mutex);
    ReceiveBytes(receive_, data, bytes, [this](const uint8_t* message, uint32_t available) {
        ClientSoftRef self(this);
        try {
            Dispatch(self, message, available);
        } catch (...) {
            // Only a failure while answering with an Error gets here (no memory, a failed
            // write). The message is consumed all the same and the connection goes on.
        }
    });
}

void Client::onClosed() {
    Osb::MutexLock lock(clientTableMutex);
    uint32_t slot = clientTable.indexOf(id);
    // The reader's soft reference keeps this object alive past the release of the strong one.
    clientTable.clear(slot);
    std::printf("- Client Disconnect : %d\n", static_cast<int>(id));
    std::fflush(stdout);
}

void Client::send(const Osb::SmartPointer<Osb::IoRequest>& request) {
    if (sendHook_) {
        sendHook_(request);
    } else if (device_) {
        device_->write(request);
    }
}

}  // namespace Vigil
