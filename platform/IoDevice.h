// Osb::IoDevice: one open connection with asynchronous reads and writes.
//
// read and write start the I/O and return at once; the request's notification hears the outcome
// (IoNotify.h). A read brings at most the request's size() bytes, whatever the sender's message
// boundaries. Writes go out whole, each one completely before the next, in call order. The device
// closes when its last reference goes, or at close(); its open I/O is then cancelled. Any thread
// may call any operation.
#pragma once

#include <memory>

#include "platform/IoRequest.h"
#include "platform/PeerIdentity.h"
#include "platform/SmartPointer.h"

namespace Osb {

class IoDevice : public SmartPointerBase {
public:
    struct Impl;  // the backend's state
    explicit IoDevice(std::unique_ptr<Impl> impl);
    ~IoDevice() override;

    void read(const SmartPointer<IoRequest>& request);
    void write(const SmartPointer<IoRequest>& request);
    // Closes the connection. Open and later I/O ends as cancelled.
    void close();
    // The user at the other end, read once when the connection was accepted; unknown (the least
    // privileged user, PeerIdentity.h) when it could not be read.
    const PeerIdentity& peer() const;

    Impl& impl() { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace Osb
