#include "platform/IoNotify.h"

#include "platform/IoRequest.h"

namespace Osb {

void IoNotify::completed(const SmartPointer<IoRequest>&, uint32_t) {}
void IoNotify::cancelled(const SmartPointer<IoRequest>&) {}
void IoNotify::failed(const SmartPointer<IoRequest>&, const ExSystem&) {}

}  // namespace Osb
