// ClientRead and ClientWrite: the notifications of one read and one write of a Client. A new one is
// made for every single read and write, together with its request, and never reused. Each holds a
// soft reference to its Client while its I/O is open.
#pragma once

#include "platform/IoNotify.h"
#include "service/VigilClient.h"

namespace Vigil {

class ClientRead : public Osb::IoNotify {
  public:
    explicit ClientRead(const ClientSoftRef& client) : client_(client) {}
    ~ClientRead() override = default;

    // 0 bytes: the peer has closed; the client leaves the table and no read follows. Otherwise the
    // bytes go to Client::onData. Ignored once the soft reference is gone.
    void completed(const Osb::SmartPointer<Osb::IoRequest>& request, uint32_t bytes) override;
    void cancelled(const Osb::SmartPointer<Osb::IoRequest>& request) override;
    // Logs the failure and ends the connection (Client::onClosed).
    void failed(const Osb::SmartPointer<Osb::IoRequest>& request,
                const Osb::ExSystem& error) override;

  private:
    ClientSoftRef client_;  // touched only by the device's one-at-a-time notifications
};

class ClientWrite : public Osb::IoNotify {
  public:
    explicit ClientWrite(const ClientSoftRef& client) : client_(client) {}
    ~ClientWrite() override = default;

    // Each of the three ends the reply's count as unsent (Client::onWritten).
    void completed(const Osb::SmartPointer<Osb::IoRequest>& request, uint32_t bytes) override;
    void cancelled(const Osb::SmartPointer<Osb::IoRequest>& request) override;
    // Logs the failure and ends the connection (Client::onClosed): the platform has closed it.
    void failed(const Osb::SmartPointer<Osb::IoRequest>& request,
                const Osb::ExSystem& error) override;

  private:
    ClientSoftRef client_;
};

// The two events of a failed read or write: the system error, then the operating system's code.
void LogIoFailure(const Osb::ExSystem& error);

}  // namespace Vigil
