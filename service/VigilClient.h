// Client: one connection on the pipe, and ClientSoftRef, the counted soft reference by which
// notifications and handlers hold it.
//
// Who holds what: the client table holds the one long-lived strong reference, from accept to
// close. Each open read or write holds a soft reference through its notification, and onData holds
// one for each message it dispatches, so a Client outlives its table entry while I/O on it is open.
//
// Threads: a Client has no thread of its own. onData and the write completions run on the
// connection's platform delivery thread, one call at a time; everything a message causes
// (dispatch, handler, reply write) runs inside that call.
//
// A connection always ends: the end of the peer, a failed read or the first failed write closes
// the device (its queued replies are cancelled and freed) and takes the client out of the table.
//
// Back-pressure: replies handed to the connection and not yet written count as unsent. While they
// pass kMaxUnsentReplyBytes no further message is dispatched and no read is open; the bytes
// already read wait in the Client, and taking in goes on, in order, once the peer has read enough.
// A reply is always queued whole, whatever its size, so a client that never reads costs at most
// the bound plus one reply.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

#include "platform/IoDevice.h"
#include "platform/IoRequest.h"
#include "platform/Mutex.h"
#include "platform/PeerIdentity.h"
#include "platform/SmartPointer.h"
#include "service/VigilClientTable.h"
#include "service/VigilReceive.h"
#include "service/VigilWatchTypes.h"

namespace Vigil {

// Unsent reply bytes above which a client is not read from (see the head of this file).
constexpr uint64_t kMaxUnsentReplyBytes = 256 * 1024;

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
    // Takes in the bytes of one completed read: waits while the service is paused, then cuts and
    // dispatches every whole message under `mutex`, and opens the next read unless the unsent
    // replies pass the bound (then the rest waits for onWritten).
    void onData(uint32_t bytes, const uint8_t* data);
    // The connection has ended (the peer closed, or a read or write failed): the table entry goes
    // and the disconnect is traced, once however often this is called, and the device is closed.
    // The watch data of the GUID stay.
    void onClosed();
    // Hands a filled reply to the connection. Replies go out whole and in call order.
    void send(const Osb::SmartPointer<Osb::IoRequest>& request);
    // A reply of `bytes` handed to the connection has ended (written, failed or cancelled). Takes
    // in what waits once the unsent replies are back within the bound. Delivery thread only.
    void onWritten(uint32_t bytes);
    // Reply bytes handed to the connection and not yet written.
    uint64_t unsentBytes() const { return unsent_.load(); }

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

    // Dispatches what `data` completes while within the bound, then opens the next read, or
    // keeps the rest in held_ and parks.
    void takeIn(const uint8_t* data, uint32_t bytes) OSB_REQUIRES(mutex);
    bool overBound() const { return unsentBytes() > kMaxUnsentReplyBytes; }

    const Osb::SmartPointer<Osb::IoDevice> device_;
    ReceiveBuffer receive_ OSB_GUARDED_BY(mutex);
    // Bytes of the last read not yet taken in; filled only while parked_.
    std::vector<uint8_t> held_ OSB_GUARDED_BY(mutex);
    // Atomic: raised by the device's sends and lowered by its write completions; read by both.
    // With parked_ it forms a handshake (a store to one, then a load of the other, on each side),
    // so both stay sequentially consistent.
    std::atomic<uint64_t> unsent_{0};
    // Atomic: set under `mutex` when taking in stops at the bound, claimed (exchanged to false) by
    // whoever takes in again, so exactly one does.
    std::atomic<bool> parked_{false};
    // Atomic: set once by onClosed; a parked client that has ended takes nothing in.
    std::atomic<bool> ended_{false};
    bool left_ OSB_GUARDED_BY(clientTableMutex) = false;  // the table entry is gone, traced
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
