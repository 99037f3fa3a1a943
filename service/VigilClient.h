// Client: one connection on the pipe, and ClientSoftRef, the counted soft reference by which
// notifications and handlers hold it.
//
// Who holds what: the client table holds the one long-lived strong reference, from accept to
// close. Each open read or write holds a soft reference through its notification, and onData holds
// one for each message it dispatches, so a Client outlives its table entry while I/O on it is open.
//
// Threads: a Client has no thread of its own. onData runs on a platform delivery thread, one call
// at a time per connection; everything a message causes (dispatch, handler, reply write) runs
// inside that call.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/IoDevice.h"
#include "platform/IoRequest.h"
#include "platform/Mutex.h"
#include "platform/PeerIdentity.h"
#include "platform/SmartPointer.h"
#include "service/VigilReceive.h"
#include "service/VigilWatchTypes.h"

namespace Vigil {

class Client : public Osb::SmartPointerBaseTwo {
  public:
    // Makes a Client for an accepted connection and enters it in the client table; the result is a
    // strong reference beside the table's. Raises Osb::ExLookupTableFull when the table is full;
    // the Client and with it the device are then released. `device` may be null for a connection
    // that is driven by hand (onData) and whose replies go to a send hook.
    //
    // The client's user is the device's peer, or this process's own user for a null device; the
    // second form gives it explicitly.
    static Osb::SmartPointer<Client> create(const Osb::SmartPointer<Osb::IoDevice>& device);
    static Osb::SmartPointer<Client> create(const Osb::SmartPointer<Osb::IoDevice>& device,
                                            const Osb::PeerIdentity& peer);

    ~Client() override;
    void strongReleased() override {}

    // Issues the next read of up to 4096 bytes. One read is open per connection at a time.
    void startRead();
    // Takes in the bytes of one completed read: waits while the service is paused, opens the next
    // read, then cuts and dispatches every whole message under `mutex`.
    void onData(uint32_t bytes, const uint8_t* data);
    // The peer has closed: the table entry goes, the watch data of the GUID stay.
    void onClosed();
    // Hands a filled reply to the connection. Replies go out whole and in call order.
    void send(const Osb::SmartPointer<Osb::IoRequest>& request);

    // Replaces the connection as the receiver of replies, for driving a Client without a socket.
    void setSendHookForTesting(std::function<void(const Osb::SmartPointer<Osb::IoRequest>&)> hook) {
        sendHook_ = std::move(hook);
    }

    // Set once by create() before the connection's first read; read-only afterwards.
    uint32_t id = 0;

    // The user who connected, read from the connection at accept; it decides what the client may
    // see (VigilVisibility.h).
    const Osb::PeerIdentity peer;

    // Set by Hello and read by the handlers, only ever inside Dispatch, which runs under `mutex`
    // (handlers are called through a table, where the analysis cannot follow the lock). Before any
    // Hello they hold an all-zero GUID and version 0.0, so a request that guesses the id works on
    // that GUID with the short folder layout.
    Watch::Guid guid;
    uint32_t versionMajor = 0;
    uint32_t versionMinor = 0;

    // Held across the cutting of a read's data and every Dispatch it makes, so one client's
    // messages run one at a time and in order. Lock order: a Client's mutex, then the dispatch
    // tables' lock, then the watch database's lock. Never held together with clientTableMutex.
    Osb::Mutex mutex;

  private:
    Client(const Osb::SmartPointer<Osb::IoDevice>& device, const Osb::PeerIdentity& user);

    const Osb::SmartPointer<Osb::IoDevice> device_;
    ReceiveBuffer receive_ OSB_GUARDED_BY(mutex);
    std::function<void(const Osb::SmartPointer<Osb::IoRequest>&)> sendHook_;
};

// A soft reference to a Client: incSoftRef when made or copied, decSoftRef when released.
class ClientSoftRef {
  public:
    ClientSoftRef() = default;
    explicit ClientSoftRef(Client* client) : client_(client) {
        if (client_) client_->incSoftRef();
    }
    ClientSoftRef(const ClientSoftRef& other) : ClientSoftRef(other.client_) {}
    ClientSoftRef& operator=(const ClientSoftRef&) = delete;
    ~ClientSoftRef() { release(); }

    bool held() const { return client_ != nullptr; }
    Client* operator->() const { return client_; }
    Client& operator*() const { return *client_; }
    Client* get() const { return client_; }
    void release() {
        if (Client* client = client_) {
            client_ = nullptr;
            client->decSoftRef();
        }
    }

  private:
    Client* client_ = nullptr;
};

}  // namespace Vigil
