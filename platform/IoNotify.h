// Notifications of asynchronous I/O.
//
// Each request gets exactly one call on its notification: completed, cancelled or failed. The calls
// of one device come in order and one at a time, on a delivery thread of the platform (never on the
// thread that started the I/O, and never with a platform lock held). A read on a connection whose
// peer has closed completes with 0 bytes. An exception that leaves a notification is dropped.
#pragma once

#include <cstdint>

#include "platform/Exception.h"
#include "platform/SmartPointer.h"

namespace Osb {

class IoRequest;
class IoDevice;

class IoNotify : public SmartPointerBase {
public:
    ~IoNotify() override = default;
    // The I/O moved `bytes` bytes (for a read: into the request's buffer).
    virtual void completed(const SmartPointer<IoRequest>& request, uint32_t bytes);
    // The I/O was ended by a close of its device before it could complete.
    virtual void cancelled(const SmartPointer<IoRequest>& request);
    // The I/O failed; `error` carries the Windows code.
    virtual void failed(const SmartPointer<IoRequest>& request, const ExSystem& error);
};

class IoNotifyServer : public IoNotify {};

// The notification of a pipe server: accepted() runs once for each new connection, on a thread
// that delivers nothing else, so that accepting goes on while client data is held up.
class IoNotifyPipeAccept : public IoNotifyServer {
public:
    virtual void accepted(const SmartPointer<IoDevice>& device) = 0;
};

}  // namespace Osb
