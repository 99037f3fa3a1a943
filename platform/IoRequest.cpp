#include "platform/IoRequest.h"

#include <new>

#include "platform/IoNotify.h"

namespace Osb {

SmartPointer<IoRequest> IoRequest::Create(const SmartPointer<IoNotify>& notify, uint32_t size,
                                          int /*priority*/) {
    // One allocation holds the request and its buffer, so a read or a write costs two small
    // allocations in all (this and its notification).
    void* memory = ::operator new(sizeof(IoRequest) + size);
    auto* data = static_cast<uint8_t*>(memory) + sizeof(IoRequest);
    return SmartPointer<IoRequest>(new (memory) IoRequest(notify, size, data));
}

IoRequest::IoRequest(const SmartPointer<IoNotify>& notify, uint32_t size, uint8_t* data)
    : notify_(notify), size_(size), length_(size), data_(data) {}

void IoRequest::operator delete(void* p) { ::operator delete(p); }

}  // namespace Osb
