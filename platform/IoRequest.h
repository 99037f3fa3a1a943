// Osb::IoRequest: the buffer of one read or one write, with the notification that hears how it
// ended. A request is made for one I/O and never reused; the platform keeps it alive until its I/O
// has ended and the notification has been called.
#pragma once

#include <cstdint>

#include "platform/SmartPointer.h"

namespace Osb {

class IoNotify;

class IoRequest : public SmartPointerBase {
public:
    // A request with a buffer of `size` bytes, not initialised. `priority` is accepted for the
    // call's shape and has no effect: one device's I/O runs in call order.
    static SmartPointer<IoRequest> Create(const SmartPointer<IoNotify>& notify, uint32_t size,
                                          int priority);

    uint8_t* buffer() { return data_; }
    const uint8_t* buffer() const { return data_; }
    uint32_t size() const { return size_; }

    // Bytes to write from the buffer's start; the whole buffer unless set. Clamped to size().
    void length(uint32_t bytes) { length_ = bytes < size_ ? bytes : size_; }
    uint32_t length() const { return length_; }

    const SmartPointer<IoNotify>& notify() const { return notify_; }

    // The buffer lives in the same allocation as the request.
    static void operator delete(void* p);

private:
    IoRequest(const SmartPointer<IoNotify>& notify, uint32_t size, uint8_t* data);

    SmartPointer<IoNotify> notify_;
    uint32_t size_;
    uint32_t length_;
    uint8_t* data_;
};

}  // namespace Osb
